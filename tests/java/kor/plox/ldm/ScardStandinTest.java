package kor.plox.ldm;

import kor.plox.ldm.tool.Rdpesc;
import static org.junit.jupiter.api.Assertions.*;

import org.junit.jupiter.api.*;

/**
 * The smart card entry points against the scripted PC/SC stand-in (LD_LIBRARY_PATH selects it),
 * which has the context calls and SCardConnect and lacks every other entry.
 */
class ScardStandinTest {
    private static final NativeLDM ldm = new NativeLDM();
    private static final byte[] ESTABLISH = Rdpesc.call().u32(2).build();

    @AfterEach
    void noServiceLeft() {
        assertNull(process(0, Rdpesc.INTRODUCE_READER_A, new byte[4]), "every owner closed: no service");
    }

    static byte[] process(int owner, int ioctl, byte[] request) {
        return ldm.m_native_scard_process(new int[1], owner, ioctl, request, request.length);
    }

    @Test
    void ownerIdMethodsAnswerThroughTheirArraysAndNativeSmartTakesAShortCode() {
        int[] err = {77}, status = {5}, id = {0}, status2 = {9};
        assertTrue(NativeLDM.m_native_scard_create(err, status, id));
        assertEquals(77, err[0], "a successful create leaves err");
        assertEquals(0, status[0]);
        assertEquals(id[0] + 1, NativeLDM.NativeGetSmartCardID(status2));
        assertEquals(0, status2[0]);
        // The short code selects the call; the second short is not used.
        Rdpesc.Reply established = Rdpesc.reply(
                NativeLDM.NativeSmart(id[0], (short) 0x14, (short) 0x7777, ESTABLISH, ESTABLISH.length));
        assertEquals(1, established.at(32), "the first wire handle");
        byte[] connect = Rdpesc.call().u32(1, 4, 1, 2, 2).stringA("R").handle(1).build();
        assertEquals(0x8010002E, Rdpesc.reply(process(id[0], Rdpesc.CONNECT_A, connect)).result(),
                "the stand-in's SCARD_E_NO_READERS_AVAILABLE");
        byte[] list = Rdpesc.call().u32(4, 1, 0, 0, 0, 100).handle(1).build();
        assertEquals(120, Rdpesc.reply(process(id[0], Rdpesc.LIST_READERS_A, list)).result(), "a missing entry");
        assertTrue(NativeLDM.m_native_scard_close(err, id[0]));
        assertTrue(NativeLDM.m_native_scard_close(err, id[0] + 1));
    }

    @Test
    void malformedRequestThrowsAndTheArrayBoundsTheLength() {
        int[] id = {0};
        assertTrue(NativeLDM.m_native_scard_create(new int[1], new int[1], id));
        int owner = id[0];
        for (int length : new int[] {19, 0}) {
            Error cut = assertThrows(Error.class,
                    () -> ldm.m_native_scard_process(null, owner, Rdpesc.ESTABLISH_CONTEXT, ESTABLISH, length));
            assertEquals("provide", cut.getMessage(), "length " + length);
        }
        assertEquals(0, ldm.m_native_scard_process(null, owner, 0x000900E4, ESTABLISH, 20).length, "unknown code");
        byte[] beyond = ldm.m_native_scard_process(null, owner, Rdpesc.ESTABLISH_CONTEXT, ESTABLISH, 1 << 30);
        assertEquals(0, Rdpesc.reply(beyond).result());
        // The failed call gave its use back: this close tears the service down (checked after each test).
        assertTrue(NativeLDM.m_native_scard_close(new int[1], owner));
    }
}
