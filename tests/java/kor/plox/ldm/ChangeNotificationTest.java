package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.*;

import java.io.IOException;
import java.nio.file.*;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** What crosses JNI: handles, the tag array and Error messages. The watcher's logic is tested in C++. */
class ChangeNotificationTest {
    @TempDir Path root;
    final long watcher = NativeLDM.FSInit(0, 1);

    @AfterEach
    void close() {
        assertEquals(0, NativeLDM.FSInit(watcher, 2));
    }

    /** Watches a new folder with tag 5 and changes it: the change is queued before any read. */
    void queueChange(long w, String name) throws IOException {
        Path folder = Files.createDirectory(root.resolve(name));
        NativeLDM.FSAddWatch(w, folder.toString(), 0, 0x001, 5);
        Files.createFile(folder.resolve("f"));
    }

    @Test
    void initOperations() {
        assertNotEquals(0, watcher);
        assertEquals(-1, NativeLDM.FSInit(watcher, 3));
        assertEquals(0, NativeLDM.FSInit(0, 2));
    }

    @Test
    void theTagArrivesOnlyWithAChangeAndOnlyWhereThereIsAnElement() throws IOException {
        int[] tag = {42};
        long other = NativeLDM.FSInit(0, 1); // one read takes every queued event but reports the first
        queueChange(watcher, "a");
        queueChange(other, "b");
        assertTrue(NativeLDM.FSRemoveWatch(watcher, null, -1, true));
        assertEquals(-2, NativeLDM.FSReadChanges(watcher, tag));
        assertEquals(42, tag[0]);
        assertEquals(1, NativeLDM.FSReadChanges(watcher, tag));
        assertEquals(5, tag[0]);
        assertEquals(1, NativeLDM.FSReadChanges(other, new int[0]));
        NativeLDM.FSInit(other, 2);
    }

    @Test
    void refusedWatchesThrowError() {
        // No locale encodes a lone surrogate; the prefix names an existing folder.
        Error e = assertThrows(Error.class, () -> NativeLDM.FSAddWatch(watcher, root + "\uD800", 0, 0x001, 7));
        assertEquals("inotify_add_watch(inc_inotify_fd, strp_pathname, unp_mask) returns -1", e.getMessage());
    }
}
