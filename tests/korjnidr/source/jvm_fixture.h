// A JVM started once per test process, for tests of code that needs a JNIEnv.
#pragma once
#include <jni.h>

JNIEnv* test_env();
