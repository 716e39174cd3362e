// What crosses into and out of a real JVM (started under -Xcheck:jni): text conversion in both
// directions, the exception frame's translation of native failures into Java exceptions, and a
// listing pattern that only characters, not bytes, can judge.
#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <string>

#include "jni_support.h"
#include "jvm_fixture.h"
#include "kor_plox_ldm_NativeLDM.h"

using namespace kor::jni;
namespace fs = std::filesystem;

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
std::u16string take_exception() {
    JNIEnv* env = test_env();
    const jthrowable e = env->ExceptionOccurred();
    if (!e) return u"none";
    env->ExceptionClear();
    const jclass object = env->FindClass("java/lang/Object");
    const jmethodID to_string = env->GetMethodID(object, "toString", "()Ljava/lang/String;");
    const auto text = static_cast<jstring>(env->CallObjectMethod(e, to_string));
    return env->ExceptionCheck() ? u"toString threw" : java_chars(text);
}

}  // namespace

TEST(NativePath, EncodesInTheLocaleAndRefusesWhatWouldNameAnotherFile) {
    struct { const char* locale; std::u16string java; bool ok; std::string native; } const cases[] = {
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
        EXPECT_EQ(p.ok ? p.c_str() : "", c.native);
    }
    EXPECT_FALSE(c_native_path(test_env(), nullptr).ok);
}

TEST(JavaString, FromMultibyte) {
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    struct { std::string native; bool ok; std::u16string java; } const cases[] = {
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
    struct { void (*raise)(); std::u16string java; } const cases[] = {
        {[] { throw c_jniexception("get_array_length"); }, u"java.lang.Error: get_array_length"},
        {[] { throw std::bad_alloc(); }, u"java.lang.OutOfMemoryError: thrown from native code"},
        {[] { throw std::runtime_error("provide"); }, u"java.lang.Error: provide"},
        {[] { throw foreign{}; }, u"java.lang.Error"},  // no message
        {[] { throw 42; }, u"java.lang.Error"},
        {[] {  // a failed JNI call keeps the Java exception it left
             test_env()->ThrowNew(test_env()->FindClass("java/lang/IllegalStateException"), "left by the VM");
             throw c_jniexception("get_array_length");
         },
         u"java.lang.IllegalStateException: left by the VM"},
    };
    for (const auto& c : cases) {
        test_env()->PushLocalFrame(8);  // the thread never returns to Java to free its references
        EXPECT_EQ(exception_frame(test_env(), -7, [&] { return c.raise(), 5; }), -7);
        EXPECT_EQ(take_exception(), c.java);
        test_env()->PopLocalFrame(nullptr);
    }
    EXPECT_EQ(exception_frame(test_env(), -7, [] { return 5; }), 5);
    EXPECT_EQ(take_exception(), u"none");
}

// In a UTF-8 locale "€" is the three bytes E2 82 AC: counted in bytes, the pattern would pass
// and list the directory named by its first byte, relative to the working directory.
TEST(ListFiles, OneCharacterPatternNamesNothing) {
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    const fs::path here = fs::current_path();
    const fs::path scratch = fs::temp_directory_path() / ("korjnidr_list_" + std::to_string(::getpid()));
    fs::create_directories(scratch / "\xE2");
    fs::current_path(scratch);
    const jchar euro = 0x20AC;
    JNIEnv* env = test_env();
    const jobjectArray names = Java_kor_plox_ldm_NativeLDM_NativeListFiles(env, nullptr, env->NewString(&euro, 1));
    fs::current_path(here);
    fs::remove_all(scratch);
    EXPECT_EQ(names, nullptr);
}
