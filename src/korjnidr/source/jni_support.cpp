#include "jni_support.h"

#include <cstdlib>
#include <cwchar>
#include <stdexcept>

#include "kor_plox_ldm_NativeLDM.h"

namespace kor::jni {

// ---- errno and result arrays -------------------------------------------------------------------

int map_errno(int e) noexcept {
    constexpr std::uint32_t foreign = 0x8000000;
    const auto u = static_cast<std::uint32_t>(e);
    if (u <= 40 || (u >= 42 && u <= 57) || u == 125) return e;
    if (u == 75) return 132;
    return static_cast<int>(u | foreign);
}

void set_int_result(JNIEnv* env, jintArray a, jint v) { env->SetIntArrayRegion(a, 0, 1, &v); }
void set_long_result(JNIEnv* env, jlongArray a, jlong v) { env->SetLongArrayRegion(a, 0, 1, &v); }

jint report_errno(JNIEnv* env, jintArray err, int e) {
    set_int_result(env, err, map_errno(e));
    return -1;
}

// ---- exceptions --------------------------------------------------------------------------------

void throw_out_of_memory(JNIEnv* env) noexcept {
    jclass c = env->FindClass("java/lang/OutOfMemoryError");
    if (!c) env->FatalError("could not find class java.lang.OutOfMemoryError");
    env->ThrowNew(c, "thrown from native code");
}

void throw_java_error(JNIEnv* env, const char* message) noexcept {
    jclass c = env->FindClass("java/lang/Error");
    if (!c) env->FatalError("could not find class java/lang/Error");
    env->ThrowNew(c, message);
}

bool java_exception_pending(JNIEnv* env) noexcept { return env->ExceptionOccurred() != nullptr; }

c_jniexception::c_jniexception(const char* text) : message(text ? strdup(text) : nullptr) {}
c_jniexception::c_jniexception(const c_jniexception& other)
    : std::exception(other), message(other.message ? strdup(other.message) : nullptr) {}
c_jniexception::~c_jniexception() { std::free(message); }
const char* c_jniexception::what() const noexcept { return message; }

void c_jniexception::raise_in_java(JNIEnv* env) const noexcept {
    // The failed JNI call's own exception, when there is one, says more than our text.
    if (java_exception_pending(env)) return;
    throw_java_error(env, what());
}

// ---- text conversion ---------------------------------------------------------------------------

template <std::size_t N>
c_native_text<N>::c_native_text(JNIEnv* env, jstring s) {
    if (!s) {
        bytes.allocate(1);
        bytes.data[0] = 0;
        return;
    }
    char_count = env->GetStringLength(s);
    const auto count = static_cast<std::size_t>(char_count);
    bytes.allocate(4 * count + 4);
    bytes.used = bytes.capacity;
    bytes.data[0] = 0;

    // One extra wide character for the terminator that wcstombs needs to stop.
    c_inline_buffer<N> wide_store;
    auto* wide = reinterpret_cast<wchar_t*>(wide_store.allocate(sizeof(wchar_t) * (count + 1)));
    // A failure leaves through the frame rather than as a conversion failure that a caller would
    // report with more JNI calls.
    const jchar* units = got_from_jni(env->GetStringChars(s, nullptr), "GetStringChars");
    bool embedded_nul = false;
    for (std::size_t i = 0; i < count; ++i) {
        wide[i] = static_cast<wchar_t>(units[i]);  // surrogate halves stay separate characters
        embedded_nul |= units[i] == 0;
    }
    wide[count] = L'\0';
    env->ReleaseStringChars(s, units);
    if (embedded_nul) return;

    const std::size_t limit = bytes.capacity - 1;
    const std::size_t n = std::wcstombs(bytes.chars(), wide, limit);
    // n == limit could mean a cut-short conversion; no locale needs four bytes per UTF-16 unit
    // plus three, so treat it as a failure rather than guess.
    if (n == static_cast<std::size_t>(-1) || n >= limit) return;
    bytes.data[n] = 0;
    ok = true;
}

template class c_native_text<4100>;
template class c_native_text<1028>;

std::size_t multibyte_to_units(const char* text, std::size_t count, c_inline_buffer<4100>& store) {
    auto* wide = reinterpret_cast<wchar_t*>(store.allocate(sizeof(wchar_t) * (count + 1)));
    const std::size_t n = std::mbstowcs(wide, text, count + 1);
    if (n == static_cast<std::size_t>(-1)) return n;
    // Narrow in place: unit i lands at or before wide[i], which has already been read.
    auto* units = store.as<jchar>();
    for (std::size_t i = 0; i < n; ++i) {
        const auto unit = static_cast<jchar>(static_cast<std::uint32_t>(wide[i]) & 0xFFFFu);
        std::memcpy(units + i, &unit, sizeof unit);
    }
    return n;
}

c_java_string::c_java_string(JNIEnv* env, const char* text) {
    const std::size_t count = std::strlen(text);
    byte_count = static_cast<std::int32_t>(count);
    c_inline_buffer<4100> store;
    const std::size_t n = multibyte_to_units(text, count, store);
    if (n == static_cast<std::size_t>(-1)) return;
    string = got_from_jni(env->NewString(store.as<jchar>(), static_cast<jsize>(n)), "NewString");
    ok = true;
}

// ---- locking -----------------------------------------------------------------------------------

c_mutex::c_mutex(bool recursive) : m() {
    if (!recursive) {
        if (pthread_mutex_init(&m, nullptr) != 0) throw std::runtime_error("pthread_mutex_init() failure");
        return;
    }
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0) throw std::runtime_error("pthread_mutexattr_init() failure");
    // A failed step 2 or 3 still destroys the attribute object, so nothing is left behind.
    const auto fail = [&](const char* message) {
        pthread_mutexattr_destroy(&attr);
        throw std::runtime_error(message);
    };
    if (pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) != 0) fail("pthread_mutexattr_settype() failure");
    if (pthread_mutex_init(&m, &attr) != 0) fail("pthread_mutex_init() failure");
    if (pthread_mutexattr_destroy(&attr) != 0) {
        pthread_mutex_destroy(&m);
        throw std::runtime_error("pthread_mutexattr_destroy() failure");
    }
}

c_mutex::~c_mutex() { pthread_mutex_destroy(&m); }

void c_mutex::lock() {
    if (pthread_mutex_lock(&m) != 0) throw std::runtime_error("pthread_mutex_lock() failure");
}

void c_mutex::unlock() {
    if (pthread_mutex_unlock(&m) != 0) throw std::runtime_error("pthread_mutex_unlock() failure");
}

std::int32_t c_locked_counter::increment() {
    c_mutex_lock lock(mutex);
    return ++value;
}

}  // namespace kor::jni

// ---- library hooks -----------------------------------------------------------------------------

using namespace kor::jni;

extern "C" {

JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM*, void*) { return JNI_VERSION_1_2; }

JNIEXPORT jboolean JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1initialize(JNIEnv* env, jclass, jintArray,
                                                                            jintArray level) {
    set_int_result(env, level, 12);
    return JNI_TRUE;
}

}  // extern "C"
