// JNI boundary and shared support: the ways an entry point reports to Java, errno mapping, the
// library's exception type, scoped holders of Java arrays, text conversion and locking.
#pragma once

#include <jni.h>
#include <pthread.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <new>
#include <type_traits>
#include <utility>

namespace kor::jni {

// ---- errno and result arrays -------------------------------------------------------------------

// Linux errno to the value the Java side expects (most values pass with bit 27 set).
int map_errno(int e) noexcept;

void set_int_result(JNIEnv* env, jintArray a, jint v);
void set_long_result(JNIEnv* env, jlongArray a, jlong v);

// ---- exceptions --------------------------------------------------------------------------------

void throw_out_of_memory(JNIEnv* env) noexcept;
void throw_java_error(JNIEnv* env, const char* message) noexcept;
bool java_exception_pending(JNIEnv* env) noexcept;

// Thrown when a JNI call the library relies on failed; the VM may already hold an exception.
class c_jniexception : public std::exception {
public:
    explicit c_jniexception(const char* text);
    c_jniexception(const c_jniexception& other);
    c_jniexception& operator=(const c_jniexception&) = delete;
    ~c_jniexception() override;
    const char* what() const noexcept override;
    virtual void raise_in_java(JNIEnv* env) const noexcept;

private:
    char* message;
};

// Runs body; any native exception becomes a pending Java exception and `failure` is returned.
template <class R, class Body>
R exception_frame(JNIEnv* env, R failure, Body&& body) noexcept {
    try {
        return body();
    } catch (const c_jniexception& e) {
        e.raise_in_java(env);
    } catch (const std::bad_alloc&) {
        throw_out_of_memory(env);
    } catch (const std::exception& e) {
        throw_java_error(env, e.what());
    } catch (...) {
        throw_java_error(env, nullptr);
    }
    return failure;
}

template <class Body>
void exception_frame_void(JNIEnv* env, Body&& body) noexcept {
    exception_frame(env, 0, [&] {
        body();
        return 0;
    });
}

// Writes map_errno(e) into err[0] and returns the errno frame's failure value.
jint report_errno(JNIEnv* env, jintArray err, int e);

// The errno frame: `call` returns the system call's result; on a non-negative result `on_ok`
// receives it and 0 is returned, otherwise the mapped errno (saved before any JNI call) goes to
// err[0] and -1 is returned. Allocation failures of path buffers surface as OutOfMemoryError.
template <class Call, class OnOk>
jint errno_frame(JNIEnv* env, jintArray err, Call&& call, OnOk&& on_ok) noexcept {
    return exception_frame(env, jint{-1}, [&]() -> jint {
        const auto r = call();
        if (r < 0) return report_errno(env, err, errno);
        on_ok(r);
        return 0;
    });
}

template <class Call>
jint errno_frame(JNIEnv* env, jintArray err, Call&& call) noexcept {
    return errno_frame(env, err, std::forward<Call>(call), [](auto) {});
}

// The boolean frame: body returns bool; nothing but the result reaches Java.
template <class Body>
jboolean boolean_frame(JNIEnv* env, Body&& body) noexcept {
    return exception_frame(env, jboolean{JNI_FALSE},
                           [&]() -> jboolean { return body() ? JNI_TRUE : JNI_FALSE; });
}

// ---- scoped primitive array elements -----------------------------------------------------------

// The one answer to a failed JNI Get... or New... (a null result): the VM has left an exception
// pending (OutOfMemoryError), so throw c_jniexception, whose frame keeps that exception and makes no
// further JNI call. Every holder, pin and new string of the library takes its pointer through this.
template <class T>
T* got_from_jni(T* p, const char* call) {
    if (!p) throw c_jniexception(call);
    return p;
}

template <class T> struct c_array_traits;
template <> struct c_array_traits<jint> {
    using array = jintArray;
    static jint* get(JNIEnv* e, array a) {
        return got_from_jni(e->GetIntArrayElements(a, nullptr), "GetIntArrayElements");
    }
    static void release(JNIEnv* e, array a, jint* p, jint m) { e->ReleaseIntArrayElements(a, p, m); }
};
template <> struct c_array_traits<jbyte> {
    using array = jbyteArray;
    static jbyte* get(JNIEnv* e, array a) {
        return got_from_jni(e->GetByteArrayElements(a, nullptr), "GetByteArrayElements");
    }
    static void release(JNIEnv* e, array a, jbyte* p, jint m) { e->ReleaseByteArrayElements(a, p, m); }
};

// Elements of a Java primitive array, released when the scope ends: copied back (mode 0) unless
// abort_changes() was called. A null array holds nothing (data() is null); a failed Get throws.
template <class T>
class c_array_elements {
public:
    using array_type = typename c_array_traits<T>::array;
    c_array_elements(JNIEnv* env, array_type array)
        : env_(env), array_(array), elements_(array ? c_array_traits<T>::get(env, array) : nullptr) {}
    ~c_array_elements() {
        if (elements_) c_array_traits<T>::release(env_, array_, elements_, mode_);
    }
    c_array_elements(const c_array_elements&) = delete;
    c_array_elements& operator=(const c_array_elements&) = delete;

    T* data() const noexcept { return elements_; }
    explicit operator bool() const noexcept { return elements_ != nullptr; }
    // Writes element 0 when the array has one (a zero-length array is left alone; so is any array
    // while an exception is pending, when its length cannot be asked).
    void set_first(T v) const {
        if (elements_ && !env_->ExceptionCheck() && env_->GetArrayLength(array_) > 0) elements_[0] = v;
    }
    void abort_changes() noexcept { mode_ = JNI_ABORT; }

private:
    JNIEnv* env_;
    array_type array_;
    T* elements_;
    jint mode_ = 0;
};

using c_int_array_elements = c_array_elements<jint>;
using c_byte_array_elements = c_array_elements<jbyte>;

// ---- inline buffer -----------------------------------------------------------------------------

// Up to N bytes inside the object, a heap block above that. Neither copied nor moved.
template <std::size_t N>
class c_inline_buffer {
public:
    c_inline_buffer() noexcept : data(storage) {}
    ~c_inline_buffer() { release(); }
    c_inline_buffer(const c_inline_buffer&) = delete;
    c_inline_buffer& operator=(const c_inline_buffer&) = delete;

    // Makes room for `size` bytes, dropping any earlier heap block; contents are unspecified.
    unsigned char* allocate(std::size_t size) {
        release();
        if (size > N) data = new unsigned char[size];
        capacity = size;
        used = 0;
        return data;
    }
    unsigned char* allocate_zeroed(std::size_t size) {
        allocate(size);
        if (size) std::memset(data, 0, size);
        return data;
    }
    bool on_heap() const noexcept { return data != storage; }
    template <class T> T* as() const noexcept { return reinterpret_cast<T*>(data); }
    char* chars() const noexcept { return reinterpret_cast<char*>(data); }

    unsigned char* data;
    std::size_t capacity = 0;
    std::size_t used = 0;

private:
    void release() noexcept {
        if (data != storage) delete[] data;
        data = storage;
    }
    alignas(std::max_align_t) unsigned char storage[N];
};

// ---- text conversion ---------------------------------------------------------------------------

// Java string to NUL-terminated multibyte text in the process locale. `ok` is false when a
// character cannot be encoded, when the string holds U+0000 (a cut-short path could name another
// file), or for a null string; bytes.data is then not a usable text.
template <std::size_t N>
class c_native_text {
public:
    c_native_text(JNIEnv* env, jstring s);
    const char* c_str() const noexcept { return bytes.chars(); }

    std::int32_t char_count = 0;
    c_inline_buffer<N> bytes;
    bool ok = false;
};

extern template class c_native_text<4100>;
extern template class c_native_text<1028>;
using c_native_path = c_native_text<4100>;
using c_native_short_string = c_native_text<1028>;

// NUL-terminated multibyte text of `count` bytes to UTF-16 units (each character's low 16 bits)
// at store.as<jchar>(); returns the number of units, or (size_t)-1 when the text is not valid in
// the process locale.
std::size_t multibyte_to_units(const char* text, std::size_t count, c_inline_buffer<4100>& store);

// NUL-terminated multibyte text to a Java string; `string` is null (and `ok` false) when the text
// is not valid in the process locale. A string the VM could not make throws (got_from_jni).
class c_java_string {
public:
    c_java_string(JNIEnv* env, const char* text);

    std::int32_t byte_count = 0;
    jstring string = nullptr;
    bool ok = false;
};

// ---- locking -----------------------------------------------------------------------------------

class c_mutex {
public:
    explicit c_mutex(bool recursive);
    // Static initialisation that cannot fail: used by the card service's process-wide lock and
    // counter so that the library always loads.
    struct static_init_t {};
    constexpr explicit c_mutex(static_init_t) noexcept : m(PTHREAD_MUTEX_INITIALIZER) {}
    ~c_mutex();
    c_mutex(const c_mutex&) = delete;
    c_mutex& operator=(const c_mutex&) = delete;

    void lock();
    void unlock();
    pthread_mutex_t* native() noexcept { return &m; }

private:
    pthread_mutex_t m;
};

// Locks for a scope. The unlock's failure is ignored: a destructor cannot report it.
class c_mutex_lock {
public:
    explicit c_mutex_lock(c_mutex& mutex) : mutex_(&mutex) { mutex_->lock(); }
    ~c_mutex_lock() { pthread_mutex_unlock(mutex_->native()); }
    c_mutex_lock(const c_mutex_lock&) = delete;
    c_mutex_lock& operator=(const c_mutex_lock&) = delete;

private:
    c_mutex* mutex_;
};

class c_locked_counter {
public:
    c_locked_counter() : mutex(false) {}
    struct static_init_t {};
    constexpr explicit c_locked_counter(static_init_t) noexcept : mutex(c_mutex::static_init_t{}) {}
    std::int32_t increment();

private:
    std::int32_t value = 0;
    c_mutex mutex;
};

}  // namespace kor::jni
