// The card service: building it (locale, dlopen, entry table), its handle tables and reader
// records, and the uses and open owner ids that decide when it is torn down.
#include "scard_service.h"

#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstring>
#include <set>
#include <tuple>

namespace kor::jni {

std::atomic<c_scard_service*> g_scard_service{nullptr};

namespace {

// The service's life. g_scard_users counts its uses: one per open owner id, one per dispatch in
// flight. A dispatch takes and gives back its use with atomic steps alone, but never moves the
// count off or onto 0: it takes a use only from a count above 0 and gives one back lock-free only
// while the count stays above 0. Every move between 0 and 1 happens under g_scard_lifecycle,
// together with the change of g_scard_service that goes with it: a create that finds the count at
// 0 therefore finds no service either (never one being torn down), and the use that brings the
// count to 0 tears the service down while no dispatch holds a use and none can take one.
// dlopen and dlclose run under the lock; it is never taken with the service lock held.
std::atomic<std::int32_t> g_scard_users{0};
c_mutex g_scard_lifecycle{c_mutex::static_init_t{}};
// Under g_scard_lifecycle: the owner ids handed out and not yet closed, each holding one use. A
// failed create's -1 counts too, once per failure, as its use stays taken.
std::multiset<std::int32_t> g_open_owners;
c_locked_counter g_scard_owner_ids{c_locked_counter::static_init_t{}};

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

// Builds a service, not yet published; without PC/SC (no library, every entry null) when
// libpcsclite.so.1 cannot be loaded.
std::unique_ptr<c_scard_service> build_scard_service() {
    auto service = std::make_unique<c_scard_service>();
    std::setlocale(LC_ALL, "");
    service->library = dlopen("libpcsclite.so.1", RTLD_NOW);
    if (service->library) resolve_entries(*service, service->library);
    return service;
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

// Moves the first reader record of `card`, if any, from `readers` to `gone`.
void move_reader(std::list<c_scard_reader_record>& readers, SCARDHANDLE card, std::list<c_scard_reader_record>& gone) {
    const auto it = std::find_if(readers.begin(), readers.end(),
                                 [card](const c_scard_reader_record& r) { return r.pcsc_card == card; });
    if (it != readers.end()) gone.splice(gone.end(), readers, it);
}

}  // namespace

// Unloads PC/SC and discards every record without calling PC/SC: contexts that no owner closed are
// not released, cards left connected are not disconnected.
c_scard_service::~c_scard_service() {
    if (library) dlclose(library);
}

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
    std::list<c_scard_reader_record> gone;  // freed after the lock is given back
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
    // The cards go without SCardDisconnect, and each takes its reader record with it (the first one
    // of its PC/SC handle, as a Disconnect would), or a client that keeps one owner open while
    // others come and go would grow the reader list without bound.
    for (auto it = cards.begin(); it != cards.end();) {
        if (it->owner != owner) {
            ++it;
            continue;
        }
        move_reader(card_readers, it->pcsc_handle, gone);
        it = cards.erase(it);
    }
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
    std::list<c_scard_reader_record> gone;  // freed after the lock is given back
    c_scard_service_lock lock(*this);
    move_reader(card_readers, card, gone);
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
    // At 0 the count stays there until this lock's holder moves it, and there is no service. Every
    // step that can fail (build, id, insert) comes before anything is published or counted, so a
    // failure leaves no trace but an owner id that nobody was given.
    std::unique_ptr<c_scard_service> built;
    if (g_scard_users.load() == 0) built = build_scard_service();
    const int load_errno = errno;  // what a failed create reports
    const bool loaded = !built || built->library;  // a live service counts as loaded
    const std::int32_t id = loaded ? g_scard_owner_ids.increment() : -1;
    g_open_owners.insert(id);
    if (built) g_scard_service.store(built.release());
    g_scard_users.fetch_add(1);
    errno = load_errno;
    return id;
}

bool scard_take_use() noexcept {
    std::int32_t n = g_scard_users.load();
    while (n > 0)
        if (g_scard_users.compare_exchange_weak(n, n + 1)) return true;
    return false;
}

void scard_release_use() {
    std::int32_t n = g_scard_users.load();
    while (n > 1)
        if (g_scard_users.compare_exchange_weak(n, n - 1)) return;
    // Perhaps the last use: decided under the lock, where the count may leave 1 only for 0.
    c_mutex_lock lifecycle(g_scard_lifecycle);
    if (g_scard_users.fetch_sub(1) == 1) delete g_scard_service.exchange(nullptr);
}

void scard_cancel_pending(std::int32_t owner) {
    {
        c_mutex_lock lifecycle(g_scard_lifecycle);
        const auto open = g_open_owners.find(owner);
        if (open == g_open_owners.end()) return;
        g_open_owners.erase(open);
    }
    // The owner's use, now held here, keeps the service through the cancel and is given back after.
    c_scard_use use{c_scard_use::c_adopt{}};
    scard_service().cancel_owner(owner);
}

}  // namespace kor::jni
