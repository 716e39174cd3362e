#include "kor_jnidr_scard.h"

namespace kor::jni {

void scard_transmit(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }

}  // namespace kor::jni
