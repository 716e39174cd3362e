// JNI entry points of the smart card channel: the owner ids, the close, and the two dispatch methods
// that hand one encoded call to its handler and return the encoded reply.
#include <kor_plox_ldm_NativeLDM.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>

#include "kor_jnidr_scard.h"

namespace kor::jni {

namespace {

// ---- dispatch table ----------------------------------------------------------------------------

using c_handler = void (*)(c_ndr_reader&, c_ndr_writer&, std::int32_t owner);

// Handlers that do not need the owner id.
template <void (*Handler)(c_ndr_reader&, c_ndr_writer&)>
void without_owner(c_ndr_reader& in, c_ndr_writer& out, std::int32_t) {
    Handler(in, out);
}

// A call the library does not support: its return structure with every count 0 and every pointer
// null (`Zeros` u32 fields), and the result 120. The request is not read.
template <int Zeros>
void unsupported(c_ndr_reader&, c_ndr_writer& out, std::int32_t) {
    out.write_zero_fields(Zeros);
    out.finish(k_not_implemented);
}

struct c_dispatch_row {
    std::uint16_t code;
    c_handler handler;
};

constexpr c_dispatch_row k_dispatch[] = {
    {20, scard_establish_context},
    {24, without_owner<scard_release_context>},
    {28, without_owner<scard_is_valid_context>},
    {32, without_owner<scard_list_reader_groups_a>},
    {36, without_owner<scard_list_reader_groups_w>},
    {40, without_owner<scard_list_readers_a>},
    {44, without_owner<scard_list_readers_w>},
    {80, unsupported<0>},   // IntroduceReaderGroupA
    {84, unsupported<0>},   // IntroduceReaderGroupW
    {88, unsupported<0>},   // ForgetReaderGroupA
    {92, unsupported<0>},   // ForgetReaderGroupW
    {96, unsupported<0>},   // IntroduceReaderA
    {100, unsupported<0>},  // IntroduceReaderW
    {104, unsupported<0>},  // ForgetReaderA
    {108, unsupported<0>},  // ForgetReaderW
    {112, unsupported<0>},  // AddReaderToGroupA
    {116, unsupported<0>},  // AddReaderToGroupW
    {120, unsupported<0>},  // RemoveReaderFromGroupA
    {124, unsupported<0>},  // RemoveReaderFromGroupW
    {152, unsupported<2>},  // LocateCardsA: cReaders, rgReaderStates
    {156, unsupported<2>},  // LocateCardsW
    {160, without_owner<scard_get_status_change_a>},
    {164, without_owner<scard_get_status_change_w>},
    {168, without_owner<scard_cancel>},
    {172, without_owner<scard_connect_a>},
    {176, without_owner<scard_connect_w>},
    {180, without_owner<scard_reconnect>},
    {184, without_owner<scard_disconnect>},
    {188, without_owner<scard_begin_transaction>},
    {192, without_owner<scard_end_transaction>},
    {196, unsupported<4>},  // State: dwState, dwProtocol, cbAtrLen, rgAtr
    {200, without_owner<scard_status_a>},
    {204, without_owner<scard_status_w>},
    {208, without_owner<scard_transmit>},
    {212, without_owner<scard_control>},
    {216, without_owner<scard_get_attrib>},
    {220, without_owner<scard_set_attrib>},
    {224, without_owner<scard_access_started_event>},
    {232, unsupported<2>},  // LocateCardsByATRA: cReaders, rgReaderStates
    {236, unsupported<2>},  // LocateCardsByATRW
    {240, unsupported<2>},  // ReadCacheA: cbDataLen, pbData
    {244, unsupported<2>},  // ReadCacheW
    {248, unsupported<0>},  // WriteCacheA
    {252, unsupported<0>},  // WriteCacheW
    {256, unsupported<1>},  // GetTransmitCount: cTransmitCount
};

constexpr bool strictly_increasing() {
    for (std::size_t i = 1; i < std::size(k_dispatch); ++i)
        if (k_dispatch[i - 1].code >= k_dispatch[i].code) return false;
    return true;
}
static_assert(strictly_increasing(), "dispatch rows are sorted by code and each code appears once");

// Every code is a multiple of 4 up to 256, so the rows also make a table indexed by code / 4: a
// lookup is one load rather than a search.
constexpr std::size_t k_indexed_codes = 256 / 4 + 1;
constexpr bool indexable() {
    for (const c_dispatch_row& r : k_dispatch)
        if (r.code % 4 || r.code / 4 >= k_indexed_codes) return false;
    return true;
}
static_assert(indexable(), "every code is a multiple of 4 up to 256");
constexpr std::array<c_handler, k_indexed_codes> k_handler_by_index = [] {
    std::array<c_handler, k_indexed_codes> table{};
    for (const c_dispatch_row& r : k_dispatch) table[r.code / 4] = r.handler;
    return table;
}();

// ---- the dispatch methods ----------------------------------------------------------------------

// The request's first clamp(length, 0, array length) bytes, copied into `bytes` (inline up to
// 2 KiB): a negative length reads nothing and a length beyond the array is cut to the array, so
// nothing outside the array is ever read. Only these bytes are copied, not the whole array, and
// the array is never written.
void copy_request(JNIEnv* env, jbyteArray request, jint length, c_inline_buffer<2048>& bytes) {
    const jsize count = request && length > 0 ? std::min(length, env->GetArrayLength(request)) : 0;
    bytes.allocate(static_cast<std::size_t>(count));
    if (count > 0) env->GetByteArrayRegion(request, 0, count, reinterpret_cast<jbyte*>(bytes.data));
    bytes.used = static_cast<std::size_t>(count);
}

// A new Java array holding the reply, filled straight from the writer's storage.
jbyteArray new_reply(JNIEnv* env, const c_ndr_writer& out) {
    jbyteArray reply = env->NewByteArray(static_cast<jsize>(out.size()));
    if (!reply) return nullptr;  // its OutOfMemoryError is pending
    jsize at = 0;
    out.for_each_piece([&](const std::uint8_t* piece, std::size_t n) {
        env->SetByteArrayRegion(reply, at, static_cast<jsize>(n), reinterpret_cast<const jbyte*>(piece));
        at += static_cast<jsize>(n);
    });
    return reply;
}

// An empty reader still runs the handler, which fails "provide" if it needs bytes (an unknown code
// reads nothing and yields an empty reply).
jbyteArray dispatch(JNIEnv* env, std::int32_t owner, std::uint32_t ioctl, jbyteArray request, jint length) {
    return exception_frame(env, jbyteArray{nullptr}, [&]() -> jbyteArray {
        c_ndr_writer out;
        {
            c_scard_use use;
            if (!use) return nullptr;
            c_inline_buffer<2048> bytes;
            copy_request(env, request, length, bytes);
            c_ndr_reader in(bytes.data, bytes.used);
            scard_dispatch(owner, ioctl, in, out);
        }  // the use is given back (the last one tears down) before the reply reaches Java
        return new_reply(env, out);
    });
}

// The owner-id methods have no frame of their own to report through: an allocation or mutex
// failure while the service is built becomes a pending OutOfMemoryError / Error, nothing is
// published or counted, and the method answers -1 (create: false with id[0] = -1). `load_errno`
// receives errno as the build left it, read before the status array's release (a JNI call).
jint get_smart_card_id(JNIEnv* env, jintArray status, int& load_errno) {
    return exception_frame(env, jint{-1}, [&]() -> jint {
        c_int_array_elements st(env, status);
        st.set_first(0);
        const std::int32_t id = scard_get_owner_id();
        load_errno = errno;
        return id;
    });
}

}  // namespace

bool scard_dispatch(std::int32_t owner, std::uint32_t ioctl, c_ndr_reader& in, c_ndr_writer& out) {
    const std::uint32_t code = ioctl & 0xFFFF;
    if (code % 4 || code / 4 >= k_indexed_codes || !k_handler_by_index[code / 4]) return false;
    k_handler_by_index[code / 4](in, out, owner);
    return true;
}

void scard_access_started_event(c_ndr_reader& in, c_ndr_writer& out) {
    in.provide(4);
    out.finish(0);
}

}  // namespace kor::jni

using namespace kor::jni;

extern "C" {

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_NativeGetSmartCardID(JNIEnv* env, jclass, jintArray status) {
    int load_errno = 0;
    return get_smart_card_id(env, status, load_errno);
}

JNIEXPORT jboolean JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1scard_1create(JNIEnv* env, jclass, jintArray err,
                                                                               jintArray status, jintArray id) {
    // A failed Get throws with OutOfMemoryError pending: no further JNI call, no owner id taken.
    return exception_frame(env, jboolean{JNI_FALSE}, [&]() -> jboolean {
        c_int_array_elements e(env, err);
        c_int_array_elements ids(env, id);
        int load_errno = 0;
        const jint r = get_smart_card_id(env, status, load_errno);
        ids.set_first(r);
        if (r >= 0) return JNI_TRUE;
        e.set_first(load_errno);  // the raw errno, not mapped
        return JNI_FALSE;
    });
}

JNIEXPORT void JNICALL Java_kor_plox_ldm_NativeLDM_NativeSmartCancelPending(JNIEnv* env, jclass, jint owner) {
    exception_frame_void(env, [&] { scard_cancel_pending(owner); });
}

JNIEXPORT jboolean JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1scard_1close(JNIEnv* env, jclass cls, jintArray err,
                                                                              jint owner) {
    // A failed Get throws with OutOfMemoryError pending before anything is closed: the owner stays
    // open for the caller to close again.
    return exception_frame(env, jboolean{JNI_TRUE}, [&]() -> jboolean {
        c_int_array_elements e(env, err);
        e.set_first(-1);
        Java_kor_plox_ldm_NativeLDM_NativeSmartCancelPending(env, cls, owner);
        const int saved = errno;
        e.set_first(saved);
        return JNI_TRUE;
    });
}

JNIEXPORT jbyteArray JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1scard_1process(JNIEnv* env, jobject, jintArray,
                                                                                  jint owner, jint ioctl,
                                                                                  jbyteArray request, jint length) {
    return dispatch(env, owner, static_cast<std::uint32_t>(ioctl), request, length);
}

JNIEXPORT jbyteArray JNICALL Java_kor_plox_ldm_NativeLDM_NativeSmart(JNIEnv* env, jclass, jint owner, jshort ioctl,
                                                                    jshort, jbyteArray request, jint length) {
    return dispatch(env, owner, static_cast<std::uint16_t>(ioctl), request, length);
}

}  // extern "C"
