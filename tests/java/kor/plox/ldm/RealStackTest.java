package kor.plox.ldm;

import kor.plox.ldm.tool.Rdpesc;
import static java.nio.charset.StandardCharsets.ISO_8859_1;
import static org.junit.jupiter.api.Assertions.*;

import java.util.Arrays;
import java.util.List;
import java.util.concurrent.*;
import org.junit.jupiter.api.Test;

/**
 * One session through the library against pcscd with the virtual reader and ISO 7816 card that
 * tests/realstack/with_pcscd.sh starts: establish, list, connect, transmit, status, a status change
 * that waits until a Cancel ends it, disconnect, release.
 */
class RealStackTest {
    static final String READER = "Virtual PCD 00 00";
    static final byte[] ATR = Rdpesc.unhex("3B951381018073FF01000B"), SELECT_NOTHING = Rdpesc.unhex("00A4040000");
    static final int DISCONNECT = 0x000900B8, STATUS_A = 0x000900C8;
    static final int T1 = 2, SHARED = 2, LEAVE = 0, SCARD_SPECIFIC = 6, STATE_CHANGED = 0x2, STATE_PRESENT = 0x20;
    static final int SCARD_E_CANCELLED = 0x80100002, SCARD_E_INVALID_HANDLE = 0x80100003;
    final NativeLDM ldm = new NativeLDM();
    int owner, context;

    byte[] run(int code, Rdpesc.Call call) {
        byte[] request = call.build();
        return ldm.m_native_scard_process(null, owner, code, request, request.length);
    }

    /** The reply, after checking that PC/SC answered success. */
    Rdpesc.Reply ok(int code, Rdpesc.Call call) {
        Rdpesc.Reply r = Rdpesc.reply(run(code, call));
        assertEquals(0, r.result(), "call 0x" + Integer.toHexString(code) + ": 0x" + Integer.toHexString(r.result()));
        return r;
    }

    Rdpesc.Call onContext(int... fields) {
        return Rdpesc.call().u32(4, 1).u32(fields).handle(context);
    }

    Rdpesc.Call onCard(int card, int... fields) {
        return Rdpesc.call().u32(4, 1, 4, 1).u32(fields).handle(context).handle(card);
    }

    /** GetStatusChangeA on the virtual reader from `current`, with a time-out in ms (-1: none). */
    Rdpesc.Call statusChange(int timeout, int current) {
        return onContext(timeout, 1, 2).u32(1).u32(3, current, 0, 0).u32(new int[9]).stringA(READER);
    }

    @Test
    void oneSession() throws Exception {
        int[] id = new int[1];
        assertTrue(NativeLDM.m_native_scard_create(new int[1], new int[1], id), "libpcsclite.so.1 loads");
        owner = id[0];
        context = ok(Rdpesc.ESTABLISH_CONTEXT, Rdpesc.call().u32(2)).at(32);

        Rdpesc.Reply list = ok(Rdpesc.LIST_READERS_A, onContext(0, 0, 0, -1));  // PC/SC allocates
        String readers = new String(list.bytes, 32, list.at(28), ISO_8859_1);
        assertTrue(List.of(readers.split("\0")).contains(READER), readers);

        Rdpesc.Reply connect = ok(Rdpesc.CONNECT_A,
                Rdpesc.call().u32(1, 4, 1, SHARED, T1).stringA(READER).handle(context));
        assertEquals(T1, connect.at(36), "active protocol");
        int card = connect.at(44);

        Rdpesc.Reply transmit = ok(Rdpesc.TRANSMIT, onCard(card, T1, 0, 0, SELECT_NOTHING.length, 1, 0, 0, 258)
                .bytes(SELECT_NOTHING));
        assertArrayEquals(new byte[] {0x6A, (byte) 0x82}, Arrays.copyOfRange(transmit.bytes, 36, 36 + transmit.at(32)),
                "file not found");

        Rdpesc.Reply status = ok(STATUS_A, onCard(card, 0, -1, 32));
        assertEquals(SCARD_SPECIFIC, status.at(28));
        assertEquals(T1, status.at(32));
        assertArrayEquals(ATR, Arrays.copyOfRange(status.bytes, 36, 36 + ATR.length));
        assertEquals(ATR.length, status.at(68));
        assertEquals(READER + "\0\0", new String(status.bytes, 76, status.at(72), ISO_8859_1));

        int present = ok(Rdpesc.GET_STATUS_CHANGE_A, statusChange(0, 0)).at(36);
        assertNotEquals(0, present & STATE_PRESENT, "card present");
        CompletableFuture<byte[]> waiting = CompletableFuture.supplyAsync(
                () -> run(Rdpesc.GET_STATUS_CHANGE_A, statusChange(-1, present & ~STATE_CHANGED)));
        assertThrows(TimeoutException.class, () -> waiting.get(500, TimeUnit.MILLISECONDS), "waits in pcscd");
        // A Cancel that reaches pcscd before the wait does ends nothing: repeat it until the wait ends.
        for (int i = 0; i < 50 && !waiting.isDone(); i++) {
            ok(Rdpesc.CANCEL, onContext());
            try {
                waiting.get(200, TimeUnit.MILLISECONDS);
            } catch (TimeoutException stillWaiting) {
            }
        }
        Rdpesc.Reply ended = Rdpesc.reply(waiting.getNow(null));
        assertEquals(SCARD_E_CANCELLED, ended.result());
        assertEquals(32, ended.bytes.length, "a failed call's body: no reader states");

        ok(DISCONNECT, onCard(card, LEAVE));
        ok(Rdpesc.RELEASE_CONTEXT, onContext());
        assertEquals(SCARD_E_INVALID_HANDLE, Rdpesc.reply(run(Rdpesc.IS_VALID_CONTEXT, onContext())).result(),
                "the released context's wire handle is gone");
        assertTrue(NativeLDM.m_native_scard_close(new int[1], owner));
    }
}
