package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.*;

import java.io.IOException;
import java.nio.file.*;
import java.util.concurrent.*;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** Watches on real folders, read by a second thread that is woken if it hangs. */
class ChangeNotificationTest {
    static final int NAMES = 0x001, NO_SUCH_WD = -1;
    static final String ADD_FAILED = "inotify_add_watch(inc_inotify_fd, strp_pathname, unp_mask) returns -1";

    @TempDir Path root;
    final ExecutorService readers = Executors.newSingleThreadExecutor();
    final long watcher = NativeLDM.FSInit(0, 1);
    final int[] tag = {42};
    boolean readerStuck;
    int files;

    @AfterEach
    void close() {
        readers.shutdown();
        if (!readerStuck) assertEquals(0, NativeLDM.FSInit(watcher, 2)); // never under a waiting reader
    }

    Path folder(String name) throws IOException {
        return Files.createDirectory(root.resolve(name));
    }

    int watch(Path path, int tag) {
        return (int) NativeLDM.FSAddWatch(watcher, path.toString(), 0, NAMES, tag);
    }

    void touch(Path folder) throws IOException {
        Files.createFile(folder.resolve("f" + files++));
    }

    Future<Integer> read() {
        return readers.submit(() -> NativeLDM.FSReadChanges(watcher, tag));
    }

    /** The reader's result within 10 s, changing {@code folder} (if any) until it returns, as one read
     *  drops a change read along with an earlier event. Past the limit the reader is woken and the test fails. */
    int result(Future<Integer> reader, Path folder) throws Exception {
        for (long end = System.nanoTime() + 10_000_000_000L; System.nanoTime() < end; ) {
            if (folder != null) touch(folder);
            try {
                return reader.get(100, TimeUnit.MILLISECONDS);
            } catch (TimeoutException again) {
            }
        }
        NativeLDM.FSRemoveWatch(watcher, null, NO_SUCH_WD, true);
        readerStuck = true; // it may still be inside: the watcher is left to the process
        return fail("FSReadChanges did not return");
    }

    static void assertWaiting(Future<Integer> reader) {
        assertThrows(TimeoutException.class, () -> reader.get(300, TimeUnit.MILLISECONDS), "FSReadChanges returned");
    }

    @Test
    void initOperations() {
        long second = NativeLDM.FSInit(0, 1);
        assertNotEquals(0, watcher);
        assertNotEquals(watcher, second);
        assertEquals(-1, NativeLDM.FSInit(second, 3));
        assertEquals(0, NativeLDM.FSInit(0, 2));
        assertEquals(0, NativeLDM.FSInit(second, 2));
    }

    @Test
    void aWatchReportsItsTagOnceAndMustBePlacedAgain() throws Exception {
        Path a = folder("a"), b = folder("b"), c = folder("c");
        assertTrue(watch(a, 5) >= 1);
        watch(b, 6);
        int wdC = watch(c, 7);
        touch(a);
        assertEquals(1, result(read(), null));
        assertEquals(5, tag[0]);

        // a is no longer watched, c is removed without stop: neither removal ends the waiting call.
        Future<Integer> next = read();
        touch(a);
        assertTrue(NativeLDM.FSRemoveWatch(watcher, null, wdC, false));
        assertTrue(NativeLDM.FSRemoveWatch(watcher, null, NO_SUCH_WD, false));
        touch(c);
        assertWaiting(next);
        assertEquals(1, result(next, b));
        assertEquals(6, tag[0]);

        watch(a, 8);
        assertEquals(1, result(read(), a));
        assertEquals(8, tag[0]);
    }

    @Test
    void eachWakeUpEndsOneCallAheadOfAQueuedChangeAndLeavesTheTag() throws Exception {
        Path a = folder("a");
        int wd = watch(a, 5);
        assertEquals(wd, watch(a, 9)); // the first tag stays
        touch(a);
        assertTrue(NativeLDM.FSRemoveWatch(watcher, null, NO_SUCH_WD, true));
        assertTrue(NativeLDM.FSRemoveWatch(watcher, null, 12345, true));
        assertEquals(-2, result(read(), null)); // queued before the call: it ends at once
        assertEquals(-2, result(read(), null));
        assertEquals(42, tag[0]);
        assertEquals(1, result(read(), null)); // the change stayed queued
        assertEquals(5, tag[0]);
        int wdB = watch(folder("b"), 6); // placing a watch clears stop: a's removal no longer ends a call
        Future<Integer> waiting = read();
        assertWaiting(waiting);
        assertTrue(NativeLDM.FSRemoveWatch(watcher, null, wdB, true)); // a live watch removed with stop
        assertEquals(-2, result(waiting, null));
        assertEquals(5, tag[0]);
    }

    @Test
    void refusedWatchesThrowAndStillClearStop() throws Exception {
        Path a = folder("a"), b = folder("b"), file = Files.createFile(root.resolve("plain"));
        int wdA = watch(a, 5);
        watch(b, 6);
        NativeLDM.FSRemoveWatch(watcher, null, wdA, true); // queues a's removal with stop set
        String[][] refused = { // path, any_file, filter
            {root + "/missing", "0", "1"},
            {a + "\uD800", "0", "1"}, // no locale encodes a lone surrogate; the prefix names a folder
            {file.toString(), "0", "1"}, // directories only
            {a.toString(), "1", "64"}, // creation time: no inotify event, so an empty mask
        };
        for (String[] r : refused) {
            Error e = assertThrows(Error.class, () -> NativeLDM.FSAddWatch(watcher, r[0], Integer.parseInt(r[1]),
                    Integer.parseInt(r[2]), 7));
            assertEquals(ADD_FAILED, e.getMessage(), r[0]);
        }
        assertEquals(1, result(read(), b)); // a's removal no longer ends the wait
        assertEquals(6, tag[0]);
        assertTrue(NativeLDM.FSAddWatch(watcher, file.toString(), 1, 0x008, 1) >= 1);
    }
}
