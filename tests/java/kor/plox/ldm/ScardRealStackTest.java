package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.*;

import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.Test;

/** Context calls through the library against pcscd with a virtual reader (tests/realstack). */
class ScardRealStackTest {
    private static final NativeLDM ldm = new NativeLDM();
    private static final int SCARD_E_INVALID_HANDLE = 0x80100003;

    static byte[] process(int owner, int ioctl, byte[] req) {
        return ldm.m_native_scard_process(null, owner, ioctl, req, req.length);
    }

    static int create() {
        int[] id = {0};
        assertTrue(NativeLDM.m_native_scard_create(new int[1], new int[1], id), "libpcsclite.so.1 loads");
        return id[0];
    }

    static int establish(int owner) {
        Rdpesc.Reply r = Rdpesc.reply(process(owner, Rdpesc.ESTABLISH_CONTEXT, Rdpesc.call().u32(2).build()));
        assertEquals(0, r.result());
        return r.at(32);
    }

    static int contextCall(int owner, int ioctl, int wire) {
        return Rdpesc.reply(process(owner, ioctl, Rdpesc.call().u32(4, 1).handle(wire).build())).result();
    }

    @Test
    void contextLifeAgainstPcscd() {
        int owner = create();
        int wire = establish(owner);
        assertEquals(0, contextCall(owner, Rdpesc.IS_VALID_CONTEXT, wire));
        assertEquals(0, contextCall(owner, Rdpesc.CANCEL, wire));
        assertEquals(0, contextCall(owner, Rdpesc.RELEASE_CONTEXT, wire));
        assertEquals(SCARD_E_INVALID_HANDLE, contextCall(owner, Rdpesc.IS_VALID_CONTEXT, wire));
        assertTrue(NativeLDM.m_native_scard_close(new int[1], owner));
    }

    @Test
    void twoOwnersAtOnce() throws Exception {
        int a = create(), b = create();
        CountDownLatch go = new CountDownLatch(1);
        CompletableFuture<?>[] runs = new CompletableFuture<?>[2];
        int[] owners = {a, b};
        for (int i = 0; i < 2; i++) {
            int owner = owners[i];
            runs[i] = CompletableFuture.runAsync(() -> {
                try {
                    go.await();
                } catch (InterruptedException e) {
                    throw new RuntimeException(e);
                }
                for (int n = 0; n < 20; n++) {
                    int wire = establish(owner);
                    assertEquals(0, contextCall(owner, Rdpesc.IS_VALID_CONTEXT, wire));
                    assertEquals(0, contextCall(owner, Rdpesc.RELEASE_CONTEXT, wire));
                }
                establish(owner);  // left for the close to release
            });
        }
        go.countDown();
        CompletableFuture.allOf(runs).get(60, TimeUnit.SECONDS);
        assertTrue(NativeLDM.m_native_scard_close(new int[1], a));
        assertTrue(NativeLDM.m_native_scard_close(new int[1], b));
        assertNull(process(a, Rdpesc.INTRODUCE_READER_A, new byte[0]), "service torn down");
    }

    @Test
    void closeWhileAnotherThreadWaitsInStatusChange() throws Exception {
        int owner = create();
        int wire = establish(owner);
        // Ask once for the reader's state, then wait (infinite time-out) for a change from that state:
        // nothing changes, so the call stays inside pcscd until the close cancels it.
        Rdpesc.Reply first = Rdpesc.reply(process(owner, Rdpesc.GET_STATUS_CHANGE_A, Rdpesc.call().u32(4, 1, 0, 1, 2)
                .handle(wire).u32(1).u32(3, 0, 0, 0).u32(new int[9]).stringA("Virtual PCD 00 00").build()));
        assertEquals(0, first.result());
        int current = first.at(32 + 4) & ~0x2;  // event state without SCARD_STATE_CHANGED
        byte[] blockedReq = Rdpesc.call().u32(4, 1, -1, 1, 2).handle(wire).u32(1).u32(3, current, 0, 0)
                .u32(new int[9]).stringA("Virtual PCD 00 00").build();
        CompletableFuture<byte[]> blocked = CompletableFuture.supplyAsync(
                () -> process(owner, Rdpesc.GET_STATUS_CHANGE_A, blockedReq));
        Thread.sleep(500);
        assertFalse(blocked.isDone(), "waiting inside pcscd");
        assertTrue(NativeLDM.m_native_scard_close(new int[1], owner));
        byte[] reply = blocked.get(30, TimeUnit.SECONDS);
        assertNotEquals(0, Rdpesc.reply(reply).result(), "ended by the close, not by a change");
        assertNull(process(owner, Rdpesc.INTRODUCE_READER_A, new byte[0]), "torn down after the call");
    }
}
