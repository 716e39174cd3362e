package kor.plox.ldm.bench;

import java.io.RandomAccessFile;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;

import kor.plox.ldm.NativeLDM;

/**
 * Cost of the JNI paths, per call, beside the JDK's own route to the same system call: what the
 * library adds over the call it bridges. A measurement, not a test: run by scripts/bench.sh.
 */
public final class JniBench {
    private static final int WARMUP = 200_000;
    private static final int ROUNDS = 5;

    private JniBench() {
    }

    interface Op {
        long run(int i) throws Exception;
    }

    static long sink;

    static double nsPerCall(Op op, int calls) throws Exception {
        for (int i = 0; i < WARMUP; i++) {
            sink += op.run(i);
        }
        double best = Double.MAX_VALUE;
        for (int r = 0; r < ROUNDS; r++) {
            long t0 = System.nanoTime();
            for (int i = 0; i < calls; i++) {
                sink += op.run(i);
            }
            best = Math.min(best, (System.nanoTime() - t0) / (double) calls);
        }
        return best;
    }

    static void line(String what, double ns) {
        System.out.printf("%-58s %9.1f ns/call%n", what, ns);
    }

    public static void main(String[] args) throws Exception {
        Path file = Files.createTempFile("korjnidr-bench", ".bin");
        Files.write(file, new byte[1 << 20]);
        int[] err = {0};
        int[] fd = {0};
        int[] done = {0};
        long[] pos = {0};
        if (NativeLDM.m_native_unix_open(err, fd, file.toString(), 0, -1) != 0) {
            throw new IllegalStateException("open failed " + err[0]);
        }
        byte[] buf = new byte[4096];
        try (RandomAccessFile raf = new RandomAccessFile(file.toFile(), "r"); FileChannel ch = raf.getChannel()) {
            ByteBuffer direct = ByteBuffer.allocateDirect(4096);
            line("lseek(fd, 0, SEEK_CUR) through NativeLDM", nsPerCall(i -> {
                NativeLDM.m_native_unix_lseek(err, fd[0], 0, 1, pos);
                return pos[0];
            }, 2_000_000));
            line("FileChannel.position() (JDK, same lseek)", nsPerCall(i -> ch.position(), 2_000_000));
            line("pread 4 KiB into byte[] through NativeLDM", nsPerCall(i -> {
                NativeLDM.m_native_unix_pread(err, fd[0], buf, 4096, (i & 255) * 4096L, done);
                return done[0];
            }, 500_000));
            line("FileChannel.read 4 KiB into a direct buffer (JDK)", nsPerCall(i -> {
                direct.clear();
                return ch.read(direct, (i & 255) * 4096L);
            }, 500_000));
            line("RandomAccessFile.read 4 KiB into byte[] (JDK)", nsPerCall(i -> {
                raf.seek((i & 255) * 4096L);
                return raf.read(buf);
            }, 500_000));
        } finally {
            NativeLDM.m_native_unix_close(err, fd[0]);
            Files.deleteIfExists(file);
        }

        int owner = NativeLDM.NativeGetSmartCardID(new int[1]);
        if (owner > 0) {
            NativeLDM ldm = new NativeLDM();
            // GetTransmitCount is answered by the library itself: the whole dispatch path, no PC/SC.
            byte[] request = {1, 0x10, 8, 0, (byte) 0xCC, (byte) 0xCC, (byte) 0xCC, (byte) 0xCC, 0, 0, 0, 0, 0, 0, 0, 0};
            line("smart card dispatch answered by the library (no PC/SC)", nsPerCall(
                    i -> ldm.m_native_scard_process(null, owner, 0x00090100, request, request.length).length, 1_000_000));
            NativeLDM.NativeSmartCancelPending(owner);
        }
        System.out.println("(best of " + ROUNDS + " rounds; sink " + (sink & 1) + ")");
    }
}
