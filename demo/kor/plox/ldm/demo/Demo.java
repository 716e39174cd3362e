package kor.plox.ldm.demo;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;

import kor.plox.ldm.NativeLDM;

/** Uses the library from a real JVM the way the redirection client does, and says what happened. */
public final class Demo {
    private Demo() {
    }

    public static void main(String[] args) throws Exception {
        Path dir = Files.createTempDirectory("korjnidr-demo");
        try {
            System.out.println("== drive redirection in " + dir);
            files(dir);
            System.out.println();
            System.out.println("== change notification on " + dir);
            changes(dir);
        } finally {
            for (String name : dir.toFile().list()) {
                Files.deleteIfExists(dir.resolve(name));
            }
            Files.deleteIfExists(dir);
        }
    }

    private static void check(boolean ok, String what, int[] err) {
        if (!ok) {
            throw new IllegalStateException(what + " failed, errno " + err[0]);
        }
    }

    static void changes(Path dir) throws InterruptedException {
        long watcher = NativeLDM.FSInit(0, 1);
        try {
            long wd = NativeLDM.FSAddWatch(watcher, dir.toString(), 0, 0x001, 42);
            System.out.printf("watching for file name changes with tag 42 (watch descriptor %d)%n", wd);
            Thread maker = new Thread(() -> {
                try {
                    Thread.sleep(100);
                    Files.writeString(dir.resolve("made-by-another-thread.txt"), "x");
                } catch (Exception e) {
                    throw new IllegalStateException(e);
                }
            });
            maker.start();
            int[] tag = {0};
            int r = NativeLDM.FSReadChanges(watcher, tag);
            maker.join();
            System.out.printf("FSReadChanges returned %d with tag %d after another thread created a file%n", r, tag[0]);
            Thread waker = new Thread(() -> NativeLDM.FSRemoveWatch(watcher, null, -1, true));
            waker.start();
            r = NativeLDM.FSReadChanges(watcher, tag);
            waker.join();
            System.out.printf("FSReadChanges returned %d when another thread asked it to stop%n", r);
        } finally {
            NativeLDM.FSInit(watcher, 2);
        }
    }

    static void files(Path dir) {
        int[] err = {0};
        int[] fd = {-1};
        int[] done = {0};
        String path = dir.resolve("hello.txt").toString();
        byte[] text = "hello from korjnidr\n".getBytes(StandardCharsets.UTF_8);

        check(NativeLDM.m_native_unix_creat(err, fd, path, 0644) == 0, "creat", err);
        check(NativeLDM.m_native_unix_write(err, fd[0], text, text.length, done) == 0, "write", err);
        System.out.printf("created %s and wrote %d bytes%n", path, done[0]);
        check(NativeLDM.m_native_unix_close(err, fd[0]) == 0, "close", err);

        check(NativeLDM.m_native_unix_open(err, fd, path, 0, -1) == 0, "open", err);
        byte[] back = new byte[64];
        check(NativeLDM.m_native_unix_read(err, fd[0], back, back.length, done) == 0, "read", err);
        System.out.printf("read back %d bytes: %s", done[0], new String(back, 0, done[0], StandardCharsets.UTF_8));

        int[][] ints = new int[10][1];
        long[][] longs = new long[3][1];
        check(NativeLDM.m_native_unix_fstat(err, fd[0], ints[0], ints[1], ints[2], ints[3], ints[4], ints[5], ints[6],
                ints[7], longs[0], longs[1], longs[2], ints[8], ints[9]) == 0, "fstat", err);
        System.out.printf("fstat: size %d, mode %o, inode %d%n", ints[7][0], ints[2][0] & 07777, ints[1][0]);
        check(NativeLDM.m_native_unix_close(err, fd[0]) == 0, "close", err);

        int[] attributes = {0};
        long[] created = {0}, accessed = {0}, written = {0};
        if (NativeLDM.NativeGetFileAttrib(path, attributes, created, accessed, written)) {
            System.out.printf("Windows view: attributes 0x%x, last write %d (100 ns since 1601)%n",
                    attributes[0], written[0]);
        }
        String[] names = NativeLDM.NativeListFiles(dir + "/*");
        Arrays.sort(names);
        System.out.println("listing: " + String.join(", ", names));
        int[] failed = {0};
        int r = NativeLDM.m_native_unix_open(failed, fd, dir.resolve("missing").toString(), 0, -1);
        System.out.printf("opening a missing file: %d, errno %d (ENOENT)%n", r, failed[0]);
    }
}
