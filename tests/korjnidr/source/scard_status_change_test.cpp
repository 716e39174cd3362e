#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "scard_fakes.h"

using namespace kor::jni;
using namespace scard_test;

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

// One reader-state element: its name (16-bit units in W, bytes in A; none when empty),
// dwCurrentState and cbAtr.
struct element {
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
    for (const auto& e : states) r.u32s({e.name.empty() ? 0u : 0x20000u, e.current, 0, e.cb_atr}).raw(atr36());
    for (const auto& e : states) {
        if (e.name.empty()) continue;
        const auto c = static_cast<std::uint32_t>(e.name.size());
        r.u32s({c, 0, c});
        for (auto u : e.name) wide ? r.u16(u) : r.raw({static_cast<std::uint8_t>(u)});
        r.pad4();
    }
    return r.build();
}

bytes run(bool wide, const bytes& req) {
    return scard_test::run(wide ? scard_get_status_change_w : scard_get_status_change_a, req);
}

class ScardStatusChange : public service_fixture {
protected:
    void SetUp() override {
        service_fixture::SetUp();
        seen = {};
        service().SCardGetStatusChange = &fake_get_status_change;
    }
};

}  // namespace

TEST_F(ScardStatusChange, OneReaderRoundTrip) {
    const bytes reply = run(false, status_change_call(false, 0, 1, {{{0x52, 0x31, 0}}}));
    ASSERT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.context, k_no_handle);
    EXPECT_EQ(seen.names, std::vector<std::string>{"R1"});
    EXPECT_EQ(seen.states[0].cbAtr, 36u);  // not clamped on the way in
    const bytes sent = atr36();
    EXPECT_EQ(bytes(seen.states[0].rgbAtr, seen.states[0].rgbAtr + 33), bytes(sent.begin(), sent.begin() + 33));

    // The peer's last 3 ATR bytes are not echoed.
    const bytes expected = cat(le32({1, 1, 1, 0, 0x22, 36}), cat(bytes(sent.begin(), sent.begin() + 33), {0, 0, 0}));
    EXPECT_EQ(u32_at(reply, 8), 64u);
    EXPECT_EQ(result_of(reply), 0u);
    EXPECT_EQ(body_of(reply), expected);

    for (const std::uint32_t code : {0x8010000Au, 0x80100002u}) {  // timeout, cancelled
        seen.answer = static_cast<LONG>(code);
        const bytes failed = run(true, status_change_call(true, 5000, 1, {{{0x52, 0}}}));
        EXPECT_EQ(failed.size(), 32u);
        EXPECT_EQ(result_of(failed), code);
        EXPECT_EQ(body_of(failed), no_body);
    }
}

TEST_F(ScardStatusChange, ValuesReachPcscZeroExtended) {
    const std::uint32_t wire = service().add_context(1, 0x1234567890ULL);
    const bytes reply = run(false, status_change_call(false, 0xFFFFFFFF, 1, {{{}, 0x80000001u, 0xFFFFFFFF}}, true, wire));
    EXPECT_EQ(seen.context, 0x1234567890ULL);
    EXPECT_EQ(seen.timeout, DWORD{0x00000000FFFFFFFFULL});
    EXPECT_EQ(seen.names, std::vector<std::string>{"<null>"});
    EXPECT_EQ(seen.states[0].dwCurrentState, DWORD{0x80000001u});
    EXPECT_EQ(seen.states[0].cbAtr, DWORD{0xFFFFFFFFu});
    EXPECT_EQ(u32_at(reply, 32), 0x80000001u);  // current state back as sent
    EXPECT_EQ(u32_at(reply, 40), 0xFFFFFFFFu);  // cbAtr back as PC/SC left it
}

TEST_F(ScardStatusChange, NamesAreTerminatedAndNarrowed) {
    // Low bytes of each unit, up to the first zero unit; sent without a NUL: ended after the last.
    run(true, status_change_call(true, 0, 3, {{{0x0141, 0x0032, 0}}, {{0x52, 0x31}}, {{0x52, 0, 0x31}}}));
    EXPECT_EQ(seen.names, (std::vector<std::string>{"A2", "R1", "R"}));
    run(false, status_change_call(false, 0, 1, {{{0x52, 0x31}}}));
    EXPECT_EQ(seen.names, std::vector<std::string>{"R1"});
}

TEST_F(ScardStatusChange, ReaderCountAgainstTheArray) {
    // cReaders 0 without an array: PC/SC gets a null array; result and body fill 16 bytes.
    bytes reply = run(false, status_change_call(false, 0, 0, {}, false));
    EXPECT_TRUE(seen.null_array);
    EXPECT_EQ(body_of(reply), array_body({}));

    // More readers than elements (or no array): refused before PC/SC.
    seen.calls = 0;
    for (const bytes& req : {status_change_call(false, 0, 1, {}, false), status_change_call(true, 0, 2, {{}})}) {
        reply = run(false, req);
        EXPECT_EQ(result_of(reply), 0x80100004u);
        EXPECT_EQ(body_of(reply), no_body);
    }
    EXPECT_EQ(seen.calls, 0);

    // Fewer readers than elements: PC/SC and the reply see only the first.
    reply = run(false, status_change_call(false, 0, 1, {{{0x41, 0}, 7}, {{0x42, 0}, 8}}));
    EXPECT_EQ(seen.readers, 1u);
    EXPECT_EQ(reply.size(), 16u + 64u);
    EXPECT_EQ(u32_at(reply, 32), 7u);
}

TEST_F(ScardStatusChange, ManyReadersTakeTheHeapPath) {
    constexpr std::uint32_t n = 40;
    std::vector<element> states;
    for (std::uint32_t i = 0; i < n; ++i)
        states.push_back({i % 3 ? std::vector<std::uint16_t>{static_cast<std::uint16_t>('a' + i % 26), 0}
                                : std::vector<std::uint16_t>{},
                          i});
    const bytes reply = run(true, status_change_call(true, 0, n, states));
    ASSERT_EQ(seen.names.size(), n);
    for (std::uint32_t i = 0; i < n; ++i) {
        EXPECT_EQ(seen.names[i], i % 3 ? std::string(1, static_cast<char>('a' + i % 26)) : std::string("<null>"));
        EXPECT_EQ(seen.states[i].dwCurrentState, i);
        EXPECT_EQ(u32_at(reply, 32 + 48 * i + 4), 0x22 + i);
    }
}

TEST_F(ScardStatusChange, MalformedRequestsFailBeforePcsc) {
    // A count far beyond the bytes present fails before anything is allocated; so do name counts
    // beyond the request, and a request cut short after the first name was copied (the copy is
    // released: see the sanitizer runs).
    bytes cut = status_change_call(true, 0, 2, {{{0x52, 0}}, {{0x52, 0x31, 0}}});
    cut.resize(cut.size() - 4);
    const std::pair<bool, bytes> cases[] = {
        {false, request().u32s({0, 0, 0, 1, 1, 0x10000000}).build()},
        {true, cut},
        {true, request().u32s({0, 0, 0, 1, 1, 1, 0x20000, 0, 0, 36}).raw(atr36()).u32s({0x80, 0, 0x80}).build()},
        {false, request().u32s({0, 0, 0, 1, 1, 1, 0x20000, 0, 0, 36}).raw(atr36()).u32s({~0u, 0, ~0u}).build()},
    };
    for (const auto& [wide, req] : cases) {
        try {
            run(wide, req);
            ADD_FAILURE() << "accepted";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "provide");
        }
    }
    EXPECT_EQ(seen.calls, 0);
}

// A GetStatusChange blocked in PC/SC is ended by a Cancel arriving on another thread through the
// dispatcher: no lock may be held across the PC/SC call.
namespace {
std::atomic<bool> waiting, cancelled;
LONG blocking_get_status_change(SCARDCONTEXT, DWORD, SCARD_READERSTATE*, DWORD) {
    waiting = true;
    while (!cancelled) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return static_cast<LONG>(0x80100002);
}
LONG fake_cancel(SCARDCONTEXT context) {
    if (context != 0x77) return static_cast<LONG>(0x80100003);
    cancelled = true;
    return 0;
}
}  // namespace

TEST_F(ScardStatusChange, CancelFromAnotherThreadEndsABlockedWait) {
    service().SCardGetStatusChange = &blocking_get_status_change;
    service().SCardCancel = &fake_cancel;
    const std::uint32_t wire = service().add_context(1, 0x77);
    waiting = false, cancelled = false;
    bytes blocked_reply;
    std::thread waiter([&] { blocked_reply = call(160, status_change_call(false, ~0u, 1, {{{0x52, 0}}}, true, wire)); });
    for (int i = 0; i < 5000 && !waiting; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(waiting);
    const bytes cancel_reply = call(168, request().u32s({4, 1}).handle(wire).build());
    waiter.join();
    EXPECT_EQ(result_of(cancel_reply), 0u);
    EXPECT_EQ(blocked_reply.size(), 32u);
    EXPECT_EQ(result_of(blocked_reply), 0x80100002u);
}
