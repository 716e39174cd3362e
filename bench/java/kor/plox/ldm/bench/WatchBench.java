package kor.plox.ldm.bench;

import java.nio.file.FileSystems;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardWatchEventKinds;
import java.nio.file.WatchKey;
import java.nio.file.WatchService;
import java.util.Arrays;
import java.util.concurrent.Semaphore;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.LockSupport;

import kor.plox.ldm.NativeLDM;

/**
 * Latency from a file creation to the return of a thread blocked waiting for it: FSReadChanges
 * beside a bare loop making the same system calls in one JNI call (watch_floor.cpp) and beside
 * WatchService.take, with the waiter on the writer's CPU and on the other one. Each repetition
 * times every route over the same number of changes; a row shows the medians of the per-change
 * latencies and their paired ratio. A measurement, not a test: run by scripts/bench.sh.
 */
public final class WatchBench {
    static {
        System.loadLibrary("korjnidr_bench");
    }

    static native int inotifyInit();
    static native int wakeInit();
    static native int addWatch(int fd, String dir);
    static native void wake(int wakeFd);
    static native int bareWait(int inotifyFd, int wakeFd);
    static native int create(String file);
    static native int remove(String file);
    static native void pinThread(int cpu);
    static native void pinProcess(int cpu);

    static final int CHANGES = Integer.getInteger("bench.watch.changes", 400);
    static final int WRITER_CPU = 0;
    static final long SETTLE_NS = 1_000_000;
    static int lost;

    private WatchBench() {
    }

    /** One way of waiting for a change, with its own folder and waiting thread. */
    abstract static class Route {
        final Path dir;
        final String file;
        final Semaphore returned = new Semaphore(0);
        volatile long returnedAt;
        Thread waiter;

        Route(Path root, String name) throws Exception {
            dir = Files.createDirectory(root.resolve(name));
            file = dir.resolve("f").toString();
        }

        /** Writer side, before each change: place the watch again where a watch reports once. */
        abstract void arm() throws Exception;

        /** Waiter side: blocks until a change and gives the time of the return, -1 once stopped. */
        abstract long await() throws Exception;

        abstract void stop() throws Exception;

        void start(int cpu) {
            waiter = new Thread(() -> {
                pinThread(cpu);
                try {
                    for (long at; (at = await()) != -1; returned.release()) returnedAt = at;
                } catch (Exception stopped) {
                    // WatchService.close ends its waiter this way.
                }
            });
            waiter.start();
        }

        void join() throws Exception {
            stop();
            waiter.join();
        }

        /**
         * Nanoseconds from just before a creation to the waiter's return. A change read together
         * with the previous removal event is dropped, as FSReadChanges does; when a busy machine
         * delays the waiter that long, the still placed watch is made to report the file's removal
         * instead and the change is made again.
         */
        double once() throws Exception {
            for (;;) {
                arm();
                LockSupport.parkNanos(SETTLE_NS); // the waiter consumes the removal event and waits
                long start = System.nanoTime();
                create(file);
                boolean seen = returned.tryAcquire(2, TimeUnit.SECONDS);
                long at = returnedAt;
                remove(file);
                if (seen) return at - start;
                lost++;
                returned.acquire();
            }
        }
    }

    static final class Library extends Route {
        final long watcher = NativeLDM.FSInit(0, 1);
        final int[] tag = {0};

        Library(Path root) throws Exception {
            super(root, "library");
        }

        void arm() {
            NativeLDM.FSAddWatch(watcher, dir.toString(), 0, 0x001, 5);
        }

        long await() {
            return NativeLDM.FSReadChanges(watcher, tag) == 1 ? System.nanoTime() : -1;
        }

        void stop() {
            NativeLDM.FSRemoveWatch(watcher, null, -1, true);
        }
    }

    static final class Bare extends Route {
        final int inotify = inotifyInit(), wakeFd = wakeInit();

        Bare(Path root) throws Exception {
            super(root, "bare");
        }

        void arm() {
            addWatch(inotify, dir.toString());
        }

        long await() {
            return bareWait(inotify, wakeFd) > 0 ? System.nanoTime() : -1;
        }

        void stop() {
            wake(wakeFd);
        }
    }

    static final class Jdk extends Route {
        final WatchService service = FileSystems.getDefault().newWatchService();

        Jdk(Path root) throws Exception {
            super(root, "jdk");
            dir.register(service, StandardWatchEventKinds.ENTRY_CREATE);
        }

        void arm() {
        }

        long await() throws Exception {
            WatchKey key = service.take();
            long at = System.nanoTime(); // the moment take returns, before the key is read
            key.pollEvents();
            key.reset();
            return at;
        }

        void stop() throws Exception {
            service.close();
        }
    }

    /** Times the three routes with the waiters on {@code waiterCpu}, repetition by repetition. */
    static void placement(Path root, String where, int waiterCpu) throws Exception {
        Route library = new Library(root.resolve(where)), bare = new Bare(root.resolve(where)),
                jdk = new Jdk(root.resolve(where));
        // Every thread of the JVM (the WatchService's poller included) on the writer's CPU, or free.
        pinProcess(waiterCpu == WRITER_CPU ? WRITER_CPU : -1);
        pinThread(WRITER_CPU);
        Route[] routes = {library, bare, jdk};
        for (Route r : routes) r.start(waiterCpu);
        double[][] ns = new double[routes.length][BenchTable.REPETITIONS];
        double[][] changes = new double[routes.length][CHANGES];
        for (int rep = -1; rep < BenchTable.REPETITIONS; rep++) { // -1: warm-up
            // One change per route in turn, so that every route meets the same load on a shared machine.
            for (int i = 0; i < CHANGES; i++) {
                for (int j = 0; j < routes.length; j++) {
                    int k = (i + j) % routes.length; // each route leads in turn
                    changes[k][i] = routes[k].once();
                }
            }
            for (int k = 0; k < routes.length && rep >= 0; k++) ns[k][rep] = BenchTable.median(changes[k]);
        }
        for (Route r : routes) r.join();
        String path = "FSReadChanges, create to return, " + where.replace("-cpu", " CPU");
        BenchTable.row(path, "poll/read/rm_watch loop in one JNI call", new double[][] {ns[0], ns[1]},
                BenchTable.Kind.TIME, 0, "<= 1.1");
        BenchTable.row(path, "WatchService.take", new double[][] {ns[0], ns[2]}, BenchTable.Kind.TIME, 0, "report");
    }

    public static void main(String[] args) throws Exception {
        // On tmpfs where there is one: a creation on a disk file system costs several times the
        // wake-up being measured, which would flatten every ratio towards 1.
        Path shm = Path.of("/dev/shm");
        Path root = Files.isWritable(shm) ? Files.createTempDirectory(shm, "korjnidr-watch-bench")
                : Files.createTempDirectory("korjnidr-watch-bench");
        Files.createDirectory(root.resolve("same-cpu"));
        boolean two = Runtime.getRuntime().availableProcessors() > 1;
        if (two) Files.createDirectory(root.resolve("other-cpu"));
        if (args.length == 0 || !args[0].equals("--no-header")) BenchTable.header();
        placement(root, "same-cpu", WRITER_CPU);
        if (two) placement(root, "other-cpu", 1);
        if (lost > 0) System.out.println("(watch bench: " + lost + " changes read with a removal event were retried)");
        try (var walk = Files.walk(root)) {
            walk.sorted((a, b) -> b.compareTo(a)).forEach(p -> p.toFile().delete());
        }
    }
}
