package kor.plox.ldm.tool;

import java.io.IOException;
import java.io.PrintStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;

import kor.plox.ldm.NativeLDM;

/** {@code korjnidr doctor}: what redirection needs on this machine, checked in order, said plainly. */
final class Doctor {
    private static final int NO_SERVICE = 0x8010001D;
    private static final int NO_READERS = 0x8010002E;
    private static final int STATE_EMPTY = 0x10;
    private static final int STATE_PRESENT = 0x20;
    private static final int STATE_MUTE = 0x200;
    private final PrintStream out;
    private final boolean json;
    private int failed;
    private int warned;

    Doctor(PrintStream out, boolean json) {
        this.out = out;
        this.json = json;
    }

    /** One finding: ok, warn or FAIL, what was checked, what was found, and how to fix it. */
    private void report(String level, String what, String found, String fix) {
        if (level.equals("FAIL")) failed++;
        if (level.equals("warn")) warned++;
        if (json) {
            out.println(new Decoder.Json().put("level", level.toLowerCase()).put("check", what).put("found", found)
                    .put("fix", fix));
        } else {
            out.printf("%-5s %-20s %s%n", level, what, found);
            if (fix != null) out.printf("%-26s fix: %s%n", "", fix);
        }
    }

    int run() {
        if (nativeLibrary()) {
            smartCards();
            locale();
            inotify();
        }
        String verdict = failed > 0 ? failed + " check(s) failed" : "everything redirection needs works";
        if (json) {
            out.println(new Decoder.Json().put("failed", failed).put("warnings", warned).put("verdict", verdict));
        } else {
            out.println(verdict + (warned > 0 ? " (" + warned + " warning(s))" : ""));
        }
        return failed > 0 ? 1 : 0;
    }

    private boolean nativeLibrary() {
        try {
            boolean version = NativeLDM.NativeCheckVersion("2.0.0b");
            report(version ? "ok" : "FAIL", "native library", "libkorjnidr.so " + (version ? "2.0.0b" : "of another version")
                    + " loaded from " + loadedFrom(), version ? null : "install the library that matches korjnidr.jar");
            return true;
        } catch (UnsatisfiedLinkError e) {
            report("FAIL", "native library", "libkorjnidr.so cannot be loaded: " + e.getMessage(),
                    "put its folder on java.library.path (the korjnidr launcher does), or use korjnidr-all.jar");
            return false;
        }
    }

    /** Where the dynamic loader found the library, from this process's memory map. */
    private static String loadedFrom() {
        try {
            for (String line : Files.readAllLines(Path.of("/proc/self/maps"))) {
                int at = line.indexOf('/');
                if (at >= 0 && line.endsWith("/libkorjnidr.so")) return line.substring(at);
            }
        } catch (IOException e) {
            // Not Linux's /proc: the place is only informative.
        }
        return "an unknown place";
    }

    private void smartCards() {
        Session s;
        try {
            s = Session.open();
        } catch (IllegalStateException e) {
            report("FAIL", "PC/SC library", e.getMessage(), "apt-get install libpcsclite1");
            return;
        }
        report("ok", "PC/SC library", "libpcsclite.so.1 loaded", null);
        try (s) {
            Session.Exchange[] established = {null};
            int context = s.establish(established);
            Session.Exchange e = established[0];
            if (context < 0) {
                int r = e.result() == null ? -1 : e.result();
                report("FAIL", "PC/SC daemon", "EstablishContext answered " + Names.result(r)
                        + (r == NO_SERVICE ? ": the PC/SC daemon is not running" : ""),
                        r == NO_SERVICE ? "start it: systemctl start pcscd.socket (or run pcscd as root)"
                                : "see the daemon's log: pcscd -f -d");
                return;
            }
            report("ok", "PC/SC daemon", "EstablishContext answered SCARD_S_SUCCESS in " + e.millis(), null);
            readers(s, context);
            s.call(Rdpesc.RELEASE_CONTEXT, Rdpesc.context(context));
        }
    }

    private void readers(Session s, int context) {
        Session.Exchange list = s.call(Rdpesc.LIST_READERS_A, Rdpesc.listReaders(context));
        List<String> readers = s.readers(context);
        if (readers.isEmpty()) {
            int r = list.result() == null ? -1 : list.result();
            report("FAIL", "readers", "ListReaders answered " + Names.result(r) + (r == NO_READERS ? ": no reader" : ""),
                    "connect a reader; pcscd -f -d shows what the daemon sees of it");
            return;
        }
        report("ok", "readers", readers.size() + " present: " + String.join(", ", readers), null);
        for (String reader : readers) card(s, context, reader);
    }

    /** A reader's card: its state without waiting, then a shared connection for its ATR and protocol. */
    private void card(Session s, int context, String reader) {
        Session.Exchange st = s.call(Rdpesc.GET_STATUS_CHANGE_A,
                Rdpesc.getStatusChange(context, 0, false, new String[] {reader}, new int[] {0}));
        int state = (int) st.value("rgReaderStates[0].dwEventState");
        if (!st.ok()) {
            report("FAIL", reader, "GetStatusChange answered " + Names.result(st.result() == null ? -1 : st.result()),
                    "see the daemon's log: pcscd -f -d");
        } else if ((state & STATE_MUTE) != 0) {
            report("FAIL", reader, "the card does not answer (" + Names.readerState(state) + ")",
                    "take the card out and insert it again; try another card");
        } else if ((state & STATE_PRESENT) == 0) {
            report("warn", reader, (state & STATE_EMPTY) != 0 ? "no card" : Names.readerState(state), "insert a card");
        } else {
            Session.Exchange c = s.call(Rdpesc.CONNECT_A, Rdpesc.connect(context, reader, false, 2, 3));
            if (!c.ok()) {
                report("FAIL", reader, "card present, but ConnectA answered " + Names.result(c.result()),
                        "another application may hold the card exclusively; close it or take the card out and in");
                return;
            }
            int card = (int) c.value("*hCard.pbHandle");
            Session.Exchange status = s.call(Rdpesc.STATUS_A, Rdpesc.onCard(context, card, 0, -1, 32));
            s.call(Rdpesc.DISCONNECT, Rdpesc.onCard(context, card, 0));
            report("ok", reader, "card present, " + status.decodedReply().show("pbAtr") + ", protocol "
                    + Names.protocols((int) c.value("dwActiveProtocol")), null);
        }
    }

    private void locale() {
        String charset = System.getProperty("sun.jnu.encoding", "unknown");
        boolean utf8 = charset.equalsIgnoreCase("UTF-8");
        report(utf8 ? "ok" : "warn", "locale", "character set " + charset + (utf8 ? ""
                : ": file names with characters outside it cannot be redirected (they fail with EILSEQ)"),
                utf8 ? null : "run under a UTF-8 locale, for example LANG=C.UTF-8");
    }

    private void inotify() {
        long watches = limit("max_user_watches");
        long instances = limit("max_user_instances");
        String found = "max_user_watches " + watches + ", max_user_instances " + instances;
        try {
            NativeLDM.FSInit(NativeLDM.FSInit(0, 1), 2);
        } catch (Error e) {
            report("FAIL", "inotify", "no watcher can be made (" + e.getMessage() + "); " + found,
                    "raise the limit: sysctl fs.inotify.max_user_instances=1024");
            return;
        }
        boolean low = watches < 8192 || instances < 128;
        report(low ? "warn" : "ok", "inotify", found + (low ? ": low for watching redirected drives" : ""),
                low ? "sysctl fs.inotify.max_user_watches=524288 fs.inotify.max_user_instances=1024" : null);
    }

    private static long limit(String name) {
        try {
            // readString trusts the size that /proc reports for its files, which is wrong: read lines.
            return Long.parseLong(Files.readAllLines(Path.of("/proc/sys/fs/inotify", name)).get(0).strip());
        } catch (IOException | RuntimeException e) {
            return -1;
        }
    }
}
