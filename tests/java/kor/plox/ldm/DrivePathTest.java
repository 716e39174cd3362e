package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The path bridges and directory streams. */
class DrivePathTest {
    static final int ENOENT = 2, EEXIST = 17, EISDIR = 21, EILSEQ = 0x8000054;

    @TempDir Path dir;
    final int[] err = {-7};
    final int[][] s = new int[8][1];
    final long[][] l = new long[11][1];

    void fails(int errno, int result) {
        assertEquals(-1, result);
        assertEquals(errno, err[0]);
        err[0] = -7;
    }

    int stat(String path) {
        return NativeLDM.m_native_unix_stat(err, path, s[0], s[1], s[2], s[3], s[4], s[5], s[6], s[7], l[0], l[1],
                l[2], l[3], l[4]);
    }

    int statvfs(String path) {
        return NativeLDM.m_native_unix_statvfs(err, path, l[0], l[1], l[2], l[3], l[4], l[5], l[6], l[7], l[8], l[9],
                l[10]);
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
        assertTrue(l[3][0] > 0, "blksize in a long[]");
        assertEquals(0, NativeLDM.m_native_unix_remove(err, f.toString()));
        assertEquals(0, NativeLDM.m_native_unix_remove(err, d), "remove takes an empty directory too");
        assertFalse(Files.exists(Path.of(d)));

        Path link = Files.createSymbolicLink(dir.resolve("link"), f);
        l[3][0] = 99;
        fails(ENOENT, stat(link.toString()));
        assertEquals(99, l[3][0], "stat follows the dangling link and writes nothing");
        assertEquals(0, statvfs(dir.toString()));
        assertTrue(l[0][0] >= 512 && Long.bitCount(l[0][0]) == 1, "bsize first: " + l[0][0]);
        assertTrue(l[10][0] >= 14 && l[10][0] <= 4096, "namemax last: " + l[10][0]);
        assertArrayEquals(new int[] {-7}, err, "error array written on success");
    }

    @Test
    void systemSucceedsWhateverTheExitStatus() {
        assertEquals(0, NativeLDM.m_native_unix_system(err, "exit 3"));
        assertEquals(-7, err[0]);
    }

    @Test
    void directoryStreamsIncludeDotsEndWithOneAndRewind() throws IOException {
        Files.createFile(dir.resolve("a"));
        long[] handle = {0};
        assertEquals(0, NativeLDM.m_native_unix_opendir(err, handle, dir.toString()));
        List<String> first = readAll(handle[0]);
        assertEquals(List.of(".", "..", "a"), first.stream().sorted().toList());
        assertEquals(0, err[0], "the end leaves errno 0 in err[0]");
        assertEquals(0, NativeLDM.m_native_unix_rewinddir(handle[0]));
        assertEquals(first, readAll(handle[0]));
        assertEquals(0, NativeLDM.m_native_unix_closedir(err, handle[0]));
        fails(ENOENT, NativeLDM.m_native_unix_opendir(err, handle, dir + "/none"));
    }

    List<String> readAll(long handle) throws IOException {
        List<String> names = new ArrayList<>();
        int[] ino = {0};
        Object[] name = {null};
        int r;
        while ((r = NativeLDM.m_native_unix_readdir(err, handle, ino, name)) == 0) {
            names.add((String) name[0]);
            if (name[0].equals("a")) assertEquals((int) (long) (Long) Files.getAttribute(dir.resolve("a"), "unix:ino"),
                    ino[0]);
        }
        assertEquals(1, r);
        return names;
    }

    @Test
    void unencodablePathsAreRefusedWithEilseq() throws IOException {
        // The prefix before the lone surrogate names real entries that a cut-short conversion
        // would hit.
        Path f = Files.writeString(dir.resolve("victim"), "keep"), sub = Files.createDirectory(dir.resolve("sub"));
        String bad = f + "\uD800", badDir = sub + "\uD800";
        var before = Files.getPosixFilePermissions(f);
        long[] handle = {3};
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
        assertEquals(3, handle[0]);
        assertEquals("keep", Files.readString(f));
        assertEquals(before, Files.getPosixFilePermissions(f));
        assertTrue(Files.isDirectory(sub));
    }
}
