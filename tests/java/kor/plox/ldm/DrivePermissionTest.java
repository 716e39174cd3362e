package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * Cases that need the kernel's permission checks, which the superuser bypasses. Registered to run
 * as an unprivileged user (tests/as_unprivileged.sh); skipped with the reason when still root.
 */
class DrivePermissionTest {
    @TempDir Path dir;
    final int[] attributes = {-1};
    final long[] times = {0};

    @BeforeEach
    void requireUnprivileged() throws IOException {
        int uid = (int) Files.getAttribute(dir, "unix:uid");
        String reason = "running as root (uid 0), which bypasses permission checks: no unprivileged user available";
        if (uid == 0) System.out.println("SKIPPED: " + reason);
        assumeTrue(uid != 0, reason);
    }

    int attrib(Path p) {
        assertTrue(NativeLDM.NativeGetFileAttrib(p.toString(), attributes, times, times, times));
        return attributes[0];
    }

    @Test
    void readOnlyAttributeFollowsWriteAccess() throws IOException {
        Path f = Files.writeString(dir.resolve("f"), "x");
        assertEquals(0x80, attrib(f));
        Files.setPosixFilePermissions(f, PosixFilePermissions.fromString("r--r--r--"));
        assertEquals(0x1, attrib(f));

        Path cache = Files.createDirectory(dir.resolve(".cache"));
        assertEquals(0x12, attrib(cache));
        Files.setPosixFilePermissions(cache, PosixFilePermissions.fromString("r-xr-xr-x"));
        assertEquals(0x13, attrib(cache));

        // Making a file writable again through the helper clears the bit.
        assertTrue(NativeLDM.NativeSetFileAttr(f.toString(), 0x1, 0, 0, 0, 0, 0));
        assertEquals(0x80, attrib(f));
        // A directory asked to become read-only stays writable for its owner.
        Files.setPosixFilePermissions(cache, PosixFilePermissions.fromString("rwxrwxr-x"));
        assertTrue(NativeLDM.NativeSetFileAttr(cache.toString(), 0x1, 0, 0, 0, 0, 0x1));
        assertEquals(0x12, attrib(cache));
    }

    @Test
    void permissionErrorsReachJavaAsEacces() throws IOException {
        Path f = Files.writeString(dir.resolve("f"), "x");
        Files.setPosixFilePermissions(f, PosixFilePermissions.fromString("r--r--r--"));
        int[] err = {0};
        int[] fd = {-1};
        assertEquals(-1, NativeLDM.m_native_unix_open(err, fd, f.toString(), 0x201, -1));
        assertEquals(13, err[0]);
        assertEquals("x", Files.readString(f));
        // chown to another user needs privilege the test does not have.
        assertEquals(-1, NativeLDM.m_native_unix_chown(err, f.toString(), 0, 0));
        assertEquals(1, err[0], "EPERM");
    }
}
