// Test-only JNI library: throws each kind of native exception inside the library's exception
// frame so that Java tests can see what reaches Java. Never part of libkorjnidr.so.
#include <jni.h>

#include <new>
#include <stdexcept>

#include "jni_support.h"

using namespace kor::jni;

namespace {
struct foreign_failure {};
}

extern "C" JNIEXPORT jint JNICALL Java_kor_plox_ldm_JniProbe_raise(JNIEnv* env, jclass, jint kind,
                                                                   jboolean pending) {
    return exception_frame(env, jint{-7}, [&]() -> jint {
        if (pending) {
            jclass iae = env->FindClass("java/lang/IllegalStateException");
            env->ThrowNew(iae, "pending before the failure");
        }
        switch (kind) {
            case 0: throw c_jniexception("get_array_length");
            case 1: throw std::bad_alloc();
            case 2: throw std::runtime_error("provide");
            case 3: throw foreign_failure{};
            case 4: throw 42;
            default: return 5;
        }
    });
}
