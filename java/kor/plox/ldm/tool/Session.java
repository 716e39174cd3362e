package kor.plox.ldm.tool;

import java.util.ArrayList;
import java.util.List;

import kor.plox.ldm.NativeLDM;

/** One owner of the library's card service: calls go through the library as the server's would. */
public final class Session implements AutoCloseable {
    private static final NativeLDM LDM = new NativeLDM();
    public final int owner;

    /** One call: what went in, what came back (null when refused) and how long it took. */
    public record Exchange(int code, byte[] request, byte[] reply, long nanos, String refused) {
        public Decoder.Decoded decodedRequest() {
            return Decoder.request(code, request);
        }

        public Decoder.Decoded decodedReply() {
            return reply == null ? null : Decoder.reply(code, reply);
        }

        /** The reply's return code, or null when there is no reply or it is too short to hold one. */
        public Integer result() {
            return reply == null || reply.length < 20 ? null : Rdpesc.reply(reply).result();
        }

        public boolean ok() {
            Integer r = result();
            return r != null && r == 0;
        }

        public String millis() {
            return String.format("%.1f ms", nanos / 1e6);
        }

        /** A value of the decoded reply, by field name, as a number (-1 when absent). */
        public long value(String field) {
            Decoder.Field f = reply == null ? null : decodedReply().field(field);
            return f != null && f.value() instanceof Long v ? v : -1;
        }
    }

    private Session(int owner) {
        this.owner = owner;
    }

    /** Opens a session; fails with what to do when the PC/SC library cannot be loaded. */
    public static Session open() {
        int[] err = {0};
        int[] status = {0};
        int[] id = {0};
        if (!NativeLDM.m_native_scard_create(err, status, id)) {
            throw new IllegalStateException("libpcsclite.so.1 cannot be loaded (errno " + err[0]
                    + "): install it (apt-get install libpcsclite1)");
        }
        return new Session(id[0]);
    }

    /** Performs one call; a request that the library refuses comes back with the refusal's message. */
    public Exchange call(int code, byte[] request) {
        long start = System.nanoTime();
        try {
            byte[] reply = LDM.m_native_scard_process(null, owner, code, request, request.length);
            return new Exchange(code, request, reply, System.nanoTime() - start,
                    reply == null ? "no card service" : null);
        } catch (Error e) {
            return new Exchange(code, request, null, System.nanoTime() - start,
                    e.getClass().getSimpleName() + ": " + e.getMessage());
        }
    }

    /** The wire handle of a new context, or -1 with the failed exchange in {@code failed[0]}. */
    public int establish(Exchange[] failed) {
        Exchange e = call(Rdpesc.ESTABLISH_CONTEXT, Rdpesc.establishContext(2));
        failed[0] = e;
        return e.ok() ? (int) e.value("*Context.pbContext") : -1;
    }

    /** The readers that PC/SC lists for a context (empty when it lists none or fails). */
    public List<String> readers(int context) {
        Exchange e = call(Rdpesc.LIST_READERS_A, Rdpesc.listReaders(context));
        List<String> out = new ArrayList<>();
        Decoder.Field f = e.ok() ? e.decodedReply().field("*msz") : null;
        if (f != null) {
            for (String s : ((String) f.value()).split("\0")) {
                if (!s.isEmpty()) out.add(s);
            }
        }
        return out;
    }

    @Override
    public void close() {
        NativeLDM.m_native_scard_close(new int[1], owner);
    }
}
