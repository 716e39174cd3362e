// The card service: building it (locale, dlopen, entry table), its handle tables and reader
// records, and the usage count that decides when it is torn down.
#include "scard_service.h"

#include <dlfcn.h>

#include <clocale>
#include <cstring>
#include <tuple>

namespace kor::jni {

std::atomic<c_scard_service*> g_scard_service{nullptr};

namespace {

// Held around every change of the usage count that may build or tear down the service, together
// with the change of g_scard_service that goes with it. Without it, a close that has just given
// back the last use could, before it clears g_scard_service, meet a create that counted 1 and built
// a new service (or a dispatch that counted 2 on the old one). Only the counters' own short
// sections, dlopen and dlclose run under it; it is never taken with the service lock held.
c_mutex g_scard_lifecycle{c_mutex::static_init_t{}};

// The entry table, in the order in which the entries are resolved.
template <class Fn>
struct c_pcsc_entry {
    const char* name;
    Fn c_pcsc_api::*member;
};
template <class Fn>
constexpr c_pcsc_entry<Fn> entry(const char* name, Fn c_pcsc_api::*member) {
    return {name, member};
}
constexpr auto k_pcsc_entries = std::make_tuple(
    entry("SCardEstablishContext", &c_pcsc_api::SCardEstablishContext),
    entry("SCardControl", &c_pcsc_api::SCardControl), entry("SCardSetAttrib", &c_pcsc_api::SCardSetAttrib),
    entry("SCardDisconnect", &c_pcsc_api::SCardDisconnect),
    entry("SCardListReaders", &c_pcsc_api::SCardListReaders),
    entry("SCardTransmit", &c_pcsc_api::SCardTransmit),
    entry("SCardGetStatusChange", &c_pcsc_api::SCardGetStatusChange),
    entry("SCardCancel", &c_pcsc_api::SCardCancel),
    entry("SCardReleaseContext", &c_pcsc_api::SCardReleaseContext),
    entry("SCardListReaderGroups", &c_pcsc_api::SCardListReaderGroups),
    entry("SCardEndTransaction", &c_pcsc_api::SCardEndTransaction),
    entry("SCardGetAttrib", &c_pcsc_api::SCardGetAttrib),
    entry("SCardReconnect", &c_pcsc_api::SCardReconnect),
    entry("SCardBeginTransaction", &c_pcsc_api::SCardBeginTransaction),
    entry("SCardIsValidContext", &c_pcsc_api::SCardIsValidContext),
    entry("SCardConnect", &c_pcsc_api::SCardConnect), entry("SCardStatus", &c_pcsc_api::SCardStatus));
static_assert(std::tuple_size_v<decltype(k_pcsc_entries)> == 17, "one row per PC/SC entry");

// A missing symbol leaves its entry null.
void resolve_entries(c_pcsc_api& api, void* library) {
    std::apply(
        [&](const auto&... e) {
            ((api.*e.member = reinterpret_cast<std::remove_reference_t<decltype(api.*e.member)>>(
                  dlsym(library, e.name))),
             ...);
        },
        k_pcsc_entries);
}

// Builds a service; false (with the service installed, no library and every entry null) when the
// PC/SC library cannot be loaded. The object is complete, library and entries included, before it
// is published, so nobody can see it half-built and no service lock is needed while it is built.
// A failure (allocation, mutex) frees what was built and leaves g_scard_service as it was.
bool create_scard_service() {
    auto service = std::make_unique<c_scard_service>();
    std::setlocale(LC_ALL, "");
    service->library = dlopen("libpcsclite.so.1", RTLD_NOW);
    const bool loaded = service->library != nullptr;
    if (loaded) resolve_entries(*service, service->library);
    g_scard_service.store(service.release());
    return loaded;
}

// Unloads PC/SC and discards every record without calling PC/SC: contexts that no owner closed are
// not released, cards left connected are not disconnected.
void destroy_scard_service(c_scard_service* service) {
    if (service->library) dlclose(service->library);
    delete service;  // the mutex, the handle records and the reader records with their names
}

// Gives one use back; the caller holds g_scard_lifecycle.
void release_use_locked() {
    if (g_scard_users.decrement() <= 0) {
        if (c_scard_service* s = g_scard_service.exchange(nullptr)) destroy_scard_service(s);
    }
}

template <class List>
SCARDHANDLE find_in(c_scard_service& s, List& list, std::uint32_t wire) {
    c_scard_service_lock lock(s);
    for (const auto& r : list)
        if (r.wire_handle == wire) return r.pcsc_handle;
    return k_no_handle;
}

template <class List>
SCARDHANDLE take_from(c_scard_service& s, List& list, std::uint32_t wire) {
    c_scard_service_lock lock(s);
    for (auto it = list.begin(); it != list.end(); ++it) {
        if (it->wire_handle == wire) {
            const SCARDHANDLE h = it->pcsc_handle;
            list.erase(it);
            return h;
        }
    }
    return k_no_handle;
}

template <class List>
std::uint32_t add_to(c_scard_service& s, List& list, std::int32_t owner, SCARDHANDLE handle) {
    c_scard_service_lock lock(s);
    const std::uint32_t wire = ++s.last_handle;
    list.push_back({owner, handle, wire});
    return wire;
}

}  // namespace

// ---- handle tables -----------------------------------------------------------------------------

std::uint32_t c_scard_service::add_context(std::int32_t owner, SCARDCONTEXT context) {
    return add_to(*this, contexts, owner, context);
}
SCARDCONTEXT c_scard_service::find_context(std::uint32_t wire) { return find_in(*this, contexts, wire); }
SCARDCONTEXT c_scard_service::take_context(std::uint32_t wire) { return take_from(*this, contexts, wire); }
std::uint32_t c_scard_service::add_card(std::int32_t owner, SCARDHANDLE card) {
    return add_to(*this, cards, owner, card);
}
SCARDHANDLE c_scard_service::find_card(std::uint32_t wire) { return find_in(*this, cards, wire); }
SCARDHANDLE c_scard_service::take_card(std::uint32_t wire) { return take_from(*this, cards, wire); }

std::pair<std::int32_t, SCARDCONTEXT> c_scard_service::find_context_record(std::uint32_t wire) {
    c_scard_service_lock lock(*this);
    for (const auto& r : contexts)
        if (r.wire_handle == wire) return {r.owner, r.pcsc_handle};
    return {0, k_no_handle};
}

void c_scard_service::cancel_owner(std::int32_t owner) {
    c_scard_service_lock lock(*this);
    for (auto it = contexts.begin(); it != contexts.end();) {
        if (it->owner != owner) {
            ++it;
            continue;
        }
        const SCARDCONTEXT context = it->pcsc_handle;
        it = contexts.erase(it);
        // Cancel first: it ends a GetStatusChange that another thread is blocked in on this context.
        if (SCardCancel) SCardCancel(context);
        if (SCardReleaseContext) SCardReleaseContext(context);
    }
    cards.remove_if([owner](const c_scard_handle_record& r) { return r.owner == owner; });
}

// ---- reader records ----------------------------------------------------------------------------

void c_scard_service::add_reader(SCARDHANDLE card, std::uint32_t protocol, const char* name) {
    std::unique_ptr<char, c_free_deleter> copy(strdup(name));
    if (!copy) throw std::bad_alloc();
    c_scard_service_lock lock(*this);
    card_readers.push_back({card, protocol, std::move(copy)});
}

void c_scard_service::set_reader_protocol(SCARDHANDLE card, std::uint32_t protocol) {
    c_scard_service_lock lock(*this);
    for (auto& r : card_readers) {
        if (r.pcsc_card == card) {
            r.protocol = protocol;
            return;
        }
    }
}

void c_scard_service::remove_reader(SCARDHANDLE card) {
    std::unique_ptr<char, c_free_deleter> name;  // freed after the lock is given back
    c_scard_service_lock lock(*this);
    for (auto it = card_readers.begin(); it != card_readers.end(); ++it) {
        if (it->pcsc_card == card) {
            name = std::move(it->reader_name);
            card_readers.erase(it);
            return;
        }
    }
}

bool c_scard_service::copy_reader(SCARDHANDLE card, std::uint32_t& protocol, c_inline_buffer<1024>& name) {
    c_scard_service_lock lock(*this);
    for (const auto& r : card_readers) {
        if (r.pcsc_card != card) continue;
        protocol = static_cast<std::uint32_t>(r.protocol);
        const std::size_t length = std::strlen(r.reader_name.get());
        std::memcpy(name.allocate(length + 1), r.reader_name.get(), length + 1);
        name.used = length;
        return true;
    }
    return false;
}

// ---- life of the service -----------------------------------------------------------------------

std::int32_t scard_get_owner_id() {
    c_mutex_lock lifecycle(g_scard_lifecycle);
    // The use is given back if building or counting fails; an exception then leaves no trace.
    struct c_pending_use {
        bool keep = false;
        ~c_pending_use() {
            if (keep) return;
            try {
                release_use_locked();
            } catch (...) {
            }
        }
    } use;
    if (g_scard_users.increment() <= 1 && !create_scard_service()) {
        use.keep = true;  // the service without PC/SC stays, and so does this use
        return -1;
    }
    const std::int32_t id = g_scard_owner_ids.increment();
    use.keep = true;
    return id;
}

bool scard_take_use() {
    c_mutex_lock lifecycle(g_scard_lifecycle);
    if (!g_scard_service.load()) return false;
    if (g_scard_users.increment() == 1) {
        // No owner left: the service is on its way out. (Under the lifecycle lock the count and the
        // pointer change together, so this is only a guard.)
        g_scard_users.decrement();
        return false;
    }
    return true;
}

void scard_release_use() {
    c_mutex_lock lifecycle(g_scard_lifecycle);
    release_use_locked();
}

void scard_cancel_pending(std::int32_t owner) {
    // A use of its own keeps the service alive for this cancel even if the same id is closed twice
    // at once; the owner's use is given back after it. (Owner ids are not tracked: closing an id
    // twice gives back two uses, as the counting rules say, which is the Java side's affair.)
    c_scard_use use;
    if (!use) return;
    scard_service().cancel_owner(owner);
    scard_release_use();
}

}  // namespace kor::jni
