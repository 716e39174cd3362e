package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.*;

import java.nio.charset.StandardCharsets;
import java.util.Arrays;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/**
 * Reader states, card status and attributes through the library against pcscd with the virtual
 * card of tests/realstack: waits that a Cancel or the owner's close ends, and the name, protocol
 * and ATR of a connected card.
 */
class ScardStateRealStackTest {
    static final String READER = "Virtual PCD 00 00";
    static final byte[] ATR = Rdpesc.unhex("3B951381018073FF01000B");
    static final int GET_STATUS_CHANGE_W = 0x000900A4, STATUS_A = 0x000900C8, STATUS_W = 0x000900CC;
    static final int GET_ATTRIB = 0x000900D8;
    static final int SCARD_STATE_CHANGED = 0x2, SCARD_STATE_PRESENT = 0x20, SCARD_E_CANCELLED = 0x80100002;
    static final int FRIENDLY_NAME_A = 0x7FFF0003, FRIENDLY_NAME_W = 0x7FFF0005, CURRENT_PROTOCOL = 0x00080201;

    static final NativeLDM ldm = new NativeLDM();
    int owner;
    int context;
    boolean closed;

    Rdpesc.Reply process(int code, byte[] request) {
        return Rdpesc.reply(ldm.m_native_scard_process(new int[1], owner, code, request, request.length));
    }

    @BeforeEach
    void open() {
        int[] id = new int[1];
        assertTrue(NativeLDM.m_native_scard_create(new int[1], new int[1], id));
        owner = id[0];
        Rdpesc.Reply r = process(Rdpesc.ESTABLISH_CONTEXT, Rdpesc.call().u32(2).build());
        assertEquals(0, r.result());
        context = r.at(32);
    }

    @AfterEach
    void close() {
        if (!closed) NativeLDM.m_native_scard_close(new int[1], owner);
    }

    /** GetStatusChange on the virtual reader; the name goes as 8-bit or 16-bit characters. */
    byte[] statusChangeRequest(boolean wide, int timeout, int currentState) {
        Rdpesc.Call c = Rdpesc.call().u32(4, 1, timeout, 1, 2).handle(context).u32(1).u32(3, currentState, 0, 0)
                .u32(new int[9]);
        if (!wide) return c.stringA(READER).build();
        char[] units = (READER + "\0").toCharArray();
        c.u32(units.length, 0, units.length);
        for (int i = 0; i < units.length; i += 2) c.u32(units[i] | (i + 1 < units.length ? units[i + 1] << 16 : 0));
        return c.build();
    }

    /** Event state of the reader as PC/SC reports it now. */
    int currentState() {
        Rdpesc.Reply r = process(Rdpesc.GET_STATUS_CHANGE_A, statusChangeRequest(false, 0, 0));
        assertEquals(0, r.result(), Integer.toHexString(r.result()));
        return r.at(36) & ~SCARD_STATE_CHANGED;
    }

    @Test
    void statusChangeSeesTheCardInBothForms() {
        for (boolean wide : new boolean[] {false, true}) {
            Rdpesc.Reply r = process(wide ? GET_STATUS_CHANGE_W : Rdpesc.GET_STATUS_CHANGE_A,
                    statusChangeRequest(wide, 0, 0));
            assertEquals(0, r.result(), Integer.toHexString(r.result()));
            assertEquals(1, r.u32());
            assertEquals(1, r.u32());
            assertEquals(1, r.u32());
            assertEquals(0, r.u32(), "current state as sent");
            assertNotEquals(0, r.u32() & SCARD_STATE_PRESENT, "card present");
            assertEquals(ATR.length, r.u32());
            assertArrayEquals(ATR, Arrays.copyOfRange(r.bytes, 44, 44 + ATR.length));
            assertEquals(16 + 16 + 48, r.bytes.length);
        }
    }

    /** Starts a wait for a change from the present state that never comes (infinite time-out). */
    CompletableFuture<byte[]> blockedWait() throws InterruptedException {
        byte[] req = statusChangeRequest(false, -1, currentState());
        CompletableFuture<byte[]> blocked = CompletableFuture.supplyAsync(
                () -> ldm.m_native_scard_process(new int[1], owner, Rdpesc.GET_STATUS_CHANGE_A, req, req.length));
        Thread.sleep(500);
        assertFalse(blocked.isDone(), "waiting inside pcscd");
        return blocked;
    }

    static void assertCancelledWithin(CompletableFuture<byte[]> blocked, long since, String what) throws Exception {
        Rdpesc.Reply r = Rdpesc.reply(blocked.get(5, TimeUnit.SECONDS));
        long ms = TimeUnit.NANOSECONDS.toMillis(System.nanoTime() - since);
        assertTrue(ms < 1000, what + " took " + ms + " ms");
        assertEquals(SCARD_E_CANCELLED, r.result(), Integer.toHexString(r.result()));
        assertEquals(32, r.bytes.length, "failure body: no states");
    }

    @Test
    void cancelFromAnotherThreadEndsAWait() throws Exception {
        CompletableFuture<byte[]> blocked = blockedWait();
        long start = System.nanoTime();
        assertEquals(0, process(Rdpesc.CANCEL, Rdpesc.call().u32(4, 1).handle(context).build()).result());
        assertCancelledWithin(blocked, start, "Cancel");
        assertNotEquals(0, currentState() & SCARD_STATE_PRESENT, "the context still works after the Cancel");
    }

    @Test
    void closeOfTheOwnerEndsAWait() throws Exception {
        CompletableFuture<byte[]> blocked = blockedWait();
        long start = System.nanoTime();
        assertTrue(NativeLDM.m_native_scard_close(new int[1], owner));
        closed = true;
        assertCancelledWithin(blocked, start, "close");
    }

    int connect() {
        Rdpesc.Reply r = process(Rdpesc.CONNECT_A, Rdpesc.call().u32(1, 4, 1, 2, 3).stringA(READER).handle(context).build());
        assertEquals(0, r.result(), Integer.toHexString(r.result()));
        return r.at(44);
    }

    @Test
    void statusReportsNameProtocolAndAtr() {
        int card = connect();
        for (boolean wide : new boolean[] {false, true}) {
            for (int cch : new int[] {-1, 100}) {
                Rdpesc.Reply r = process(wide ? STATUS_W : STATUS_A,
                        Rdpesc.call().u32(4, 1, 4, 1, 0, cch, 32).handle(context).handle(card).build());
                assertEquals(0, r.result(), Integer.toHexString(r.result()));
                int cBytes = r.u32();
                assertEquals(1, r.u32());
                assertEquals(6, r.u32());
                int protocol = r.u32();
                assertTrue(protocol == 1 || protocol == 2, "T=0 or T=1: " + protocol);
                assertArrayEquals(ATR, Arrays.copyOfRange(r.bytes, 36, 36 + ATR.length));
                assertEquals(ATR.length, r.at(68));
                byte[] names = Arrays.copyOfRange(r.bytes, 76, 76 + cBytes);
                assertEquals(cBytes, r.at(72));
                String text = new String(names, wide ? StandardCharsets.UTF_16LE : StandardCharsets.ISO_8859_1);
                assertEquals(READER + "\0\0", text);
            }
        }
    }

    Rdpesc.Reply attribute(int card, int attr) {
        return process(GET_ATTRIB, Rdpesc.call().u32(4, 1, 4, 1, attr, 0, 256).handle(context).handle(card).build());
    }

    static byte[] value(Rdpesc.Reply r) {
        assertEquals(0, r.result(), Integer.toHexString(r.result()));
        int n = r.u32();
        assertEquals(1, r.u32());
        byte[] value = r.array();
        assertEquals(n, value.length);
        return value;
    }

    @Test
    void attributesOfTheConnectedReader() {
        int card = connect();
        // pcscd does not support the W name and the protocol with this reader: both come from what
        // Connect recorded.
        assertEquals(READER + "\0\0", new String(value(attribute(card, FRIENDLY_NAME_W)), StandardCharsets.UTF_16LE));
        Rdpesc.Reply status = process(STATUS_A, Rdpesc.call().u32(4, 1, 4, 1, 1, 0, 32).handle(context).handle(card).build());
        assertArrayEquals(new byte[] {(byte) status.at(32), 0, 0, 0}, value(attribute(card, CURRENT_PROTOCOL)));
        // The A name is answered by pcscd itself (with this reader's driver, as insufficient buffer
        // whatever the size): PC/SC's own answer goes back, the records are not consulted.
        Rdpesc.Reply a = attribute(card, FRIENDLY_NAME_A);
        if (a.result() == 0) {
            assertTrue(new String(value(a), StandardCharsets.ISO_8859_1).startsWith(READER + "\0"));
        } else {
            assertEquals(0x80100008, a.result(), Integer.toHexString(a.result()));
            assertEquals(0, a.at(20) | a.at(24), "no length sent with the failure");
        }
        // After a disconnect the record is gone too.
        assertEquals(0, process(0x000900B8, Rdpesc.call().u32(4, 1, 4, 1, 0).handle(context).handle(card).build()).result());
        assertNotEquals(0, attribute(card, FRIENDLY_NAME_W).result());
    }
}
