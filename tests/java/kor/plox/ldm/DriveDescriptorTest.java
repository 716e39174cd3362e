package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.*;

import java.io.IOException;
import java.nio.file.*;
import java.util.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The descriptor, path and directory stream bridges against real files: results, errno values and what stays untouched. */
class DriveDescriptorTest {
    static final int ENOENT = 2, EBADF = 9, EFAULT = 14, EEXIST = 17, EISDIR = 21, EINVAL = 22, EILSEQ = 0x8000054;

    @TempDir Path dir;
    final int[] err = {-7}, done = {-7};
    final int[][] s = new int[13][1]; // stat fields by position: 1 ino, 2 mode, 3 nlink, 7 size, 12 blocks
    final long[][] l = new long[13][1]; // 9 mtime, 11 blksize of stat; statvfs fills 0 (bsize) to 10 (namemax)
    int fd = -1; // left open: the JVM ends with the class

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

    int stat(String path) {
        return NativeLDM.m_native_unix_stat(err, path, s[0], s[1], s[2], s[3], s[4], s[5], s[6], s[7], l[8], l[9],
                l[10], l[11], l[12]);
    }

    int fstat(int d) {
        return NativeLDM.m_native_unix_fstat(err, d, s[0], s[1], s[2], s[3], s[4], s[5], s[6], s[7], l[8], l[9],
                l[10], s[11], s[12]);
    }

    int statvfs(String path) {
        return NativeLDM.m_native_unix_statvfs(err, path, l[0], l[1], l[2], l[3], l[4], l[5], l[6], l[7], l[8],
                l[9], l[10]);
    }

    int fstatvfs(int d) {
        return NativeLDM.m_native_unix_fstatvfs(err, d, l[0], l[1], l[2], l[3], l[4], l[5], l[6], l[7], l[8], l[9],
                l[10]);
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
        assertEquals(0100640, Files.getAttribute(dir.resolve("new"), "unix:mode"));
        assertEquals(0, NativeLDM.m_native_unix_system(err, "exit 3"), "whatever the exit status");
        assertArrayEquals(new int[] {-7}, err, "error array written on success");
    }

    @Test
    void readWriteSeekAndTruncate() throws IOException {
        Path f = Files.writeString(dir.resolve("f"), "0123456789");
        open(f, 2);
        byte[] buf = new byte[6];
        assertEquals(0, NativeLDM.m_native_unix_read(err, fd, buf, 4, done));
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
        for (int[] startCount : new int[][] {{2, 3}, {-1, 1}, {1, -1}, {1, Integer.MAX_VALUE}, {5, 0}})
            fails(EFAULT, NativeLDM.m_native_unix_pwrite(err, fd, buf, startCount[0], startCount[1], 0, done));
        assertEquals(-7, done[0]);
        assertEquals("xyz", Files.readString(f));
        assertEquals(0, NativeLDM.m_native_unix_pwrite(err, fd, buf, 3, 1, 0, done), "last element is inside");
        assertEquals("\4yz", Files.readString(f));
    }

    @Test
    void fstatOfASparse5GiBFileGivesTheLow32BitsThenEbadfOnceClosed() throws IOException {
        Path f = Files.createFile(dir.resolve("sparse"));
        open(f, 2);
        assertEquals(0, NativeLDM.m_native_unix_ftruncate(err, fd, 5L << 30));
        assertEquals(0, fstat(fd));
        assertEquals(0x40000000, s[7][0]);
        assertEquals(0100000, s[2][0] & 0170000);
        assertEquals(1, s[3][0]);
        assertEquals((int) (long) (Long) Files.getAttribute(f, "unix:ino"), s[1][0]);
        assertEquals(Files.getLastModifiedTime(f).toMillis() / 1000, l[9][0]);
        assertTrue(s[12][0] >= 0 && s[12][0] < 1024, "sparse: " + s[12][0]);

        assertEquals(0, NativeLDM.m_native_unix_close(err, fd));
        fd = Integer.MAX_VALUE; // never a descriptor, unlike the closed number that another thread may reuse
        for (int[] field : s) field[0] = -3;
        fails(EBADF, NativeLDM.m_native_unix_close(err, fd));
        fails(EBADF, NativeLDM.m_native_unix_write(err, fd, new byte[1], 1, done));
        fails(EBADF, NativeLDM.m_native_unix_pwrite(err, fd, new byte[1], 0, 1, 0, done));
        fails(EBADF, NativeLDM.m_native_unix_ftruncate(err, fd, 0));
        fails(EBADF, fstat(fd));
        fails(EBADF, fstatvfs(fd));
        for (int[] field : s) assertEquals(-3, field[0], "stat arrays written on failure");
    }

    @Test
    void namespaceChangesAndStatus() throws IOException {
        String d = dir + "/d";
        assertEquals(0, NativeLDM.m_native_unix_mkdir(err, d, 0750));
        fails(EEXIST, NativeLDM.m_native_unix_mkdir(err, d, 0750));
        fails(EISDIR, NativeLDM.m_native_unix_unlink(err, d));
        Path f = Files.writeString(Path.of(d, "f"), "first"), g = Files.writeString(Path.of(d, "g"), "second");
        assertEquals(0, NativeLDM.m_native_unix_rename(err, g.toString(), f.toString()));
        assertEquals("second", Files.readString(f), "rename replaces the target");
        assertEquals(0, NativeLDM.m_native_unix_chmod(err, f.toString(), 0604));
        assertEquals(0, stat(f.toString()));
        assertEquals(0100604, s[2][0]);
        assertEquals(6, s[7][0]);
        assertTrue(l[11][0] > 0, "blksize in a long[]");
        assertEquals(0, NativeLDM.m_native_unix_remove(err, f.toString()));
        assertEquals(0, NativeLDM.m_native_unix_remove(err, d), "remove takes an empty directory too");
        assertFalse(Files.exists(Path.of(d)));

        Path link = Files.createSymbolicLink(dir.resolve("link"), f);
        l[11][0] = 99;
        fails(ENOENT, stat(link.toString()));
        assertEquals(99, l[11][0], "stat follows the dangling link and writes nothing");
        assertEquals(0, statvfs(dir.toString()));
        assertTrue(l[0][0] >= 512 && Long.bitCount(l[0][0]) == 1, "bsize first: " + l[0][0]);
        assertTrue(l[10][0] >= 14 && l[10][0] <= 4096, "namemax last: " + l[10][0]);
    }

    @Test
    void directoryStreamsIncludeDotsEndWithOneAndRewind() throws IOException {
        long ino = (Long) Files.getAttribute(Files.createFile(dir.resolve("a")), "unix:ino");
        long[] handle = {0};
        assertEquals(0, NativeLDM.m_native_unix_opendir(err, handle, dir.toString()));
        List<String> first = readAll(handle[0]);
        assertEquals(List.of(".", "..", "a " + (int) ino),
                first.stream().map(n -> n.startsWith(".") ? n.split(" ")[0] : n).sorted().toList());
        assertEquals(0, err[0], "the end leaves errno 0 in err[0]");
        assertEquals(0, NativeLDM.m_native_unix_rewinddir(handle[0]));
        assertEquals(first, readAll(handle[0]));
        assertEquals(0, NativeLDM.m_native_unix_closedir(err, handle[0]));
        fails(ENOENT, NativeLDM.m_native_unix_opendir(err, handle, dir + "/none"));
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
        // names a real entry, which a cut-short conversion would hit.
        Path f = Files.writeString(dir.resolve("victim"), "keep"), sub = Files.createDirectory(dir.resolve("sub"));
        String bad = f + "\uD800", badDir = sub + "\uD800";
        var before = Files.getPosixFilePermissions(f);
        int[] out = {-5};
        long[] handle = {3};
        fails(EILSEQ, NativeLDM.m_native_unix_open(err, out, bad, 0x201, -1));
        fails(EILSEQ, NativeLDM.m_native_unix_creat(err, out, bad, 0600));
        fails(EILSEQ, stat(bad));
        fails(EILSEQ, statvfs(bad));
        fails(EILSEQ, NativeLDM.m_native_unix_chmod(err, bad, 0));
        fails(EILSEQ, NativeLDM.m_native_unix_chown(err, bad, 1, 1));
        fails(EILSEQ, NativeLDM.m_native_unix_mkdir(err, bad, 0700));
        fails(EILSEQ, NativeLDM.m_native_unix_rmdir(err, badDir));
        fails(EILSEQ, NativeLDM.m_native_unix_unlink(err, bad));
        fails(EILSEQ, NativeLDM.m_native_unix_remove(err, bad));
        fails(EILSEQ, NativeLDM.m_native_unix_rename(err, bad, dir + "/moved"));
        fails(EILSEQ, NativeLDM.m_native_unix_rename(err, f.toString(), badDir));
        fails(EILSEQ, NativeLDM.m_native_unix_system(err, "rm '" + f + "' #\uD800"));
        fails(EILSEQ, NativeLDM.m_native_unix_opendir(err, handle, badDir));
        assertEquals(-5, out[0]);
        assertEquals(3, handle[0]);
        assertEquals("keep", Files.readString(f));
        assertEquals(before, Files.getPosixFilePermissions(f));
        assertTrue(Files.isDirectory(sub));
    }
}
