// Life of the card service against the PC/SC stand-in (and the fakes where calls are checked):
// owner ids, build and teardown, and what closing an owner does.
#include <gtest/gtest.h>

#include "scard_fakes.h"

namespace {

using namespace scard_test;
using namespace kor::jni;

class scard_service_life : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(g_scard_service.load(), nullptr); }
    void TearDown() override { EXPECT_EQ(g_scard_service.load(), nullptr) << "a use was not given back"; }
    // A new context of `owner`: its wire handle. Fakes in place give it the PC/SC handle `pcsc`.
    static std::uint32_t establish(std::int32_t owner, std::uint64_t pcsc = 0) {
        g_script.handle = pcsc;
        return u32_at(call(20, request().u32s({2}).build(), owner), 32);
    }
};

TEST_F(scard_service_life, owners_share_one_service_and_a_rebuilt_one_numbers_from_1) {
    scard_cancel_pending(4711);  // no service: nothing happens
    EXPECT_FALSE(c_scard_use());
    const std::int32_t a = scard_get_owner_id(), b = scard_get_owner_id();
    EXPECT_EQ(b, a + 1);
    c_scard_service* first = g_scard_service.load();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(establish(a), 1u);
    EXPECT_EQ(first->add_card(a, 0x77), 2u);
    EXPECT_EQ(establish(b), 3u);
    // Closing twice, and a dispatch's use, are tested with a call in flight (scard_concurrency).
    scard_cancel_pending(a);
    EXPECT_EQ(g_scard_service.load(), first);
    scard_cancel_pending(b);  // the last owner: the service goes
    EXPECT_EQ(g_scard_service.load(), nullptr);
    const std::int32_t c = scard_get_owner_id();  // owner ids go on, handles restart
    EXPECT_EQ(c, b + 1);
    EXPECT_EQ(establish(c), 1u);
    scard_cancel_pending(c);
}

TEST_F(scard_service_life, closing_an_owner_cancels_then_releases_its_contexts_in_order) {
    const std::int32_t a = scard_get_owner_id(), b = scard_get_owner_id(), idle = scard_get_owner_id();
    c_scard_service& s = *g_scard_service.load();
    with_fakes(&s);
    g_script = c_script{};
    const std::uint32_t a1 = establish(a, 0xc0000001), b1 = establish(b, 0xc0000002);
    establish(a, 0xc0000003);
    const std::uint32_t a_card = s.add_card(a, 0xca00000a), b_card = s.add_card(b, 0xca00000b);
    s.add_reader(0xca00000a, 1, "A");
    s.add_reader(0xca00000b, 1, "B");
    g_calls.clear();
    scard_cancel_pending(idle);
    scard_cancel_pending(a);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"SCardCancel ctx=0xc0000001", "SCardReleaseContext ctx=0xc0000001",
                                                 "SCardCancel ctx=0xc0000003", "SCardReleaseContext ctx=0xc0000003"}));
    EXPECT_EQ(s.find_context(a1), k_no_handle);
    EXPECT_EQ(s.find_card(a_card), k_no_handle);  // dropped, not disconnected, with its reader record
    ASSERT_EQ(s.card_readers.size(), 1u);
    EXPECT_EQ(s.card_readers.front().pcsc_card, SCARDHANDLE{0xca00000b});
    EXPECT_EQ(s.find_context_record(b1), std::make_pair(b, SCARDCONTEXT{0xc0000002}));
    EXPECT_EQ(s.find_card(b_card), SCARDHANDLE{0xca00000b});
    scard_cancel_pending(b);
}

}  // namespace
