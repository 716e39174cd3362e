package kor.plox.ldm.tool;

import java.io.PrintStream;
import java.time.LocalTime;
import java.util.List;
import java.util.Map;

import kor.plox.ldm.NativeLDM;

/** {@code korjnidr watch}: one watcher, a tagged watch per folder, each change printed as it comes. */
final class Watch {
    private Watch() {
    }

    /** The completion-filter bits of the watch call, by the names the command accepts. */
    static final Map<String, Integer> FILTERS = Map.of("name", 0x001, "dir", 0x002, "attributes", 0x004,
            "size", 0x008, "write", 0x010, "access", 0x020, "security", 0x100);

    static int filter(String names) {
        int f = 0;
        for (String n : names.split(",")) {
            Integer bit = FILTERS.get(n.strip());
            if (bit == null) throw new IllegalArgumentException("unknown filter " + n + " (one of " + FILTERS.keySet() + ")");
            f |= bit;
        }
        return f;
    }

    static int run(Korjnidr.Options o, PrintStream out) {
        List<String> dirs = o.positional;
        if (dirs.isEmpty()) throw new IllegalArgumentException("give at least one folder");
        int filter = filter(o.named.getOrDefault("--filter", "name,dir,size,write"));
        long limit = o.has("--count") ? Long.parseLong(o.named.get("--count")) : Long.MAX_VALUE;
        long watcher = NativeLDM.FSInit(0, 1);
        // Interrupted: wake the waiting read so that the watcher is destroyed by this thread.
        Thread wake = new Thread(() -> NativeLDM.FSRemoveWatch(watcher, null, -1, true));
        Runtime.getRuntime().addShutdownHook(wake);
        try {
            for (int i = 0; i < dirs.size(); i++) {
                place(watcher, dirs.get(i), filter, i + 1);
                out.printf("watching %s with tag %d (filter 0x%03X)%n", dirs.get(i), i + 1, filter);
            }
            int[] tag = {0};
            for (long seen = 0; seen < limit; seen++) {
                int r = NativeLDM.FSReadChanges(watcher, tag);
                if (r == -2) break;
                if (r != 1) throw new Korjnidr.Failure("waiting for changes failed");
                out.printf("%s  tag %d  %s changed%n", LocalTime.now(), tag[0], dirs.get(tag[0] - 1));
                out.flush();
                place(watcher, dirs.get(tag[0] - 1), filter, tag[0]);  // a watch reports one change
            }
        } finally {
            try {
                Runtime.getRuntime().removeShutdownHook(wake);
                NativeLDM.FSInit(watcher, 2);
            } catch (IllegalStateException shuttingDown) {
                // The hook may be using the watcher: leave it to the exiting process.
            }
        }
        return 0;
    }

    private static void place(long watcher, String dir, int filter, int tag) {
        try {
            NativeLDM.FSAddWatch(watcher, dir, 0, filter, tag);
        } catch (Error e) {
            throw new Korjnidr.Failure(dir + " cannot be watched: it must be an existing folder that you may read"
                    + " (or the inotify watch limit is reached)");
        }
    }
}
