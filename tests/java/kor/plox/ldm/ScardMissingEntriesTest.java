package kor.plox.ldm;

import kor.plox.ldm.tool.Rdpesc;
import static org.junit.jupiter.api.Assertions.*;

import org.junit.jupiter.api.Test;

/** A PC/SC library without SCardEstablishContext, SCardListReaders and SCardTransmit. */
class ScardMissingEntriesTest {
    @Test
    void missingEntriesAnswer120AndThePresentOnesAreCalled() {
        NativeLDM ldm = new NativeLDM();
        int[] id = {0};
        assertTrue(NativeLDM.m_native_scard_create(new int[1], new int[1], id));
        byte[] establish = ldm.m_native_scard_process(null, id[0], Rdpesc.ESTABLISH_CONTEXT, Rdpesc.call().u32(2).build(), 20);
        Rdpesc.Reply r = Rdpesc.reply(establish);
        assertEquals(120, r.result());
        assertEquals(32, establish.length, "the failure body: an empty context");
        byte[] connect = Rdpesc.call().u32(1, 4, 1, 2, 2).stringA("R").handle(1).build();
        byte[] reply = ldm.m_native_scard_process(null, id[0], Rdpesc.CONNECT_A, connect, connect.length);
        assertEquals(0x8010002E, Rdpesc.reply(reply).result(), "the stand-in's SCARD_E_NO_READERS_AVAILABLE");
        assertTrue(NativeLDM.m_native_scard_close(new int[1], id[0]));
    }
}
