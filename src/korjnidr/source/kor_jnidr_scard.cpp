#include "kor_jnidr_scard.h"
