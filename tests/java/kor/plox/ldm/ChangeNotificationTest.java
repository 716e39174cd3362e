package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;

import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** Watches on real folders, read by a second thread that a watchdog wakes if it hangs. */
class ChangeNotificationTest {
    private static final int NAMES = 0x001;
    private static final int NO_SUCH_WD = -1;
    private static final long WAIT_MS = 10_000;
    private static final long QUIET_MS = 300;
    private static final String ADD_FAILED =
            "inotify_add_watch(inc_inotify_fd, strp_pathname, unp_mask) returns -1";

    @TempDir Path root;
    private final ExecutorService readers = Executors.newSingleThreadExecutor();
    private long watcher;
    private boolean readerStuck;
    private int files;

    @BeforeEach
    void open() {
        watcher = NativeLDM.FSInit(0, 1);
        assertNotEquals(0, watcher);
    }

    @AfterEach
    void close() {
        readers.shutdown();
        if (!readerStuck) assertEquals(0, NativeLDM.FSInit(watcher, 2));  // never under a waiting reader
    }

    // ---- helpers --------------------------------------------------------------------------------

    private Path folder(String name) throws IOException {
        return Files.createDirectory(root.resolve(name));
    }

    private int watch(Path path, int tag) {
        return (int) NativeLDM.FSAddWatch(watcher, path.toString(), 0, NAMES, tag);
    }

    private void touch(Path folder) throws IOException {
        Files.createFile(folder.resolve("f" + files++));
    }

    private Future<Integer> startRead(int[] tag) {
        return readers.submit(() -> NativeLDM.FSReadChanges(watcher, tag));
    }

    /** The reader's result; past the limit it is woken and the test fails. */
    private int result(Future<Integer> reader) throws Exception {
        try {
            return reader.get(WAIT_MS, TimeUnit.MILLISECONDS);
        } catch (TimeoutException e) {
            return wakeAndFail(reader);
        }
    }

    /**
     * Changes {@code folder} until the reader returns. A change that one read hands over together
     * with an earlier event (such as a removed watch's IN_IGNORED) is dropped, so one change alone
     * could be missed by timing.
     */
    private int resultOfChanges(Future<Integer> reader, Path folder) throws Exception {
        final long deadline = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(WAIT_MS);
        while (System.nanoTime() < deadline) {
            touch(folder);
            try {
                return reader.get(100, TimeUnit.MILLISECONDS);
            } catch (TimeoutException e) {
                // change again
            }
        }
        return wakeAndFail(reader);
    }

    private int wakeAndFail(Future<Integer> reader) throws Exception {
        NativeLDM.FSRemoveWatch(watcher, null, NO_SUCH_WD, true);
        try {
            reader.get(WAIT_MS, TimeUnit.MILLISECONDS);
        } catch (TimeoutException stuck) {
            readerStuck = true;
        }
        return fail("FSReadChanges did not return");
    }

    private static void assertWaiting(Future<Integer> reader) throws InterruptedException, ExecutionException {
        try {
            fail("FSReadChanges returned " + reader.get(QUIET_MS, TimeUnit.MILLISECONDS));
        } catch (TimeoutException expected) {
            // still waiting
        }
    }

    // ---- tests ----------------------------------------------------------------------------------

    @Test
    void initOperations() {
        long second = NativeLDM.FSInit(0, 1);
        assertNotEquals(0, second);
        assertNotEquals(watcher, second);
        assertEquals(-1, NativeLDM.FSInit(second, 3));
        assertEquals(-1, NativeLDM.FSInit(second, 0));
        assertEquals(0, NativeLDM.FSInit(0, 2));
        assertEquals(0, NativeLDM.FSInit(second, 2));
    }

    @Test
    void aWatchReportsItsTagOnceAndMustBePlacedAgain() throws Exception {
        Path a = folder("a"), b = folder("b");
        int wdA = watch(a, 5);
        assertTrue(wdA >= 1);
        watch(b, 6);

        int[] tag = {0};
        touch(a);
        assertEquals(1, result(startRead(tag)));
        assertEquals(5, tag[0]);

        // a is no longer watched; its removal event does not end the next call.
        Future<Integer> next = startRead(tag);
        touch(a);
        assertWaiting(next);
        assertEquals(1, resultOfChanges(next, b));
        assertEquals(6, tag[0]);

        watch(a, 8);
        assertEquals(1, resultOfChanges(startRead(tag), a));
        assertEquals(8, tag[0]);
    }

    @Test
    void removalWithStopEndsTheWaitWithoutTouchingTheTag() throws Exception {
        int wd = watch(folder("a"), 5);
        int[] tag = {42};
        Future<Integer> reader = startRead(tag);
        assertWaiting(reader);
        assertTrue(NativeLDM.FSRemoveWatch(watcher, null, wd, true));
        assertEquals(-2, result(reader));
        assertEquals(42, tag[0]);
    }

    @Test
    void removalWithoutStopLeavesTheReaderWaiting() throws Exception {
        Path a = folder("a"), b = folder("b");
        int wdA = watch(a, 5);
        watch(b, 6);
        int[] tag = {0};
        Future<Integer> reader = startRead(tag);
        assertTrue(NativeLDM.FSRemoveWatch(watcher, null, wdA, false));
        assertTrue(NativeLDM.FSRemoveWatch(watcher, null, NO_SUCH_WD, false));
        touch(a);
        assertWaiting(reader);
        assertEquals(1, resultOfChanges(reader, b));
        assertEquals(6, tag[0]);
    }

    @Test
    void eachWakeUpEndsExactlyOneCallEvenWhenSentBeforeIt() throws Exception {
        assertTrue(NativeLDM.FSRemoveWatch(watcher, null, NO_SUCH_WD, true));
        assertTrue(NativeLDM.FSRemoveWatch(watcher, null, 12345, true));
        int[] tag = {42};
        assertEquals(-2, result(startRead(tag)));
        assertEquals(-2, result(startRead(tag)));
        Future<Integer> third = startRead(tag);
        assertWaiting(third);
        NativeLDM.FSRemoveWatch(watcher, null, NO_SUCH_WD, true);
        assertEquals(-2, result(third));
        assertEquals(42, tag[0]);
    }

    @Test
    void aWakeUpBeatsAQueuedChangeWhichTheNextCallReports() throws Exception {
        Path a = folder("a");
        watch(a, 5);
        touch(a);
        NativeLDM.FSRemoveWatch(watcher, null, NO_SUCH_WD, true);
        int[] tag = {42};
        assertEquals(-2, result(startRead(tag)));
        assertEquals(42, tag[0]);
        assertEquals(1, result(startRead(tag)));
        assertEquals(5, tag[0]);
    }

    @Test
    void aSecondWatchOnOneFolderKeepsTheFirstTag() throws Exception {
        Path a = folder("a");
        int first = watch(a, 7);
        assertEquals(first, watch(a, 9));
        touch(a);
        int[] tag = {0};
        assertEquals(1, result(startRead(tag)));
        assertEquals(7, tag[0]);
    }

    @Test
    void refusedWatches() throws Exception {
        Path a = folder("a");
        Path file = Files.createFile(root.resolve("plain"));
        String[] refusedPaths = {
            root.resolve("missing").toString(),
            a + "\uD800",        // no locale encodes a lone surrogate; the prefix names a folder
            file.toString(),     // directories only
        };
        for (String path : refusedPaths) {
            Error e = assertThrows(Error.class, () -> NativeLDM.FSAddWatch(watcher, path, 0, NAMES, 1));
            assertEquals(ADD_FAILED, e.getMessage(), path);
        }
        Error creationOnly = assertThrows(Error.class, () -> NativeLDM.FSAddWatch(watcher, a.toString(), 1, 0x040, 1));
        assertEquals(ADD_FAILED, creationOnly.getMessage());
        assertTrue(NativeLDM.FSAddWatch(watcher, file.toString(), 1, 0x008, 1) >= 1);
    }

    @Test
    void aRefusedWatchStillClearsStop() throws Exception {
        Path a = folder("a"), b = folder("b");
        int wdA = watch(a, 5);
        watch(b, 6);
        NativeLDM.FSRemoveWatch(watcher, null, wdA, true);  // queues a's removal with stop set
        assertThrows(Error.class, () -> NativeLDM.FSAddWatch(watcher, a + "\uD800", 0, NAMES, 7));
        int[] tag = {0};
        assertEquals(1, resultOfChanges(startRead(tag), b));  // the removal no longer ends the wait
        assertEquals(6, tag[0]);
    }
}
