#include "kor_jnidr_scard.h"

namespace kor::jni {

void scard_list_reader_groups_a(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }
void scard_list_reader_groups_w(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }
void scard_list_readers_a(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }
void scard_list_readers_w(c_ndr_reader&, c_ndr_writer& out) { out.finish(k_not_implemented); }

}  // namespace kor::jni
