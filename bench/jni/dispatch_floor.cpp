// What DispatchBench measures the smart card dispatch against, and the PC/SC behind it.
//
// The floor: an empty instance native with m_native_scard_process's parameters that returns a new
// byte[64]: the JNI call, the array argument and one reply array, nothing else.
//
// The instant PC/SC: the entries the benchmark's calls reach, each answering at once without
// recording anything. DispatchBench runs with a directory on LD_LIBRARY_PATH in which
// libpcsclite.so.1 is a link to this library, so the card service's dlopen finds these functions;
// the counter proves that it did.
#include <jni.h>

#include <algorithm>
#include <atomic>

// pcsc-lite's types on x86-64 (its headers need an include path this library is not built with).
using LONG = long;
using DWORD = unsigned long;
using SCARDCONTEXT = long;
using SCARDHANDLE = long;

namespace {
constexpr LONG k_success = 0;
constexpr LONG k_insufficient_buffer = static_cast<LONG>(0x80100008);
constexpr DWORD k_protocol_t1 = 2;

std::atomic<long> g_pcsc_calls{0};

LONG counted() {
    g_pcsc_calls.fetch_add(1, std::memory_order_relaxed);
    return k_success;
}
}  // namespace

extern "C" {

JNIEXPORT jbyteArray JNICALL Java_kor_plox_ldm_bench_DispatchBench_floor(JNIEnv* env, jobject, jintArray, jint, jint,
                                                                        jbyteArray, jint) {
    return env->NewByteArray(64);
}

// The floor plus the three JNI calls that a dispatch cannot do without: the request's length, the
// copy of its bytes, the copy of the reply into the new array.
JNIEXPORT jbyteArray JNICALL Java_kor_plox_ldm_bench_DispatchBench_copyFloor(JNIEnv* env, jobject, jintArray, jint,
                                                                            jint, jbyteArray request, jint length) {
    jbyte bytes[2048];
    const jsize count = std::min({length, env->GetArrayLength(request), jsize{2048}});
    env->GetByteArrayRegion(request, 0, count, bytes);
    jbyteArray reply = env->NewByteArray(64);
    if (reply) env->SetByteArrayRegion(reply, 0, std::min(count, jsize{64}), bytes);
    return reply;
}

JNIEXPORT jlong JNICALL Java_kor_plox_ldm_bench_DispatchBench_pcscCalls(JNIEnv*, jclass) {
    return g_pcsc_calls.load();
}

JNIEXPORT LONG SCardEstablishContext(DWORD, const void*, const void*, SCARDCONTEXT* context) {
    *context = 0x10;
    return counted();
}

JNIEXPORT LONG SCardReleaseContext(SCARDCONTEXT) { return counted(); }
JNIEXPORT LONG SCardCancel(SCARDCONTEXT) { return counted(); }
JNIEXPORT LONG SCardIsValidContext(SCARDCONTEXT) { return counted(); }

JNIEXPORT LONG SCardConnect(SCARDCONTEXT, const char*, DWORD, DWORD, SCARDHANDLE* card, DWORD* protocol) {
    *card = 0x20;
    *protocol = k_protocol_t1;
    return counted();
}

JNIEXPORT LONG SCardDisconnect(SCARDHANDLE, DWORD) { return counted(); }

// Answers 90 00.
JNIEXPORT LONG SCardTransmit(SCARDHANDLE, const void*, const unsigned char*, DWORD, void*,
                             unsigned char* recv, DWORD* recv_length) {
    if (!recv || *recv_length < 2) return k_insufficient_buffer;
    recv[0] = 0x90;
    recv[1] = 0x00;
    *recv_length = 2;
    return counted();
}

}  // extern "C"
