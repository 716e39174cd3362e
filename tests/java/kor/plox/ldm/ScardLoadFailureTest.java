package kor.plox.ldm;

import kor.plox.ldm.tool.Rdpesc;
import static org.junit.jupiter.api.Assertions.*;

import org.junit.jupiter.api.Test;

/** libpcsclite.so.1 cannot be loaded: the service exists without PC/SC and answers 120. */
class ScardLoadFailureTest {
    @Test
    void createFailsOnceThenEveryCallAnswers120() {
        int[] err = {0}, status = {7}, id = {0};
        assertFalse(NativeLDM.m_native_scard_create(err, status, id));
        assertEquals(-1, id[0]);
        assertEquals(0, status[0]);
        assertTrue(NativeLDM.m_native_scard_create(err, status, id), "the half-built service counts as built");
        assertEquals(1, id[0], "the failed create took no owner id");

        byte[] valid = Rdpesc.call().u32(4, 1).handle(1).build();
        byte[] reply = new NativeLDM().m_native_scard_process(null, 1, Rdpesc.IS_VALID_CONTEXT, valid, valid.length);
        assertEquals(120, Rdpesc.reply(reply).result());
        assertTrue(NativeLDM.m_native_scard_close(err, 1));
    }
}
