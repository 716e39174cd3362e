package kor.plox.ldm.tool;

import java.io.ByteArrayOutputStream;
import java.nio.charset.StandardCharsets;

/**
 * Encodes smart card channel calls as a server sends them, and replies as the library frames them;
 * checks a reply's framing (used by the demo, the tool and the tests). {@link Decoder} reads both
 * back field by field.
 */
public final class Rdpesc {
    private Rdpesc() {}

    public static final int ESTABLISH_CONTEXT = 0x00090014;
    public static final int RELEASE_CONTEXT = 0x00090018;
    public static final int IS_VALID_CONTEXT = 0x0009001C;
    public static final int LIST_READERS_A = 0x00090028;
    public static final int GET_STATUS_CHANGE_A = 0x000900A0;
    public static final int CANCEL = 0x000900A8;
    public static final int CONNECT_A = 0x000900AC;
    public static final int TRANSMIT = 0x000900D0;
    public static final int ACCESS_STARTED_EVENT = 0x000900E0;
    public static final int INTRODUCE_READER_A = 0x00090060;
    public static final int LIST_READERS_W = 0x0009002C;
    public static final int CONNECT_W = 0x000900B0;
    public static final int DISCONNECT = 0x000900B8;
    public static final int BEGIN_TRANSACTION = 0x000900BC;
    public static final int END_TRANSACTION = 0x000900C0;
    public static final int STATUS_A = 0x000900C8;
    public static final int GET_ATTRIB = 0x000900D8;

    /** A call: the type-serialization header, then the fields in wire order. */
    public static final class Call {
        private final ByteArrayOutputStream b = new ByteArrayOutputStream();
        private final boolean reply;

        Call(boolean reply) {
            this.reply = reply;
            b.writeBytes(new byte[] {1, 0x10, 8, 0, (byte) 0xCC, (byte) 0xCC, (byte) 0xCC, (byte) 0xCC, 0, 0, 0, 0, 0, 0, 0, 0});
        }

        public Call u32(int... vs) {
            for (int v : vs) {
                for (int i = 0; i < 4; i++) b.write(v >>> (8 * i));
            }
            return this;
        }

        /** Context or card handle array: count 4 and the wire handle. */
        public Call handle(int wire) {
            return u32(4, wire);
        }

        /** Conformant byte array: count, bytes, pad to 4. */
        public Call bytes(byte[] v) {
            u32(v.length);
            b.writeBytes(v);
            return pad();
        }

        /** Conformant varying 8-bit string with its NUL. */
        public Call stringA(String s) {
            byte[] t = (s + "\0").getBytes(StandardCharsets.ISO_8859_1);
            u32(t.length, 0, t.length);
            b.writeBytes(t);
            return pad();
        }

        /** Conformant varying string of the call's width (bytes, or 16-bit units), with its NUL. */
        public Call string(String s, boolean wide) {
            if (!wide) return stringA(s);
            String t = s + "\0";
            u32(t.length(), 0, t.length());
            for (char ch : t.toCharArray()) {
                b.write(ch);
                b.write(ch >>> 8);
            }
            return pad();
        }

        /** Bytes as they are, without a count (fixed arrays such as an ATR field). */
        public Call raw(byte[] v) {
            b.writeBytes(v);
            return this;
        }

        public Call pad() {
            while (b.size() % 4 != 0) b.write(0);
            return this;
        }

        /** The request, or for a reply the whole reply padded to 8 as the library finishes it. */
        public byte[] build() {
            while (reply && b.size() % 8 != 0) b.write(0);
            byte[] out = b.toByteArray();
            int len = out.length - 16;
            for (int i = 0; i < 4; i++) out[8 + i] = (byte) (len >>> (8 * i));
            return out;
        }
    }

    public static Call call() {
        return new Call(false);
    }

    /** A reply: the header, the return code, then the fields that follow. */
    public static Call replyOf(int result) {
        return new Call(true).u32(result);
    }

    // ---- requests as a server sends them (handles are wire handles) ----------------------------

    public static byte[] establishContext(int scope) {
        return call().u32(scope).build();
    }

    /** ReleaseContext, IsValidContext, Cancel: a context and nothing else. */
    public static byte[] context(int context) {
        return call().u32(4, 1).handle(context).build();
    }

    /** ListReaders, all groups, with a buffer of whatever size is needed. */
    public static byte[] listReaders(int context) {
        return call().u32(4, 1, 0, 0, 0, -1).handle(context).build();
    }

    public static byte[] connect(int context, String reader, boolean wide, int shareMode, int protocols) {
        return call().u32(1, 4, 1, shareMode, protocols).string(reader, wide).handle(context).build();
    }

    /** A call on a card handle: the handle, the call's own fields, then the two handle arrays. */
    public static byte[] onCard(int context, int card, int... fields) {
        return call().u32(4, 1, 4, 1).u32(fields).handle(context).handle(card).build();
    }

    public static byte[] transmit(int context, int card, int protocol, byte[] apdu, int receiveLength) {
        return call().u32(4, 1, 4, 1, protocol, 0, 0, apdu.length, 1, 0, 0, receiveLength)
                .handle(context).handle(card).bytes(apdu).build();
    }

    /** GetStatusChange for named readers, each with its current state and no ATR. */
    public static byte[] getStatusChange(int context, int timeout, boolean wide, String[] readers, int[] states) {
        Call c = call().u32(4, 1, timeout, readers.length, 1).handle(context).u32(readers.length);
        for (int state : states) c.u32(1, state, 0, 0).raw(new byte[36]);
        for (String r : readers) c.string(r, wide);
        return c.build();
    }

    /** A reply, checked for its framing; fields are read in order after the result code. */
    public static final class Reply {
        public final byte[] bytes;
        private int pos = 20;

        Reply(byte[] bytes) {
            String problem = framingProblem(bytes);
            if (problem != null) throw new AssertionError(problem);
            this.bytes = bytes;
        }

        public int result() {
            return at(16);
        }

        public int u32() {
            int v = at(pos);
            pos += 4;
            return v;
        }

        /** Conformant byte array: count, bytes, pad. */
        public byte[] array() {
            int n = u32();
            byte[] out = java.util.Arrays.copyOfRange(bytes, pos, pos + n);
            pos += (n + 3) & ~3;
            return out;
        }

        public int at(int offset) {
            return (bytes[offset] & 0xFF) | (bytes[offset + 1] & 0xFF) << 8 | (bytes[offset + 2] & 0xFF) << 16
                    | (bytes[offset + 3] & 0xFF) << 24;
        }
    }

    public static Reply reply(byte[] bytes) {
        return new Reply(bytes);
    }

    /** Null when the bytes are a well-framed reply; otherwise what is wrong. */
    public static String framingProblem(byte[] r) {
        if (r == null) return "no reply";
        if (r.length < 24) return "reply of " + r.length + " bytes";
        byte[] head = {1, 0x10, 8, 0, (byte) 0xCC, (byte) 0xCC, (byte) 0xCC, (byte) 0xCC};
        for (int i = 0; i < head.length; i++) {
            if (r[i] != head[i]) return "header byte " + i;
        }
        int l = (r[8] & 0xFF) | (r[9] & 0xFF) << 8 | (r[10] & 0xFF) << 16 | (r[11] & 0xFF) << 24;
        if (l != r.length - 16) return "ObjectBufferLength " + l + " for " + r.length + " bytes";
        if (l % 8 != 0) return "ObjectBufferLength " + l + " not a multiple of 8";
        if ((r[12] | r[13] | r[14] | r[15]) != 0) return "filler";
        return null;
    }

    public static String hex(byte[] b) {
        StringBuilder s = new StringBuilder();
        for (byte x : b) s.append(String.format("%02X", x));
        return s.toString();
    }

    public static byte[] unhex(String h) {
        byte[] out = new byte[h.length() / 2];
        for (int i = 0; i < out.length; i++) out[i] = (byte) Integer.parseInt(h.substring(2 * i, 2 * i + 2), 16);
        return out;
    }
}
