package kor.plox.ldm;

/**
 * Script and records of the PC/SC stand-in (tests/pcsc_standin): the libpcsclite.so.1 in the first
 * folder of LD_LIBRARY_PATH, where the library's own dlopen finds it too, so that both hold one
 * object and what is scripted here is what the library sees.
 */
final class PcscStandin {
    private PcscStandin() {}

    static {
        System.load(System.getenv("LD_LIBRARY_PATH").split(":")[0] + "/libpcsclite.so.1");
    }

    /** Forgets script and records. */
    static native void reset();

    /** Sets a function's result, e.g. {@code "SCardIsValidContext rc=0x80100003"}. */
    static native void script(String line);

    /** The records, one line per PC/SC call, oldest first. */
    static String[] calls() {
        String all = joinedCalls();
        return all.isEmpty() ? new String[0] : all.split("\n");
    }

    private static native String joinedCalls();
}
