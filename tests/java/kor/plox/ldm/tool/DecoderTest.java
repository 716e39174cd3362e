package kor.plox.ldm.tool;

import static kor.plox.ldm.tool.Rdpesc.call;
import static kor.plox.ldm.tool.Rdpesc.onCard;
import static kor.plox.ldm.tool.Rdpesc.replyOf;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.List;
import java.util.stream.Stream;
import org.junit.jupiter.api.DynamicTest;
import org.junit.jupiter.api.TestFactory;

/** Calls built by the encoder decode completely, with the fields named and their values read back. */
class DecoderTest {
    /** code, request (true) or reply, the bytes, then "field=meaning" pairs that must be decoded. */
    record Row(int code, boolean request, byte[] bytes, String... expect) {
    }

    static byte[] a(String s) {
        return s.getBytes(StandardCharsets.ISO_8859_1);
    }

    static byte[] w(String s) {
        return s.getBytes(StandardCharsets.UTF_16LE);
    }

    static byte[] atr(int size, int... bytes) {
        byte[] b = new byte[size];
        for (int i = 0; i < bytes.length; i++) b[i] = (byte) bytes[i];
        return b;
    }

    static final String OK = "ReturnCode=SCARD_S_SUCCESS (0x00000000)";
    static final String R1 = "\"R1\" (max 3, offset 0, 3 characters)";

    static final List<Row> ROWS = List.of(
        new Row(20, true, Rdpesc.establishContext(2), "dwScope=SCARD_SCOPE_SYSTEM"),
        new Row(20, false, replyOf(0).u32(4, 1).handle(1).build(), OK, "*Context.pbContext=wire handle 1"),
        new Row(24, true, Rdpesc.context(7), "*Context.pbContext=wire handle 7"),
        new Row(24, false, replyOf(0x80100003).build(), "ReturnCode=SCARD_E_INVALID_HANDLE (0x80100003)"),
        new Row(28, true, call().u32(0, 0).build(), "Context.pbContext=null"),
        new Row(168, true, call().u32(8, 1).bytes(atr(8, 7, 0, 0, 0, 9)).build(),
                "*Context.pbContext=wire handle 7 (8 bytes)"),
        new Row(32, true, call().u32(4, 1, 1, 0).handle(3).build(), "fmszGroupsIsNULL=true"),
        new Row(32, false, replyOf(0).u32(7, 1).bytes(a("G1\0G2\0\0")).build(), "*msz=7 bytes: \"G1\", \"G2\""),
        new Row(36, true, call().u32(4, 1, 0, -1).handle(3).build(), "cchGroups=SCARD_AUTOALLOCATE"),
        new Row(36, false, replyOf(0).u32(14, 1).bytes(w("G1\0G2\0\0")).build(), "*msz=14 bytes: \"G1\", \"G2\""),
        new Row(40, true, call().u32(4, 1, 0, 0, 0, 1024).handle(3).build(), "cchReaders=1024"),
        new Row(40, false, replyOf(0).u32(4, 1).bytes(new byte[4]).build(), "*msz=4 bytes: all zero (length only)"),
        new Row(44, true, call().u32(4, 1, 36, 1, 0, -1).handle(3).bytes(w("SCard$AllReaders\0\0")).build(),
                "*mszGroups=36 bytes: \"SCard$AllReaders\""),
        new Row(44, false, replyOf(0x8010002E).u32(0, 0).build(), "ReturnCode=SCARD_E_NO_READERS_AVAILABLE (0x8010002E)"),
        new Row(160, true, Rdpesc.getStatusChange(3, 0, false, new String[] {"R1"}, new int[] {0x22}),
                "*rgReaderStates[0].szReader=" + R1,
                "rgReaderStates[0].Common.dwCurrentState=SCARD_STATE_CHANGED|SCARD_STATE_PRESENT"),
        new Row(160, false, replyOf(0x8010000A).u32(0, 0).build(), "ReturnCode=SCARD_E_TIMEOUT (0x8010000A)"),
        new Row(164, true, Rdpesc.getStatusChange(3, -1, true, new String[] {"R\u00e9"}, new int[] {0x10010}),
                "dwTimeOut=INFINITE", "*rgReaderStates[0].szReader=\"R\\u00E9\" (max 3, offset 0, 3 characters)",
                "rgReaderStates[0].Common.dwCurrentState=SCARD_STATE_EMPTY, event count 1"),
        new Row(164, false, replyOf(0).u32(1, 1, 1, 0x10, 0x22, 2).raw(atr(36, 0x3B, 0)).build(),
                "rgReaderStates[0].dwEventState=SCARD_STATE_CHANGED|SCARD_STATE_PRESENT", "rgReaderStates[0].rgbAtr=ATR 3B 00"),
        new Row(172, true, Rdpesc.connect(3, "R1", false, 2, 3), "*szReader=" + R1,
                "Common.dwShareMode=SCARD_SHARE_SHARED", "Common.dwPreferredProtocols=SCARD_PROTOCOL_T0|SCARD_PROTOCOL_T1"),
        new Row(172, false, replyOf(0).u32(0, 0, 4, 1, 2).handle(2).build(),
                "dwActiveProtocol=SCARD_PROTOCOL_T1", "*hCard.pbHandle=wire handle 2"),
        new Row(176, true, Rdpesc.connect(3, "R1", true, 1, 0x10000), "*szReader=" + R1,
                "Common.dwShareMode=SCARD_SHARE_EXCLUSIVE", "Common.dwPreferredProtocols=SCARD_PROTOCOL_RAW"),
        new Row(176, false, replyOf(0x8010000C).u32(0, 0, 0, 0, 0).build(), "hCard.pbHandle=null"),
        new Row(180, true, onCard(3, 5, 2, 2, 1), "dwInitialization=SCARD_RESET_CARD", "*hCard.pbHandle=wire handle 5"),
        new Row(180, false, replyOf(0).u32(1).build(), "dwActiveProtocol=SCARD_PROTOCOL_T0"),
        new Row(184, true, onCard(3, 5, 3), "dwDisposition=SCARD_EJECT_CARD", "*hCard.Context.pbContext=wire handle 3"),
        new Row(188, true, onCard(3, 5, 0), "dwDisposition=SCARD_LEAVE_CARD"),
        new Row(192, true, onCard(3, 5, 2), "dwDisposition=SCARD_UNPOWER_CARD"),
        new Row(192, false, replyOf(0x80100016).build(), "ReturnCode=SCARD_E_NOT_TRANSACTED (0x80100016)"),
        new Row(200, true, onCard(3, 5, 1, 50, 32), "fmszReaderNamesIsNULL=true", "cbAtrLen=32"),
        new Row(200, false, replyOf(0).u32(4, 1, 6, 2).raw(atr(32, 0x3B, 0, 0)).u32(3).bytes(a("R1\0\0")).build(),
                "dwState=SCARD_SPECIFIC", "pbAtr=ATR 3B 00 00", "*mszReaderNames=4 bytes: \"R1\""),
        new Row(204, true, onCard(3, 5, 0, -1, 32), "cchReaderLen=SCARD_AUTOALLOCATE"),
        new Row(204, false, replyOf(0).u32(8, 1, 6, 0x10000).raw(atr(32)).u32(0).bytes(w("R1\0\0")).build(),
                "dwProtocol=SCARD_PROTOCOL_RAW", "pbAtr=no ATR", "*mszReaderNames=8 bytes: \"R1\""),
        new Row(208, true, call().u32(4, 1, 4, 1, 1, 3, 1, 5, 1, 1, 0, 258).handle(3).handle(5).bytes(atr(3, 1, 2, 3))
                .bytes(atr(5, 0, 0xB0)).u32(2, 0, 0).build(), "*ioSendPci.pbExtraBytes=3 bytes: 01 02 03",
                "*pbSendBuffer=5 bytes: READ BINARY: 00 B0 00 00 00", "*pioRecvPci.dwProtocol=SCARD_PROTOCOL_T1"),
        new Row(208, false, replyOf(0).u32(0, 2, 2).bytes(atr(2, 0x90, 0)).build(),
                "*pbRecvBuffer=2 bytes: 90 00 (SW 9000: success)"),
        new Row(212, true, call().u32(4, 1, 4, 1, 0x313520, 2, 1, 0, 200).handle(3).handle(5).bytes(atr(2, 1, 2)).build(),
                "dwControlCode=SCARD_CTL_CODE(3400) CM_IOCTL_GET_FEATURE_REQUEST, server form", "*pvInBuffer=2 bytes: 01 02"),
        new Row(212, false, replyOf(0).u32(3, 1).bytes(atr(3, 1, 2, 3)).build(), "*pvOutBuffer=3 bytes: 01 02 03"),
        new Row(216, true, onCard(3, 5, 0x7FFF0003, 0, -1), "dwAttrId=SCARD_ATTR_DEVICE_FRIENDLY_NAME_A"),
        new Row(216, false, replyOf(0).u32(4, 1).bytes(a("R1\0\0")).build(), "*pbAttr=4 bytes: 52 31 00 00 \"R1\""),
        new Row(220, true, call().u32(4, 1, 4, 1, 0x80201, 4, 1).handle(3).handle(5).bytes(atr(4, 2)).build(),
                "dwAttrId=SCARD_ATTR_CURRENT_PROTOCOL_TYPE", "*pbAttr=4 bytes: 02 00 00 00"),
        new Row(224, true, call().u32(0).build(), "Unused=0"),
        new Row(224, false, replyOf(0).build(), OK),
        new Row(96, true, new byte[3]),
        new Row(100, false, replyOf(120).build(), "ReturnCode=ERROR_CALL_NOT_IMPLEMENTED (0x00000078)"),
        new Row(152, false, replyOf(120).u32(0, 0).build(), "rgReaderStates=null"),
        new Row(196, false, replyOf(120).u32(0, 0, 0, 0).build(), "dwState=SCARD_UNKNOWN", "rgAtr=null"),
        new Row(240, false, replyOf(120).u32(0, 0).build(), "pbData=null"),
        new Row(256, false, replyOf(120).u32(0).build(), "cTransmitCount=0"),
        new Row(228, true, new byte[8]),
        new Row(228, false, new byte[0]));

    @TestFactory
    Stream<DynamicTest> everyCallKindRoundTrips() {
        return ROWS.stream().map(r -> DynamicTest.dynamicTest(r.code + (r.request ? " request" : " reply"), () -> {
            Decoder.Decoded d = r.request ? Decoder.request(r.code, r.bytes) : Decoder.reply(r.code, r.bytes);
            assertTrue(d.complete(), d.text());
            for (String e : r.expect) {
                int eq = e.indexOf('=');
                assertEquals(e.substring(eq + 1), d.show(e.substring(0, eq)), d.text());
            }
        }));
    }

    @TestFactory
    Stream<DynamicTest> everyCapturedRequestDecodesCompletely() throws Exception {
        return Capture.read(Path.of(System.getenv("KORJNIDR_CAPTURE"))).stream().map(r -> DynamicTest.dynamicTest(r.id(), () -> {
            Decoder.Decoded d = Decoder.request(r.ioctl(), r.bytes());
            assertTrue(d.complete(), d.text());
            assertTrue(!d.fields.isEmpty(), d.text());
        }));
    }

    /** Malformed input: status 1 (2 for bad usage), one line on standard error saying why, no trace. */
    @TestFactory
    Stream<DynamicTest> malformedBuffersGiveOneLine() {
        String[][] cases = {
            {"20", "01", "1", "offset 0: header: needs 16 bytes, 1 left"},
            {"20", "0100080000000000", "1", "offset 1: header: endianness 0x00; only 0x10"},
            {"24", Rdpesc.hex(call().u32(4, 1, 3, 7).build()), "1", "offset 24: *Context.pbContext: a handle of 3 bytes"},
            {"208", Rdpesc.hex(call().u32(4, 0, 4, 0, 1, 0, 0, 5, 1, 0, 0, 2, -1).build()), "1",
                "offset 68: *pbSendBuffer: needs 4294967295 bytes, 0 left"},
            {"160", Rdpesc.hex(call().u32(0, 0, 0, 1, 1, 0x10000000).build()), "1",
                "*rgReaderStates: needs 13958643712 bytes, 0 left"},
            {"20", Rdpesc.hex(call().u32(0, 1, 2, 3).build()), "1", "12 bytes after the structure were not decoded"},
            {"20", "0110ZZ", "2", "not hexadecimal"},
        };
        return Stream.of(cases).map(c -> DynamicTest.dynamicTest(c[3], () -> {
            ByteArrayOutputStream out = new ByteArrayOutputStream();
            ByteArrayOutputStream err = new ByteArrayOutputStream();
            int status = Korjnidr.run(new String[] {"decode", "--code", c[0], "--request", c[1]},
                    new PrintStream(out, true), new PrintStream(err, true));
            String message = err.toString();
            assertEquals(Integer.parseInt(c[2]), status, message);
            assertEquals(1, message.lines().count(), message);
            assertTrue(message.contains(c[3]), message);
        }));
    }
}
