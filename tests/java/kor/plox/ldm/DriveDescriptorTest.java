package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The descriptor bridges against real files: results, errno values and what stays untouched. */
class DriveDescriptorTest {
    static final int ENOENT = 2, EBADF = 9, EFAULT = 14, EEXIST = 17;
    static final int EILSEQ_MAPPED = 0x8000054;

    @TempDir Path dir;
    final int[] err = {-7};
    int openFd = -1;

    @AfterEach
    void closeLeftover() {
        if (openFd >= 0) NativeLDM.m_native_unix_close(new int[1], openFd);
    }

    int open(Path p, int flags, int mode) {
        int[] fd = {-1};
        assertEquals(0, NativeLDM.m_native_unix_open(err, fd, p.toString(), flags, mode), "open " + p);
        openFd = fd[0];
        return fd[0];
    }

    void assertFails(int errno, int result) {
        assertEquals(-1, result);
        assertEquals(errno, err[0]);
        err[0] = -7;
    }

    @Test
    void openTranslatesFlagsAndNeverCreates() throws IOException {
        Path f = Files.writeString(dir.resolve("f"), "old contents");
        int[] fd = {-5};
        assertFails(ENOENT, NativeLDM.m_native_unix_open(err, fd, dir.resolve("missing").toString(), 2, 0644));
        assertEquals(-5, fd[0], "fd written on failure");
        assertTrue(Files.notExists(dir.resolve("missing")));

        // 0x201: write-only and truncate. Mode -1 is the two-argument open.
        int w = open(f, 0x201, -1);
        assertEquals(0, Files.size(f));
        byte[] data = "abc".getBytes(StandardCharsets.US_ASCII);
        int[] done = {0};
        assertEquals(0, NativeLDM.m_native_unix_write(err, w, data, 3, done));
        assertEquals(3, done[0]);
        // Write-only: reading is refused by the system.
        assertFails(EBADF, NativeLDM.m_native_unix_read(err, w, new byte[4], 4, done));
        assertEquals(0, NativeLDM.m_native_unix_close(err, w));
        openFd = -1;
        assertEquals("abc", Files.readString(f));
        assertArrayEquals(new int[] {-7}, err, "error array written on success");

        // 0x400 is O_EXCL, which without O_CREAT changes nothing on Linux; 0x80 sync and 0x4
        // non-blocking open a regular file as usual.
        open(f, 0x4 | 0x80 | 0x400 | 2, 0600);
        assertEquals("abc", Files.readString(f));
    }

    @Test
    void creatMakesAndTruncates() throws IOException {
        Path f = dir.resolve("new");
        int[] fd = {-1};
        assertEquals(0, NativeLDM.m_native_unix_creat(err, fd, f.toString(), 0640));
        openFd = fd[0];
        assertTrue(Files.exists(f));
        assertEquals("rw-r-----", java.nio.file.attribute.PosixFilePermissions.toString(
                Files.getPosixFilePermissions(f)));
        assertFails(ENOENT, NativeLDM.m_native_unix_creat(err, fd, dir.resolve("no/such").toString(), 0640));
    }

    @Test
    void readWriteAndTheirPositionedForms() throws IOException {
        Path f = Files.write(dir.resolve("f"), "0123456789".getBytes(StandardCharsets.US_ASCII));
        int fd = open(f, 2, -1);
        int[] done = {-1};

        byte[] buf = new byte[8];
        assertEquals(0, NativeLDM.m_native_unix_read(err, fd, buf, 4, done));
        assertEquals(4, done[0]);
        assertArrayEquals("0123\0\0\0\0".getBytes(StandardCharsets.US_ASCII), buf);

        // pread neither depends on nor moves the offset.
        assertEquals(0, NativeLDM.m_native_unix_pread(err, fd, buf, 3, 7, done));
        assertEquals(3, done[0]);
        assertEquals("789", new String(buf, 0, 3, StandardCharsets.US_ASCII));
        assertEquals(0, NativeLDM.m_native_unix_read(err, fd, buf, 2, done));
        assertEquals("45", new String(buf, 0, 2, StandardCharsets.US_ASCII));

        // pwrite takes bytes start..start+count-1 of the array.
        byte[] src = "ABCDEFGHIJ".getBytes(StandardCharsets.US_ASCII);
        assertEquals(0, NativeLDM.m_native_unix_pwrite(err, fd, src, 5, 3, 1, done));
        assertEquals(3, done[0]);
        assertEquals("0FGH456789", Files.readString(f));

        long[] pos = {-1};
        assertEquals(0, NativeLDM.m_native_unix_lseek(err, fd, 0, 2, pos));
        assertEquals(10, pos[0]);
        assertEquals(0, NativeLDM.m_native_unix_read(err, fd, buf, 8, done));
        assertEquals(0, done[0], "end of file");
        assertEquals(0, NativeLDM.m_native_unix_pread(err, fd, buf, 8, 100, done));
        assertEquals(0, done[0]);

        assertEquals(0, NativeLDM.m_native_unix_lseek(err, fd, -3, 1, pos));
        assertEquals(7, pos[0]);
        assertFails(22, NativeLDM.m_native_unix_lseek(err, fd, 0, 9, pos));
        assertEquals(7, pos[0], "position written on failure");

        assertEquals(0, NativeLDM.m_native_unix_ftruncate(err, fd, 2));
        assertEquals("0F", Files.readString(f));
        assertFails(22, NativeLDM.m_native_unix_ftruncate(err, fd, -1));
        assertArrayEquals(new int[] {-7}, err);
    }

    @Test
    void failedReadLeavesTheArrayAlone() throws IOException {
        // A directory opens read-only and fails every read with EISDIR after the elements are taken.
        int fd = open(dir, 0, -1);
        byte[] buf = {1, 2, 3, 4};
        int[] done = {42};
        assertFails(21, NativeLDM.m_native_unix_read(err, fd, buf, 4, done));
        assertFails(21, NativeLDM.m_native_unix_pread(err, fd, buf, 4, 0, done));
        assertArrayEquals(new byte[] {1, 2, 3, 4}, buf);
        assertEquals(42, done[0]);
    }

    @Test
    void rangesOutsideTheArrayAreRefusedBeforeTheCall() throws IOException {
        Path f = Files.writeString(dir.resolve("f"), "xyz");
        int fd = open(f, 2, -1);
        byte[] buf = new byte[4];
        int[] done = {42};
        assertFails(EFAULT, NativeLDM.m_native_unix_read(err, fd, buf, 5, done));
        assertFails(EFAULT, NativeLDM.m_native_unix_read(err, fd, buf, -1, done));
        assertFails(EFAULT, NativeLDM.m_native_unix_pread(err, fd, buf, 5, 0, done));
        assertFails(EFAULT, NativeLDM.m_native_unix_write(err, fd, buf, 5, done));
        assertFails(EFAULT, NativeLDM.m_native_unix_pwrite(err, fd, buf, 2, 3, 0, done));
        assertFails(EFAULT, NativeLDM.m_native_unix_pwrite(err, fd, buf, -1, 1, 0, done));
        assertFails(EFAULT, NativeLDM.m_native_unix_pwrite(err, fd, buf, 1, Integer.MAX_VALUE, 0, done));
        assertFails(EFAULT, NativeLDM.m_native_unix_pwrite(err, fd, buf, 5, 0, 0, done));
        assertEquals(42, done[0]);
        // No call was made: the offset has not moved and the file is as it was.
        long[] pos = {-1};
        assertEquals(0, NativeLDM.m_native_unix_lseek(err, fd, 0, 1, pos));
        assertEquals(0, pos[0]);
        assertEquals("xyz", Files.readString(f));
        // The last byte of the array and an empty range at its end are inside.
        assertEquals(0, NativeLDM.m_native_unix_pwrite(err, fd, "abcd".getBytes(StandardCharsets.US_ASCII), 3, 1, 0,
                done));
        assertEquals(0, NativeLDM.m_native_unix_pwrite(err, fd, buf, 4, 0, 0, done));
        assertEquals("dyz", Files.readString(f));
    }

    @Test
    void closedDescriptorsGiveEbadfEverywhere() {
        int[] fd = {-1};
        assertEquals(0, NativeLDM.m_native_unix_creat(err, fd, dir.resolve("f").toString(), 0600));
        assertEquals(0, NativeLDM.m_native_unix_close(err, fd[0]));
        int bad = fd[0];
        byte[] buf = new byte[4];
        int[] i1 = {0};
        long[] l1 = {0};
        assertFails(EBADF, NativeLDM.m_native_unix_close(err, bad));
        assertFails(EBADF, NativeLDM.m_native_unix_read(err, bad, buf, 4, i1));
        assertFails(EBADF, NativeLDM.m_native_unix_write(err, bad, buf, 4, i1));
        assertFails(EBADF, NativeLDM.m_native_unix_pread(err, bad, buf, 4, 0, i1));
        assertFails(EBADF, NativeLDM.m_native_unix_pwrite(err, bad, buf, 0, 4, 0, i1));
        assertFails(EBADF, NativeLDM.m_native_unix_lseek(err, bad, 0, 0, l1));
        assertFails(EBADF, NativeLDM.m_native_unix_ftruncate(err, bad, 0));
        int[][] s = new int[10][1];
        long[][] t = new long[11][1];
        t[0][0] = 77;
        assertFails(EBADF, NativeLDM.m_native_unix_fstat(err, bad, s[0], s[1], s[2], s[3], s[4], s[5], s[6], s[7],
                t[0], t[1], t[2], s[8], s[9]));
        assertFails(EBADF, NativeLDM.m_native_unix_fstatvfs(err, -1, t[0], t[1], t[2], t[3], t[4], t[5], t[6],
                t[7], t[8], t[9], t[10]));
        assertEquals(77, t[0][0], "result arrays written on failure");
    }

    @Test
    void fstatDeliversLow32BitsOfALargeSparseFile() throws IOException {
        Path f = dir.resolve("sparse");
        int[] fd = {-1};
        assertEquals(0, NativeLDM.m_native_unix_creat(err, fd, f.toString(), 0604));
        openFd = fd[0];
        assertEquals(0, NativeLDM.m_native_unix_ftruncate(err, fd[0], 5L << 30));
        int[] dev = {0}, ino = {0}, mode = {0}, nlink = {0}, uid = {0}, gid = {0}, rdev = {0}, size = {0};
        long[] atime = {0}, mtime = {0}, ctime = {0};
        int[] blksize = {0}, blocks = {-1};
        assertEquals(0, NativeLDM.m_native_unix_fstat(err, fd[0], dev, ino, mode, nlink, uid, gid, rdev, size,
                atime, mtime, ctime, blksize, blocks));
        assertEquals(0x40000000, size[0]);
        assertEquals(0100604, mode[0]);
        assertEquals(1, nlink[0]);
        assertEquals((int) (long) (Long) Files.getAttribute(f, "unix:ino"), ino[0]);
        assertEquals((int) Files.getAttribute(f, "unix:uid"), uid[0]);
        assertEquals(((java.nio.file.attribute.FileTime) Files.getAttribute(f, "unix:lastModifiedTime")).toMillis()
                / 1000, mtime[0]);
        assertTrue(blksize[0] > 0);
        assertTrue(blocks[0] >= 0 && blocks[0] < 1024, "a sparse file holds almost no blocks: " + blocks[0]);

        long[][] v = new long[11][1];
        assertEquals(0, NativeLDM.m_native_unix_fstatvfs(err, fd[0], v[0], v[1], v[2], v[3], v[4], v[5], v[6],
                v[7], v[8], v[9], v[10]));
        assertTrue(v[0][0] >= 512 && Long.bitCount(v[0][0]) == 1, "bsize " + v[0][0]);
        assertTrue(v[10][0] >= 14 && v[10][0] <= 4096, "namemax " + v[10][0]);
        assertTrue(v[3][0] <= v[2][0] && v[4][0] <= v[3][0], "bavail <= bfree <= blocks");
        assertArrayEquals(new int[] {-7}, err);
    }

    @Test
    void unencodablePathsNeverReachTheSystem() throws IOException {
        // A lone surrogate has no multibyte form in any glibc locale (UTF-8 or C). The prefix
        // before it names an existing file, which a cut-short conversion would hit.
        Path f = Files.writeString(dir.resolve("victim"), "keep");
        String bad = f + "\uD800";
        int[] fd = {-5};
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_open(err, fd, bad, 0x201, -1));
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_creat(err, fd, bad, 0600));
        assertEquals(-5, fd[0]);
        assertEquals("keep", Files.readString(f));
    }
}
