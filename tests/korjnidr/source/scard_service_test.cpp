// Life of the card service against the PC/SC stand-in: owner ids, build and teardown, the handle
// tables, and what closing an owner does.
#include <gtest/gtest.h>

#include "scard_test_support.h"

namespace {

using namespace scard_test;
using namespace kor::jni;

class scard_service_life : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(g_scard_service.load(), nullptr);
        standin::get().reset();
    }
    void TearDown() override { EXPECT_EQ(g_scard_service.load(), nullptr) << "a use was not given back"; }
    static bytes establish_request() { return request().u32(2).build(); }
    static std::uint32_t establish(std::int32_t owner) { return u32_at(call(20, establish_request(), owner), 32); }
    static std::vector<std::string> calls_since(std::size_t n) {
        auto all = standin::get().calls();
        return {all.begin() + static_cast<std::ptrdiff_t>(n), all.end()};
    }
};

TEST_F(scard_service_life, owners_share_one_service_until_the_last_closes) {
    const std::int32_t a = scard_get_owner_id();
    ASSERT_GT(a, 0);
    c_scard_service* first = g_scard_service.load();
    ASSERT_NE(first, nullptr);
    EXPECT_NE(first->library, nullptr);
    const c_pcsc_api& api = *first;
    for (const void* entry :
         {reinterpret_cast<const void*>(api.SCardEstablishContext), reinterpret_cast<const void*>(api.SCardStatus),
          reinterpret_cast<const void*>(api.SCardSetAttrib), reinterpret_cast<const void*>(api.SCardTransmit),
          reinterpret_cast<const void*>(api.SCardConnect), reinterpret_cast<const void*>(api.SCardCancel)})
        EXPECT_NE(entry, nullptr);

    const std::int32_t b = scard_get_owner_id();
    EXPECT_EQ(b, a + 1);
    EXPECT_EQ(g_scard_service.load(), first);
    EXPECT_EQ(establish(a), 1u);
    EXPECT_EQ(first->add_card(a, 0x77), 2u);
    EXPECT_EQ(establish(b), 3u);

    scard_cancel_pending(a);
    EXPECT_EQ(g_scard_service.load(), first);
    scard_cancel_pending(b);
    EXPECT_EQ(g_scard_service.load(), nullptr);

    // Rebuilt from scratch: numbering restarts, owner ids go on.
    const std::int32_t c = scard_get_owner_id();
    EXPECT_EQ(c, b + 1);
    ASSERT_NE(g_scard_service.load(), nullptr);
    EXPECT_EQ(g_scard_service.load()->last_handle, 0u);
    EXPECT_EQ(establish(c), 1u);
    scard_cancel_pending(c);
}

TEST_F(scard_service_life, closing_an_owner_cancels_then_releases_its_contexts_in_order) {
    const std::int32_t a = scard_get_owner_id();
    const std::int32_t b = scard_get_owner_id();
    const std::uint32_t a1 = establish(a);  // PC/SC context 0xc0000001
    const std::uint32_t b1 = establish(b);  // 0xc0000002
    const std::uint32_t a2 = establish(a);  // 0xc0000003
    c_scard_service& s = *g_scard_service.load();
    const std::uint32_t a_card = s.add_card(a, 0xca00000a);
    const std::uint32_t b_card = s.add_card(b, 0xca00000b);
    const std::size_t before = standin::get().calls().size();

    scard_cancel_pending(a);
    EXPECT_EQ(calls_since(before),
              (std::vector<std::string>{"SCardCancel ctx=0xc0000001", "SCardReleaseContext ctx=0xc0000001",
                                        "SCardCancel ctx=0xc0000003", "SCardReleaseContext ctx=0xc0000003"}));
    EXPECT_EQ(s.find_context(a1), k_no_handle);
    EXPECT_EQ(s.find_context(a2), k_no_handle);
    EXPECT_EQ(s.find_card(a_card), k_no_handle);  // dropped, not disconnected
    EXPECT_EQ(s.find_context_record(b1), std::make_pair(b, SCARDCONTEXT{0xc0000002}));
    EXPECT_EQ(s.find_card(b_card), SCARDHANDLE{0xca00000b});

    scard_cancel_pending(b);
    EXPECT_EQ(calls_since(before).size(), 6u);
}

TEST_F(scard_service_life, closing_an_owner_without_contexts_calls_nothing) {
    scard_cancel_pending(4711);  // no service: nothing happens, nothing is counted
    EXPECT_FALSE(c_scard_use());
    const std::int32_t a = scard_get_owner_id();
    const std::int32_t b = scard_get_owner_id();
    establish(a);
    const std::size_t before = standin::get().calls().size();
    scard_cancel_pending(b);
    EXPECT_TRUE(calls_since(before).empty());
    EXPECT_NE(g_scard_service.load(), nullptr);
    scard_cancel_pending(a);
}

TEST_F(scard_service_life, a_use_in_flight_outlives_the_last_owner) {
    const std::int32_t a = scard_get_owner_id();
    const std::uint32_t wire = establish(a);
    {
        c_scard_use use;
        ASSERT_TRUE(use);
        scard_cancel_pending(a);
        ASSERT_NE(g_scard_service.load(), nullptr);
        // The handler still runs against the live service and reaches PC/SC.
        EXPECT_EQ(result_of(call(28, request().u32s({4, 1}).handle(wire).build())), 0u);
        EXPECT_EQ(standin::get().calls().back(), "SCardIsValidContext ctx=0xffffffffffffffff");
    }
    EXPECT_EQ(g_scard_service.load(), nullptr);
}

TEST_F(scard_service_life, reader_records_follow_their_card) {
    const std::int32_t a = scard_get_owner_id();
    c_scard_service& s = *g_scard_service.load();
    s.add_reader(0x10, 1, "First 00 00");
    s.add_reader(0x20, 2, "Second 00 00");
    s.set_reader_protocol(0x20, 8);
    s.set_reader_protocol(0x99, 8);  // no record: nothing
    std::uint32_t protocol = 0;
    c_inline_buffer<1024> name;
    ASSERT_TRUE(s.copy_reader(0x20, protocol, name));
    EXPECT_EQ(protocol, 8u);
    EXPECT_STREQ(name.chars(), "Second 00 00");
    s.remove_reader(0x10);
    EXPECT_FALSE(s.copy_reader(0x10, protocol, name));
    EXPECT_TRUE(s.copy_reader(0x20, protocol, name));
    scard_cancel_pending(a);  // the teardown frees the remaining record
}

}  // namespace
