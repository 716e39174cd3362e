// EstablishContext, ReleaseContext, IsValidContext and Cancel: the calls that create, test,
// interrupt and release a PC/SC context behind its wire handle.
#include "kor_jnidr_scard.h"

namespace kor::jni {

namespace {

// REDIR_SCARDCONTEXT after the header: cbContext (not used), the referent, and when the referent
// is set, the deferred handle array. Returns the wire handle, or nothing for a null context.
struct c_context_arg {
    bool present = false;
    std::uint32_t wire = 0;
};

c_context_arg read_context(c_ndr_reader& in) {
    in.read_header();
    in.skip_u32();
    c_context_arg arg;
    arg.present = in.read_u32() != 0;
    if (arg.present) arg.wire = in.read_handle();
    return arg;
}

// The three calls that take a context and return only a result.
template <class Lookup, class Call>
void context_call(c_ndr_reader& in, c_ndr_writer& out, Lookup lookup, Call call) {
    const c_context_arg arg = read_context(in);
    c_scard_service& service = scard_service();
    const SCARDCONTEXT context = arg.present ? (service.*lookup)(arg.wire) : k_no_handle;
    out.finish(pcsc_result(service.*call, context));
}

}  // namespace

void scard_establish_context(c_ndr_reader& in, c_ndr_writer& out, std::int32_t owner) {
    in.read_header();
    const DWORD scope = in.read_u32();
    c_scard_service& service = scard_service();
    SCARDCONTEXT context = k_no_handle;
    const std::uint32_t result = pcsc_result(service.SCardEstablishContext, scope, nullptr, nullptr, &context);
    if (result == 0) {
        const std::uint32_t wire = service.add_context(owner, context);
        out.write_u32(4);  // cbContext
        out.write_u32(1);  // pbContext referent
        out.write_u32(4);  // array count
        out.write_u32(wire);
    } else {
        out.write_zero_fields(2);  // no context: length 0, null pointer
    }
    out.finish(result);
}

// The record goes before PC/SC is asked: a release that PC/SC rejects still retires the handle.
void scard_release_context(c_ndr_reader& in, c_ndr_writer& out) {
    context_call(in, out, &c_scard_service::take_context, &c_pcsc_api::SCardReleaseContext);
}

void scard_is_valid_context(c_ndr_reader& in, c_ndr_writer& out) {
    context_call(in, out, &c_scard_service::find_context, &c_pcsc_api::SCardIsValidContext);
}

void scard_cancel(c_ndr_reader& in, c_ndr_writer& out) {
    context_call(in, out, &c_scard_service::find_context, &c_pcsc_api::SCardCancel);
}

}  // namespace kor::jni
