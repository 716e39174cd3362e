package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.*;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import com.sun.nio.file.ExtendedOpenOption;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.*;
import java.util.*;
import java.util.function.IntSupplier;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The descriptor, path and directory stream bridges against real files: results, errno values and what stays untouched. */
class DriveDescriptorTest {
    static final int ENOENT = 2, EBADF = 9, EFAULT = 14, EISDIR = 21, EINVAL = 22, EILSEQ = 0x8000054;

    @TempDir Path dir;
    final int[] err = {-7}, done = {-7};
    final int[][] s = new int[13][1]; // stat fields by position: 1 ino, 2 mode, 7 size, 12 blocks
    final long[][] l = new long[13][1]; // 9 mtime, 11 blksize of stat; statvfs fills 0 (bsize) to 10 (namemax)
    int fd = -1; // left open: the JVM ends with the class

    /** Each call gives -1 with the given mapped errno; the error array is reset to its "untouched" marker. */
    void fail(int errno, IntSupplier... calls) {
        for (IntSupplier call : calls) {
            assertEquals(-1, call.getAsInt());
            assertEquals(errno, err[0]);
            err[0] = -7;
        }
    }

    int open(Path p, int flags) {
        int[] out = {-1};
        assertEquals(0, NativeLDM.m_native_unix_open(err, out, p.toString(), flags, -1));
        return fd = out[0];
    }

    int stat(String path) {
        return NativeLDM.m_native_unix_stat(err, path, s[0], s[1], s[2], s[3], s[4], s[5], s[6], s[7], l[8], l[9],
                l[10], l[11], l[12]);
    }

    /** Sizes on each side of 1 MiB (pinned or the thread's scratch, then a block of the call's own); reads ask past the end. */
    @Test
    void transfersMoveOnlyTheBytesOfTheCall() throws IOException {
        for (int size : new int[] {100, (1 << 20) + 1}) {
            byte[] data = new byte[size], got = new byte[size + 9];
            new Random(size).nextBytes(data);
            byte[] written = Arrays.copyOfRange(data, 3, size);
            Path f = Files.createFile(dir.resolve("f" + size));
            open(f, 2);
            assertEquals(0, NativeLDM.m_native_unix_pwrite(err, fd, data, 3, size - 3, 0, done));
            assertArrayEquals(written, Files.readAllBytes(f));
            for (int skip = 1; skip >= 0; skip--) { // pread at 1, then read from the offset pread left at 0
                Arrays.fill(got, (byte) 0x5A);
                assertEquals(0, skip == 1 ? NativeLDM.m_native_unix_pread(err, fd, got, size + 9, skip, done)
                        : NativeLDM.m_native_unix_read(err, fd, got, size + 9, done));
                assertEquals(size - 3 - skip, done[0]);
                assertArrayEquals(Arrays.copyOfRange(written, skip, written.length), Arrays.copyOf(got, done[0]));
                for (int i = done[0]; i < got.length; i++) assertEquals(0x5A, got[i], "past done at " + i);
            }
            assertEquals(0, NativeLDM.m_native_unix_write(err, fd, data, 2, done), "at the offset read moved");
            assertEquals(size - 1, Files.size(f));
        }
        fail(EINVAL, () -> NativeLDM.m_native_unix_pread(err, fd, new byte[1], 1, -1, done)); // not the own offset
    }

    /** The cached half is read without waiting, the rest as usual (a direct write drops the pages it covers). */
    @Test
    void aReadHalfInThePageCacheStillReadsAll() throws IOException {
        byte[] data = new byte[128 << 10], got = new byte[(128 << 10) + 1];
        new Random(2).nextBytes(data);
        Path f = Files.write(dir.resolve("f"), data);
        try (FileChannel direct = FileChannel.open(f, StandardOpenOption.WRITE, ExtendedOpenOption.DIRECT)) {
            direct.write(ByteBuffer.allocateDirect(128 << 10).alignedSlice(64 << 10).put(data, 64 << 10, 64 << 10)
                    .flip(), 64 << 10);
        } catch (IOException | UnsupportedOperationException e) {
            assumeTrue(false, "no direct writes on this file system: " + e);
        }
        got[data.length] = 0x5A;
        assertEquals(0, NativeLDM.m_native_unix_pread(err, open(f, 0), got, got.length, 0, done));
        assertEquals(data.length, done[0]);
        assertArrayEquals(data, Arrays.copyOf(got, data.length));
        assertEquals(0x5A, got[data.length]);
    }

    @Test
    void failedOrRefusedCallsLeaveEverythingAlone() throws IOException {
        open(Files.writeString(dir.resolve("f"), "0123456789"), 2);
        long[] pos = {-1};
        assertEquals(0, NativeLDM.m_native_unix_lseek(err, fd, 0, 2, pos));
        assertEquals(10, pos[0], "the end of the file");
        byte[] buf = {1, 2, 3, 4};
        fail(EFAULT, () -> NativeLDM.m_native_unix_read(err, fd, buf, 5, done),
                () -> NativeLDM.m_native_unix_write(err, fd, null, 0, done));
        fail(EFAULT, () -> NativeLDM.m_native_unix_pwrite(err, fd, buf, 2, 3, 0, done)); // bounds: functions.cases
        assertEquals(0, NativeLDM.m_native_unix_ftruncate(err, fd, 2));
        assertEquals(0, NativeLDM.m_native_unix_pwrite(err, fd, buf, 3, 1, 1, done), "last element is inside");
        assertEquals("0\u0004", Files.readString(dir.resolve("f")), "truncated to 2, then element 3 written at 1");
        open(dir, 0); // a directory opens, then every read fails
        fail(EISDIR, () -> NativeLDM.m_native_unix_read(err, fd, buf, 4, done),
                () -> NativeLDM.m_native_unix_pread(err, fd, buf, 4, 0, done));
        assertArrayEquals(new byte[] {1, 2, 3, 4}, buf);
        assertEquals(1, done[0], "done written only on success");
    }

    @Test
    void fstatOfASparse5GiBFileGivesTheLow32BitsThenEbadfOnceClosed() throws IOException {
        Path f = Files.createFile(dir.resolve("sparse"));
        assertEquals(0, NativeLDM.m_native_unix_ftruncate(err, open(f, 2), 5L << 30));
        IntSupplier fstat = () -> NativeLDM.m_native_unix_fstat(err, fd, s[0], s[1], s[2], s[3], s[4], s[5], s[6],
                s[7], l[8], l[9], l[10], s[11], s[12]);
        assertEquals(0, fstat.getAsInt());
        assertEquals(0x40000000, s[7][0]);
        assertEquals(0100000, s[2][0] & 0170000);
        assertEquals((int) (long) (Long) Files.getAttribute(f, "unix:ino"), s[1][0]);
        assertEquals(Files.getLastModifiedTime(f).toMillis() / 1000, l[9][0]);
        assertTrue(s[12][0] >= 0 && s[12][0] < 1024, "blocks, and sparse: " + s[12][0]);
        assertEquals(0, NativeLDM.m_native_unix_close(err, fd));
        fd = Integer.MAX_VALUE; // never a descriptor, unlike the closed number that another thread may reuse
        for (int[] field : s) field[0] = -3;
        fail(EBADF, fstat, () -> NativeLDM.m_native_unix_write(err, fd, new byte[1], 1, done),
                () -> NativeLDM.m_native_unix_pwrite(err, fd, new byte[1], 0, 1, 0, done));
        for (int[] field : s) assertEquals(-3, field[0], "stat arrays written on failure");
    }

    @Test
    void pathCallsAndDirectoryStreams() throws IOException {
        int[] out = {-5};
        open(Files.writeString(dir.resolve("f"), "old contents"), 0x201); // write-only, truncating
        assertEquals(0, Files.size(dir.resolve("f")));
        assertEquals(0, NativeLDM.m_native_unix_creat(err, out, dir + "/g", 0640));
        assertEquals(0100640, Files.getAttribute(dir.resolve("g"), "unix:mode"));
        assertEquals(0, NativeLDM.m_native_unix_system(err, "printf second >" + dir + "/g; exit 3"), "any status");
        assertEquals(0, NativeLDM.m_native_unix_rename(err, dir + "/g", dir + "/f"));
        assertEquals(0, NativeLDM.m_native_unix_chmod(err, dir + "/f", 0604));
        assertEquals(0, stat(dir + "/f"));
        assertEquals(0100604, s[2][0]);
        assertEquals(6, s[7][0], "the size of what was renamed");
        assertTrue(l[11][0] > 0, "blksize in a long[]");
        assertEquals(0, NativeLDM.m_native_unix_mkdir(err, dir + "/d", 0750));
        assertEquals(0, NativeLDM.m_native_unix_remove(err, dir + "/d"), "remove takes an empty directory too");
        assertEquals(-7, err[0], "error array written on success");
        long[] handle = {0};
        assertEquals(0, NativeLDM.m_native_unix_opendir(err, handle, dir.toString()));
        List<String> first = readAll(handle[0]);
        long ino = (Long) Files.getAttribute(dir.resolve("f"), "unix:ino");
        assertEquals(List.of(".", "..", "f " + (int) ino),
                first.stream().map(n -> n.startsWith(".") ? n.split(" ")[0] : n).sorted().toList());
        assertEquals(0, err[0], "the end leaves errno 0 in err[0]");
        assertEquals(0, NativeLDM.m_native_unix_rewinddir(handle[0]));
        assertEquals(first, readAll(handle[0]));
        assertEquals(0, NativeLDM.m_native_unix_closedir(err, handle[0]));
        assertEquals(0, NativeLDM.m_native_unix_remove(err, dir + "/f"));
        Path link = Files.createSymbolicLink(dir.resolve("link"), dir.resolve("f"));
        l[11][0] = 99;
        fail(ENOENT, () -> stat(link.toString()));
        assertEquals(99, l[11][0], "stat follows the dangling link and writes nothing");
        assertEquals(0, NativeLDM.m_native_unix_statvfs(err, dir.toString(), l[0], l[1], l[2], l[3], l[4], l[5], l[6],
                l[7], l[8], l[9], l[10]));
        assertTrue(l[0][0] >= 512 && Long.bitCount(l[0][0]) == 1, "bsize first: " + l[0][0]);
        assertTrue(l[10][0] >= 14 && l[10][0] <= 4096, "namemax last: " + l[10][0]);
    }

    /** "name inode" of each entry up to the end, which must be 1. */
    List<String> readAll(long handle) {
        List<String> names = new ArrayList<>();
        int[] ino = {0};
        Object[] name = {null};
        int r;
        while ((r = NativeLDM.m_native_unix_readdir(err, handle, ino, name)) == 0) names.add(name[0] + " " + ino[0]);
        assertEquals(1, r);
        return names;
    }

    @Test
    void unencodablePathsNeverReachTheSystem() throws IOException {
        // A lone surrogate has no multibyte form in glibc's UTF-8 or C locale. The prefix before it
        // names a real entry, which a cut-short conversion would hit. One row per way of using the gate.
        Path f = Files.writeString(dir.resolve("victim"), "keep");
        String bad = f + "\uD800";
        int[] out = {-5};
        long[] handle = {3};
        fail(EILSEQ, () -> NativeLDM.m_native_unix_open(err, out, bad, 0x201, -1),
                () -> NativeLDM.m_native_unix_creat(err, out, bad, 0600), () -> stat(bad),
                () -> NativeLDM.m_native_unix_unlink(err, bad), () -> NativeLDM.m_native_unix_remove(err, bad),
                () -> NativeLDM.m_native_unix_rename(err, bad, dir + "/moved"),
                () -> NativeLDM.m_native_unix_rename(err, dir + "/moved", bad),
                () -> NativeLDM.m_native_unix_system(err, "rm '" + f + "' #\uD800"),
                () -> NativeLDM.m_native_unix_opendir(err, handle, bad));
        assertEquals(-5, out[0]);
        assertEquals(3, handle[0]);
        assertEquals("keep", Files.readString(f));
    }
}
