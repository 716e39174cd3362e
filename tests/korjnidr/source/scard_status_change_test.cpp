#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "scard_test_support.h"

using namespace kor::jni;
using scard_test::bytes;
using scard_test::request;

namespace {

// What the fake SCardGetStatusChange saw; it answers `answer` and sets each event state to
// 0x22 + index, leaving cbAtr as given.
struct {
    int calls;
    SCARDCONTEXT context;
    DWORD timeout, readers;
    bool null_array;
    std::vector<std::string> names;  // "<null>" for a null szReader
    std::vector<SCARD_READERSTATE> states;
    LONG answer;
} seen;

LONG fake_get_status_change(SCARDCONTEXT context, DWORD timeout, SCARD_READERSTATE* states, DWORD readers) {
    seen = {seen.calls + 1, context, timeout, readers, states == nullptr, {}, {}, seen.answer};
    for (DWORD i = 0; i < readers; ++i) {
        EXPECT_EQ(states[i].pvUserData, static_cast<const void*>(states[i].szReader));  // the owned copy
        seen.names.push_back(states[i].szReader ? states[i].szReader : "<null>");
        seen.states.push_back(states[i]);
        states[i].dwEventState = 0x22 + i;
    }
    return seen.answer;
}

bytes atr36() {
    bytes atr(36);
    for (std::size_t i = 0; i < atr.size(); ++i) atr[i] = static_cast<std::uint8_t>(0xA0 + i);
    return atr;
}

// One reader-state element: its name (16-bit units in W, bytes in A; absent when `named` is
// false), dwCurrentState and cbAtr.
struct element {
    bool named;
    std::vector<std::uint16_t> name;
    std::uint32_t current = 0;
    std::uint32_t cb_atr = 36;
};

bytes status_change_call(bool wide, std::uint32_t timeout, std::uint32_t readers, const std::vector<element>& states,
                         bool with_array = true, std::uint32_t context_wire = 0) {
    request r;
    r.u32s({context_wire ? 4u : 0u, context_wire, timeout, readers, with_array ? 1u : 0u});
    if (context_wire) r.handle(context_wire);
    if (!with_array) return r.build();
    r.u32(static_cast<std::uint32_t>(states.size()));
    for (const auto& e : states) r.u32s({e.named ? 0x20000u : 0u, e.current, 0, e.cb_atr}).raw(atr36());
    for (const auto& e : states) {
        if (!e.named) continue;
        const auto c = static_cast<std::uint32_t>(e.name.size());
        r.u32s({c, 0, c});
        for (auto u : e.name) wide ? r.u16(u) : r.raw({static_cast<std::uint8_t>(u)});
        r.pad4();
    }
    return r.build();
}

bytes run(bool wide, const bytes& req) {
    c_ndr_reader in(req.data(), req.size());
    c_ndr_writer out;
    (wide ? scard_get_status_change_w : scard_get_status_change_a)(in, out);
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
    const bytes reply = run(false, status_change_call(false, 0, 1, {{true, {0x52, 0x31, 0}}}));
    ASSERT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.context, k_no_handle);
    EXPECT_EQ(seen.timeout, 0u);
    EXPECT_EQ(seen.names, std::vector<std::string>{"R1"});
    EXPECT_EQ(seen.states[0].cbAtr, 36u);  // not clamped on the way in
    const bytes sent = atr36();
    EXPECT_EQ(bytes(seen.states[0].rgbAtr, seen.states[0].rgbAtr + 33), bytes(sent.begin(), sent.begin() + 33));

    bytes expected = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0x22, 0, 0, 0, 36, 0, 0, 0};
    expected.insert(expected.end(), sent.begin(), sent.begin() + 33);
    expected.insert(expected.end(), {0, 0, 0});  // the peer's last 3 ATR bytes are not echoed
    ASSERT_EQ(reply.size(), 16u + 64u);
    EXPECT_EQ(scard_test::u32_at(reply, 8), 64u);
    EXPECT_EQ(scard_test::result_of(reply), 0u);
    EXPECT_EQ(scard_test::body_of(reply), expected);
}

TEST_F(ScardStatusChange, FailuresCarryTheCodeAndNoStates) {
    for (const std::uint32_t code : {0x8010000Au, 0x80100002u}) {  // timeout, cancelled
        seen.answer = static_cast<LONG>(code);
        const bytes reply = run(true, status_change_call(true, 5000, 1, {{true, {0x52, 0}}}));
        EXPECT_EQ(reply.size(), 32u);
        EXPECT_EQ(scard_test::result_of(reply), code);
        EXPECT_EQ(scard_test::body_of(reply), bytes(12, 0));
    }
}

TEST_F(ScardStatusChange, ValuesReachPcscZeroExtended) {
    const std::uint32_t wire = service().add_context(1, 0x1234567890ULL);
    const bytes reply =
        run(false, status_change_call(false, 0xFFFFFFFF, 1, {{false, {}, 0x80000001u, 0xFFFFFFFF}}, true, wire));
    EXPECT_EQ(seen.context, 0x1234567890ULL);
    EXPECT_EQ(seen.timeout, DWORD{0x00000000FFFFFFFFULL});
    EXPECT_EQ(seen.names, std::vector<std::string>{"<null>"});
    EXPECT_EQ(seen.states[0].dwCurrentState, DWORD{0x80000001u});
    EXPECT_EQ(seen.states[0].cbAtr, DWORD{0xFFFFFFFFu});
    EXPECT_EQ(scard_test::u32_at(reply, 32), 0x80000001u);  // current state back as sent
    EXPECT_EQ(scard_test::u32_at(reply, 40), 0xFFFFFFFFu);  // cbAtr back as PC/SC left it
}

TEST_F(ScardStatusChange, NamesAreTerminatedAndNarrowed) {
    struct {
        bool wide;
        std::vector<std::uint16_t> chars;
        std::string expected;
    } const cases[] = {
        {true, {0x0141, 0x0032, 0x0000}, "A2"},  // a unit above 0xFF keeps its low byte
        {true, {0x0052, 0x0031}, "R1"},          // no NUL sent: ended after the last unit
        {true, {0x0052, 0x0000, 0x0031}, "R"},   // up to the first zero unit
        {false, {0x52, 0x31}, "R1"},             // no NUL sent: ended after the last byte
    };
    for (const auto& c : cases) {
        run(c.wide, status_change_call(c.wide, 0, 1, {{true, c.chars}}));
        EXPECT_EQ(seen.names, std::vector<std::string>{c.expected});
    }
}

TEST_F(ScardStatusChange, ReaderCountAgainstTheArray) {
    // cReaders 0 without an array: PC/SC gets a null array; result and body fill 16 bytes.
    bytes reply = run(false, status_change_call(false, 0, 0, {}, false));
    EXPECT_TRUE(seen.null_array);
    EXPECT_EQ(scard_test::body_of(reply), (bytes{0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));

    // More readers than elements (or no array): refused before PC/SC.
    seen.calls = 0;
    for (const bytes& req : {status_change_call(false, 0, 1, {}, false), status_change_call(true, 0, 2, {{false, {}}})}) {
        reply = run(false, req);
        EXPECT_EQ(scard_test::result_of(reply), 0x80100004u);
        EXPECT_EQ(scard_test::body_of(reply), bytes(12, 0));
    }
    EXPECT_EQ(seen.calls, 0);

    // Fewer readers than elements: PC/SC and the reply see only the first.
    reply = run(false, status_change_call(false, 0, 1, {{true, {0x41, 0}, 7}, {true, {0x42, 0}, 8}}));
    EXPECT_EQ(seen.readers, 1u);
    EXPECT_EQ(reply.size(), 16u + 64u);
    EXPECT_EQ(scard_test::u32_at(reply, 32), 7u);
}

TEST_F(ScardStatusChange, ManyReadersTakeTheHeapPath) {
    constexpr std::uint32_t n = 40;
    std::vector<element> states;
    for (std::uint32_t i = 0; i < n; ++i) states.push_back({i % 3 != 0, {static_cast<std::uint16_t>('a' + i % 26), 0}, i});
    const bytes reply = run(true, status_change_call(true, 0, n, states));
    ASSERT_EQ(seen.names.size(), n);
    for (std::uint32_t i = 0; i < n; ++i) {
        EXPECT_EQ(seen.names[i], i % 3 ? std::string(1, static_cast<char>('a' + i % 26)) : std::string("<null>"));
        EXPECT_EQ(seen.states[i].dwCurrentState, i);
        EXPECT_EQ(scard_test::u32_at(reply, 32 + 48 * i + 4), 0x22 + i);
    }
}

TEST_F(ScardStatusChange, MalformedRequestsFailBeforePcsc) {
    auto failure = [](const bytes& req, bool wide) -> std::string {
        try {
            run(wide, req);
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return "";
    };
    // A count far beyond the bytes present fails before anything is allocated.
    EXPECT_EQ(failure(request().u32s({0, 0, 0, 1, 1, 0x10000000}).build(), false), "provide");
    // Cut short after the first name was copied (the copy is released: see the sanitizer runs),
    // and name counts larger than the request, for both widths.
    bytes cut = status_change_call(true, 0, 2, {{true, {0x52, 0}}, {true, {0x52, 0x31, 0}}});
    cut.resize(cut.size() - 4);
    EXPECT_EQ(failure(cut, true), "provide");
    bytes big = status_change_call(false, 0, 1, {{true, {}}});
    big.resize(big.size() - 4);
    for (auto v : {0x80, 0, 0, 0}) big.push_back(static_cast<std::uint8_t>(v));
    EXPECT_EQ(failure(big, true), "provide");
    big.resize(big.size() - 4);
    for (auto v : {0xFF, 0xFF, 0xFF, 0xFF}) big.push_back(static_cast<std::uint8_t>(v));
    EXPECT_EQ(failure(big, false), "provide");
    EXPECT_EQ(seen.calls, 0);
}

// A GetStatusChange blocked in PC/SC is ended by a Cancel arriving on another thread through the
// dispatcher: no lock may be held across the PC/SC call.
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

    bytes blocked_reply;
    std::thread waiter([&] {
        blocked_reply = scard_test::call(160, status_change_call(false, 0xFFFFFFFF, 1, {{true, {0x52, 0}}}, true, wire));
    });
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
