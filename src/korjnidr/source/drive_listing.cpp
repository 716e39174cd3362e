// The directory listing, the version check and the entry points that do nothing.
#include <dirent.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "drive_redirection.h"
#include "kor_plox_ldm_NativeLDM.h"

namespace kor::jni {
namespace {

constexpr char k_library_version[] = "2.0.0b";

// The names of one directory, "." and ".." left out, already converted to UTF-16 units in
// readdir's order. A name that the process locale cannot convert is left out here, once, so the
// Java array is sized before any string is made and can hold no null element.
class c_directory_names {
public:
    // False when the directory cannot be opened; a read error ends the listing like its end.
    bool read(const char* directory) {
        const std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(directory), ::closedir);
        if (!dir) return false;
        c_inline_buffer<4100> store;
        while (const dirent* entry = ::readdir(dir.get())) {
            const char* name = entry->d_name;
            if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
            const std::size_t n = multibyte_to_units(name, std::strlen(name), store);
            if (n == static_cast<std::size_t>(-1)) continue;
            starts_.push_back(units_.size());
            units_.insert(units_.end(), store.as<jchar>(), store.as<jchar>() + n);
        }
        starts_.push_back(units_.size());
        return true;
    }

    std::size_t size() const noexcept { return starts_.size() - 1; }
    const jchar* units(std::size_t i) const noexcept { return units_.data() + starts_[i]; }
    jsize length(std::size_t i) const noexcept { return static_cast<jsize>(starts_[i + 1] - starts_[i]); }

private:
    std::vector<jchar> units_;
    std::vector<std::size_t> starts_;
};

// Builds the String[] holding one local reference at a time, so a directory of any size stays
// within the VM's default local reference capacity. Null with the VM's exception pending when
// an allocation fails.
jobjectArray to_java_strings(JNIEnv* env, const c_directory_names& names) {
    const jclass string_class = env->FindClass("java/lang/String");
    if (!string_class) return nullptr;
    const jobjectArray array = env->NewObjectArray(static_cast<jsize>(names.size()), string_class, nullptr);
    env->DeleteLocalRef(string_class);
    if (!array) return nullptr;
    for (std::size_t i = 0; i < names.size(); ++i) {
        const jstring name = env->NewString(names.units(i), names.length(i));
        if (!name) {
            env->DeleteLocalRef(array);
            return nullptr;
        }
        env->SetObjectArrayElement(array, static_cast<jsize>(i), name);
        env->DeleteLocalRef(name);
    }
    return array;
}

}  // namespace
}  // namespace kor::jni

using namespace kor::jni;

extern "C" {

JNIEXPORT jobjectArray JNICALL Java_kor_plox_ldm_NativeLDM_NativeListFiles(JNIEnv* env, jclass,
                                                                          jstring pattern) {
    return exception_frame(env, jobjectArray{nullptr}, [&] {
        return with_native_paths(
            env, [] { return jobjectArray{nullptr}; },
            [&](const char* text) -> jobjectArray {
                // The pattern is the directory followed by two characters (a separator and a
                // wildcard) whose last two bytes are dropped unread. A pattern of fewer than two
                // characters names nothing: counted in bytes, one multibyte character would pass
                // and leave a relative path of its first byte. Two characters give at least two
                // bytes.
                if (env->GetStringLength(pattern) < 2) return nullptr;
                c_directory_names names;
                if (!names.read(std::string(text, std::strlen(text) - 2).c_str())) return nullptr;
                return to_java_strings(env, names);
            },
            pattern);
    });
}

JNIEXPORT jboolean JNICALL Java_kor_plox_ldm_NativeLDM_NativeCheckVersion(JNIEnv* env, jclass,
                                                                        jstring version) {
    return boolean_frame(env, [&] {
        const c_native_short_string text(env, version);
        return text.ok && std::strcmp(text.c_str(), k_library_version) == 0;
    });
}

// Entry points that the Java side still calls but that have nothing to do on this platform.
JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_NativeWinOpen(JNIEnv*, jclass) { return 0; }
JNIEXPORT void JNICALL Java_kor_plox_ldm_NativeLDM_NativeWinClose(JNIEnv*, jclass) {}
JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_NativeWinDevice(JNIEnv*, jclass) { return 0; }
JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_NativeWinRead(JNIEnv*, jclass) { return 0; }
JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_NativeWinWrite(JNIEnv*, jclass) { return 0; }
JNIEXPORT void JNICALL Java_kor_plox_ldm_NativeLDM_NativeCheckpoint(JNIEnv*, jclass) {}
JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_SetErrorMode(JNIEnv*, jclass) { return 0; }

}  // extern "C"
