package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/**
 * Listing, connection, transactions and Transmit against a running pcscd with the virtual reader
 * and a virtual ISO 7816 card behind it (started by the real-stack wrapper).
 */
class RealStackCardTest {
    static final String READER = "Virtual PCD 00 00";
    static final int LIST_READER_GROUPS_A = 0x00090020, LIST_READER_GROUPS_W = 0x00090024;
    static final int LIST_READERS_W = 0x0009002C, CONNECT_W = 0x000900B0, RECONNECT = 0x000900B4;
    static final int DISCONNECT = 0x000900B8, BEGIN_TRANSACTION = 0x000900BC, END_TRANSACTION = 0x000900C0;
    static final int T1 = 2, SHARED = 2, LEAVE = 0, RESET = 1, UNPOWER = 2, EJECT = 3;
    static final byte[] SELECT_NOTHING = {0x00, (byte) 0xA4, 0x04, 0x00, 0x00};

    static final NativeLDM ldm = new NativeLDM();
    int owner;  // the owner and context that the calls below use
    int context;

    Rdpesc.Reply process(int code, byte[] request) {
        return Rdpesc.reply(ldm.m_native_scard_process(new int[1], owner, code, request, request.length));
    }

    @BeforeEach
    void open() {
        owner = newOwner();
        context = establish();
    }

    @AfterEach
    void close() {
        NativeLDM.m_native_scard_close(new int[1], owner);
    }

    static int newOwner() {
        int[] id = new int[1];
        assertTrue(NativeLDM.m_native_scard_create(new int[1], new int[1], id));
        return id[0];
    }

    int establish() {
        Rdpesc.Reply r = process(Rdpesc.ESTABLISH_CONTEXT, Rdpesc.call().u32(2).build());
        assertEquals(0, r.result());
        assertEquals(4, r.u32());
        assertEquals(1, r.u32());
        assertEquals(4, r.u32());
        return r.u32();
    }

    /** List call in length-only (cch ignored), fixed (cch) or allocating (-1) mode. */
    byte[] list(int code, boolean lengthOnly, int cch) {
        Rdpesc.Call c = Rdpesc.call().u32(4, 1);
        if (code == Rdpesc.LIST_READERS_A || code == LIST_READERS_W) c.u32(0, 0);
        byte[] req = c.u32(lengthOnly ? 1 : 0, cch).handle(context).build();
        Rdpesc.Reply r = process(code, req);
        assertEquals(0, r.result(), Integer.toHexString(r.result()));
        int cBytes = r.u32();
        assertEquals(1, r.u32());
        byte[] msz = r.array();
        assertEquals(cBytes, msz.length);
        return msz;
    }

    static List<String> names(byte[] msz, boolean wide) {
        String text = wide ? new String(msz, StandardCharsets.UTF_16LE) : new String(msz, StandardCharsets.ISO_8859_1);
        assertTrue(text.endsWith("\0\0"), "multi-string ends with two NULs");
        List<String> out = new ArrayList<>();
        for (String s : text.substring(0, text.length() - 2).split("\0")) out.add(s);
        return out;
    }

    @Test
    void listsReadersAndGroupsInEveryMode() {
        for (int code : new int[] {Rdpesc.LIST_READERS_A, LIST_READERS_W, LIST_READER_GROUPS_A, LIST_READER_GROUPS_W}) {
            boolean wide = code == LIST_READERS_W || code == LIST_READER_GROUPS_W;
            byte[] allocated = list(code, false, -1);
            byte[] fixed = list(code, false, 4096);
            assertArrayEquals(allocated, fixed);
            byte[] lengthOnly = list(code, true, 4096);
            assertArrayEquals(new byte[allocated.length], lengthOnly);
            if (code == Rdpesc.LIST_READERS_A || code == LIST_READERS_W) {
                assertTrue(names(allocated, wide).contains(READER), names(allocated, wide).toString());
            } else {
                assertTrue(names(allocated, wide).size() >= 1);
            }
        }
        // A buffer one character short: PC/SC's insufficient-buffer code and no text.
        int n = list(Rdpesc.LIST_READERS_A, true, 0).length;
        byte[] req = Rdpesc.call().u32(4, 1, 0, 0, 0, n - 1).handle(context).build();
        Rdpesc.Reply r = process(Rdpesc.LIST_READERS_A, req);
        assertEquals(0x80100008, r.result());
        assertEquals(0, r.u32());
        assertEquals(0, r.u32());
    }

    /** ConnectA (or ConnectW) to the virtual reader with T=1; returns the card's wire handle. */
    int connect(boolean wide) {
        Rdpesc.Call c = Rdpesc.call().u32(1, 4, 1, SHARED, T1);
        if (wide) {
            int count = READER.length() + 1;
            c.u32(count, 0, count);
            // Two units per word; an odd count ends with the pad, which is zero like the NUL.
            for (int i = 0; i < count; i += 2) {
                int lo = i < READER.length() ? READER.charAt(i) : 0;
                int hi = i + 1 < READER.length() ? READER.charAt(i + 1) : 0;
                c.u32(lo | hi << 16);
            }
        } else {
            c.stringA(READER);
        }
        byte[] req = c.handle(context).build();
        Rdpesc.Reply r = process(wide ? CONNECT_W : Rdpesc.CONNECT_A, req);
        assertEquals(0, r.result(), Integer.toHexString(r.result()));
        assertEquals(0, r.u32());
        assertEquals(0, r.u32());
        assertEquals(4, r.u32());
        assertEquals(1, r.u32());
        assertEquals(T1, r.u32());
        assertEquals(4, r.u32());
        return r.u32();
    }

    static byte[] onCard(int card, int... fields) {
        return Rdpesc.call().u32(4, 1, 4, 1).u32(fields).handle(0).handle(card).build();
    }

    byte[] transmit(int card, byte[] apdu) {
        byte[] req = Rdpesc.call().u32(4, 1, 4, 1, T1, 0, 0, apdu.length, 1, 0, 0, 258)
                .handle(context).handle(card).bytes(apdu).build();
        Rdpesc.Reply r = process(Rdpesc.TRANSMIT, req);
        assertEquals(0, r.result(), Integer.toHexString(r.result()));
        assertEquals(0, r.u32());
        int n = r.u32();
        assertEquals(n > 0 ? 2 : 0, r.u32());
        byte[] response = r.array();
        assertEquals(n, response.length);
        return response;
    }

    int disconnect(int card, int disposition) {
        return process(DISCONNECT, onCard(card, disposition)).result();
    }

    @Test
    void connectsTransmitsAndDisconnects() {
        for (boolean wide : new boolean[] {false, true}) {
            int card = connect(wide);
            assertNotEquals(context, card);
            assertArrayEquals(new byte[] {0x6A, (byte) 0x82}, transmit(card, SELECT_NOTHING));

            assertEquals(0, process(BEGIN_TRANSACTION, onCard(card, 0)).result());
            for (int i = 0; i < 3; i++) assertArrayEquals(new byte[] {0x6A, (byte) 0x82}, transmit(card, SELECT_NOTHING));
            assertEquals(0, process(END_TRANSACTION, onCard(card, LEAVE)).result());

            Rdpesc.Reply r = process(RECONNECT, onCard(card, SHARED, T1, RESET));
            assertEquals(0, r.result(), Integer.toHexString(r.result()));
            assertEquals(T1, r.u32());
            assertArrayEquals(new byte[] {0x6A, (byte) 0x82}, transmit(card, SELECT_NOTHING));

            assertEquals(0, disconnect(card, LEAVE));
            // The wire handle is gone: PC/SC now gets the all-ones handle and refuses it.
            assertNotEquals(0, disconnect(card, LEAVE));
        }
        for (int disposition : new int[] {LEAVE, RESET, UNPOWER, EJECT}) {
            int card = connect(false);
            int rc = disconnect(card, disposition);
            assertTrue(rc == 0 || disposition == EJECT, "disposition " + disposition + ": " + Integer.toHexString(rc));
        }
    }

    @Test
    void twoOwnersKeepTheirHandlesApart() throws Exception {
        RealStackCardTest other = new RealStackCardTest();
        other.open();
        ExecutorService pool = Executors.newFixedThreadPool(2);
        try {
            List<Future<int[]>> runs = new ArrayList<>();
            for (RealStackCardTest session : List.of(this, other)) {
                runs.add(pool.submit(() -> {
                    int[] cards = new int[10];
                    for (int i = 0; i < cards.length; i++) {
                        cards[i] = session.connect(false);
                        assertArrayEquals(new byte[] {0x6A, (byte) 0x82}, session.transmit(cards[i], SELECT_NOTHING));
                        assertEquals(0, session.disconnect(cards[i], LEAVE));
                    }
                    return cards;
                }));
            }
            List<Integer> seen = new ArrayList<>(List.of(context, other.context));
            for (Future<int[]> f : runs) {
                for (int card : f.get()) {
                    assertTrue(!seen.contains(card), "wire handle " + card + " given out twice");
                    seen.add(card);
                }
            }
        } finally {
            pool.shutdown();
            other.close();
        }
    }
}
