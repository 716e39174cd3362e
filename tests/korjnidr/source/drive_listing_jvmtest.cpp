#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <filesystem>
#include <string>

#include "jvm_fixture.h"
#include "kor_plox_ldm_NativeLDM.h"

namespace fs = std::filesystem;

// In a UTF-8 locale "€" is the three bytes E2 82 AC: counted in bytes, the pattern would pass
// and list the directory named by its first byte, relative to the working directory.
TEST(ListFiles, OneCharacterPatternNamesNothing) {
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    const fs::path here = fs::current_path();
    const fs::path scratch = fs::temp_directory_path() / ("korjnidr_list_" + std::to_string(::getpid()));
    fs::create_directories(scratch / "\xE2");
    fs::current_path(scratch);
    JNIEnv* env = test_env();
    const jchar euro = 0x20AC;
    const jobjectArray names = Java_kor_plox_ldm_NativeLDM_NativeListFiles(env, nullptr, env->NewString(&euro, 1));
    fs::current_path(here);
    fs::remove_all(scratch);
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(names, nullptr);
}
