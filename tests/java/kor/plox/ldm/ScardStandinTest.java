package kor.plox.ldm;

import kor.plox.ldm.tool.Rdpesc;
import static org.junit.jupiter.api.Assertions.*;

import java.nio.file.*;
import java.util.List;
import java.util.concurrent.*;
import org.junit.jupiter.api.*;

/** The smart card entry points against the scripted PC/SC stand-in (LD_LIBRARY_PATH selects it). */
class ScardStandinTest {
    private static final NativeLDM ldm = new NativeLDM();
    private static final byte[] ESTABLISH = Rdpesc.call().u32(2).build();

    @AfterEach
    void noServiceLeft() {
        PcscStandin.reset();
        assertNull(process(0, Rdpesc.INTRODUCE_READER_A, new byte[4]), "every owner closed: no service");
    }

    static byte[] process(int owner, int ioctl, byte[] request) {
        return ldm.m_native_scard_process(new int[1], owner, ioctl, request, request.length);
    }

    static int create() {
        int[] err = {77}, status = {5}, id = {0};
        assertTrue(NativeLDM.m_native_scard_create(err, status, id) && err[0] == 77 && status[0] == 0);
        return id[0];
    }

    static int establish(int owner) {
        Rdpesc.Reply r = Rdpesc.reply(process(owner, Rdpesc.ESTABLISH_CONTEXT, ESTABLISH));
        assertArrayEquals(new int[] {0, 4, 1, 4}, new int[] {r.result(), r.u32(), r.u32(), r.u32()});
        return r.u32();
    }

    static void close(int owner) {
        assertTrue(NativeLDM.m_native_scard_close(new int[] {-5}, owner));
    }

    static byte[] contextCall(int wire) {
        return Rdpesc.call().u32(4, 0x20000).handle(wire).build();
    }

    @Test
    void ownerIdsCountOnAcrossRebuilds() {
        assertNull(NativeLDM.NativeSmart(1, (short) 0x14, (short) 0, ESTABLISH, 20));
        int[] status = {9};
        int a = create(), b = NativeLDM.NativeGetSmartCardID(status);
        assertEquals(List.of(a + 1, 0, 1, 2), List.of(b, status[0], establish(a), establish(b)));
        for (int owner : new int[] {a, b}) close(owner);
        int c = create();
        assertEquals(List.of(b + 1, 1), List.of(c, establish(c)), "a fresh service numbers from 1");
        close(c);
    }

    @Test
    void contextCallsAndNativeSmartReachPcscWithTheirHandles() {
        int owner = create();
        int wire = Rdpesc.reply(NativeLDM.NativeSmart(owner, (short) 0x14, (short) 0x7777, ESTABLISH, 20)).at(32);
        assertArrayEquals(process(owner, Rdpesc.INTRODUCE_READER_A, new byte[0]),
                NativeLDM.NativeSmart(owner, (short) 0x60, (short) 0, new byte[0], 0));
        PcscStandin.script("SCardIsValidContext rc=0x80100003");
        assertEquals(0x80100003, Rdpesc.reply(process(owner, Rdpesc.IS_VALID_CONTEXT, contextCall(wire))).result());
        for (int code : new int[] {Rdpesc.CANCEL, Rdpesc.RELEASE_CONTEXT, Rdpesc.IS_VALID_CONTEXT})
            Rdpesc.reply(process(owner, code, contextCall(wire)));
        close(owner);
        assertEquals(List.of("SCardEstablishContext scope=0x2 r1=null r2=null ctx_out=ptr",
                "SCardIsValidContext ctx=0xc0000001", "SCardCancel ctx=0xc0000001",
                "SCardReleaseContext ctx=0xc0000001", "SCardIsValidContext ctx=0xffffffffffffffff"),
                List.of(PcscStandin.calls()), "the close found nothing left to release");
    }

    @Test
    void malformedRequestsThrowWithoutReachingPcscAndLengthsAreClamped() {
        int owner = create(), wire = establish(owner);
        byte[] wrongEndian = contextCall(wire);
        wrongEndian[1] = 0;
        Object[][] cases = {{Rdpesc.RELEASE_CONTEXT, contextCall(wire), 27, "provide"},
            {Rdpesc.IS_VALID_CONTEXT, wrongEndian, wrongEndian.length, "wrong endianess"},
            {Rdpesc.CANCEL, Rdpesc.call().u32(4, 1, 3, wire).build(), 32, "bad handle"},
            {Rdpesc.ESTABLISH_CONTEXT, ESTABLISH, 0, "provide"}};
        for (Object[] c : cases) {
            assertEquals(c[3], assertThrows(Error.class, () -> ldm.m_native_scard_process(null, owner, (Integer) c[0],
                    (byte[]) c[1], (Integer) c[2])).getMessage());
        }
        assertEquals(1, PcscStandin.calls().length, "PC/SC was not called");
        assertEquals(0, ldm.m_native_scard_process(null, owner, 0x000900E4, ESTABLISH, 0).length);
        byte[] beyond = ldm.m_native_scard_process(null, owner, Rdpesc.ESTABLISH_CONTEXT, ESTABLISH, 1 << 30);
        assertEquals(0, Rdpesc.reply(beyond).result());
        close(owner);  // the failed calls gave their uses back: this tears the service down
    }

    @Test
    void cancelOrCloseEndsABlockedStatusChange() throws Exception {
        PcscStandin.script("SCardGetStatusChange block=1");
        for (boolean byClose : new boolean[] {false, true}) {
            int owner = create(), wire = establish(owner);
            byte[] wait = Rdpesc.call().u32(4, 1, -1, 0, 0).handle(wire).build();  // infinite, no reader states
            var blocked = CompletableFuture.supplyAsync(() -> process(owner, Rdpesc.GET_STATUS_CHANGE_A, wait));
            assertTrue(PcscStandin.waitBlocked(1, 10000));
            if (byClose) close(owner);  // SCardCancel, SCardReleaseContext; the blocked call holds the service
            else assertEquals(0, Rdpesc.reply(process(owner, Rdpesc.CANCEL, contextCall(wire))).result());
            assertEquals(0x80100002, Rdpesc.reply(blocked.get(10, TimeUnit.SECONDS)).result());
            if (!byClose) close(owner);
        }
    }

    @Test
    void capturedServerRequestsGetWellFramedReplies() throws Exception {
        List<String[]> requests = Files.readAllLines(Path.of(System.getenv("KORJNIDR_TRACES"))).stream()
                .filter(l -> !l.startsWith("#") && !l.isBlank()).map(l -> l.split("\t")).toList();
        assertEquals(41, requests.size());
        int owner = create();
        establish(owner);
        for (String[] f : requests) {
            byte[] reply = ldm.m_native_scard_process(null, owner, Integer.decode(f[1]), Rdpesc.unhex(f[3]),
                    Integer.parseInt(f[2]));
            assertNull(Rdpesc.framingProblem(reply), f[0]);
        }
        close(owner);
    }
}
