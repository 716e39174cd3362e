package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import java.io.IOException;
import java.nio.file.*;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * Cases that need the kernel's permission checks, which the superuser bypasses. Registered to run
 * as an unprivileged user (tests/as_unprivileged.sh); skipped with the reason when still root.
 */
class DrivePermissionTest {
    @TempDir Path dir;

    int attribAfterChmod(Path p, int mode) throws IOException {
        Files.setAttribute(p, "unix:mode", mode);
        int[] attributes = {-1};
        long[] times = {0};
        assertTrue(NativeLDM.NativeGetFileAttrib(p.toString(), attributes, times, times, times));
        return attributes[0];
    }

    @Test
    void readOnlyFollowsWriteAccessAndChownNeedsPrivilege() throws IOException {
        assumeTrue((int) Files.getAttribute(dir, "unix:uid") != 0,
                "running as root (uid 0), which bypasses permission checks: no unprivileged user available");
        Path f = Files.writeString(dir.resolve("f"), "x"), cache = Files.createDirectory(dir.resolve(".cache"));
        assertEquals(0x1, attribAfterChmod(f, 0444));
        assertEquals(0x13, attribAfterChmod(cache, 0555));
        int[] err = {0};
        assertEquals(-1, NativeLDM.m_native_unix_chown(err, f.toString(), 0, 0));
        assertEquals(1, err[0], "EPERM: giving a file to another user needs privilege");
    }
}
