package kor.plox.ldm;

/**
 * Native half of local device redirection: POSIX file calls, Windows-style file helpers,
 * inotify change notification and smart card calls performed through PC/SC.
 *
 * <p>Reporting conventions:
 * <ul>
 *   <li>{@code m_native_unix_*} methods return 0 on success and -1 on failure; on failure element 0
 *       of the {@code err} array receives the mapped errno (Linux values 1-40 and 42-57 unchanged,
 *       EOVERFLOW 132, ECANCELED 125, anything else with bit 0x8000000 set). On success the error
 *       array is left as it was. Other results travel in one-element arrays written only on
 *       success.</li>
 *   <li>Windows-style helpers return {@code true} on success and {@code false} on any failure,
 *       with no further report.</li>
 *   <li>Change-notification and smart card dispatch methods throw {@link Error} (with the native
 *       failure's message) or {@link OutOfMemoryError} ("thrown from native code") and return
 *       their failure value.</li>
 *   <li>A path that the process locale cannot encode never reaches a system call: the errno
 *       methods report EILSEQ (84, so 0x8000054 after mapping), the helpers answer false.</li>
 * </ul>
 */
public class NativeLDM {
    static {
        try {
            System.loadLibrary("korjnidr");
        } catch (UnsatisfiedLinkError notOnPath) {
            loadBundled(notOnPath);
        }
    }

    /**
     * Not on {@code java.library.path}: the library beside the jar that holds this class, or else
     * the copy that the jar carries (korjnidr-all.jar), extracted once to a file only this user can
     * read, deleted when the JVM exits.
     */
    private static void loadBundled(UnsatisfiedLinkError notOnPath) {
        try {
            java.security.CodeSource jar = NativeLDM.class.getProtectionDomain().getCodeSource();
            java.nio.file.Path beside = jar == null ? null
                    : java.nio.file.Path.of(jar.getLocation().toURI()).resolveSibling("libkorjnidr.so");
            java.net.URL carried = NativeLDM.class.getResource("/native/linux-x86_64/libkorjnidr.so");
            if (beside != null && java.nio.file.Files.isRegularFile(beside)) {
                System.load(beside.toString());
            } else if (carried != null) {
                java.nio.file.Path copy = java.nio.file.Files.createTempFile("libkorjnidr", ".so");
                copy.toFile().deleteOnExit();
                try (java.io.InputStream in = carried.openStream()) {
                    java.nio.file.Files.copy(in, copy, java.nio.file.StandardCopyOption.REPLACE_EXISTING);
                }
                System.load(copy.toString());
            } else {
                throw notOnPath;
            }
        } catch (java.io.IOException | java.net.URISyntaxException | SecurityException e) {
            notOnPath.addSuppressed(e);
            throw notOnPath;
        }
    }

    /** An instance for the instance method {@link #m_native_scard_process}; it holds no state. */
    public NativeLDM() {
    }

    // ---- library ----------------------------------------------------------------------------

    /** Writes 12 into {@code level[0]} and returns true; {@code err} is not used. */
    public static native boolean m_native_initialize(int[] err, int[] level);

    // ---- POSIX descriptor calls ----------------------------------------------------------------

    /**
     * open(2). {@code flags}: bits 0-1 access mode, 0x4 non-blocking, 0x80 sync, 0x200 truncate,
     * 0x400 exclusive; nothing creates a file. A negative {@code mode} makes the two-argument call.
     * On success {@code fd[0]} is the new descriptor. Returns 0, or -1 with {@code err[0]} set.
     */
    public static native int m_native_unix_open(int[] err, int[] fd, String path, int flags, int mode);

    /** creat(2); {@code fd[0]} receives the descriptor. Returns 0, or -1 with {@code err[0]} set. */
    public static native int m_native_unix_creat(int[] err, int[] fd, String path, int mode);

    /** close(2). Returns 0, or -1 with {@code err[0]} set. */
    public static native int m_native_unix_close(int[] err, int fd);

    /**
     * read(2) of {@code count} bytes into {@code buf} from element 0; {@code done[0]} receives the
     * byte count (0 at end of file). A count outside the array fails with EFAULT (14) and
     * makes no system call. Returns 0, or -1 with {@code err[0]} set and {@code buf} unchanged.
     */
    public static native int m_native_unix_read(int[] err, int fd, byte[] buf, int count, int[] done);

    /** write(2) of {@code count} bytes of {@code buf} from element 0; {@code done[0]} = bytes written. */
    public static native int m_native_unix_write(int[] err, int fd, byte[] buf, int count, int[] done);

    /** pread(2) at {@code position}, leaving the descriptor's offset alone; as {@link #m_native_unix_read}. */
    public static native int m_native_unix_pread(int[] err, int fd, byte[] buf, int count, long position, int[] done);

    /** pwrite(2) of {@code count} bytes of {@code buf} from element {@code start} at {@code position}. */
    public static native int m_native_unix_pwrite(int[] err, int fd, byte[] buf, int start, int count, long position, int[] done);

    /** lseek(2); {@code position[0]} receives the resulting offset. */
    public static native int m_native_unix_lseek(int[] err, int fd, long offset, int whence, long[] position);

    /** ftruncate(2). */
    public static native int m_native_unix_ftruncate(int[] err, int fd, long length);

    /**
     * fstat(2). Thirteen one-element arrays receive, in order: dev, ino, mode, nlink, uid, gid,
     * rdev, size (low 32 bits of each 64-bit value), atime, mtime, ctime (seconds), blksize and
     * blocks (low 32 bits).
     */
    public static native int m_native_unix_fstat(int[] err, int fd, int[] dev, int[] ino, int[] mode, int[] nlink,
            int[] uid, int[] gid, int[] rdev, int[] size, long[] atime, long[] mtime, long[] ctime,
            int[] blksize, int[] blocks);

    /**
     * fstatvfs(2). Eleven arrays receive bsize, frsize, blocks, bfree, bavail, files, ffree,
     * favail, fsid, flag and namemax.
     */
    public static native int m_native_unix_fstatvfs(int[] err, int fd, long[] bsize, long[] frsize, long[] blocks,
            long[] bfree, long[] bavail, long[] files, long[] ffree, long[] favail, long[] fsid, long[] flag,
            long[] namemax);

    // ---- POSIX path calls ------------------------------------------------------------------------

    /** stat(2), following links; as {@link #m_native_unix_fstat} but blksize and blocks are 64-bit. */
    public static native int m_native_unix_stat(int[] err, String path, int[] dev, int[] ino, int[] mode,
            int[] nlink, int[] uid, int[] gid, int[] rdev, int[] size, long[] atime, long[] mtime, long[] ctime,
            long[] blksize, long[] blocks);

    /** statvfs(2); the eleven arrays as in {@link #m_native_unix_fstatvfs}. */
    public static native int m_native_unix_statvfs(int[] err, String path, long[] bsize, long[] frsize,
            long[] blocks, long[] bfree, long[] bavail, long[] files, long[] ffree, long[] favail, long[] fsid,
            long[] flag, long[] namemax);

    /** chmod(2). */
    public static native int m_native_unix_chmod(int[] err, String path, int mode);

    /** chown(2). */
    public static native int m_native_unix_chown(int[] err, String path, int uid, int gid);

    /** mkdir(2). */
    public static native int m_native_unix_mkdir(int[] err, String path, int mode);

    /** rmdir(2). */
    public static native int m_native_unix_rmdir(int[] err, String path);

    /** unlink(2). */
    public static native int m_native_unix_unlink(int[] err, String path);

    /** remove(3): a file or an empty directory. */
    public static native int m_native_unix_remove(int[] err, String path);

    /** rename(2); an existing target is replaced. */
    public static native int m_native_unix_rename(int[] err, String from, String to);

    /**
     * system(3): runs {@code command} through the shell and waits. Returns 0 whatever the
     * command's exit status; -1 only when no shell could be run.
     */
    public static native int m_native_unix_system(int[] err, String command);

    /** opendir(3); {@code dir[0]} receives the directory handle for readdir/rewinddir/closedir. */
    public static native int m_native_unix_opendir(int[] err, long[] dir, String path);

    /**
     * Reads the next entry, "." and ".." included. Returns 0 with {@code ino[0]} and
     * {@code name[0]} (null when the name cannot be converted), 1 at the end of the directory
     * with {@code err[0]} as errno was left (normally 0), or -1 on error.
     */
    public static native int m_native_unix_readdir(int[] err, long dir, int[] ino, Object[] name);

    /** rewinddir(3); always 0. */
    public static native int m_native_unix_rewinddir(long dir);

    /** closedir(3); the handle must not be used afterwards. */
    public static native int m_native_unix_closedir(int[] err, long dir);

    // ---- Windows-style helpers -------------------------------------------------------------------

    /**
     * Attribute bits (0x1 read-only, 0x2 hidden, 0x10 directory, 0x80 normal) and file times in
     * 100-ns units since 1601 (creation is always 0). Returns false when the path cannot be
     * converted or stat fails.
     */
    public static native boolean NativeGetFileAttrib(String path, int[] attributes, long[] creation,
            long[] lastAccess, long[] lastWrite);

    /**
     * {@code which} bit 0x1 applies the read-only bit of {@code attributes} (a directory is never
     * left read-only); bit 0x2 sets the modification time to {@code lastWrite} (100-ns units since
     * 1601), keeping the access time. The three ignored parameters are not read.
     */
    public static native boolean NativeSetFileAttr(String path, int which, long lastWrite, long ignored1,
            long ignored2, long ignored3, int attributes);

    /** Free space: a cluster is one block of f_bsize one-byte sectors; free clusters count f_bfree. */
    public static native boolean NativeGetDiskFreeSpace(String path, int[] sectorsPerCluster, int[] bytesPerSector,
            long[] freeClusters, long[] totalClusters);

    /** rename(2); an existing target is replaced. */
    public static native boolean NativeMoveFile(String from, String to);

    /** truncate(2): the file grows with zero bytes or shrinks to {@code length}. */
    public static native boolean NativeSetEndOfFile(String path, long length);

    // ---- listing, version, inert ---------------------------------------------------------------

    /**
     * Names in the directory given by {@code pattern} less its last two characters, without "."
     * and "..", unsorted. Null when the pattern is shorter than two characters, cannot be
     * converted, or the directory cannot be opened.
     */
    public static native String[] NativeListFiles(String pattern);

    /** True when {@code version} is exactly "2.0.0b". */
    public static native boolean NativeCheckVersion(String version);

    /** Does nothing; returns 0. */
    public static native int NativeWinOpen();

    /** Does nothing. */
    public static native void NativeWinClose();

    /** Does nothing; returns 0. */
    public static native int NativeWinDevice();

    /** Does nothing; returns 0. */
    public static native int NativeWinRead();

    /** Does nothing; returns 0. */
    public static native int NativeWinWrite();

    /** Does nothing. */
    public static native void NativeCheckpoint();

    /** Does nothing; returns 0. */
    public static native int SetErrorMode();

    // ---- change notification -------------------------------------------------------------------

    /**
     * {@code op} 1 creates a watcher and returns its handle; {@code op} 2 destroys {@code handle}
     * (0 is ignored) and returns 0; any other op returns -1. Failures throw {@link Error}
     * ("eventfd(inrc_fd) == -1", "inotify_init() returns -1") and return -1.
     */
    public static native long FSInit(long handle, int op);

    /**
     * Places a watch with a tag and a Windows completion filter; {@code anyFile} 0 restricts it to
     * directories. Returns the watch descriptor; -1 with {@link Error}
     * "inotify_add_watch(inc_inotify_fd, strp_pathname, unp_mask) returns -1" on failure.
     */
    public static native long FSAddWatch(long handle, String path, int anyFile, int filter, int tag);

    /**
     * Removes watch {@code wd}. With {@code stop} true a waiting {@link #FSReadChanges} returns -2.
     * Returns true (false only after a failure thrown as an exception).
     */
    public static native boolean FSRemoveWatch(long handle, String unused, int wd, boolean stop);

    /**
     * Blocks until a watch reports a change: returns 1 with its tag in {@code tag[0]} (the watch is
     * then removed), -2 when woken by {@link #FSRemoveWatch}, -1 when the wait failed.
     */
    public static native int FSReadChanges(long handle, int[] tag);

    // ---- smart cards -----------------------------------------------------------------------------

    /**
     * Returns a new owner id (1 or more), building the card service on first use, or -1 when the
     * PC/SC library could not be loaded. {@code status[0]} is set to 0.
     */
    public static native int NativeGetSmartCardID(int[] status);

    /**
     * As {@link #NativeGetSmartCardID}: {@code id[0]} receives the owner id or -1; on -1 returns
     * false with the thread's errno in {@code err[0]}.
     */
    public static native boolean m_native_scard_create(int[] err, int[] status, int[] id);

    /** Cancels and releases every context of {@code owner} and gives back its use of the service. */
    public static native void NativeSmartCancelPending(int owner);

    /** {@link #NativeSmartCancelPending}, then {@code err[0]} = errno; always true. */
    public static native boolean m_native_scard_close(int[] err, int owner);

    /**
     * Performs one smart card channel call: {@code ioctl} (low 16 bits) selects the call,
     * {@code request[0..length)} is its NDR-encoded input. Returns the encoded reply, an empty
     * array for an unknown code, or null: without exception when no card service is live, with
     * {@link Error} ("provide", "wrong endianess", "bad handle", ...) for a malformed request.
     */
    public native byte[] m_native_scard_process(int[] unused, int owner, int ioctl, byte[] request, int length);

    /** As {@link #m_native_scard_process}, for callers holding the control code as a short. */
    public static native byte[] NativeSmart(int owner, short ioctl, short unused, byte[] request, int length);
}
