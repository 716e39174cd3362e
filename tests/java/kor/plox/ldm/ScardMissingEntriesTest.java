package kor.plox.ldm;

import kor.plox.ldm.tool.Rdpesc;
import static org.junit.jupiter.api.Assertions.*;

import java.util.List;
import org.junit.jupiter.api.Test;

/** A PC/SC library without SCardEstablishContext, SCardListReaders and SCardTransmit. */
class ScardMissingEntriesTest {
    @Test
    void missingEntriesAnswer120AndThePresentOnesAreCalled() {
        PcscStandin.reset();
        NativeLDM ldm = new NativeLDM();
        int[] id = {0};
        assertTrue(NativeLDM.m_native_scard_create(new int[1], new int[1], id));
        byte[] establish = ldm.m_native_scard_process(null, id[0], Rdpesc.ESTABLISH_CONTEXT, Rdpesc.call().u32(2).build(), 20);
        Rdpesc.Reply r = Rdpesc.reply(establish);
        assertEquals(120, r.result());
        assertEquals(32, establish.length, "the failure body: an empty context");
        byte[] valid = Rdpesc.call().u32(4, 1).handle(1).build();
        assertEquals(0, Rdpesc.reply(ldm.m_native_scard_process(null, id[0], Rdpesc.IS_VALID_CONTEXT, valid, valid.length)).result());
        assertEquals(List.of("SCardIsValidContext ctx=0xffffffffffffffff"), List.of(PcscStandin.calls()));
        assertTrue(NativeLDM.m_native_scard_close(new int[1], id[0]));
    }
}
