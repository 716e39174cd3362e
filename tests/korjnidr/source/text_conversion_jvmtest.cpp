#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <vector>

#include "jni_support.h"
#include "jvm_fixture.h"

using namespace kor::jni;

namespace {

struct locale_scope {
    explicit locale_scope(const char* name) : ok(std::setlocale(LC_ALL, name) != nullptr) {}
    ~locale_scope() { std::setlocale(LC_ALL, "C"); }
    bool ok;
};

jstring make(const std::u16string& s) {
    return test_env()->NewString(reinterpret_cast<const jchar*>(s.data()), static_cast<jsize>(s.size()));
}

std::u16string java_chars(jstring s) {
    JNIEnv* env = test_env();
    const jchar* p = env->GetStringChars(s, nullptr);
    std::u16string out(reinterpret_cast<const char16_t*>(p), static_cast<size_t>(env->GetStringLength(s)));
    env->ReleaseStringChars(s, p);
    return out;
}

}  // namespace

TEST(NativePath, Utf8Locale) {
    locale_scope utf8("C.UTF-8");
    ASSERT_TRUE(utf8.ok);
    c_native_path empty(test_env(), make(u""));
    EXPECT_TRUE(empty.ok);
    EXPECT_STREQ(empty.c_str(), "");

    c_native_path accented(test_env(), make(u"a\u00e9"));
    ASSERT_TRUE(accented.ok);
    EXPECT_EQ(std::string(accented.c_str()), "a\xC3\xA9");

    // Each surrogate half is a character of its own, which UTF-8 cannot encode.
    c_native_path pair(test_env(), make(u"\U0001F600"));
    EXPECT_FALSE(pair.ok);
    // An embedded NUL would cut the path short, naming another file.
    c_native_path nul(test_env(), make(std::u16string(u"ab\0cd", 5)));
    EXPECT_FALSE(nul.ok);
    c_native_path null_string(test_env(), nullptr);
    EXPECT_FALSE(null_string.ok);
}

TEST(NativePath, PosixLocaleRefusesNonAscii) {
    locale_scope posix("C");
    c_native_path p(test_env(), make(u"\u00e9"));
    EXPECT_FALSE(p.ok);
    c_native_path ascii(test_env(), make(u"/tmp/x"));
    EXPECT_TRUE(ascii.ok);
    EXPECT_STREQ(ascii.c_str(), "/tmp/x");
}

TEST(NativePath, InlineUpTo1024Units) {
    locale_scope utf8("C.UTF-8");
    c_native_path inline_path(test_env(), make(std::u16string(1024, u'x')));
    ASSERT_TRUE(inline_path.ok);
    EXPECT_FALSE(inline_path.bytes.on_heap());
    EXPECT_EQ(std::string(inline_path.c_str()), std::string(1024, 'x'));

    c_native_path heap_path(test_env(), make(std::u16string(1025, u'y')));
    ASSERT_TRUE(heap_path.ok);
    EXPECT_TRUE(heap_path.bytes.on_heap());
    EXPECT_EQ(heap_path.bytes.capacity, 4104u);
    EXPECT_EQ(std::string(heap_path.c_str()), std::string(1025, 'y'));

    c_native_short_string version(test_env(), make(u"2.0.0b"));
    EXPECT_TRUE(version.ok);
    EXPECT_STREQ(version.c_str(), "2.0.0b");
}

TEST(JavaString, FromMultibyte) {
    locale_scope utf8("C.UTF-8");
    c_java_string abc(test_env(), "abc");
    ASSERT_TRUE(abc.ok);
    EXPECT_EQ(java_chars(abc.string), u"abc");

    c_java_string e_acute(test_env(), "\xC3\xA9");
    ASSERT_TRUE(e_acute.ok);
    EXPECT_EQ(java_chars(e_acute.string), u"\u00e9");

    c_java_string invalid(test_env(), "\xFF");
    EXPECT_FALSE(invalid.ok);
    EXPECT_EQ(invalid.string, nullptr);

    // Beyond the BMP only the low 16 bits of the character are kept.
    c_java_string astral(test_env(), "\xF0\x9F\x98\x80");
    ASSERT_TRUE(astral.ok);
    EXPECT_EQ(java_chars(astral.string), std::u16string(1, char16_t(0xF600)));

    std::string long_name(3000, 'z');
    c_java_string big(test_env(), long_name.c_str());
    ASSERT_TRUE(big.ok);
    EXPECT_EQ(java_chars(big.string).size(), 3000u);
}
