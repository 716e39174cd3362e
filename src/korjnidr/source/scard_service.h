// The process-wide card service: PC/SC entry table loaded at run time, wire handle tables,
// reader records, and the uses and open owner ids that govern the service's life.
#pragma once

#include <winscard.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <memory>
#include <utility>

#include "jni_support.h"

namespace kor::jni {

// Result of every call whose PC/SC entry is missing, and of every unsupported call.
constexpr std::uint32_t k_not_implemented = 120;
// What an absent or unknown wire handle becomes when handed to PC/SC.
constexpr SCARDHANDLE k_no_handle = static_cast<SCARDHANDLE>(-1);

// One typed pointer per PC/SC function the handlers call; null when the library lacks it.
struct c_pcsc_api {
    decltype(&::SCardEstablishContext) SCardEstablishContext = nullptr;
    decltype(&::SCardReleaseContext) SCardReleaseContext = nullptr;
    decltype(&::SCardIsValidContext) SCardIsValidContext = nullptr;
    decltype(&::SCardConnect) SCardConnect = nullptr;
    decltype(&::SCardReconnect) SCardReconnect = nullptr;
    decltype(&::SCardDisconnect) SCardDisconnect = nullptr;
    decltype(&::SCardBeginTransaction) SCardBeginTransaction = nullptr;
    decltype(&::SCardEndTransaction) SCardEndTransaction = nullptr;
    decltype(&::SCardStatus) SCardStatus = nullptr;
    decltype(&::SCardGetStatusChange) SCardGetStatusChange = nullptr;
    decltype(&::SCardControl) SCardControl = nullptr;
    decltype(&::SCardTransmit) SCardTransmit = nullptr;
    decltype(&::SCardListReaderGroups) SCardListReaderGroups = nullptr;
    decltype(&::SCardListReaders) SCardListReaders = nullptr;
    decltype(&::SCardCancel) SCardCancel = nullptr;
    decltype(&::SCardGetAttrib) SCardGetAttrib = nullptr;
    decltype(&::SCardSetAttrib) SCardSetAttrib = nullptr;
};

// Calls a PC/SC entry and keeps the low 32 bits of its LONG result; 120 when the entry is null.
template <class Fn, class... Args>
std::uint32_t pcsc_result(Fn fn, Args&&... args) {
    return fn ? static_cast<std::uint32_t>(fn(std::forward<Args>(args)...)) : k_not_implemented;
}

// One established context or one connected card.
struct c_scard_handle_record {
    std::int32_t owner;
    SCARDHANDLE pcsc_handle;   // SCARDCONTEXT and SCARDHANDLE are the same 64-bit type
    std::uint64_t wire_handle;  // holds a 32-bit number
};

struct c_free_deleter {
    void operator()(char* p) const noexcept { std::free(p); }
};

// Reader name and protocol of a connected card, for GetAttrib's fallback.
struct c_scard_reader_record {
    SCARDHANDLE pcsc_card;
    std::uint64_t protocol;  // holds a 32-bit value
    std::unique_ptr<char, c_free_deleter> reader_name;
};

class c_scard_service : public c_pcsc_api {
public:
    c_scard_service() : mutex(false) {}
    ~c_scard_service();  // unloads PC/SC
    c_scard_service(const c_scard_service&) = delete;
    c_scard_service& operator=(const c_scard_service&) = delete;

    std::list<c_scard_handle_record> contexts;
    std::list<c_scard_handle_record> cards;
    std::uint32_t last_handle = 0;
    std::list<c_scard_reader_record> card_readers;
    void* library = nullptr;
    c_mutex mutex;

    // Table operations; each holds the service lock for exactly its own duration.
    std::uint32_t add_context(std::int32_t owner, SCARDCONTEXT context);
    SCARDCONTEXT find_context(std::uint32_t wire);
    std::pair<std::int32_t, SCARDCONTEXT> find_context_record(std::uint32_t wire);  // (0, all ones) if none
    SCARDCONTEXT take_context(std::uint32_t wire);
    std::uint32_t add_card(std::int32_t owner, SCARDHANDLE card);
    SCARDHANDLE find_card(std::uint32_t wire);
    SCARDHANDLE take_card(std::uint32_t wire);
    // Cancels and releases the owner's contexts (PC/SC called under the lock), drops its cards and
    // their reader records.
    void cancel_owner(std::int32_t owner);

    // Reader records, each under the service lock.
    void add_reader(SCARDHANDLE card, std::uint32_t protocol, const char* name);  // copies name with malloc
    void set_reader_protocol(SCARDHANDLE card, std::uint32_t protocol);
    void remove_reader(SCARDHANDLE card);
    // Copies protocol and name of the first record of `card`; false when there is none.
    bool copy_reader(SCARDHANDLE card, std::uint32_t& protocol, c_inline_buffer<1024>& name);
};

// The service lock for a scope; a failed unlock is ignored, as c_mutex_lock does.
class c_scard_service_lock {
public:
    explicit c_scard_service_lock(c_scard_service& s) : lock_(s.mutex) {}

private:
    c_mutex_lock lock_;
};

// The live service or null. Set and cleared under the lifecycle lock, read without one: a use of
// the service keeps it alive, hence atomic.
extern std::atomic<c_scard_service*> g_scard_service;

// The service that a handler runs against: live for the handler's whole run (the dispatcher
// holds a use of it).
inline c_scard_service& scard_service() noexcept { return *g_scard_service.load(); }

// Takes one use, builds the service when it is the first, and opens a new owner id, which it
// returns; -1 when the PC/SC library could not be loaded (the use stays, and -1 counts as open).
std::int32_t scard_get_owner_id();
// Closes `owner` if it is open: cancels what it holds and gives its use back, tearing the service
// down after the last. An id that is not open (never handed out, or closed already) gives nothing
// back: closing one id twice must not free the service under another owner's call.
void scard_cancel_pending(std::int32_t owner);
// Takes one use of the live service; false (nothing taken) when there is none, or when its last
// use is being given back.
bool scard_take_use() noexcept;
// Gives one use back; tears the service down when that was the last.
void scard_release_use();

// One use of the service for a scope: taken on construction when a service is live (or adopted,
// when the caller already holds it), given back on every way out, the last one tearing the service
// down. A failure to give it back (a mutex failure) cannot be reported from a destructor and is
// dropped.
class c_scard_use {
public:
    struct c_adopt {};
    c_scard_use() noexcept : taken_(scard_take_use()) {}
    explicit c_scard_use(c_adopt) noexcept : taken_(true) {}
    ~c_scard_use() {
        if (!taken_) return;
        try {
            scard_release_use();
        } catch (...) {
        }
    }
    c_scard_use(const c_scard_use&) = delete;
    c_scard_use& operator=(const c_scard_use&) = delete;
    explicit operator bool() const noexcept { return taken_; }

private:
    bool taken_;
};

}  // namespace kor::jni
