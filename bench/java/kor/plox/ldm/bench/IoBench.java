package kor.plox.ldm.bench;

import java.io.RandomAccessFile;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;

import kor.plox.ldm.NativeLDM;

/**
 * File reads and writes through the library beside the JDK's own routes to the same kernel call:
 * RandomAccessFile (seek, then read or write into a byte[]) and FileChannel at a position with a
 * heap and a direct buffer. Offsets are random, block-aligned, inside a file held in the page
 * cache. A measurement, not a test: run by scripts/bench.sh.
 */
public final class IoBench {
    private static final int FILE_SIZE = 32 << 20;
    private static final int[] SIZES = {4 << 10, 64 << 10, 1 << 20};

    private final int[] err = {0};
    private final int[] done = {0};
    private final int fd;
    private final RandomAccessFile raf;
    private final FileChannel channel;

    private IoBench(Path file) throws Exception {
        int[] opened = {-1};
        if (NativeLDM.m_native_unix_open(err, opened, file.toString(), 2, -1) != 0) {
            throw new IllegalStateException("open failed, errno " + err[0]);
        }
        fd = opened[0];
        raf = new RandomAccessFile(file.toFile(), "rw");
        channel = raf.getChannel();
    }

    /** The i-th offset of a fixed pseudo-random walk over the file, a multiple of {@code size}. */
    private static long offset(int i, int size) {
        int slots = FILE_SIZE / size;
        return (long) ((i * 0x9E3779B1) >>> 1) % slots * size;
    }

    private static String label(int size) {
        return size >= 1 << 20 ? (size >> 20) + " MiB" : (size >> 10) + " KiB";
    }

    /** Per-call count so that one timed round lasts some tens of milliseconds. */
    private static int calls(int size) {
        return Math.max(200, (int) (200_000_000L / (size + 8192)));
    }

    private void reads(int size) throws Exception {
        byte[] array = new byte[size];
        ByteBuffer heap = ByteBuffer.allocate(size);
        ByteBuffer direct = ByteBuffer.allocateDirect(size);
        BenchTable.Op library = i -> {
            NativeLDM.m_native_unix_pread(err, fd, array, size, offset(i, size), done);
            return done[0];
        };
        String path = "pread " + label(size) + " into byte[]";
        BenchTable.row(path, "RandomAccessFile seek+read byte[]", BenchTable.pair(library, i -> {
            raf.seek(offset(i, size));
            return raf.read(array);
        }, calls(size)), BenchTable.Kind.SPEED, size, size == SIZES[0] ? ">= 1.0" : ">= 1.05");
        BenchTable.row(path, "FileChannel.read heap buffer", BenchTable.pair(library, i -> {
            heap.clear();
            return channel.read(heap, offset(i, size));
        }, calls(size)), BenchTable.Kind.SPEED, size, "");
        BenchTable.row(path, "FileChannel.read direct buffer", BenchTable.pair(library, i -> {
            direct.clear();
            return channel.read(direct, offset(i, size));
        }, calls(size)), BenchTable.Kind.SPEED, size, "");
    }

    private void writes(int size) throws Exception {
        byte[] array = new byte[size];
        ByteBuffer heap = ByteBuffer.allocate(size);
        ByteBuffer direct = ByteBuffer.allocateDirect(size);
        BenchTable.Op library = i -> {
            NativeLDM.m_native_unix_pwrite(err, fd, array, 0, size, offset(i, size), done);
            return done[0];
        };
        String path = "pwrite " + label(size) + " from byte[]";
        BenchTable.row(path, "RandomAccessFile seek+write byte[]", BenchTable.pair(library, i -> {
            raf.seek(offset(i, size));
            raf.write(array);
            return 0;
        }, calls(size)), BenchTable.Kind.SPEED, size, size == SIZES[0] ? ">= 1.0" : ">= 1.05");
        BenchTable.row(path, "FileChannel.write heap buffer", BenchTable.pair(library, i -> {
            heap.clear();
            return channel.write(heap, offset(i, size));
        }, calls(size)), BenchTable.Kind.SPEED, size, "");
        BenchTable.row(path, "FileChannel.write direct buffer", BenchTable.pair(library, i -> {
            direct.clear();
            return channel.write(direct, offset(i, size));
        }, calls(size)), BenchTable.Kind.SPEED, size, "");
    }

    /**
     * read and write at the descriptor's own offset, front to back through the file (both sides go
     * back to the start at the same calls): a read here is always one read(2) through scratch.
     */
    private void ownOffset(int size) throws Exception {
        byte[] array = new byte[size];
        int slots = FILE_SIZE / size;
        long[] pos = {0};
        BenchTable.row("read " + label(size) + " at the own offset", "RandomAccessFile.read byte[]",
                BenchTable.pair(i -> {
                    if (i % slots == 0) NativeLDM.m_native_unix_lseek(err, fd, 0, 0, pos);
                    NativeLDM.m_native_unix_read(err, fd, array, size, done);
                    return done[0];
                }, i -> {
                    if (i % slots == 0) raf.seek(0);
                    return raf.read(array);
                }, calls(size)), BenchTable.Kind.SPEED, size, ">= 1.05");
        BenchTable.row("write " + label(size) + " at the own offset", "RandomAccessFile.write byte[]",
                BenchTable.pair(i -> {
                    if (i % slots == 0) NativeLDM.m_native_unix_lseek(err, fd, 0, 0, pos);
                    NativeLDM.m_native_unix_write(err, fd, array, size, done);
                    return done[0];
                }, i -> {
                    if (i % slots == 0) raf.seek(0);
                    raf.write(array);
                    return 0;
                }, calls(size)), BenchTable.Kind.SPEED, size, ">= 1.05");
    }

    /** What a small count costs in a large array: only the bytes moved should count. */
    private void countNotArray() throws Exception {
        int size = 64 << 10;
        byte[] small = new byte[size];
        byte[] large = new byte[1 << 20];
        BenchTable.row("pread 64 KiB into byte[1 MiB]", "pread 64 KiB into byte[64 KiB]", BenchTable.pair(i -> {
            NativeLDM.m_native_unix_pread(err, fd, large, size, offset(i, size), done);
            return done[0];
        }, i -> {
            NativeLDM.m_native_unix_pread(err, fd, small, size, offset(i, size), done);
            return done[0];
        }, calls(size)), BenchTable.Kind.SPEED, size, ">= 1.0");
    }

    public static void main(String[] args) throws Exception {
        Path file = Files.createTempFile("korjnidr-iobench", ".bin");
        try {
            Files.write(file, new byte[FILE_SIZE]);
            IoBench bench = new IoBench(file);
            try {
                BenchTable.header();
                for (int size : SIZES) {
                    bench.reads(size);
                }
                bench.countNotArray();
                for (int size : SIZES) {
                    bench.writes(size);
                }
                bench.ownOffset(64 << 10);
            } finally {
                NativeLDM.m_native_unix_close(bench.err, bench.fd);
                bench.raf.close();
            }
        } finally {
            Files.deleteIfExists(file);
        }
    }
}
