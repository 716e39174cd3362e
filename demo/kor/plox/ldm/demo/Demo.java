package kor.plox.ldm.demo;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;

import kor.plox.ldm.NativeLDM;
import kor.plox.ldm.tool.Rdpesc;
import kor.plox.ldm.tool.Session;

/** Uses the library from a real JVM the way the redirection client does, and says what happened. */
public final class Demo {
    private Demo() {
    }

    /** Runs the parts named in {@code args} (files, changes, cards), or all three. */
    public static void main(String[] args) throws Exception {
        java.util.List<String> parts = args.length == 0 ? java.util.List.of("files", "changes", "cards") : java.util.List.of(args);
        Path dir = Files.createTempDirectory("korjnidr-demo");
        try {
            if (parts.contains("files")) {
                System.out.println("== drive redirection in " + dir);
                files(dir);
            }
            if (parts.contains("changes")) {
                System.out.println();
                System.out.println("== change notification on " + dir);
                changes(dir);
            }
            if (parts.contains("cards")) {
                System.out.println();
                System.out.println("== a smart card session through the library and PC/SC, each call decoded");
                smartCard();
            }
        } finally {
            for (String name : dir.toFile().list()) {
                Files.deleteIfExists(dir.resolve(name));
            }
            Files.deleteIfExists(dir);
        }
    }

    private static void check(boolean ok, String what, int[] err) {
        if (!ok) {
            throw new IllegalStateException(what + " failed, errno " + err[0]);
        }
    }

    static void changes(Path dir) throws InterruptedException {
        long watcher = NativeLDM.FSInit(0, 1);
        try {
            long wd = NativeLDM.FSAddWatch(watcher, dir.toString(), 0, 0x001, 42);
            System.out.printf("watching for file name changes with tag 42 (watch descriptor %d)%n", wd);
            Thread maker = new Thread(() -> {
                try {
                    Thread.sleep(100);
                    Files.writeString(dir.resolve("made-by-another-thread.txt"), "x");
                } catch (Exception e) {
                    throw new IllegalStateException(e);
                }
            });
            maker.start();
            int[] tag = {0};
            int r = NativeLDM.FSReadChanges(watcher, tag);
            maker.join();
            System.out.printf("FSReadChanges returned %d with tag %d after another thread created a file%n", r, tag[0]);
            Thread waker = new Thread(() -> NativeLDM.FSRemoveWatch(watcher, null, -1, true));
            waker.start();
            r = NativeLDM.FSReadChanges(watcher, tag);
            waker.join();
            System.out.printf("FSReadChanges returned %d when another thread asked it to stop%n", r);
        } finally {
            NativeLDM.FSInit(watcher, 2);
        }
    }

    static final String READER = "Virtual PCD 00 00";
    static final int SHARED = 2;
    static final int T0_OR_T1 = 3;
    static final int INFINITE = -1;

    /** One call of the story: why it is made, then the request and the reply decoded, with the time. */
    static Session.Exchange step(Session s, String why, int code, byte[] request) {
        Session.Exchange e = s.call(code, request);
        show(why, e);
        return e;
    }

    static void show(String why, Session.Exchange e) {
        System.out.printf("%n-- %s (%s)%n", why, e.millis());
        System.out.print(indent(e.decodedRequest().text()));
        System.out.print(e.reply() == null ? "    refused: " + e.refused() + "\n" : indent(e.decodedReply().text()));
    }

    static String indent(String text) {
        return text.replaceAll("(?m)^", "    ");
    }

    static void smartCard() throws InterruptedException {
        Session s;
        try {
            s = Session.open();
        } catch (IllegalStateException e) {
            System.out.println(e.getMessage());
            return;
        }
        try (s) {
            System.out.println("owner id " + s.owner + "; every call below goes through the library as the server's would");
            Session.Exchange e = step(s, "a context, the handle of everything that follows",
                    Rdpesc.ESTABLISH_CONTEXT, Rdpesc.establishContext(2));
            int context = (int) e.value("*Context.pbContext");
            e = step(s, "the readers, in 8-bit text", Rdpesc.LIST_READERS_A, Rdpesc.listReaders(context));
            step(s, "the readers again, in 16-bit text as most servers ask", Rdpesc.LIST_READERS_W, Rdpesc.listReaders(context));
            if (!String.valueOf(e.decodedReply().show("*msz")).contains(READER)) {
                System.out.println("no reader " + READER + " here: start one with tests/realstack/with_pcscd.sh");
                return;
            }
            e = step(s, "connect to the card, shared, T=0 or T=1", Rdpesc.CONNECT_A,
                    Rdpesc.connect(context, READER, false, SHARED, T0_OR_T1));
            int card = (int) e.value("*hCard.pbHandle");
            int protocol = (int) e.value("dwActiveProtocol");
            step(s, "the card's status: reader, protocol and ATR", Rdpesc.STATUS_A, Rdpesc.onCard(context, card, 0, -1, 32));
            transaction(s, context, card, protocol);
            step(s, "the reader's name as an attribute, in 16-bit text", Rdpesc.GET_ATTRIB,
                    Rdpesc.onCard(context, card, 0x7FFF0005, 0, 256));
            statusChange(s, context);
            step(s, "disconnect, leaving the card as it is", Rdpesc.DISCONNECT, Rdpesc.onCard(context, card, 0));
            step(s, "release the context", Rdpesc.RELEASE_CONTEXT, Rdpesc.context(context));
        }
        System.out.println();
        System.out.println("owner closed");
    }

    /** Exclusive access for a few commands that the virtual card answers. */
    static void transaction(Session s, int context, int card, int protocol) {
        step(s, "a transaction: nobody else talks to the card until it ends", Rdpesc.BEGIN_TRANSACTION,
                Rdpesc.onCard(context, card, 0));
        String[][] apdus = {
            {"select the master file", "00A4000C023F00"},
            {"ask the card for 8 random bytes", "0084000008"},
            {"read binary: the master file is a folder, not a file", "00B0000000"},
        };
        for (String[] a : apdus) {
            step(s, a[0], Rdpesc.TRANSMIT, Rdpesc.transmit(context, card, protocol, Rdpesc.unhex(a[1]), 258));
        }
        step(s, "end the transaction", Rdpesc.END_TRANSACTION, Rdpesc.onCard(context, card, 0));
    }

    /** A wait for the reader to change, which another thread ends with Cancel. */
    static void statusChange(Session s, int context) throws InterruptedException {
        String[] readers = {READER};
        Session.Exchange now = step(s, "the reader's state, without waiting", Rdpesc.GET_STATUS_CHANGE_A,
                Rdpesc.getStatusChange(context, 0, false, readers, new int[] {0}));
        int known = (int) now.value("rgReaderStates[0].dwEventState") & ~0x2;
        Session.Exchange[] cancel = {null};
        Thread canceller = new Thread(() -> {
            try {
                Thread.sleep(300);
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
            cancel[0] = s.call(Rdpesc.CANCEL, Rdpesc.context(context));
        });
        canceller.start();
        Session.Exchange wait = s.call(Rdpesc.GET_STATUS_CHANGE_A,
                Rdpesc.getStatusChange(context, INFINITE, false, readers, new int[] {known}));
        canceller.join();
        show("from another thread, 300 ms later: cancel the wait", cancel[0]);
        show("wait until the reader's state differs from the one just seen; Cancel ends it", wait);
    }

    static void files(Path dir) {
        int[] err = {0};
        int[] fd = {-1};
        int[] done = {0};
        String path = dir.resolve("hello.txt").toString();
        byte[] text = "hello from korjnidr\n".getBytes(StandardCharsets.UTF_8);

        check(NativeLDM.m_native_unix_creat(err, fd, path, 0644) == 0, "creat", err);
        check(NativeLDM.m_native_unix_write(err, fd[0], text, text.length, done) == 0, "write", err);
        System.out.printf("created %s and wrote %d bytes%n", path, done[0]);
        check(NativeLDM.m_native_unix_close(err, fd[0]) == 0, "close", err);

        check(NativeLDM.m_native_unix_open(err, fd, path, 0, -1) == 0, "open", err);
        byte[] back = new byte[64];
        check(NativeLDM.m_native_unix_read(err, fd[0], back, back.length, done) == 0, "read", err);
        System.out.printf("read back %d bytes: %s", done[0], new String(back, 0, done[0], StandardCharsets.UTF_8));

        int[][] ints = new int[10][1];
        long[][] longs = new long[3][1];
        check(NativeLDM.m_native_unix_fstat(err, fd[0], ints[0], ints[1], ints[2], ints[3], ints[4], ints[5], ints[6],
                ints[7], longs[0], longs[1], longs[2], ints[8], ints[9]) == 0, "fstat", err);
        System.out.printf("fstat: size %d, mode %o, inode %d%n", ints[7][0], ints[2][0] & 07777, ints[1][0]);
        check(NativeLDM.m_native_unix_close(err, fd[0]) == 0, "close", err);

        int[] attributes = {0};
        long[] created = {0}, accessed = {0}, written = {0};
        if (NativeLDM.NativeGetFileAttrib(path, attributes, created, accessed, written)) {
            System.out.printf("Windows view: attributes 0x%x, last write %d (100 ns since 1601)%n",
                    attributes[0], written[0]);
        }
        String[] names = NativeLDM.NativeListFiles(dir + "/*");
        Arrays.sort(names);
        System.out.println("listing: " + String.join(", ", names));
        int[] failed = {0};
        int r = NativeLDM.m_native_unix_open(failed, fd, dir.resolve("missing").toString(), 0, -1);
        System.out.printf("opening a missing file: %d, errno %d (ENOENT)%n", r, failed[0]);
    }
}
