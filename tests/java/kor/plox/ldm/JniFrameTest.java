package kor.plox.ldm;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.Test;

class JniFrameTest {
    @Test
    void initializeReportsLevel12EveryTime() {
        for (int i = 0; i < 2; i++) {
            int[] level = {0};
            int[] err = {99};
            assertTrue(NativeLDM.m_native_initialize(err, level));
            assertEquals(12, level[0]);
            assertArrayEquals(new int[] {99}, err);
        }
    }

    @Test
    void nativeExceptionsBecomeJavaExceptions() {
        Error jni = assertThrows(Error.class, () -> JniProbe.raise(JniProbe.JNI_EXCEPTION, false));
        assertEquals("get_array_length", jni.getMessage());

        OutOfMemoryError oom = assertThrows(OutOfMemoryError.class, () -> JniProbe.raise(JniProbe.BAD_ALLOC, false));
        assertEquals("thrown from native code", oom.getMessage());

        Error runtime = assertThrows(Error.class, () -> JniProbe.raise(JniProbe.RUNTIME_ERROR, false));
        assertEquals("provide", runtime.getMessage());
        assertEquals(Error.class, runtime.getClass());

        for (int foreign : new int[] {JniProbe.FOREIGN, JniProbe.INT}) {
            Error e = assertThrows(Error.class, () -> JniProbe.raise(foreign, false));
            assertNull(e.getMessage());
        }
        assertEquals(5, JniProbe.raise(JniProbe.NONE, false));
    }

    @Test
    void jniExceptionKeepsTheJavaExceptionAlreadyPending() {
        IllegalStateException e = assertThrows(IllegalStateException.class,
                () -> JniProbe.raise(JniProbe.JNI_EXCEPTION, true));
        assertEquals("pending before the failure", e.getMessage());
    }
}
