#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "scard_test_support.h"

using namespace kor::jni;
using scard_test::bytes;
using scard_test::request;

namespace {

// What the fake SCardGetStatusChange saw, and what it answers.
struct c_seen_state {
    std::string name;  // "<null>" for a null szReader
    DWORD current, event, cb_atr;
    bytes atr;
};
struct {
    int calls;
    SCARDCONTEXT context;
    DWORD timeout;
    DWORD readers;
    bool null_array;
    std::vector<c_seen_state> states;
    LONG answer;
} seen;

LONG fake_get_status_change(SCARDCONTEXT context, DWORD timeout, SCARD_READERSTATE* states, DWORD readers) {
    ++seen.calls;
    seen.context = context;
    seen.timeout = timeout;
    seen.readers = readers;
    seen.null_array = states == nullptr;
    seen.states.clear();
    for (DWORD i = 0; i < readers; ++i) {
        SCARD_READERSTATE& s = states[i];
        seen.states.push_back({s.szReader ? s.szReader : "<null>", s.dwCurrentState, s.dwEventState, s.cbAtr,
                               bytes(s.rgbAtr, s.rgbAtr + sizeof s.rgbAtr)});
        // The name copy is owned by the handler and recorded in pvUserData.
        EXPECT_EQ(s.pvUserData, static_cast<const void*>(s.szReader));
        // The reader changed: event state 0x22 plus its index, cbAtr returned as given.
        s.dwEventState = 0x22 + i;
    }
    return seen.answer;
}

bytes atr36() {
    bytes atr(36);
    for (std::size_t i = 0; i < atr.size(); ++i) atr[i] = static_cast<std::uint8_t>(0xA0 + i);
    return atr;
}

// Fixed part (context referent 0 unless a wire id is given), then the state elements' fixed
// bytes; the caller appends the names.
request status_change_call(std::uint32_t timeout, std::uint32_t readers, std::uint32_t count,
                           std::uint32_t context_wire = 0) {
    request r;
    r.u32s({context_wire ? 4u : 0u, context_wire ? 1u : 0u, timeout, readers, count ? 1u : 0u});
    if (context_wire) r.handle(context_wire);
    if (count) r.u32(count);
    return r;
}

request& state_element(request& r, bool named, std::uint32_t current, std::uint32_t cb_atr) {
    return r.u32s({named ? 0x20000u : 0u, current, 0, cb_atr}).raw(atr36());
}

request& name_a(request& r, const bytes& chars) {
    const auto c = static_cast<std::uint32_t>(chars.size());
    return r.u32s({c, 0, c}).raw(chars).pad4();
}

request& name_w(request& r, const std::vector<std::uint16_t>& units) {
    const auto c = static_cast<std::uint32_t>(units.size());
    r.u32s({c, 0, c});
    for (auto u : units) r.u16(u);
    return r.pad4();
}

bytes run(void (*handler)(c_ndr_reader&, c_ndr_writer&), const bytes& req) {
    c_ndr_reader in(req.data(), req.size());
    c_ndr_writer out;
    handler(in, out);
    return scard_test::reply_bytes(out);
}

class ScardStatusChange : public scard_test::service_fixture {
protected:
    void SetUp() override {
        service_fixture::SetUp();
        seen = {};
        service().SCardGetStatusChange = &fake_get_status_change;
    }
};

}  // namespace

TEST_F(ScardStatusChange, OneReaderRoundTrip) {
    request r = status_change_call(0, 1, 1);
    state_element(r, true, 0, 36);
    name_a(r, {0x52, 0x31, 0x00});
    const bytes reply = run(scard_get_status_change_a, r.build());

    ASSERT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.context, k_no_handle);
    EXPECT_EQ(seen.timeout, 0u);
    ASSERT_EQ(seen.readers, 1u);
    EXPECT_EQ(seen.states[0].name, "R1");
    EXPECT_EQ(seen.states[0].current, 0u);
    EXPECT_EQ(seen.states[0].cb_atr, 36u);  // not clamped on the way in
    const bytes sent = atr36();
    EXPECT_EQ(seen.states[0].atr, bytes(sent.begin(), sent.begin() + 33));  // last 3 ignored

    bytes expected = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0,   // cReaders, referent, count
                      0, 0, 0, 0, 0x22, 0, 0, 0, 36, 0, 0, 0};  // current, event, cbAtr unclamped
    expected.insert(expected.end(), sent.begin(), sent.begin() + 33);
    expected.insert(expected.end(), {0, 0, 0});
    ASSERT_EQ(reply.size(), 16u + 64u);  // result and body: exactly 64 bytes, no pad
    EXPECT_EQ(scard_test::u32_at(reply, 8), 64u);
    EXPECT_EQ(scard_test::result_of(reply), 0u);
    EXPECT_EQ(scard_test::body_of(reply), expected);
}

TEST_F(ScardStatusChange, FailuresCarryTheCodeAndAnEmptyArray) {
    struct {
        LONG answer;
        bool entry;
        std::uint32_t result;
    } const cases[] = {
        {static_cast<LONG>(0x8010000A), true, 0x8010000A},  // PC/SC's timeout
        {static_cast<LONG>(0x80100002), true, 0x80100002},  // cancelled
        {0, false, 120},                                     // no entry
    };
    for (const auto& c : cases) {
        seen.answer = c.answer;
        if (!c.entry) service().SCardGetStatusChange = nullptr;
        request r = status_change_call(5000, 1, 1);
        state_element(r, true, 0x10, 0);
        name_a(r, {0x52, 0x31, 0x00});
        const bytes reply = run(scard_get_status_change_a, r.build());
        EXPECT_EQ(reply.size(), 32u);
        EXPECT_EQ(scard_test::result_of(reply), c.result);
        EXPECT_EQ(scard_test::body_of(reply), bytes(12, 0));
    }
}

TEST_F(ScardStatusChange, ValuesReachPcscZeroExtended) {
    service().add_context(1, 0x1234567890ULL);
    request r = status_change_call(0xFFFFFFFF, 1, 1, 1);
    state_element(r, false, 0x80000001u, 0xFFFFFFFF);
    const bytes reply = run(scard_get_status_change_a, r.build());
    ASSERT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.context, 0x1234567890ULL);
    EXPECT_EQ(seen.timeout, DWORD{0x00000000FFFFFFFFULL});
    EXPECT_EQ(seen.states[0].name, "<null>");  // element without a name
    EXPECT_EQ(seen.states[0].current, DWORD{0x80000001u});
    EXPECT_EQ(seen.states[0].cb_atr, DWORD{0xFFFFFFFFu});
    EXPECT_EQ(scard_test::u32_at(reply, 20 + 12), 0x80000001u);  // current state back as sent
    EXPECT_EQ(scard_test::u32_at(reply, 20 + 20), 0xFFFFFFFFu);  // cbAtr back as PC/SC left it
}

TEST_F(ScardStatusChange, NamesAreTerminatedAndNarrowed) {
    struct {
        bool wide;
        std::vector<std::uint16_t> chars;  // bytes for A
        std::string expected;
    } const cases[] = {
        {true, {0x0141, 0x0032, 0x0000}, "A2"},      // a unit above 0xFF keeps its low byte
        {true, {0x0052, 0x0031}, "R1"},              // no NUL sent: ended after the last unit
        {true, {0x0052, 0x0000, 0x0031, 0x0000}, "R"},  // up to the first zero unit
        {false, {0x52, 0x31}, "R1"},                 // no NUL sent: ended after the last byte
        {false, {}, ""},                             // empty
        {true, {}, ""},
    };
    for (const auto& c : cases) {
        request r = status_change_call(0, 1, 1);
        state_element(r, true, 0, 0);
        if (c.wide) {
            name_w(r, c.chars);
        } else {
            bytes b;
            for (auto ch : c.chars) b.push_back(static_cast<std::uint8_t>(ch));
            name_a(r, b);
        }
        run(c.wide ? scard_get_status_change_w : scard_get_status_change_a, r.build());
        ASSERT_EQ(seen.states.size(), 1u);
        EXPECT_EQ(seen.states[0].name, c.expected) << (c.wide ? "W" : "A");
    }
}

TEST_F(ScardStatusChange, ReaderCountAgainstTheArray) {
    // cReaders 0 without an array is the normal empty call: PC/SC gets a null array.
    bytes reply = run(scard_get_status_change_a, status_change_call(0, 0, 0).build());
    EXPECT_EQ(seen.calls, 1);
    EXPECT_TRUE(seen.null_array);
    EXPECT_EQ(scard_test::body_of(reply), (bytes{0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));  // no pad

    // More readers than elements sent: refused before PC/SC, never read beyond the array.
    seen.calls = 0;
    reply = run(scard_get_status_change_a, status_change_call(0, 1, 0).build());
    EXPECT_EQ(scard_test::result_of(reply), 0x80100004u);
    EXPECT_EQ(scard_test::body_of(reply), bytes(12, 0));
    request two = status_change_call(0, 2, 1);
    state_element(two, false, 0, 0);
    reply = run(scard_get_status_change_w, two.build());
    EXPECT_EQ(scard_test::result_of(reply), 0x80100004u);
    EXPECT_EQ(seen.calls, 0);

    // Fewer readers than elements: PC/SC and the reply see only the first cReaders.
    request fewer = status_change_call(0, 1, 2);
    state_element(fewer, true, 7, 0);
    state_element(fewer, true, 8, 0);
    name_a(fewer, {0x41, 0});
    name_a(fewer, {0x42, 0});
    reply = run(scard_get_status_change_a, fewer.build());
    EXPECT_EQ(seen.readers, 1u);
    EXPECT_EQ(reply.size(), 16u + 64u);
    EXPECT_EQ(scard_test::u32_at(reply, 20 + 12), 7u);
}

TEST_F(ScardStatusChange, ManyReadersTakeTheHeapPath) {
    constexpr std::uint32_t n = 40;
    request r = status_change_call(0, n, n);
    for (std::uint32_t i = 0; i < n; ++i) state_element(r, i % 3 != 0, i, i);
    for (std::uint32_t i = 0; i < n; ++i)
        if (i % 3 != 0) name_w(r, {static_cast<std::uint16_t>('a' + i % 26), 0x0030, 0});
    const bytes reply = run(scard_get_status_change_w, r.build());
    ASSERT_EQ(seen.states.size(), n);
    for (std::uint32_t i = 0; i < n; ++i) {
        const std::string name = i % 3 ? std::string{static_cast<char>('a' + i % 26), '0'} : "<null>";
        EXPECT_EQ(seen.states[i].name, name);
        EXPECT_EQ(seen.states[i].current, i);
        EXPECT_EQ(scard_test::u32_at(reply, 32 + 48 * i + 4), 0x22 + i);
    }
    EXPECT_EQ(reply.size(), 16u + 16u + 48u * n);
}

TEST_F(ScardStatusChange, MalformedRequestsNeverReachPcsc) {
    auto failure = [](const bytes& req, bool wide) -> std::string {
        try {
            run(wide ? scard_get_status_change_w : scard_get_status_change_a, req);
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return "";
    };
    // A count far beyond the bytes present fails before anything is allocated.
    EXPECT_EQ(failure(status_change_call(0, 1, 0x10000000).build(), false), "provide");
    // The second name is cut short after the first was copied: the copy is released.
    request cut = status_change_call(0, 2, 2);
    state_element(cut, true, 0, 0);
    state_element(cut, true, 0, 0);
    name_w(cut, {0x52, 0x31, 0});
    bytes req = cut.u32s({10, 0, 10}).u16(0x52).build();
    EXPECT_EQ(failure(req, true), "provide");
    // A name count larger than the request, for both widths.
    request big = status_change_call(0, 1, 1);
    state_element(big, true, 0, 0);
    big.u32s({0x80000000u, 0, 0x80000000u});
    EXPECT_EQ(failure(big.build(), true), "provide");
    EXPECT_EQ(failure(big.build(), false), "provide");
    // A bad context handle.
    EXPECT_EQ(failure(request().u32s({4, 1, 0, 0, 0}).u32(2).u32(0).build(), false), "bad handle");
    EXPECT_EQ(seen.calls, 0);
}

// A GetStatusChange blocked in PC/SC is ended by a Cancel arriving on another thread through the
// dispatcher: the handler must hold no lock while it waits.
namespace {
struct {
    std::mutex m;
    std::condition_variable cv;
    bool waiting = false;
    bool cancelled = false;
} blocker;

LONG blocking_get_status_change(SCARDCONTEXT, DWORD, SCARD_READERSTATE*, DWORD) {
    std::unique_lock<std::mutex> lock(blocker.m);
    blocker.waiting = true;
    blocker.cv.notify_all();
    blocker.cv.wait(lock, [] { return blocker.cancelled; });
    return static_cast<LONG>(0x80100002);
}

LONG fake_cancel(SCARDCONTEXT context) {
    std::lock_guard<std::mutex> lock(blocker.m);
    if (context != 0x77) return static_cast<LONG>(0x80100003);
    blocker.cancelled = true;
    blocker.cv.notify_all();
    return 0;
}
}  // namespace

TEST_F(ScardStatusChange, CancelFromAnotherThreadEndsABlockedWait) {
    service().SCardGetStatusChange = &blocking_get_status_change;
    service().SCardCancel = &fake_cancel;
    const std::uint32_t wire = service().add_context(1, 0x77);

    request r = status_change_call(0xFFFFFFFF, 1, 1, wire);
    state_element(r, true, 0, 0);
    name_a(r, {0x52, 0x31, 0});
    bytes blocked_reply;
    std::thread waiter([&] { blocked_reply = scard_test::call(160, r.build()); });
    {
        std::unique_lock<std::mutex> lock(blocker.m);
        ASSERT_TRUE(blocker.cv.wait_for(lock, std::chrono::seconds(5), [] { return blocker.waiting; }));
    }
    const bytes cancel_reply = scard_test::call(168, request().u32s({4, 1}).handle(wire).build());
    waiter.join();
    EXPECT_EQ(scard_test::result_of(cancel_reply), 0u);
    EXPECT_EQ(blocked_reply.size(), 32u);
    EXPECT_EQ(scard_test::result_of(blocked_reply), 0x80100002u);
}
