package kor.plox.ldm;

/** Test-only natives that throw native exceptions through the library's exception frame. */
final class JniProbe {
    static {
        System.loadLibrary("korjnidr_probe");
    }

    static final int JNI_EXCEPTION = 0, BAD_ALLOC = 1, RUNTIME_ERROR = 2, FOREIGN = 3, INT = 4, NONE = 5;

    private JniProbe() {
    }

    /** Returns 5 when nothing is thrown, -7 (the frame's failure value) otherwise. */
    static native int raise(int kind, boolean pendingJavaException);
}
