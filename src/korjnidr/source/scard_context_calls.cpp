// EstablishContext, ReleaseContext, IsValidContext and Cancel: the calls that create, test,
// interrupt and release a PC/SC context behind its wire handle.
#include "scard_handler.h"

namespace kor::jni {

namespace {

// The three calls that take a context and return only a result: `lookup` translates the wire
// handle (find_context, or take_context for ReleaseContext), `call` is the PC/SC entry.
template <class Call>
void context_call(c_ndr_reader& in, c_ndr_writer& out, SCARDCONTEXT (c_scard_service::*lookup)(std::uint32_t),
                  Call call) {
    in.read_header();
    const SCARDCONTEXT context = c_context_ref::read(in).lookup(in, lookup, k_no_handle);
    out.finish(pcsc_result(scard_service().*call, context));
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
        out.write_u32(k_handle_length);  // cbContext
        out.write_u32(k_referent);
        out.write_u32(k_handle_length);  // array count
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
