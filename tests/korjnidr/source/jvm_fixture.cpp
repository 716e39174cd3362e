#include "jvm_fixture.h"

#include <cstdlib>

JNIEnv* test_env() {
    static JNIEnv* env = [] {
        JavaVM* vm = nullptr;
        JNIEnv* e = nullptr;
        JavaVMOption options[] = {{const_cast<char*>("-Xcheck:jni"), nullptr}};
        JavaVMInitArgs args{};
        args.version = JNI_VERSION_1_8;
        args.nOptions = 1;
        args.options = options;
        if (JNI_CreateJavaVM(&vm, reinterpret_cast<void**>(&e), &args) != JNI_OK) std::abort();
        return e;
    }();
    return env;
}
