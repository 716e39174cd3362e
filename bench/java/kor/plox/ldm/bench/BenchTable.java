package kor.plox.ldm.bench;

import java.util.Arrays;

/**
 * The one table that scripts/bench.sh prints: each row times a library path and what runs beside
 * it in the same run, repetition by repetition, and shows the paired ratio as its median with the
 * minimum and maximum, so that a change in speed shows at a glance on a noisy machine.
 *
 * <p>Every harness class builds its rows with {@link #pair} and prints them with {@link #row}.
 */
public final class BenchTable {
    /** One timed operation; the returned value is folded into a sink so it cannot be optimised away. */
    public interface Op {
        long run(int i) throws Exception;
    }

    /**
     * How a row's ratio reads: TIME is library time / beside time (lower is better), SPEED its inverse.
     * Rows in MB/s are SPEED and rows in ns are TIME, as the header says.
     */
    public enum Kind { TIME, SPEED }

    public static final int REPETITIONS = Integer.getInteger("bench.repetitions", 7);
    private static long sink;
    private static boolean headerPrinted;

    private BenchTable() {
    }

    /** Nanoseconds per call of {@code op} over {@code calls} calls (after the caller's warm-up). */
    public static double nsPerCall(Op op, int calls) throws Exception {
        long t0 = System.nanoTime();
        for (int i = 0; i < calls; i++) {
            sink += op.run(i);
        }
        return (System.nanoTime() - t0) / (double) calls;
    }

    /** Times {@code library} and {@code beside} alternately, REPETITIONS times after one warm-up round each. */
    public static double[][] pair(Op library, Op beside, int calls) throws Exception {
        nsPerCall(library, calls);
        nsPerCall(beside, calls);
        double[][] ns = new double[2][REPETITIONS];
        for (int r = 0; r < REPETITIONS; r++) {
            ns[0][r] = nsPerCall(library, calls);
            ns[1][r] = nsPerCall(beside, calls);
        }
        return ns;
    }

    /**
     * Prints the table's header, once per run: scripts/bench.sh prints it before the first harness
     * and sets {@code bench.continued} for each harness so that they all add to one table.
     */
    public static void header() {
        if (Boolean.getBoolean("bench.continued") || headerPrinted) {
            return;
        }
        headerPrinted = true;
        System.out.printf("Ratios are paired repetition by repetition (%d repetitions): on MB/s rows library speed"
                + " / beside speed, on ns rows library time / beside time.%n%n", REPETITIONS);
        System.out.printf("| %-46s | %12s | %-44s | %12s | %-22s | %-8s |%n", "path", "library",
                "beside it", "beside", "ratio median (min-max)", "goal");
        System.out.printf("|%s|%s|%s|%s|%s|%s|%n", "-".repeat(48), "-".repeat(14), "-".repeat(46),
                "-".repeat(14), "-".repeat(24), "-".repeat(10));
    }

    /**
     * Prints one row from paired per-call times. {@code bytes} &gt; 0 shows throughput in MB/s
     * instead of ns per call.
     */
    public static void row(String path, String besideName, double[][] ns, Kind kind, long bytes, String goal) {
        double[] ratios = new double[ns[0].length];
        for (int r = 0; r < ratios.length; r++) {
            ratios[r] = kind == Kind.TIME ? ns[0][r] / ns[1][r] : ns[1][r] / ns[0][r];
        }
        Arrays.sort(ratios);
        System.out.printf("| %-46s | %12s | %-44s | %12s | %6.2f (%.2f-%.2f)     | %-8s |%n", path,
                figure(median(ns[0]), bytes), besideName, figure(median(ns[1]), bytes), median(ratios),
                ratios[0], ratios[ratios.length - 1], goal);
    }

    private static String figure(double ns, long bytes) {
        return bytes > 0 ? String.format("%,.0f MB/s", bytes * 1e3 / ns) : String.format("%,.1f ns", ns);
    }

    static double median(double[] values) {
        double[] v = values.clone();
        Arrays.sort(v);
        return v.length % 2 == 1 ? v[v.length / 2] : (v[v.length / 2 - 1] + v[v.length / 2]) / 2;
    }

    /** Prints the header alone: the first line of scripts/bench.sh's table. */
    public static void main(String[] args) {
        header();
    }

    /** Keeps the sink observable. */
    public static long sink() {
        return sink;
    }
}
