#include <atomic>
#include <numeric>
#include <thread>

#include "scard_fakes.h"

namespace {

// The fake records the call in `fake` (context, timeout in a, reader count in b, null array in
// null_out) and the elements it was given; it sets each event state to 0x22 + index.
std::vector<std::string> names;  // "<null>" for a null szReader
std::vector<SCARD_READERSTATE> given;
std::atomic<bool> waiting, cancelled;  // by the blocking fake and the Cancel
LONG fake_get_status_change(SCARDCONTEXT context, DWORD timeout, SCARD_READERSTATE* states, DWORD readers) {
    record(context, nullptr, 0, states, 0, {timeout, readers});
    names.clear(), given.assign(states, states + readers);
    for (DWORD i = 0; i < readers; ++i) {
        EXPECT_EQ(states[i].pvUserData, static_cast<const void*>(states[i].szReader));  // the owned copy
        names.push_back(states[i].szReader ? states[i].szReader : "<null>");
        states[i].dwEventState = 0x22 + i;
    }
    return fake.answer;
}

bytes atr36() {
    bytes atr(36);
    std::iota(atr.begin(), atr.end(), 0xA0);
    return atr;
}

// One reader-state element: its name (16-bit units in W, bytes in A; none when empty),
// dwCurrentState and cbAtr.
struct element {
    std::vector<std::uint16_t> name;
    std::uint32_t current = 0, cb_atr = 36;
};

bytes status_change_call(bool wide, std::uint32_t timeout, std::uint32_t readers, const std::vector<element>& states,
                         bool with_array = true, std::uint32_t context_wire = 0) {
    request r;
    r.u32s({context_wire ? 4u : 0u, context_wire, timeout, readers, with_array ? 1u : 0u});
    if (context_wire) r.handle(context_wire);
    if (!with_array) return r.build();
    r.u32(static_cast<std::uint32_t>(states.size()));
    for (const auto& e : states) r.u32s({e.name.empty() ? 0u : 0x20000u, e.current, 0, e.cb_atr}).raw(atr36());
    for (const auto& e : states)
        if (!e.name.empty()) text(r, wide, e.name);
    return r.build();
}

bytes run(bool wide, const bytes& req) { return call(wide ? 164 : 160, req); }

struct ScardStatusChange : fake_fixture {
    void SetUp() override {
        fake_fixture::SetUp();
        service().SCardGetStatusChange = &fake_get_status_change;
    }
};

}  // namespace

TEST_F(ScardStatusChange, OneReaderRoundTrip) {
    const bytes reply = run(false, status_change_call(false, 0, 1, {{{0x52, 0x31}}}));  // no NUL: one is added
    ASSERT_EQ(fake.calls, 1);
    EXPECT_EQ(fake.handle, k_no_handle);
    EXPECT_EQ(names, std::vector<std::string>{"R1"});
    EXPECT_EQ(given[0].cbAtr, 36u);  // not clamped on the way in
    const bytes sent = atr36(), atr33(sent.begin(), sent.begin() + 33);
    EXPECT_EQ(bytes(given[0].rgbAtr, given[0].rgbAtr + 33), atr33);
    // The peer's last 3 ATR bytes are not echoed.
    EXPECT_EQ(u32_at(reply, 8), 64u);
    EXPECT_EQ(result_of(reply), 0u);
    EXPECT_EQ(body_of(reply), cat(le32({1, 1, 1, 0, 0x22, 36}), cat(atr33, {0, 0, 0})));

    fake.answer = static_cast<LONG>(0x8010000A);  // timeout
    const bytes failed = run(true, status_change_call(true, 5000, 1, {{{0x52, 0}}}));
    EXPECT_EQ(failed.size(), 32u);
    EXPECT_EQ(result_of(failed), 0x8010000Au);
    EXPECT_EQ(body_of(failed), no_body);
}

TEST_F(ScardStatusChange, ValuesReachPcscZeroExtended) {
    const std::uint32_t wire = service().add_context(1, 0x1234567890ULL);
    const bytes reply = run(false, status_change_call(false, ~0u, 1, {{{}, 0x80000001u, ~0u}}, true, wire));
    EXPECT_EQ(fake.handle, 0x1234567890ULL);
    EXPECT_EQ(names, std::vector<std::string>{"<null>"});
    EXPECT_EQ(std::vector<DWORD>({fake.a, given[0].dwCurrentState, given[0].cbAtr}),
              std::vector<DWORD>({0xFFFFFFFF, 0x80000001, 0xFFFFFFFF}));
    EXPECT_EQ(u32_at(reply, 32), 0x80000001u);  // current state back as sent
    EXPECT_EQ(u32_at(reply, 40), 0xFFFFFFFFu);  // cbAtr back as PC/SC left it
}

TEST_F(ScardStatusChange, ReaderCountAgainstTheArray) {
    // cReaders 0 without an array: PC/SC gets a null array; result and body fill 16 bytes.
    bytes reply = run(false, status_change_call(false, 0, 0, {}, false));
    EXPECT_TRUE(fake.null_out);
    EXPECT_EQ(body_of(reply), array_body({}));

    // More readers than elements (or no array): refused before PC/SC.
    fake.calls = 0;
    for (const bytes& req : {status_change_call(false, 0, 1, {}, false), status_change_call(false, 0, 2, {{}})}) {
        reply = run(false, req);
        EXPECT_EQ(result_of(reply), 0x80100004u);
        EXPECT_EQ(body_of(reply), no_body);
    }
    EXPECT_EQ(fake.calls, 0);

    // Fewer readers than elements: PC/SC and the reply see only the first.
    reply = run(false, status_change_call(false, 0, 1, {{{0x41, 0}, 7}, {{0x42, 0}, 8}}));
    EXPECT_EQ(fake.b, 1u);
    EXPECT_EQ(reply.size(), 16u + 64u);
    EXPECT_EQ(u32_at(reply, 32), 7u);
}

TEST_F(ScardStatusChange, ManyReadersWithWideNames) {
    // Beyond the stack's elements the array is on the heap. W names keep the low byte of each unit
    // up to the first zero unit; sent without one, they end after the last unit.
    std::vector<element> many(40, element{{'m', 0}});
    many[0].name = {0x0141, 0x0032, 0}, many[1].name = {0x52, 0x31}, many[2].name = {0x52, 0, 0x31};
    const bytes reply = run(true, status_change_call(true, 0, 40, many));
    std::vector<std::string> expected(40, "m");
    expected[0] = "A2", expected[1] = "R1", expected[2] = "R";
    EXPECT_EQ(names, expected);
    for (std::uint32_t i = 0; i < 40; ++i) EXPECT_EQ(u32_at(reply, 36 + 48 * i), 0x22 + i);
}

TEST_F(ScardStatusChange, MalformedRequestsFailBeforePcsc) {
    // A count far beyond the bytes present fails before anything is allocated; so do name counts
    // beyond the request, and a request cut short after the first name was copied (the copy is
    // released: see the sanitizer runs).
    bytes cut = status_change_call(true, 0, 2, {{{0x52, 0}}, {{0x52, 0x31, 0}}});
    cut.resize(cut.size() - 4);
    const auto named = [](std::uint32_t c) {
        return request().u32s({0, 0, 0, 1, 1, 1, 0x20000, 0, 0, 36}).raw(atr36()).u32s({c, 0, c}).build();
    };
    const std::pair<std::uint32_t, bytes> cases[] = {
        {160, request().u32s({0, 0, 0, 1, 1, 0x10000000}).build()},
        {164, cut},
        {164, named(0x80)},
        {160, named(~0u)},
    };
    for (const auto& [code, req] : cases) EXPECT_EQ(error_of(code, req), "provide");
    EXPECT_EQ(fake.calls, 0);
}

// A GetStatusChange blocked in PC/SC is ended by a Cancel arriving on another thread through the
// dispatcher: no lock may be held across the PC/SC call.
TEST_F(ScardStatusChange, CancelFromAnotherThreadEndsABlockedWait) {
    service().SCardGetStatusChange = [](SCARDCONTEXT, DWORD, SCARD_READERSTATE*, DWORD) {
        waiting = true;
        while (!cancelled) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return static_cast<LONG>(0x80100002);
    };
    service().SCardCancel = [](SCARDCONTEXT context) { return context == 0x77 ? (cancelled = true, 0L) : 0x80100003L; };
    const std::uint32_t wire = service().add_context(1, 0x77);
    waiting = false, cancelled = false;
    bytes blocked_reply;
    std::thread waiter([&] { blocked_reply = run(false, status_change_call(false, ~0u, 1, {{{'R'}}}, true, wire)); });
    for (int i = 0; i < 5000 && !waiting; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(waiting);
    EXPECT_EQ(result_of(call(168, request().u32s({4, 1}).handle(wire).build())), 0u);
    waiter.join();
    EXPECT_EQ(blocked_reply.size(), 32u);
    EXPECT_EQ(result_of(blocked_reply), 0x80100002u);
}
