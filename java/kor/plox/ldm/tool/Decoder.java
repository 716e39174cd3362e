package kor.plox.ldm.tool;

import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.function.Consumer;
import java.util.function.IntFunction;

/**
 * Decodes smart card channel calls, requests and replies, into fields named as in the channel's
 * IDL. This class is the one home of the calls' field layouts: each call is a short method that
 * reads its structure in wire order, with deferred pointees read after the level that points at
 * them, as NDR lays them out.
 */
public final class Decoder {
    private Decoder() {
    }

    /** One decoded field: its IDL name, where it lies, its value (a number or text) and its meaning. */
    public record Field(String name, int offset, int size, Object value, String text) {
    }

    /** Why decoding stopped before the end of a call's structure. */
    static final class Stop extends RuntimeException {
        private static final long serialVersionUID = 1L;
        final int offset;

        Stop(int offset, String reason) {
            super(reason, null, false, false);
            this.offset = offset;
        }
    }

    /** A call kind of the dispatch table: its code (low 16 bits), name and the layouts of both directions. */
    private record Kind(int code, String name, Consumer<Cursor> request, Consumer<Cursor> reply, boolean supported) {
    }

    private static final Map<Integer, Kind> KINDS = new TreeMap<>();

    private static void supported(int code, String name, Consumer<Cursor> request, Consumer<Cursor> reply) {
        KINDS.put(code, new Kind(code, name, request, reply, true));
    }

    /** The library answers these with ERROR_CALL_NOT_IMPLEMENTED and zero fields, without reading the request. */
    private static void unsupported(int code, String name, Consumer<Cursor> reply) {
        KINDS.put(code, new Kind(code, name, null, reply, false));
    }

    static {
        Consumer<Cursor> none = c -> { };
        supported(20, "EstablishContext", c -> c.u32("dwScope", Names::scope), c -> context(c, "Context"));
        supported(24, "ReleaseContext", c -> context(c, "Context"), none);
        supported(28, "IsValidContext", c -> context(c, "Context"), none);
        supported(32, "ListReaderGroupsA", c -> listGroups(c), c -> multiString(c, "msz", false));
        supported(36, "ListReaderGroupsW", c -> listGroups(c), c -> multiString(c, "msz", true));
        supported(40, "ListReadersA", c -> listReaders(c, false), c -> multiString(c, "msz", false));
        supported(44, "ListReadersW", c -> listReaders(c, true), c -> multiString(c, "msz", true));
        String[] groupCalls = {"IntroduceReaderGroup", "ForgetReaderGroup", "IntroduceReader", "ForgetReader",
            "AddReaderToGroup", "RemoveReaderFromGroup"};
        for (int i = 0; i < groupCalls.length; i++) {
            unsupported(80 + 8 * i, groupCalls[i] + "A", none);
            unsupported(84 + 8 * i, groupCalls[i] + "W", none);
        }
        unsupported(152, "LocateCardsA", Decoder::statesReturn);
        unsupported(156, "LocateCardsW", Decoder::statesReturn);
        supported(160, "GetStatusChangeA", c -> getStatusChange(c, false), Decoder::statesReturn);
        supported(164, "GetStatusChangeW", c -> getStatusChange(c, true), Decoder::statesReturn);
        supported(168, "Cancel", c -> context(c, "Context"), none);
        supported(172, "ConnectA", c -> connect(c, false), Decoder::connectReturn);
        supported(176, "ConnectW", c -> connect(c, true), Decoder::connectReturn);
        supported(180, "Reconnect", Decoder::reconnect, c -> c.u32("dwActiveProtocol", Names::protocols));
        supported(184, "Disconnect", Decoder::cardAndDisposition, none);
        supported(188, "BeginTransaction", Decoder::cardAndDisposition, none);
        supported(192, "EndTransaction", Decoder::cardAndDisposition, none);
        unsupported(196, "State", Decoder::stateReturn);
        supported(200, "StatusA", Decoder::status, c -> statusReturn(c, false));
        supported(204, "StatusW", Decoder::status, c -> statusReturn(c, true));
        supported(208, "Transmit", Decoder::transmit, Decoder::transmitReturn);
        supported(212, "Control", Decoder::control, c -> {
            c.u32("cbOutBufferSize", null);
            c.ptr("pvOutBuffer", d -> d.bytes("*pvOutBuffer", Decoder::hexAndText));
        });
        supported(216, "GetAttrib", Decoder::getAttrib, c -> {
            c.u32("cbAttrLen", null);
            c.ptr("pbAttr", d -> d.bytes("*pbAttr", Decoder::hexAndText));
        });
        supported(220, "SetAttrib", Decoder::setAttrib, none);
        supported(224, "AccessStartedEvent", c -> c.u32("Unused", null), none);
        unsupported(232, "LocateCardsByATRA", Decoder::statesReturn);
        unsupported(236, "LocateCardsByATRW", Decoder::statesReturn);
        Consumer<Cursor> readCache = c -> {
            c.u32("cbDataLen", null);
            c.ptr("pbData", d -> d.bytes("*pbData", Decoder::hexAndText));
        };
        unsupported(240, "ReadCacheA", readCache);
        unsupported(244, "ReadCacheW", readCache);
        unsupported(248, "WriteCacheA", none);
        unsupported(252, "WriteCacheW", none);
        unsupported(256, "GetTransmitCount", c -> c.u32("cTransmitCount", null));
    }

    // ---- layouts, one per structure of the channel ------------------------------------------------

    /** REDIR_SCARDCONTEXT: cbContext, then a pointer to the context's bytes (a wire handle). */
    static void context(Cursor c, String p) {
        c.u32(p + ".cbContext", null);
        c.ptr(p + ".pbContext", d -> d.handle("*" + p + ".pbContext"));
    }

    /** REDIR_SCARDHANDLE: a context, then cbHandle and a pointer to the card's bytes. */
    static void card(Cursor c, String p) {
        context(c, p + ".Context");
        c.u32(p + ".cbHandle", null);
        c.ptr(p + ".pbHandle", d -> d.handle("*" + p + ".pbHandle"));
    }

    static void listGroups(Cursor c) {
        context(c, "Context");
        c.u32("fmszGroupsIsNULL", Decoder::bool);
        c.u32("cchGroups", Decoder::count);
    }

    static void listReaders(Cursor c, boolean wide) {
        context(c, "Context");
        c.u32("cBytes", null);
        c.ptr("mszGroups", d -> d.multiString("*mszGroups", wide));
        c.u32("fmszReadersIsNULL", Decoder::bool);
        c.u32("cchReaders", Decoder::count);
    }

    static void multiString(Cursor c, String name, boolean wide) {
        c.u32("cBytes", null);
        c.ptr(name, d -> d.multiString("*" + name, wide));
    }

    static void getStatusChange(Cursor c, boolean wide) {
        context(c, "Context");
        c.u32("dwTimeOut", v -> v == -1 ? "INFINITE" : v + " ms");
        c.u32("cReaders", null);
        c.ptr("rgReaderStates", d -> d.array("rgReaderStates", 52, (e, p) -> {
            e.ptr(p + ".szReader", f -> f.string("*" + p + ".szReader", wide));
            readerState(e, p + ".Common");
        }));
    }

    /** ReaderState_Common and ReaderState_Return: the two state words, the ATR length and 36 ATR bytes. */
    static void readerState(Cursor c, String p) {
        c.u32(p + ".dwCurrentState", Names::readerState);
        c.u32(p + ".dwEventState", Names::readerState);
        int n = c.u32(p + ".cbAtr", null);
        c.fixed(p + ".rgbAtr", 36, n);
    }

    static void statesReturn(Cursor c) {
        c.u32("cReaders", null);
        c.ptr("rgReaderStates", d -> d.array("rgReaderStates", 48, (e, p) -> readerState(e, p)));
    }

    static void connect(Cursor c, boolean wide) {
        c.ptr("szReader", d -> d.string("*szReader", wide));
        context(c, "Common.Context");
        c.u32("Common.dwShareMode", Names::shareMode);
        c.u32("Common.dwPreferredProtocols", Names::protocols);
    }

    static void connectReturn(Cursor c) {
        card(c, "hCard");
        c.u32("dwActiveProtocol", Names::protocols);
    }

    static void reconnect(Cursor c) {
        card(c, "hCard");
        c.u32("dwShareMode", Names::shareMode);
        c.u32("dwPreferredProtocols", Names::protocols);
        c.u32("dwInitialization", Names::disposition);
    }

    static void cardAndDisposition(Cursor c) {
        card(c, "hCard");
        c.u32("dwDisposition", Names::disposition);
    }

    static void status(Cursor c) {
        card(c, "hCard");
        c.u32("fmszReaderNamesIsNULL", Decoder::bool);
        c.u32("cchReaderLen", Decoder::count);
        c.u32("cbAtrLen", null);
    }

    static void statusReturn(Cursor c, boolean wide) {
        c.u32("cBytes", null);
        c.ptr("mszReaderNames", d -> d.multiString("*mszReaderNames", wide));
        c.u32("dwState", Names::cardState);
        c.u32("dwProtocol", Names::protocols);
        int atr = c.fields.size();
        c.fixed("pbAtr", 32, 32);
        c.atrLength(atr, c.u32("cbAtrLen", null));
    }

    static void stateReturn(Cursor c) {
        c.u32("dwState", Names::cardState);
        c.u32("dwProtocol", Names::protocols);
        c.u32("cbAtrLen", null);
        c.ptr("rgAtr", d -> d.bytes("*rgAtr", Decoder::hex));
    }

    /** SCardIO_Request: a protocol and its extra bytes. */
    static void ioRequest(Cursor c, String p) {
        c.u32(p + ".dwProtocol", Names::protocols);
        c.u32(p + ".cbExtraBytes", null);
        c.ptr(p + ".pbExtraBytes", d -> d.bytes("*" + p + ".pbExtraBytes", Decoder::hex));
    }

    static void transmit(Cursor c) {
        card(c, "hCard");
        ioRequest(c, "ioSendPci");
        c.u32("cbSendLength", null);
        c.ptr("pbSendBuffer", d -> d.bytes("*pbSendBuffer", Decoder::command));
        c.ptr("pioRecvPci", d -> ioRequest(d, "*pioRecvPci"));
        c.u32("fpbRecvBufferIsNULL", Decoder::bool);
        c.u32("cbRecvLength", null);
    }

    static void transmitReturn(Cursor c) {
        c.ptr("pioRecvPci", d -> ioRequest(d, "*pioRecvPci"));
        c.u32("cbRecvLength", null);
        c.ptr("pbRecvBuffer", d -> d.bytes("*pbRecvBuffer", Decoder::response));
    }

    static void control(Cursor c) {
        card(c, "hCard");
        c.u32("dwControlCode", Names::controlCode);
        c.u32("cbInBufferSize", null);
        c.ptr("pvInBuffer", d -> d.bytes("*pvInBuffer", Decoder::hex));
        c.u32("fpvOutBufferIsNULL", Decoder::bool);
        c.u32("cbOutBufferSize", null);
    }

    static void getAttrib(Cursor c) {
        card(c, "hCard");
        c.u32("dwAttrId", Names::attribute);
        c.u32("fpbAttrIsNULL", Decoder::bool);
        c.u32("cbAttrLen", Decoder::count);
    }

    static void setAttrib(Cursor c) {
        card(c, "hCard");
        c.u32("dwAttrId", Names::attribute);
        c.u32("cbAttrLen", null);
        c.ptr("pbAttr", d -> d.bytes("*pbAttr", Decoder::hexAndText));
    }

    // ---- meanings of values --------------------------------------------------------------------

    static String bool(int v) {
        return v == 0 ? "false" : "true";
    }

    static String count(int v) {
        return v == -1 ? "SCARD_AUTOALLOCATE" : null;
    }

    static String hex(byte[] b) {
        StringBuilder s = new StringBuilder();
        for (byte x : b) s.append(s.length() == 0 ? "" : " ").append(String.format("%02X", x));
        return s.toString();
    }

    /** Bytes in hex, followed by their text when they are printable text with an optional NUL end. */
    static String hexAndText(byte[] b) {
        int n = b.length;
        while (n > 0 && b[n - 1] == 0) n--;
        boolean text = n > 1;
        for (int i = 0; i < n && text; i++) text = b[i] >= 0x20 && b[i] < 0x7F || (b[i] == 0 && i % 2 == 1);
        if (!text) return hex(b);
        String s = new String(b, 0, n, StandardCharsets.ISO_8859_1).replace("\0", "");
        return hex(b) + " \"" + s + "\"";
    }

    /** A command APDU: header named by its instruction, then the rest. */
    static String command(byte[] b) {
        if (b.length < 4) return hex(b);
        return Names.instruction(b[1]) + ": " + hex(b);
    }

    /** A response APDU: data, then its status word named. */
    static String response(byte[] b) {
        if (b.length < 2) return hex(b);
        int sw = (b[b.length - 2] & 0xFF) << 8 | (b[b.length - 1] & 0xFF);
        return hex(b) + String.format(" (SW %04X: %s)", sw, Names.statusWord(sw));
    }

    // ---- the cursor --------------------------------------------------------------------------------

    /** A cursor over one buffer: every read checks what remains and names the field it was reading. */
    static final class Cursor {
        private final byte[] b;
        private int pos;
        final List<Field> fields = new ArrayList<>();
        private List<Consumer<Cursor>> deferred = new ArrayList<>();

        Cursor(byte[] b, int pos) {
            this.b = b;
            this.pos = pos;
        }

        private void need(long n, String name) {
            if (b.length - pos < n) {
                throw new Stop(pos, name + ": needs " + n + " bytes, " + (b.length - pos) + " left");
            }
        }

        int raw32(String name) {
            need(4, name);
            int v = (b[pos] & 0xFF) | (b[pos + 1] & 0xFF) << 8 | (b[pos + 2] & 0xFF) << 16 | (b[pos + 3] & 0xFF) << 24;
            pos += 4;
            return v;
        }

        private byte[] take(long n, String name) {
            need(n, name);
            byte[] out = java.util.Arrays.copyOfRange(b, pos, pos + (int) n);
            pos += (int) n;
            return out;
        }

        private void pad(long n, String name) {
            take((4 - n % 4) % 4, name + " (pad)");
        }

        /** A 32-bit field; {@code meaning} names its value, or returns null to show the number alone. */
        int u32(String name, IntFunction<String> meaning) {
            int at = pos;
            int v = raw32(name);
            String text = meaning == null ? null : meaning.apply(v);
            fields.add(new Field(name, at, 4, Integer.toUnsignedLong(v), text));
            return v;
        }

        /** A referent id; the pointee is read after the current level when the id is not zero. */
        void ptr(String name, Consumer<Cursor> pointee) {
            int v = u32(name, r -> r == 0 ? "null" : String.format("referent 0x%08X", r));
            if (v != 0) deferred.add(pointee);
        }

        /** Reads one level: its fixed part, then the pointees that it deferred, each as a level. */
        void level(Consumer<Cursor> body) {
            List<Consumer<Cursor>> outer = deferred;
            deferred = new ArrayList<>();
            body.accept(this);
            List<Consumer<Cursor>> mine = deferred;
            deferred = outer;
            for (Consumer<Cursor> d : mine) level(d);
        }

        /** A conformant byte array: count, bytes, pad to 4. */
        byte[] bytes(String name, java.util.function.Function<byte[], String> meaning) {
            int at = pos;
            long n = Integer.toUnsignedLong(raw32(name));
            byte[] v = take(n, name);
            pad(n, name);
            fields.add(new Field(name, at, pos - at, Rdpesc.hex(v), n + " bytes: " + meaning.apply(v)));
            return v;
        }

        /** A context or card handle's bytes: the first four are the wire handle. */
        void handle(String name) {
            int at = pos;
            long n = Integer.toUnsignedLong(raw32(name));
            if (n < 4) throw new Stop(at, name + ": a handle of " + n + " bytes; a handle needs at least 4");
            int wire = raw32(name);
            take(n - 4, name);
            pad(n, name);
            fields.add(new Field(name, at, pos - at, Integer.toUnsignedLong(wire),
                    "wire handle " + Integer.toUnsignedString(wire) + (n == 4 ? "" : " (" + n + " bytes)")));
        }

        /** A conformant varying string of the call's width, its NUL included. */
        void string(String name, boolean wide) {
            int at = pos;
            long max = Integer.toUnsignedLong(raw32(name));
            long offset = Integer.toUnsignedLong(raw32(name));
            long n = Integer.toUnsignedLong(raw32(name));
            byte[] v = take(wide ? 2 * n : n, name);
            pad(v.length, name);
            String s = text(v, wide);
            fields.add(new Field(name, at, pos - at, s, quote(s) + " (max " + max + ", offset " + offset
                    + ", " + n + " characters)"));
        }

        /** A byte array holding a multi-string in the call's width. */
        void multiString(String name, boolean wide) {
            int at = pos;
            long n = Integer.toUnsignedLong(raw32(name));
            byte[] v = take(n, name);
            pad(n, name);
            List<String> names = new ArrayList<>();
            for (String s : text(v, wide).split("\0")) {
                if (!s.isEmpty()) names.add(quote(s + "\0"));
            }
            boolean zeros = n > 0 && v[0] == 0;
            fields.add(new Field(name, at, pos - at, text(v, wide), n + " bytes: "
                    + (zeros ? "all zero (length only)" : names.isEmpty() ? "empty" : String.join(", ", names))));
        }

        /** A conformant array of fixed-size elements, each read by {@code element} with its own prefix. */
        void array(String name, int elementSize, java.util.function.BiConsumer<Cursor, String> element) {
            long n = Integer.toUnsignedLong(u32("*" + name, v -> Integer.toUnsignedString(v) + " elements"));
            need(n * elementSize, "*" + name);
            for (int i = 0; i < n; i++) element.accept(this, name + "[" + i + "]");
        }

        /** A fixed array of ATR bytes of which {@code used} are meaningful. */
        void fixed(String name, int size, int used) {
            int at = pos;
            byte[] v = take(size, name);
            fields.add(new Field(name, at, size, Rdpesc.hex(v), atr(v, used)));
        }

        /** Shows the ATR field at {@code index} with the length that a later field gave. */
        void atrLength(int index, int used) {
            Field f = fields.get(index);
            fields.set(index, new Field(f.name(), f.offset(), f.size(), f.value(),
                    atr(Rdpesc.unhex((String) f.value()), used)));
        }

        private static String atr(byte[] v, int used) {
            if (used < 0 || used > v.length) return "ATR length " + Integer.toUnsignedString(used) + " beyond the array";
            return used == 0 ? "no ATR" : "ATR " + hex(java.util.Arrays.copyOf(v, used));
        }
    }

    static String text(byte[] v, boolean wide) {
        if (!wide) return new String(v, StandardCharsets.ISO_8859_1);
        StringBuilder s = new StringBuilder();
        for (int i = 0; i + 1 < v.length; i += 2) s.append((char) ((v[i] & 0xFF) | (v[i + 1] & 0xFF) << 8));
        return s.toString();
    }

    static String quote(String s) {
        int end = s.indexOf('\0');
        String shown = end < 0 ? s : s.substring(0, end);
        StringBuilder q = new StringBuilder("\"");
        for (char ch : shown.toCharArray()) {
            if (ch == '"' || ch == '\\') q.append('\\').append(ch);
            else if (ch < 0x20 || ch > 0x7E) q.append(String.format("\\u%04X", (int) ch));
            else q.append(ch);
        }
        q.append('"');
        return end < 0 ? q + " without NUL" : q.toString();
    }

    // ---- entry points ------------------------------------------------------------------------------

    /** The name of a call by its code, or null when the dispatcher has no handler for it. */
    public static String callName(int code) {
        Kind k = KINDS.get(code & 0xFFFF);
        return k == null ? null : k.name();
    }

    /** Parses a call code: decimal, hexadecimal (0x...), a full control code, or a call's name. */
    public static int parseCode(String s) {
        for (Kind k : KINDS.values()) {
            if (k.name().equalsIgnoreCase(s)) return k.code();
        }
        try {
            return (s.startsWith("0x") || s.startsWith("0X") ? Integer.parseUnsignedInt(s.substring(2), 16)
                    : Integer.parseInt(s)) & 0xFFFF;
        } catch (NumberFormatException e) {
            throw new IllegalArgumentException("not a call code or name: " + s);
        }
    }

    /** Decodes a request: what the library receives as {@code request} for control code {@code code}. */
    public static Decoded request(int code, byte[] bytes) {
        return decode(code & 0xFFFF, bytes, true);
    }

    /** Decodes a reply that the library returned for a call of {@code code}. */
    public static Decoded reply(int code, byte[] bytes) {
        return decode(code & 0xFFFF, bytes, false);
    }

    private static Decoded decode(int code, byte[] b, boolean request) {
        Kind k = KINDS.get(code);
        Decoded d = new Decoded(code, k == null ? "unknown call" : k.name(), request, b.length);
        if (k == null) {
            d.note = request ? "no handler for this code: the library answers with an empty reply"
                    : b.length == 0 ? "empty reply: the library has no handler for this code" : "no layout for this code";
            d.complete = request || b.length == 0;
            return d;
        }
        if (request && !k.supported()) {
            d.note = "not supported: the library answers ERROR_CALL_NOT_IMPLEMENTED without reading the request";
            d.complete = true;
            return d;
        }
        if (request && code == 224) {
            d.note = "the library only requires 4 bytes and reads none of them";
            if (b.length < 16) {
                d.complete = b.length >= 4;
                if (!d.complete) d.stop(0, "AccessStartedEvent: needs 4 bytes, " + b.length + " left");
                return d;
            }
        }
        Cursor c = new Cursor(b, 0);
        try {
            header(c, d, request);
            if (!request) c.u32("ReturnCode", Names::result);
            c.level(request ? k.request() : k.reply());
            d.finish(b, c.pos);
        } catch (Stop s) {
            d.stop(s.offset, s.getMessage());
        }
        d.fields.addAll(c.fields);
        return d;
    }

    /** The type-serialization header; a request is refused only for its endianness, as the library does. */
    private static void header(Cursor c, Decoded d, boolean request) {
        if (c.b.length < 2) c.need(16, "header");
        int endianness = c.b[1] & 0xFF;
        if (endianness != 0x10) {
            throw new Stop(1, String.format("header: endianness 0x%02X; only 0x10 (little-endian) is accepted", endianness));
        }
        c.need(16, "header");
        int version = c.b[0] & 0xFF;
        int common = (c.b[2] & 0xFF) | (c.b[3] & 0xFF) << 8;
        c.pos = 8;
        int length = c.raw32("header.ObjectBufferLength");
        c.pos = 16;
        String text = "version " + version + ", little-endian, ObjectBufferLength " + Integer.toUnsignedString(length);
        if (length != c.b.length - 16) text += " (" + (c.b.length - 16) + " bytes follow)";
        if (!request && (version != 1 || common != 8 || c.b[4] != (byte) 0xCC || c.b[12] != 0)) {
            text += ", not the library's framing";
        }
        c.fields.add(new Field("header", 0, 16, Integer.toUnsignedLong(length), text));
    }

    /** A decoded call: its fields, and either how it ended or where and why decoding stopped. */
    public static final class Decoded {
        public final int code;
        public final String call;
        public final boolean request;
        public final int length;
        public final List<Field> fields = new ArrayList<>();
        /** What stopped decoding, with its offset; null when the structure was read to its end. */
        public String error;
        public int errorOffset;
        /** A remark on the call as a whole (unsupported, trailing bytes). */
        public String note;
        private boolean complete;

        Decoded(int code, String call, boolean request, int length) {
            this.code = code;
            this.call = call;
            this.request = request;
            this.length = length;
        }

        void stop(int offset, String why) {
            error = why;
            errorOffset = offset;
            complete = false;
        }

        /** After the structure only the zero pad to 8 may follow. */
        void finish(byte[] b, int end) {
            int rest = b.length - end;
            boolean zeros = true;
            for (int i = end; i < b.length; i++) zeros &= b[i] == 0;
            complete = rest < 8 && zeros;
            if (!complete) note = rest + " bytes after the structure were not decoded";
        }

        /** True when every byte was accounted for: no stop, nothing left over but the pad. */
        public boolean complete() {
            return complete;
        }

        /** The field of that name, or null. */
        public Field field(String name) {
            for (Field f : fields) {
                if (f.name().equals(name)) return f;
            }
            return null;
        }

        /** The field's meaning, or its value when it has none; null when the field is absent. */
        public String show(String name) {
            Field f = field(name);
            return f == null ? null : f.text() != null ? f.text() : String.valueOf(f.value());
        }

        /** The call's result code, for a reply that got that far. */
        public Integer result() {
            Field f = field("ReturnCode");
            return f == null ? null : (int) (long) (Long) f.value();
        }

        public String title() {
            return call + " (" + code + ") " + (request ? "request" : "reply") + ", " + length + " bytes";
        }

        /** Several lines: a title, one line per field, and the note or the stop. */
        public String text() {
            StringBuilder s = new StringBuilder(title()).append('\n');
            for (Field f : fields) {
                s.append(String.format("  %-40s %s%n", f.name(), f.text() != null ? f.text() : f.value()));
            }
            if (note != null) s.append("  (").append(note).append(")\n");
            if (error != null) s.append("  decoding stopped at offset ").append(errorOffset).append(": ").append(error).append('\n');
            return s.toString();
        }

        /** One JSON object. */
        public String json() {
            Json j = new Json().put("code", code).put("call", call).put("direction", request ? "request" : "reply")
                    .put("length", length).put("complete", complete);
            List<String> fs = new ArrayList<>();
            for (Field f : fields) {
                fs.add(new Json().put("name", f.name()).put("offset", f.offset()).put("value", f.value())
                        .put("text", f.text()).toString());
            }
            j.raw("fields", "[" + String.join(",", fs) + "]");
            if (note != null) j.put("note", note);
            if (error != null) j.raw("error", new Json().put("offset", errorOffset).put("reason", error).toString());
            return j.toString();
        }
    }

    /** A JSON object written field by field; strings are escaped, numbers and booleans written bare. */
    public static final class Json {
        private final StringBuilder s = new StringBuilder();

        public Json put(String key, Object v) {
            if (v == null) return this;
            return raw(key, v instanceof Number || v instanceof Boolean ? v.toString() : quoteJson(v.toString()));
        }

        public Json raw(String key, String json) {
            s.append(s.length() == 0 ? "" : ",").append(quoteJson(key)).append(':').append(json);
            return this;
        }

        static String quoteJson(String v) {
            StringBuilder q = new StringBuilder("\"");
            for (char ch : v.toCharArray()) {
                if (ch == '"' || ch == '\\') q.append('\\').append(ch);
                else if (ch < 0x20) q.append(String.format("\\u%04x", (int) ch));
                else q.append(ch);
            }
            return q.append('"').toString();
        }

        @Override
        public String toString() {
            return "{" + s + "}";
        }
    }
}
