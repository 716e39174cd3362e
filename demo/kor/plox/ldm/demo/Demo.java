package kor.plox.ldm.demo;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;

import kor.plox.ldm.NativeLDM;
import kor.plox.ldm.tool.Rdpesc;

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
            System.out.println();
            System.out.println("== smart card session through PC/SC");
            smartCard();
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

    static final String READER = "Virtual PCD 00 00";
    static final NativeLDM LDM = new NativeLDM();

    static Rdpesc.Reply call(int owner, String what, int code, byte[] request) {
        byte[] reply = LDM.m_native_scard_process(null, owner, code, request, request.length);
        Rdpesc.Reply r = Rdpesc.reply(reply);
        System.out.printf("%-22s -> %3d reply bytes, result 0x%08X%n", what, reply.length, r.result());
        return r;
    }

    static void smartCard() {
        int[] err = {0};
        int[] status = {0};
        int[] id = {0};
        if (!NativeLDM.m_native_scard_create(err, status, id)) {
            System.out.println("PC/SC library not available (errno " + err[0] + ")");
            return;
        }
        int owner = id[0];
        System.out.println("owner id " + owner);
        try {
            Rdpesc.Reply r = call(owner, "EstablishContext", Rdpesc.ESTABLISH_CONTEXT, Rdpesc.call().u32(2).build());
            r.u32();
            r.u32();
            int context = le32(r.array());
            System.out.println("  context wire handle " + context);

            r = call(owner, "ListReadersA", Rdpesc.LIST_READERS_A,
                    Rdpesc.call().u32(4, 1, 0, 0, 0, -1).handle(context).build());
            r.u32();
            r.u32();
            String readers = new String(r.array(), StandardCharsets.ISO_8859_1);
            System.out.println("  readers: " + Arrays.toString(readers.split("\0")));
            if (!readers.contains(READER)) {
                System.out.println("  (no virtual card reader here: start one with tests/realstack/with_pcscd.sh)");
                return;
            }

            r = call(owner, "ConnectA (T=1)", Rdpesc.CONNECT_A,
                    Rdpesc.call().u32(1, 4, 1, 2, 2).stringA(READER).handle(context).build());
            r.u32();
            r.u32();
            r.u32();
            r.u32();
            int protocol = r.u32();
            int card = le32(r.array());
            System.out.printf("  card wire handle %d, protocol %d%n", card, protocol);

            byte[] apdu = {0x00, (byte) 0xA4, 0x04, 0x00, 0x00};
            r = call(owner, "Transmit 00A4040000", Rdpesc.TRANSMIT,
                    Rdpesc.call().u32(4, 1, 4, 1, protocol, 0, 0, apdu.length, 1, 0, 0, 258)
                            .handle(context).handle(card).bytes(apdu).build());
            r.u32();
            int n = r.u32();
            r.u32();
            System.out.println("  card answered " + (n > 0 ? Rdpesc.hex(r.array()) : "nothing"));

            call(owner, "Disconnect (leave)", 0x000900B8,
                    Rdpesc.call().u32(4, 1, 4, 1, 0).handle(context).handle(card).build());
            call(owner, "ReleaseContext", Rdpesc.RELEASE_CONTEXT, Rdpesc.call().u32(4, 1).handle(context).build());
        } finally {
            NativeLDM.m_native_scard_close(err, owner);
            System.out.println("owner " + owner + " closed");
        }
    }

    /** A wire handle: the first four bytes of a handle array, little-endian. */
    static int le32(byte[] b) {
        return b.length < 4 ? -1 : (b[0] & 0xFF) | (b[1] & 0xFF) << 8 | (b[2] & 0xFF) << 16 | (b[3] & 0xFF) << 24;
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
