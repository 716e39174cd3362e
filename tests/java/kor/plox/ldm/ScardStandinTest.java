package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.*;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.*;

/** The smart card entry points against the scripted PC/SC stand-in (LD_LIBRARY_PATH selects it). */
@TestMethodOrder(MethodOrderer.OrderAnnotation.class)
class ScardStandinTest {
    private static final NativeLDM ldm = new NativeLDM();

    @BeforeEach
    void reset() {
        PcscStandin.reset();
    }

    @AfterEach
    void noServiceLeft() {
        assertNull(process(0, Rdpesc.INTRODUCE_READER_A, new byte[4]), "every owner closed: no service");
    }

    static byte[] process(int owner, int ioctl, byte[] request) {
        return ldm.m_native_scard_process(new int[1], owner, ioctl, request, request.length);
    }

    static int create() {
        int[] err = {77}, status = {5}, id = {0};
        assertTrue(NativeLDM.m_native_scard_create(err, status, id));
        assertEquals(0, status[0]);
        assertEquals(77, err[0]);
        return id[0];
    }

    static void close(int owner) {
        assertTrue(NativeLDM.m_native_scard_close(new int[] {-5}, owner));
    }

    static int establish(int owner) {
        Rdpesc.Reply r = Rdpesc.reply(process(owner, Rdpesc.ESTABLISH_CONTEXT, Rdpesc.call().u32(2).build()));
        assertEquals(0, r.result());
        assertEquals(4, r.u32());
        assertEquals(1, r.u32());
        return r.array().length == 4 ? r.at(32) : -1;
    }

    static byte[] contextCall(int wire) {
        return Rdpesc.call().u32(4, 0x20000).handle(wire).build();
    }

    static List<String> calls() {
        return Arrays.asList(PcscStandin.calls());
    }

    @Test
    @Order(1)
    void ownerIdsCountOnAcrossRebuilds() {
        assertNull(process(1, Rdpesc.ESTABLISH_CONTEXT, Rdpesc.call().u32(2).build()));
        assertNull(NativeLDM.NativeSmart(1, (short) 0x14, (short) 0, Rdpesc.call().u32(2).build(), 20));
        int[] status = {9};
        assertEquals(1, create());
        assertEquals(2, NativeLDM.NativeGetSmartCardID(status));
        assertEquals(0, status[0]);
        assertEquals(1, establish(1));
        assertEquals(2, establish(2));
        close(1);
        close(2);
        int third = create();
        assertEquals(3, third);
        assertEquals(1, establish(third), "a fresh service numbers from 1");
        close(third);
    }

    @Test
    void contextCallsReachPcscWithTheirHandles() {
        int owner = create();
        int wire = establish(owner);
        PcscStandin.script("SCardIsValidContext rc=0x80100003");
        assertEquals(0x80100003, Rdpesc.reply(process(owner, Rdpesc.IS_VALID_CONTEXT, contextCall(wire))).result());
        Rdpesc.reply(process(owner, Rdpesc.CANCEL, contextCall(wire)));
        Rdpesc.reply(process(owner, Rdpesc.RELEASE_CONTEXT, contextCall(wire)));
        Rdpesc.reply(process(owner, Rdpesc.IS_VALID_CONTEXT, contextCall(wire)));
        assertEquals(List.of("SCardEstablishContext scope=0x2 r1=null r2=null ctx_out=ptr",
                "SCardIsValidContext ctx=0xc0000001", "SCardCancel ctx=0xc0000001",
                "SCardReleaseContext ctx=0xc0000001", "SCardIsValidContext ctx=0xffffffffffffffff"), calls());
        close(owner);
        assertEquals(5, calls().size(), "nothing left to release");
    }

    @Test
    void nativeSmartReachesTheSameHandlers() {
        int owner = create();
        byte[] viaShort = NativeLDM.NativeSmart(owner, (short) 0x14, (short) 0x7777, Rdpesc.call().u32(2).build(), 20);
        assertEquals(1, Rdpesc.reply(viaShort).at(32));
        assertArrayEquals(process(owner, Rdpesc.INTRODUCE_READER_A, new byte[0]),
                NativeLDM.NativeSmart(owner, (short) 0x60, (short) 0, new byte[0], 0));
        assertEquals(0, NativeLDM.NativeSmart(owner, (short) 0xE4, (short) 0, new byte[8], 8).length);
        close(owner);
    }

    @Test
    void malformedRequestsThrowWithoutReachingPcsc() {
        int owner = create();
        int wire = establish(owner);
        byte[] wrongEndian = contextCall(wire);
        wrongEndian[1] = 0;
        Object[][] cases = {
            {Rdpesc.RELEASE_CONTEXT, Arrays.copyOf(contextCall(wire), 27), "provide"},
            {Rdpesc.IS_VALID_CONTEXT, wrongEndian, "wrong endianess"},
            {Rdpesc.CANCEL, Rdpesc.call().u32(4, 1, 3, wire).build(), "bad handle"},
            {Rdpesc.ACCESS_STARTED_EVENT, new byte[3], "provide"},
        };
        int before = calls().size();
        for (Object[] c : cases) {
            Error e = assertThrows(Error.class, () -> process(owner, (Integer) c[0], (byte[]) c[1]));
            assertEquals(c[2], e.getMessage());
        }
        assertEquals(before, calls().size(), "PC/SC was not called");
        close(owner);  // the uses of the failed calls were given back: this tears the service down
    }

    @Test
    void requestLengthIsClampedToTheArray() {
        int owner = create();
        byte[] req = Rdpesc.call().u32(2).build();
        Error zero = assertThrows(Error.class,
                () -> ldm.m_native_scard_process(null, owner, Rdpesc.ESTABLISH_CONTEXT, req, 0));
        assertEquals("provide", zero.getMessage());
        Error negative = assertThrows(Error.class,
                () -> ldm.m_native_scard_process(null, owner, Rdpesc.ESTABLISH_CONTEXT, req, -8));
        assertEquals("provide", negative.getMessage());
        Error cut = assertThrows(Error.class,
                () -> ldm.m_native_scard_process(null, owner, Rdpesc.ESTABLISH_CONTEXT, req, 19));
        assertEquals("provide", cut.getMessage());
        assertEquals(0, ldm.m_native_scard_process(null, owner, 0x000900E4, req, 0).length);
        byte[] beyond = ldm.m_native_scard_process(null, owner, Rdpesc.ESTABLISH_CONTEXT, req, 1 << 30);
        assertEquals(0, Rdpesc.reply(beyond).result());
        assertEquals(1, calls().size());
        close(owner);
    }

    @Test
    void cancelEndsABlockedStatusChange() throws Exception {
        int owner = create();
        int wire = establish(owner);
        PcscStandin.script("SCardGetStatusChange block=1");
        byte[] wait = Rdpesc.call().u32(4, 1, -1, 0, 0).handle(wire).build();
        CompletableFuture<byte[]> blocked = CompletableFuture.supplyAsync(() -> process(owner, Rdpesc.GET_STATUS_CHANGE_A, wait));
        assertTrue(PcscStandin.waitBlocked(1, 10000));
        assertEquals(0, Rdpesc.reply(process(owner, Rdpesc.CANCEL, contextCall(wire))).result());
        assertEquals(0x80100002, Rdpesc.reply(blocked.get(10, TimeUnit.SECONDS)).result());
        close(owner);
    }

    @Test
    void closeDuringABlockedCallTearsDownWhenTheCallEnds() throws Exception {
        int owner = create();
        int wire = establish(owner);
        PcscStandin.script("SCardGetStatusChange block=1");
        byte[] wait = Rdpesc.call().u32(4, 1, -1, 0, 0).handle(wire).build();
        CompletableFuture<byte[]> blocked = CompletableFuture.supplyAsync(() -> process(owner, Rdpesc.GET_STATUS_CHANGE_A, wait));
        assertTrue(PcscStandin.waitBlocked(1, 10000));
        close(owner);  // SCardCancel, then SCardReleaseContext; the blocked call still holds the service
        assertEquals(0x80100002, Rdpesc.reply(blocked.get(10, TimeUnit.SECONDS)).result());
        List<String> c = calls();
        assertEquals("SCardCancel ctx=0xc0000001", c.get(c.size() - 2));
        assertEquals("SCardReleaseContext ctx=0xc0000001", c.get(c.size() - 1));
    }

    @Test
    void capturedServerRequestsGetWellFramedReplies() throws Exception {
        String where = System.getProperty("korjnidr.traces", System.getenv("KORJNIDR_TRACES"));
        Assumptions.assumeTrue(where != null && Files.exists(Path.of(where)), "no captured requests");
        Path trace = Path.of(where);
        int owner = create();
        establish(owner);
        int replayed = 0;
        for (String line : Files.readAllLines(trace)) {
            if (line.startsWith("#") || line.isBlank()) continue;
            String[] f = line.split("\t");
            byte[] req = Rdpesc.unhex(f[3]);
            byte[] reply = ldm.m_native_scard_process(null, owner, Integer.decode(f[1]), req, Integer.parseInt(f[2]));
            assertNull(Rdpesc.framingProblem(reply), f[0]);
            replayed++;
        }
        assertEquals(41, replayed);
        close(owner);
    }
}
