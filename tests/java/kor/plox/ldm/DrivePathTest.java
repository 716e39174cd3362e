package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The path bridges and directory streams. */
class DrivePathTest {
    static final int ENOENT = 2, EEXIST = 17, EISDIR = 21, ENOTEMPTY = 39;
    static final int EILSEQ_MAPPED = 0x8000054;

    @TempDir Path dir;
    final int[] err = {-7};

    void assertFails(int errno, int result) {
        assertEquals(-1, result);
        assertEquals(errno, err[0]);
        err[0] = -7;
    }

    String perms(Path p) throws IOException {
        return PosixFilePermissions.toString(Files.getPosixFilePermissions(p, java.nio.file.LinkOption.NOFOLLOW_LINKS));
    }

    @Test
    void namespaceChanges() throws IOException {
        String d = dir.resolve("d").toString();
        assertEquals(0, NativeLDM.m_native_unix_mkdir(err, d, 0750));
        assertEquals("rwxr-x---", perms(Path.of(d)));
        assertFails(EEXIST, NativeLDM.m_native_unix_mkdir(err, d, 0750));

        Path f = Files.writeString(dir.resolve("d/f"), "first");
        assertFails(ENOTEMPTY, NativeLDM.m_native_unix_rmdir(err, d));
        assertFails(EISDIR, NativeLDM.m_native_unix_unlink(err, d));

        assertEquals(0, NativeLDM.m_native_unix_chmod(err, f.toString(), 0604));
        assertEquals("rw----r--", perms(f));
        int uid = (int) Files.getAttribute(f, "unix:uid");
        int gid = (int) Files.getAttribute(f, "unix:gid");
        assertEquals(0, NativeLDM.m_native_unix_chown(err, f.toString(), uid, gid));
        assertFails(ENOENT, NativeLDM.m_native_unix_chown(err, d + "/none", uid, gid));

        // rename replaces an existing target.
        Path g = Files.writeString(dir.resolve("d/g"), "second");
        assertEquals(0, NativeLDM.m_native_unix_rename(err, g.toString(), f.toString()));
        assertEquals("second", Files.readString(f));
        assertFalse(Files.exists(g));
        assertFails(ENOENT, NativeLDM.m_native_unix_rename(err, g.toString(), f.toString()));

        // remove takes a file and an empty directory; unlink a file; rmdir an empty directory.
        assertEquals(0, NativeLDM.m_native_unix_remove(err, f.toString()));
        assertEquals(0, NativeLDM.m_native_unix_remove(err, d));
        assertFalse(Files.exists(Path.of(d)));
        assertFails(ENOENT, NativeLDM.m_native_unix_remove(err, d));
        Files.createDirectory(Path.of(d));
        Files.writeString(f, "x");
        assertEquals(0, NativeLDM.m_native_unix_unlink(err, f.toString()));
        assertEquals(0, NativeLDM.m_native_unix_rmdir(err, d));
        assertFails(ENOENT, NativeLDM.m_native_unix_unlink(err, f.toString()));
        assertArrayEquals(new int[] {-7}, err, "error array written on success");
    }

    @Test
    void statFollowsLinksAndUsesTheLongColumn() throws IOException {
        Path f = Files.writeString(dir.resolve("f"), "12345");
        Path link = Files.createSymbolicLink(dir.resolve("link"), f);
        int[][] s = new int[8][1];
        long[][] t = new long[5][1];
        assertEquals(0, NativeLDM.m_native_unix_stat(err, link.toString(), s[0], s[1], s[2], s[3], s[4], s[5], s[6],
                s[7], t[0], t[1], t[2], t[3], t[4]));
        assertEquals((int) (long) (Long) Files.getAttribute(f, "unix:ino"), s[1][0], "stat of the target");
        assertEquals(0100000, s[2][0] & 0170000);
        assertEquals(5, s[7][0]);
        assertTrue(t[3][0] > 0, "blksize in long[]");
        assertTrue(t[4][0] >= 0);

        Files.delete(f);
        t[3][0] = 99;
        assertFails(ENOENT, NativeLDM.m_native_unix_stat(err, link.toString(), s[0], s[1], s[2], s[3], s[4], s[5],
                s[6], s[7], t[0], t[1], t[2], t[3], t[4]));
        assertEquals(99, t[3][0], "result arrays written on failure");
    }

    @Test
    void statvfsFillsTheArraysInFieldOrder() {
        long[][] v = new long[11][1];
        assertEquals(0, NativeLDM.m_native_unix_statvfs(err, dir.toString(), v[0], v[1], v[2], v[3], v[4], v[5],
                v[6], v[7], v[8], v[9], v[10]));
        assertTrue(v[0][0] >= 512 && Long.bitCount(v[0][0]) == 1, "bsize first: " + v[0][0]);
        assertTrue(v[10][0] >= 14 && v[10][0] <= 4096, "namemax last: " + v[10][0]);
        assertTrue(v[2][0] > 0 && v[3][0] <= v[2][0]);
        assertFails(ENOENT, NativeLDM.m_native_unix_statvfs(err, dir + "/none", v[0], v[1], v[2], v[3], v[4], v[5],
                v[6], v[7], v[8], v[9], v[10]));
    }

    @Test
    void systemReportsOnlyAShellThatCouldNotRun() throws IOException {
        Path out = dir.resolve("ran");
        assertEquals(0, NativeLDM.m_native_unix_system(err, "echo hi > '" + out + "'; exit 3"));
        assertEquals("hi\n", Files.readString(out));
        assertArrayEquals(new int[] {-7}, err);
    }

    @Test
    void directoryStreamsIncludeDotsEndWithOneAndRewind() throws IOException {
        Files.createFile(dir.resolve("a"));
        Files.createDirectory(dir.resolve("b"));
        long[] handle = {0};
        assertEquals(0, NativeLDM.m_native_unix_opendir(err, handle, dir.toString()));
        assertNotEquals(0, handle[0]);

        List<String> first = readAll(handle[0]);
        assertEquals(List.of(".", "..", "a", "b"), first.stream().sorted().toList());
        assertEquals(0, err[0], "end of directory leaves errno 0 in err[0]");
        // Past the end it keeps answering 1.
        err[0] = -7;
        assertEquals(1, NativeLDM.m_native_unix_readdir(err, handle[0], new int[1], new String[1]));
        assertEquals(0, err[0]);

        assertEquals(0, NativeLDM.m_native_unix_rewinddir(handle[0]));
        assertEquals(first, readAll(handle[0]));
        assertEquals(0, NativeLDM.m_native_unix_closedir(err, handle[0]));

        long[] none = {5};
        assertFails(ENOENT, NativeLDM.m_native_unix_opendir(err, none, dir + "/none"));
        assertFails(20, NativeLDM.m_native_unix_opendir(err, none, dir + "/a"));
        assertEquals(5, none[0]);
    }

    List<String> readAll(long handle) throws IOException {
        List<String> names = new ArrayList<>();
        int[] ino = {0};
        Object[] name = {null};
        int r;
        while ((r = NativeLDM.m_native_unix_readdir(err, handle, ino, name)) == 0) {
            String n = (String) name[0];
            names.add(n);
            long expected = (Long) Files.getAttribute(dir.resolve(n), "unix:ino", java.nio.file.LinkOption.NOFOLLOW_LINKS);
            if (!n.equals("..")) assertEquals((int) expected, ino[0], "inode of " + n);
        }
        assertEquals(1, r);
        return names;
    }

    @Test
    void unencodablePathsAreRefusedWithEilseq() throws IOException {
        // The prefix before the lone surrogate names real entries: a cut-short conversion would
        // remove or change them.
        Path f = Files.writeString(dir.resolve("victim"), "keep");
        Path sub = Files.createDirectory(dir.resolve("sub"));
        String before = perms(f);
        String bad = f + "\uD800";
        String badDir = sub + "\uD800";
        int[][] s = new int[8][1];
        long[][] t = new long[11][1];
        long[] handle = {3};
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_stat(err, bad, s[0], s[1], s[2], s[3], s[4], s[5], s[6],
                s[7], t[0], t[1], t[2], t[3], t[4]));
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_statvfs(err, bad, t[0], t[1], t[2], t[3], t[4], t[5],
                t[6], t[7], t[8], t[9], t[10]));
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_chmod(err, bad, 0));
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_chown(err, bad, 1, 1));
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_mkdir(err, bad, 0700));
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_rmdir(err, badDir));
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_unlink(err, bad));
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_remove(err, bad));
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_rename(err, bad, dir + "/moved"));
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_rename(err, f.toString(), badDir));
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_system(err, "rm '" + f + "' #\uD800"));
        assertFails(EILSEQ_MAPPED, NativeLDM.m_native_unix_opendir(err, handle, badDir));
        assertEquals(3, handle[0]);
        assertEquals(0, s[7][0]);
        assertEquals("keep", Files.readString(f));
        assertEquals(before, perms(f));
        assertTrue(Files.isDirectory(sub));
        assertFalse(Files.exists(dir.resolve("moved")));
    }
}
