#include "kor_jnidr_scard.h"

namespace kor::jni {

void scard_control(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }
void scard_get_attrib(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }
void scard_set_attrib(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }

}  // namespace kor::jni
