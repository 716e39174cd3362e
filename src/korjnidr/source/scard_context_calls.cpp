#include "kor_jnidr_scard.h"

namespace kor::jni {

void scard_establish_context(c_ndr_reader&, c_ndr_writer& out, std::int32_t) { out.finish(k_not_implemented); }
void scard_release_context(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }
void scard_is_valid_context(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }
void scard_cancel(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }

}  // namespace kor::jni
