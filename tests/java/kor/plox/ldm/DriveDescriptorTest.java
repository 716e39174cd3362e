package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The descriptor bridges against real files: results, errno values and what stays untouched. */
class DriveDescriptorTest {
    static final int ENOENT = 2, EBADF = 9, EFAULT = 14, EISDIR = 21, EINVAL = 22, EILSEQ = 0x8000054;

    @TempDir Path dir;
    final int[] err = {-7}, done = {-7};
    int fd = -1;

    @AfterEach
    void close() {
        if (fd >= 0) NativeLDM.m_native_unix_close(new int[1], fd);
    }

    /** -1 with the given mapped errno; the error array is reset to its "untouched" marker. */
    void fails(int errno, int result) {
        assertEquals(-1, result);
        assertEquals(errno, err[0]);
        err[0] = -7;
    }

    int open(Path p, int flags) {
        int[] out = {-1};
        assertEquals(0, NativeLDM.m_native_unix_open(err, out, p.toString(), flags, -1));
        return fd = out[0];
    }

    @Test
    void openTranslatesFlagsAndOnlyCreatCreates() throws IOException {
        Path f = Files.writeString(dir.resolve("f"), "old contents");
        int[] out = {-5};
        fails(ENOENT, NativeLDM.m_native_unix_open(err, out, dir + "/missing", 2, 0644));
        assertEquals(-5, out[0]);
        open(f, 0x201); // write-only, truncating; mode -1 is the two-argument open
        assertEquals(0, Files.size(f));
        fails(EBADF, NativeLDM.m_native_unix_read(err, fd, new byte[1], 1, done));
        assertEquals(0, NativeLDM.m_native_unix_creat(err, out, dir + "/new", 0640));
        NativeLDM.m_native_unix_close(err, out[0]);
        assertEquals("rw-r-----", java.nio.file.attribute.PosixFilePermissions.toString(
                Files.getPosixFilePermissions(dir.resolve("new"))));
        assertArrayEquals(new int[] {-7}, err, "error array written on success");
    }

    @Test
    void readWriteSeekAndTruncate() throws IOException {
        Path f = Files.writeString(dir.resolve("f"), "0123456789");
        open(f, 2);
        byte[] buf = new byte[6];
        assertEquals(0, NativeLDM.m_native_unix_read(err, fd, buf, 4, done));
        assertEquals(4, done[0]);
        assertEquals("0123\0\0", new String(buf));
        assertEquals(0, NativeLDM.m_native_unix_pread(err, fd, buf, 3, 7, done));
        assertEquals("789", new String(buf, 0, done[0]));
        assertEquals(0, NativeLDM.m_native_unix_pwrite(err, fd, "ABCDEFGHIJ".getBytes(), 5, 3, 1, done));
        assertEquals(0, NativeLDM.m_native_unix_write(err, fd, "xy".getBytes(), 2, done));
        assertEquals("0FGHxy6789", Files.readString(f), "pread/pwrite leave the offset at 4");
        long[] pos = {-1};
        assertEquals(0, NativeLDM.m_native_unix_lseek(err, fd, 0, 2, pos));
        assertEquals(10, pos[0]);
        assertEquals(0, NativeLDM.m_native_unix_read(err, fd, buf, 6, done));
        assertEquals(0, done[0], "end of file");
        fails(EINVAL, NativeLDM.m_native_unix_lseek(err, fd, 0, 9, pos));
        assertEquals(10, pos[0], "result array written on failure");
        assertEquals(0, NativeLDM.m_native_unix_ftruncate(err, fd, 2));
        assertEquals("0F", Files.readString(f));
        assertArrayEquals(new int[] {-7}, err);
    }

    @Test
    void failedOrRefusedTransfersLeaveEverythingAlone() throws IOException {
        open(dir, 0); // a directory opens, then every read fails after the elements were taken
        byte[] buf = {1, 2, 3, 4};
        fails(EISDIR, NativeLDM.m_native_unix_read(err, fd, buf, 4, done));
        fails(EISDIR, NativeLDM.m_native_unix_pread(err, fd, buf, 4, 0, done));
        assertArrayEquals(new byte[] {1, 2, 3, 4}, buf);
        NativeLDM.m_native_unix_close(err, fd);

        Path f = Files.writeString(dir.resolve("f"), "xyz");
        open(f, 2);
        fails(EFAULT, NativeLDM.m_native_unix_read(err, fd, buf, 5, done));
        fails(EFAULT, NativeLDM.m_native_unix_write(err, fd, buf, -1, done));
        fails(EFAULT, NativeLDM.m_native_unix_pwrite(err, fd, buf, 2, 3, 0, done));
        fails(EFAULT, NativeLDM.m_native_unix_pwrite(err, fd, buf, -1, 1, 0, done));
        fails(EFAULT, NativeLDM.m_native_unix_pwrite(err, fd, buf, 1, Integer.MAX_VALUE, 0, done));
        assertEquals(-7, done[0]);
        assertEquals("xyz", Files.readString(f));
        assertEquals(0, NativeLDM.m_native_unix_pwrite(err, fd, buf, 3, 1, 0, done), "last element is inside");
        assertEquals("\4yz", Files.readString(f));
    }

    @Test
    void closedDescriptorsGiveEbadf() {
        int bad = open(dir, 0);
        NativeLDM.m_native_unix_close(err, bad);
        fd = -1;
        int[] i = new int[10];
        long[][] l = new long[11][1];
        fails(EBADF, NativeLDM.m_native_unix_close(err, bad));
        fails(EBADF, NativeLDM.m_native_unix_write(err, bad, new byte[1], 1, done));
        fails(EBADF, NativeLDM.m_native_unix_pwrite(err, bad, new byte[1], 0, 1, 0, done));
        fails(EBADF, NativeLDM.m_native_unix_ftruncate(err, bad, 0));
        fails(EBADF, NativeLDM.m_native_unix_fstat(err, bad, i, i, i, i, i, i, i, i, l[0], l[1], l[2], i, i));
        fails(EBADF, NativeLDM.m_native_unix_fstatvfs(err, bad, l[0], l[1], l[2], l[3], l[4], l[5], l[6], l[7],
                l[8], l[9], l[10]));
        assertArrayEquals(new int[10], i, "stat arrays written on failure");
    }

    @Test
    void fstatOfASparse5GiBFileGivesTheLow32BitsOfItsSize() throws IOException {
        Path f = Files.createFile(dir.resolve("sparse"));
        open(f, 2);
        assertEquals(0, NativeLDM.m_native_unix_ftruncate(err, fd, 5L << 30));
        int[] ino = {0}, mode = {0}, nlink = {0}, size = {0}, x = {0}, blocks = {-1};
        long[] mtime = {0}, y = {0};
        assertEquals(0, NativeLDM.m_native_unix_fstat(err, fd, x, ino, mode, nlink, x, x, x, size, y, mtime, y, x,
                blocks));
        assertEquals(0x40000000, size[0]);
        assertEquals(0100000, mode[0] & 0170000);
        assertEquals(1, nlink[0]);
        assertEquals((int) (long) (Long) Files.getAttribute(f, "unix:ino"), ino[0]);
        assertEquals(Files.getLastModifiedTime(f).toMillis() / 1000, mtime[0]);
        assertTrue(blocks[0] >= 0 && blocks[0] < 1024, "sparse: " + blocks[0]);
    }

    @Test
    void unencodablePathsNeverReachTheSystem() throws IOException {
        // A lone surrogate has no multibyte form in glibc's UTF-8 or C locale. The prefix before
        // it names an existing file, which a cut-short conversion could truncate.
        Path f = Files.writeString(dir.resolve("victim"), "keep");
        int[] out = {-5};
        fails(EILSEQ, NativeLDM.m_native_unix_open(err, out, f + "\uD800", 0x201, -1));
        fails(EILSEQ, NativeLDM.m_native_unix_creat(err, out, f + "\uD800", 0600));
        assertEquals(-5, out[0]);
        assertEquals("keep", Files.readString(f));
    }
}
