package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.FileTime;
import java.nio.file.attribute.PosixFilePermissions;
import java.time.Instant;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The Windows-style helpers: attribute bits, file times, modes, free space, move and length. */
class DriveHelperTest {
    static final long EPOCH_AS_FILE_TIME = 116444736000000000L;

    @TempDir Path dir;
    final int[] attributes = {-1};
    final long[] creation = {-1}, access = {-1}, write = {-1};

    boolean attrib(Path p) {
        return NativeLDM.NativeGetFileAttrib(p.toString(), attributes, creation, access, write);
    }

    static void setMode(Path p, String mode) throws IOException {
        Files.setPosixFilePermissions(p, PosixFilePermissions.fromString(mode));
    }

    static String mode(Path p) throws IOException {
        return PosixFilePermissions.toString(Files.getPosixFilePermissions(p));
    }

    @Test
    void attributesAndFileTimes() throws IOException {
        Path f = Files.writeString(dir.resolve("plain.txt"), "x");
        Files.setLastModifiedTime(f, FileTime.from(Instant.ofEpochSecond(1, 500_000_000)));
        Files.setAttribute(f, "lastAccessTime", FileTime.from(Instant.ofEpochSecond(2, 250_000_000)));
        assertTrue(attrib(f));
        assertEquals(0x80, attributes[0], "writable, visible regular file: normal only");
        assertEquals(0, creation[0]);
        assertEquals(116444736015000000L, write[0]);
        assertEquals(116444736022500000L, access[0]);

        Path cache = Files.createDirectory(dir.resolve(".cache"));
        assertTrue(attrib(cache));
        assertEquals(0x12, attributes[0]);
        Path hiddenFile = Files.writeString(dir.resolve(".profile"), "");
        assertTrue(attrib(hiddenFile));
        assertEquals(0x2, attributes[0]);
        // Only the last component counts, and a trailing slash is never hidden.
        Path inside = Files.writeString(cache.resolve("file"), "");
        assertTrue(attrib(inside));
        assertEquals(0x80, attributes[0]);
        assertTrue(NativeLDM.NativeGetFileAttrib(cache + "/", attributes, creation, access, write));
        assertEquals(0x10, attributes[0]);
        assertTrue(NativeLDM.NativeGetFileAttrib(cache + "/..", attributes, creation, access, write));
        assertEquals(0x12, attributes[0]);

        attributes[0] = 5;
        write[0] = 6;
        assertFalse(attrib(dir.resolve("missing")));
        assertFalse(NativeLDM.NativeGetFileAttrib(f + "\uD800", attributes, creation, access, write));
        assertEquals(5, attributes[0], "arrays written on failure");
        assertEquals(6, write[0]);
    }

    @Test
    void modificationTimeIsSetAndAccessTimeKept() throws IOException {
        Path f = Files.writeString(dir.resolve("f"), "x");
        FileTime accessed = FileTime.from(Instant.ofEpochSecond(1_600_000_000L, 123_456_000));
        Files.setAttribute(f, "lastAccessTime", accessed);
        assertTrue(NativeLDM.NativeSetFileAttr(f.toString(), 0x2, EPOCH_AS_FILE_TIME, 1, 2, 3, 0));
        assertEquals(FileTime.fromMillis(0), Files.getLastModifiedTime(f));
        assertEquals(accessed, Files.getAttribute(f, "lastAccessTime"));

        // Sub-second parts of the requested time are dropped.
        assertTrue(NativeLDM.NativeSetFileAttr(f.toString(), 0x2, 116444736015000000L, 0, 0, 0, 0x1));
        assertEquals(FileTime.fromMillis(1000), Files.getLastModifiedTime(f));
        assertEquals("rw-r--r--", mode(f), "which 0x2 alone leaves the mode");

        assertFalse(NativeLDM.NativeSetFileAttr(dir.resolve("missing").toString(), 0x2, EPOCH_AS_FILE_TIME, 0, 0, 0,
                0));
    }

    @Test
    void readOnlyAttributeChangesWriteBitsOnly() throws IOException {
        Path f = Files.writeString(dir.resolve("f"), "x");
        setMode(f, "rw-rw-r--");
        assertTrue(NativeLDM.NativeSetFileAttr(f.toString(), 0x1, 0, 0, 0, 0, 0x1));
        assertEquals("r--r--r--", mode(f));
        assertTrue(NativeLDM.NativeSetFileAttr(f.toString(), 0x1, 0, 0, 0, 0, 0));
        assertEquals("rw-r--r--", mode(f), "writable adds the owner's write bit only");

        Path d = Files.createDirectory(dir.resolve("d"));
        setMode(d, "rwxrwxr-x");
        assertTrue(NativeLDM.NativeSetFileAttr(d.toString(), 0x1, 0, 0, 0, 0, 0x1));
        assertEquals("rwxr-xr-x", mode(d), "a directory keeps its owner write bit");

        // Set-id and execute bits pass through.
        setMode(f, "rwxrwxrwx");
        Files.setAttribute(f, "unix:mode", 04777);
        assertTrue(NativeLDM.NativeSetFileAttr(f.toString(), 0x1, 0, 0, 0, 0, 0x1));
        assertEquals(0104555, Files.getAttribute(f, "unix:mode"));

        // which 0 changes nothing, whatever the other arguments say.
        setMode(f, "rw-rw-rw-");
        Files.setLastModifiedTime(f, FileTime.fromMillis(5000));
        assertTrue(NativeLDM.NativeSetFileAttr(f.toString(), 0, EPOCH_AS_FILE_TIME, 0, 0, 0, 0x1));
        assertEquals("rw-rw-rw-", mode(f));
        assertEquals(FileTime.fromMillis(5000), Files.getLastModifiedTime(f));

        assertFalse(NativeLDM.NativeSetFileAttr(dir.resolve("missing").toString(), 0x1, 0, 0, 0, 0, 0x1));
        // An unconvertible path is refused even when nothing would be changed.
        assertFalse(NativeLDM.NativeSetFileAttr(f + "\uD800", 0, 0, 0, 0, 0, 0));
        assertFalse(NativeLDM.NativeSetFileAttr(f + "\uD800", 0x3, EPOCH_AS_FILE_TIME, 0, 0, 0, 0x1));
        assertEquals("rw-rw-rw-", mode(f));
        assertEquals(FileTime.fromMillis(5000), Files.getLastModifiedTime(f));
    }

    @Test
    void diskFreeSpaceInOneByteSectors() {
        int[] sectorsPerCluster = {0}, bytesPerSector = {0};
        long[] free = {-1}, total = {-1};
        assertTrue(NativeLDM.NativeGetDiskFreeSpace(dir.toString(), sectorsPerCluster, bytesPerSector, free, total));
        assertEquals(1, bytesPerSector[0]);
        assertTrue(sectorsPerCluster[0] >= 512 && Integer.bitCount(sectorsPerCluster[0]) == 1);
        assertTrue(total[0] > 0 && free[0] >= 0 && free[0] <= total[0]);
        long usable = dir.toFile().getUsableSpace() / sectorsPerCluster[0];
        assertTrue(free[0] >= usable, "f_bfree counts the reserved blocks too");

        bytesPerSector[0] = 9;
        assertFalse(NativeLDM.NativeGetDiskFreeSpace(dir + "/missing", sectorsPerCluster, bytesPerSector, free,
                total));
        assertFalse(NativeLDM.NativeGetDiskFreeSpace(dir + "\uD800", sectorsPerCluster, bytesPerSector, free, total));
        assertEquals(9, bytesPerSector[0]);
    }

    @Test
    void moveAndEndOfFile() throws IOException {
        Path a = Files.writeString(dir.resolve("a"), "from a");
        Path b = Files.writeString(dir.resolve("b"), "old b");
        assertTrue(NativeLDM.NativeMoveFile(a.toString(), b.toString()));
        assertEquals("from a", Files.readString(b));
        assertFalse(Files.exists(a));
        assertFalse(NativeLDM.NativeMoveFile(a.toString(), b.toString()));
        assertFalse(NativeLDM.NativeMoveFile(b + "\uD800", a.toString()));
        assertFalse(NativeLDM.NativeMoveFile(b.toString(), a + "\uD800"));
        assertFalse(Files.exists(a));
        assertEquals("from a", Files.readString(b));

        assertTrue(NativeLDM.NativeSetEndOfFile(b.toString(), 10));
        assertEquals("from a\0\0\0\0", Files.readString(b));
        assertTrue(NativeLDM.NativeSetEndOfFile(b.toString(), 2));
        assertEquals("fr", Files.readString(b));
        assertFalse(NativeLDM.NativeSetEndOfFile(b.toString(), -1));
        assertFalse(NativeLDM.NativeSetEndOfFile(a.toString(), 0));
        // The prefix names b: a cut-short conversion would empty it.
        assertFalse(NativeLDM.NativeSetEndOfFile(b + "\uD800", 0));
        assertEquals("fr", Files.readString(b));
    }
}
