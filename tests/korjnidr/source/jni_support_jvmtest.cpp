// What crosses into and out of a real JVM (started under -Xcheck:jni): text conversion in both
// directions, and the exception frame's translation of native failures into Java exceptions.
#include <gtest/gtest.h>

#include <clocale>
#include <new>
#include <stdexcept>
#include <string>

#include "jni_support.h"
#include "jvm_fixture.h"
#include "kor_plox_ldm_NativeLDM.h"

using namespace kor::jni;

namespace {

jstring make(const std::u16string& s) {
    return test_env()->NewString(reinterpret_cast<const jchar*>(s.data()), static_cast<jsize>(s.size()));
}

std::u16string java_chars(jstring s) {
    std::u16string out(static_cast<size_t>(test_env()->GetStringLength(s)), u'\0');
    test_env()->GetStringRegion(s, 0, static_cast<jsize>(out.size()), reinterpret_cast<jchar*>(out.data()));
    return out;
}

// The pending exception as Java prints it ("java.lang.Error: provide"), cleared; "none" if none.
std::string take_exception() {
    JNIEnv* env = test_env();
    jthrowable e = env->ExceptionOccurred();
    if (!e) return "none";
    env->ExceptionClear();
    jmethodID to_string = env->GetMethodID(env->FindClass("java/lang/Object"), "toString", "()Ljava/lang/String;");
    jstring s = static_cast<jstring>(env->CallObjectMethod(e, to_string));
    if (env->ExceptionCheck()) return "toString threw";
    const char* chars = env->GetStringUTFChars(s, nullptr);
    std::string out(chars);
    env->ReleaseStringUTFChars(s, chars);
    return out;
}

}  // namespace

TEST(NativePath, EncodesInTheLocaleAndRefusesWhatWouldNameAnotherFile) {
    const struct {
        const char* locale;
        std::u16string java;
        bool ok;
        std::string native;
    } cases[] = {
        {"C.UTF-8", u"", true, ""},
        {"C.UTF-8", u"a\u00e9", true, "a\xC3\xA9"},
        {"C.UTF-8", u"\U0001F600", false, ""},                   // each surrogate half alone: not encodable
        {"C.UTF-8", std::u16string(u"ab\0cd", 5), false, ""},  // U+0000 would cut the path short
        {"C.UTF-8", std::u16string(1024, u'x'), true, std::string(1024, 'x')},
        {"C.UTF-8", std::u16string(1025, u'y'), true, std::string(1025, 'y')},  // beyond the inline storage
        {"C", u"\u00e9", false, ""},
        {"C", u"/tmp/x", true, "/tmp/x"},
    };
    for (const auto& c : cases) {
        ASSERT_NE(std::setlocale(LC_ALL, c.locale), nullptr) << c.locale;
        c_native_path p(test_env(), make(c.java));
        EXPECT_EQ(p.ok, c.ok) << c.locale << " " << c.native;
        if (c.ok) {
            EXPECT_EQ(p.c_str(), c.native);
        }
    }
    EXPECT_FALSE(c_native_path(test_env(), nullptr).ok);
}

TEST(JavaString, FromMultibyte) {
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    const struct {
        std::string native;
        bool ok;
        std::u16string java;
    } cases[] = {
        {"abc", true, u"abc"},
        {"\xC3\xA9", true, u"\u00e9"},
        {"\xF0\x9F\x98\x80", true, std::u16string(1, char16_t(0xF600))},  // beyond the BMP: low 16 bits
        {std::string(3000, 'z'), true, std::u16string(3000, u'z')},
        {"\xFF", false, u""},
    };
    for (const auto& c : cases) {
        c_java_string s(test_env(), c.native.c_str());
        ASSERT_EQ(s.ok, c.ok) << c.native;
        ASSERT_EQ(s.string != nullptr, c.ok) << c.native;
        EXPECT_EQ(c.ok ? java_chars(s.string) : u"", c.java) << c.native;
    }
}

TEST(ExceptionFrame, NativeFailuresBecomeJavaExceptions) {
    struct foreign {};
    const struct {
        void (*raise)();
        const char* java;
    } cases[] = {
        {[] { throw c_jniexception("get_array_length"); }, "java.lang.Error: get_array_length"},
        {[] { throw std::bad_alloc(); }, "java.lang.OutOfMemoryError: thrown from native code"},
        {[] { throw std::runtime_error("provide"); }, "java.lang.Error: provide"},
        {[] { throw foreign{}; }, "java.lang.Error"},  // no message
        {[] { throw 42; }, "java.lang.Error"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(exception_frame(test_env(), -7, [&] { return c.raise(), 5; }), -7);
        EXPECT_EQ(take_exception(), c.java);
    }
    EXPECT_EQ(exception_frame(test_env(), -7, [] { return 5; }), 5);
    EXPECT_EQ(take_exception(), "none");
}

TEST(ExceptionFrame, AFailedJniCallKeepsTheJavaExceptionItLeft) {
    JNIEnv* env = test_env();
    exception_frame(env, 0, [env]() -> int {
        env->ThrowNew(env->FindClass("java/lang/IllegalStateException"), "left by the VM");
        throw c_jniexception("get_array_length");
    });
    EXPECT_EQ(take_exception(), "java.lang.IllegalStateException: left by the VM");
}

TEST(Initialize, ReportsLevel12AndLeavesTheErrorArray) {
    JNIEnv* env = test_env();
    jintArray err = env->NewIntArray(1), level = env->NewIntArray(1);
    const jint earlier = 99;
    env->SetIntArrayRegion(err, 0, 1, &earlier);
    EXPECT_EQ(Java_kor_plox_ldm_NativeLDM_m_1native_1initialize(env, nullptr, err, level), JNI_TRUE);
    jint level_value = 0, err_value = 0;
    env->GetIntArrayRegion(level, 0, 1, &level_value);
    env->GetIntArrayRegion(err, 0, 1, &err_value);
    EXPECT_EQ(level_value, 12);
    EXPECT_EQ(err_value, 99);
}
