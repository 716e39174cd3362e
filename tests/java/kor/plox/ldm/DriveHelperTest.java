package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.*;

import java.io.IOException;
import java.nio.file.*;
import java.nio.file.attribute.FileTime;
import java.util.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The file helpers (attributes, times, disk space, move, end of file), the listing, the version check and initialize. */
class DriveHelperTest {
    static final long EPOCH = 116444736000000000L; // 1970-01-01 as a file time
    static final String BAD = "\uD800"; // no locale encodes a lone surrogate

    @TempDir Path dir;
    final int[] attributes = {-1};
    final long[] creation = {-1}, access = {-1}, write = {-1};

    int attrib(Object path) {
        assertTrue(NativeLDM.NativeGetFileAttrib(path.toString(), attributes, creation, access, write), path.toString());
        return attributes[0];
    }

    /** NativeSetFileAttr from mode {@code before}; returns the mode after. */
    static Object setAttr(Path p, int before, int which, long lastWrite, int attributes) throws IOException {
        Files.setAttribute(p, "unix:mode", before);
        assertTrue(NativeLDM.NativeSetFileAttr(p.toString(), which, lastWrite, 1, 2, 3, attributes));
        return Files.getAttribute(p, "unix:mode");
    }

    @Test
    void attributesAndFileTimes() throws IOException {
        Path f = Files.writeString(dir.resolve("plain.txt"), "x"), cache = Files.createDirectory(dir.resolve(".cache"));
        Files.setLastModifiedTime(f, FileTime.fromMillis(1500));
        Files.setAttribute(f, "lastAccessTime", FileTime.fromMillis(2250));
        assertEquals(0x80, attrib(f));
        assertEquals(0, creation[0]);
        assertEquals(116444736015000000L, write[0]);
        assertEquals(116444736022500000L, access[0]);
        assertEquals(0x12, attrib(cache));
        assertEquals(0x10, attrib(cache + "/"), "a trailing slash is never hidden");
        assertEquals(0x80, attrib(Files.createFile(cache.resolve("in"))), "only the last component");
        attributes[0] = 5;
        assertFalse(NativeLDM.NativeGetFileAttrib(dir + "/missing", attributes, creation, access, write));
        assertFalse(NativeLDM.NativeGetFileAttrib(f + BAD, attributes, creation, access, write));
        assertEquals(5, attributes[0], "arrays written on failure");
    }

    @Test
    void setFileAttrChangesWriteBitsAndModificationTime() throws IOException {
        Path f = Files.writeString(dir.resolve("f"), "x"), d = Files.createDirectory(dir.resolve("d"));
        FileTime accessed = FileTime.fromMillis(1_600_000_000_123L);
        Files.setAttribute(f, "lastAccessTime", accessed);
        // Read-only drops every write bit; set-id and execute bits pass. 2.5 s: the sub-second part is dropped.
        assertEquals(0104555, setAttr(f, 04777, 0x1 | 0x2, EPOCH + 25_000_000, 0x1));
        assertEquals(FileTime.fromMillis(2000), Files.getLastModifiedTime(f));
        assertEquals(accessed, Files.getAttribute(f, "lastAccessTime"));
        assertEquals(0100644, setAttr(f, 0444, 0x1, 0, 0), "writable adds the owner's bit only");
        assertEquals(040755, setAttr(d, 0775, 0x1, 0, 0x1), "a directory keeps its owner write bit");
        assertEquals(0100777, setAttr(f, 0777, 0, EPOCH + 50_000_000, 0x1), "which 0 changes nothing");
        assertFalse(NativeLDM.NativeSetFileAttr(f + BAD, 0x3, EPOCH + 50_000_000, 0, 0, 0, 0x1));
        assertFalse(NativeLDM.NativeSetFileAttr(dir + "/missing", 0x2, EPOCH, 0, 0, 0, 0));
        assertEquals(0100777, Files.getAttribute(f, "unix:mode"));
        assertEquals(FileTime.fromMillis(2000), Files.getLastModifiedTime(f));
    }

    @Test
    void diskSpaceMoveAndEndOfFile() throws IOException {
        int[] sectors = {0}, bytesPerSector = {0};
        long[] free = {-1}, total = {-1};
        assertTrue(NativeLDM.NativeGetDiskFreeSpace(dir.toString(), sectors, bytesPerSector, free, total));
        assertEquals(1, bytesPerSector[0]);
        assertEquals(Files.getFileStore(dir).getTotalSpace(), total[0] * sectors[0], "blocks of f_bsize bytes");
        assertTrue(free[0] >= dir.toFile().getUsableSpace() / sectors[0] && free[0] <= total[0], "free: " + free[0]);
        assertFalse(NativeLDM.NativeGetDiskFreeSpace(dir + BAD, sectors, bytesPerSector, free, total));

        Path a = Files.writeString(dir.resolve("a"), "from a"), b = Files.writeString(dir.resolve("b"), "old b");
        assertTrue(NativeLDM.NativeMoveFile(a.toString(), b.toString()));
        assertEquals("from a", Files.readString(b), "the target is replaced");
        assertFalse(NativeLDM.NativeMoveFile(b.toString(), a + BAD));
        assertTrue(NativeLDM.NativeSetEndOfFile(b.toString(), 2));
        assertFalse(NativeLDM.NativeSetEndOfFile(b + BAD, 0), "its prefix names b");
        assertEquals("fr", Files.readString(b));
    }

    @Test
    void listingDropsTwoCharactersAndTheDots() throws IOException {
        Files.createFile(dir.resolve(".h"));
        Path big = Files.createDirectory(dir.resolve("sub"));
        String[] names = NativeLDM.NativeListFiles(dir + "/*");
        Arrays.sort(names);
        assertArrayEquals(new String[] {".h", "sub"}, names);
        assertEquals(0, NativeLDM.NativeListFiles(big + "/*").length);
        for (String none : new String[] {dir + "/missing/*", "", "/", "/*", dir + "/" + BAD})
            assertNull(NativeLDM.NativeListFiles(none), none);
        // One local reference per name would make -Xcheck:jni report them (java_test.sh fails on it).
        for (int n = 0; n < 100_000; n++) Files.createFile(big.resolve("n" + n));
        assertEquals(100_000, new HashSet<>(Arrays.asList(NativeLDM.NativeListFiles(big + "/*"))).size());
        try (var entries = Files.newDirectoryStream(big)) { // faster than @TempDir's clean-up
            for (Path p : entries) Files.delete(p);
        }
    }

    @Test
    void versionMatchesExactlyAndInitializeReportsLevel12() {
        assertTrue(NativeLDM.NativeCheckVersion("2.0.0b"));
        for (String other : new String[] {"2.0.0B", " 2.0.0b", "2.0.0", "2.0.0bb", "", "2.0.0b\0", "2.0.0b" + BAD})
            assertFalse(NativeLDM.NativeCheckVersion(other), other);
        int[] err = {99}, level = {0};
        assertTrue(NativeLDM.m_native_initialize(err, level));
        assertEquals(12, level[0]);
        assertEquals(99, err[0], "initialize leaves the error array");
    }
}
