package kor.plox.ldm;

import kor.plox.ldm.tool.Rdpesc;
import static org.junit.jupiter.api.Assertions.*;

import org.junit.jupiter.api.Test;

/** libpcsclite.so.1 cannot be loaded: the service exists without PC/SC and answers 120. */
class ScardLoadFailureTest {
    @Test
    void createFailsOnceThenEveryCallAnswers120() {
        NativeLDM ldm = new NativeLDM();
        int[] err = {0}, status = {7}, id = {0};
        assertFalse(NativeLDM.m_native_scard_create(err, status, id));
        assertEquals(-1, id[0]);
        assertEquals(0, status[0]);

        assertTrue(NativeLDM.m_native_scard_create(err, status, id));
        assertEquals(1, id[0], "the failed create took no owner id");
        int[] status2 = {3};
        assertEquals(2, NativeLDM.NativeGetSmartCardID(status2));
        assertEquals(0, status2[0]);

        byte[] establish = ldm.m_native_scard_process(null, 1, Rdpesc.ESTABLISH_CONTEXT, Rdpesc.call().u32(2).build(), 20);
        assertEquals(120, Rdpesc.reply(establish).result());
        assertEquals(32, establish.length);
        byte[] valid = Rdpesc.call().u32(4, 1).handle(1).build();
        byte[] reply = ldm.m_native_scard_process(null, 1, Rdpesc.IS_VALID_CONTEXT, valid, valid.length);
        assertEquals(24, reply.length);
        assertEquals(120, Rdpesc.reply(reply).result());
        assertTrue(NativeLDM.m_native_scard_close(err, 1));
        assertTrue(NativeLDM.m_native_scard_close(err, 2));
    }
}
