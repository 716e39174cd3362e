#include "kor_jnidr_scard.h"

namespace kor::jni {

void scard_connect_a(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }
void scard_connect_w(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }
void scard_reconnect(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }
void scard_disconnect(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }
void scard_begin_transaction(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }
void scard_end_transaction(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }

}  // namespace kor::jni
