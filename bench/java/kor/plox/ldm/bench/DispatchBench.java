package kor.plox.ldm.bench;

import java.io.File;
import java.lang.management.ManagementFactory;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

import kor.plox.ldm.NativeLDM;
import kor.plox.ldm.tool.Rdpesc;

/**
 * Cost of one smart card dispatch through {@code m_native_scard_process} beside the JNI floor: an
 * empty instance native with the same parameters returning a new byte[64]. PC/SC answers at once
 * (bench/jni/dispatch_floor.cpp), so the difference is what the library adds.
 *
 * <p>Run like the other harnesses: {@code java -Djava.library.path=build:build/bench -cp
 * build/korjnidr.jar:build/bench/korjnidr-bench.jar kor.plox.ldm.bench.DispatchBench}. The first
 * process re-runs itself with LD_LIBRARY_PATH naming a directory where libpcsclite.so.1 is the
 * instant PC/SC, which the card service's dlopen then finds.
 */
public final class DispatchBench {
    private static final String CHILD = "KORJNIDR_DISPATCH_BENCH_CHILD";
    private static final String FLOOR = "empty native: byte[] in, new byte[64] out";
    private static final int CALLS = Integer.getInteger("bench.dispatch.calls", 1_000_000);

    /** The floor: does nothing but return {@code new byte[64]}. */
    native byte[] floor(int[] unused, int owner, int ioctl, byte[] request, int length);

    /** The floor plus what no dispatch can do without: the request's length and bytes, the reply's copy. */
    native byte[] copyFloor(int[] unused, int owner, int ioctl, byte[] request, int length);

    /** Calls that reached the instant PC/SC so far. */
    static native long pcscCalls();

    private DispatchBench() {
    }

    public static void main(String[] args) throws Exception {
        if (System.getenv(CHILD) == null) {
            System.exit(relaunch(args));
        }
        System.loadLibrary("korjnidr_bench");
        NativeLDM ldm = new NativeLDM();
        DispatchBench bench = new DispatchBench();
        int[] id = {0};
        if (!NativeLDM.m_native_scard_create(new int[1], new int[1], id)) {
            throw new IllegalStateException("libpcsclite.so.1 did not load");
        }
        int owner = id[0];
        Rdpesc.Reply established = reply(ldm, owner, Rdpesc.ESTABLISH_CONTEXT, Rdpesc.call().u32(2).build());
        established.u32();
        established.u32();
        established.u32();
        int context = established.u32();
        Rdpesc.Reply connected = reply(ldm, owner, Rdpesc.CONNECT_A,
                Rdpesc.call().u32(1, 4, 1, 2, 3).stringA("Instant Reader").handle(context).build());
        for (int i = 0; i < 6; i++) connected.u32();
        int card = connected.u32();

        byte[] isValid = Rdpesc.call().u32(4, 1).handle(context).build();
        byte[] transmit = Rdpesc.call().u32(4, 1, 4, 2, 2, 0, 0, 64, 3, 0, 0, 258).handle(context).handle(card)
                .bytes(new byte[64]).build();
        long before = pcscCalls();
        reply(ldm, owner, Rdpesc.IS_VALID_CONTEXT, isValid);
        reply(ldm, owner, Rdpesc.TRANSMIT, transmit);
        if (pcscCalls() != before + 2) throw new IllegalStateException("the instant PC/SC was not the one loaded");

        String only = System.getProperty("bench.dispatch.only");  // a profile of one path: perf record
        if (only != null) {
            byte[] request = only.equals("Transmit") ? transmit : isValid;
            int code = only.equals("Transmit") ? Rdpesc.TRANSMIT : Rdpesc.IS_VALID_CONTEXT;
            for (int r = 0; r < 20; r++) {
                BenchTable.nsPerCall(i -> ldm.m_native_scard_process(null, owner, code, request, request.length).length,
                        CALLS);
            }
            return;
        }
        BenchTable.header();
        row(ldm, bench, owner, Rdpesc.IS_VALID_CONTEXT, isValid, "IsValidContext, instant PC/SC", "<= 1.3");
        row(ldm, bench, owner, Rdpesc.TRANSMIT, transmit, "Transmit of 64 bytes, instant PC/SC", "<= 1.8");
        // What bounds the two rows above: the JNI calls alone, beside the same floor.
        BenchTable.row("JNI part of a Transmit: length, copy in, out", FLOOR, BenchTable.pair(
                i -> bench.copyFloor(null, owner, Rdpesc.TRANSMIT, transmit, transmit.length).length,
                i -> bench.floor(null, owner, Rdpesc.TRANSMIT, transmit, transmit.length).length, CALLS),
                BenchTable.Kind.TIME, 0, "bound");
        NativeLDM.m_native_scard_close(new int[1], owner);
        if (BenchTable.sink() == Long.MIN_VALUE) System.out.println("(sink)");  // keeps the results observable
    }

    private static void row(NativeLDM ldm, DispatchBench bench, int owner, int code, byte[] request, String path,
            String goal) throws Exception {
        double[][] ns = BenchTable.pair(i -> ldm.m_native_scard_process(null, owner, code, request, request.length).length,
                i -> bench.floor(null, owner, code, request, request.length).length, CALLS);
        BenchTable.row(path, FLOOR, ns, BenchTable.Kind.TIME, 0, goal);
    }

    private static Rdpesc.Reply reply(NativeLDM ldm, int owner, int code, byte[] request) {
        Rdpesc.Reply r = Rdpesc.reply(ldm.m_native_scard_process(null, owner, code, request, request.length));
        if (r.result() != 0) throw new IllegalStateException("call " + code + " answered " + r.result());
        return r;
    }

    /** Runs this class again in a child JVM whose LD_LIBRARY_PATH leads to the instant PC/SC. */
    private static int relaunch(String[] args) throws Exception {
        Path lib = null;
        for (String dir : System.getProperty("java.library.path").split(File.pathSeparator)) {
            Path p = Path.of(dir, System.mapLibraryName("korjnidr_bench")).toAbsolutePath();
            if (Files.exists(p)) {
                lib = p;
                break;
            }
        }
        if (lib == null) throw new IllegalStateException("libkorjnidr_bench.so is not on java.library.path");
        Path dir = Files.createTempDirectory("instant-pcsc");
        Path link = Files.createSymbolicLink(dir.resolve("libpcsclite.so.1"), lib);
        try {
            List<String> command = new ArrayList<>();
            command.add(ProcessHandle.current().info().command().orElseThrow());
            command.addAll(ManagementFactory.getRuntimeMXBean().getInputArguments());
            command.addAll(List.of("-cp", System.getProperty("java.class.path"), DispatchBench.class.getName()));
            command.addAll(List.of(args));
            ProcessBuilder child = new ProcessBuilder(command).inheritIO();
            child.environment().put("LD_LIBRARY_PATH", dir.toString());
            child.environment().put(CHILD, "1");
            return child.start().waitFor();
        } finally {
            Files.delete(link);
            Files.delete(dir);
        }
    }
}
