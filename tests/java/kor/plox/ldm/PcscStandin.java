package kor.plox.ldm;

import java.io.File;

/**
 * Script and records of the PC/SC stand-in (tests/pcsc_standin). The stand-in is the
 * libpcsclite.so.1 that the test's JVM finds first on LD_LIBRARY_PATH (or the file named by the
 * system property korjnidr.standin / the variable KORJNIDR_STANDIN); loading it here and through
 * the library's own dlopen gives one object, so what is scripted here is what the library sees.
 */
public final class PcscStandin {
    private PcscStandin() {}

    static {
        System.load(path());
    }

    /** Where the stand-in lives, as described above. */
    public static String path() {
        String p = System.getProperty("korjnidr.standin", System.getenv("KORJNIDR_STANDIN"));
        if (p != null) return p;
        String dirs = System.getenv("LD_LIBRARY_PATH");
        if (dirs != null) {
            for (String d : dirs.split(":")) {
                File f = new File(d, "libpcsclite.so.1");
                if (!d.isEmpty() && f.isFile()) return f.getAbsolutePath();
            }
        }
        throw new IllegalStateException("no stand-in libpcsclite.so.1 on LD_LIBRARY_PATH");
    }

    /** Forgets script, records and counters; ends blocked calls. */
    public static native void reset();

    /** Sets a function's answer, e.g. {@code "SCardIsValidContext rc=0x80100003"}. */
    public static native void script(String line);

    /** The records, one line per PC/SC call, oldest first. */
    public static String[] calls() {
        String all = joinedCalls();
        return all.isEmpty() ? new String[0] : all.split("\n");
    }

    private static native String joinedCalls();

    /** True once n SCardGetStatusChange calls are blocked (scripted with block=1). */
    public static native boolean waitBlocked(int n, int timeoutMs);
}
