package kor.plox.ldm.tool;

import java.io.ByteArrayOutputStream;
import java.nio.charset.StandardCharsets;

/** Encodes smart card channel calls and decodes their replies (used by the demo, the tool and the tests). */
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

    /** A call: the type-serialization header, then the fields in wire order. */
    public static final class Call {
        private final ByteArrayOutputStream b = new ByteArrayOutputStream();

        Call() {
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

        public Call pad() {
            while (b.size() % 4 != 0) b.write(0);
            return this;
        }

        public byte[] build() {
            byte[] out = b.toByteArray();
            int len = out.length - 16;
            for (int i = 0; i < 4; i++) out[8 + i] = (byte) (len >>> (8 * i));
            return out;
        }
    }

    public static Call call() {
        return new Call();
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
