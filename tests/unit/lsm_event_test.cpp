// Subscriptions: which handler gets which event.
#include "interface_manager/lsm_event.h"

#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <vector>

namespace
{

using namespace platform::lsm;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::pair<char, int>> received; // handler, event

int first_handler(int event, char *, int)
{
    received.emplace_back('a', event);
    return 0;
}

int second_handler(int event, char *, int)
{
    received.emplace_back('b', event);
    return 0;
}

lsm_iftype_filter all_types()
{
    lsm_iftype_filter filter{};
    std::fill(std::begin(filter.bits), std::end(filter.bits), u_int8_t{0xFF});
    return filter;
}

lsm_msg_set set_of(std::initializer_list<int> events)
{
    lsm_msg_set set;
    lsm_msgset_zero(&set);
    for (const int event : events) {
        lsm_msgset_set(event, &set);
    }
    return set;
}

Event created(StackSet stacks, int if_type)
{
    return {.number = INTF_EVENT_CREATE_INDEX,
            .stacks = stacks,
            .if_type = if_type,
            .payload = intf_msg_create_t{.ifx = 5, .if_type = if_type}};
}

constexpr StackSet BOTH = stack_bit(LSM_IF_STACK_PHYSICAL) | stack_bit(LSM_IF_STACK_TCPIP);

class LsmEvent : public testing::Test
{
protected:
    void SetUp() override { received.clear(); }

    Subscriptions subscriptions;
};

TEST(Lsm_msgset_set, has_a_bit_for_each_event_number)
{
    lsm_msg_set set;
    std::memset(&set, 0xFF, sizeof set);
    lsm_msgset_zero(&set);
    for (const u_int8_t byte : set.bits) {
        EXPECT_EQ(byte, 0);
    }
    lsm_msgset_set(0, &set);
    lsm_msgset_set(27, &set);
    lsm_msgset_set(63, &set);
    EXPECT_EQ(set.bits[0], 0x01);
    EXPECT_EQ(set.bits[3], 0x08);
    EXPECT_EQ(set.bits[7], 0x80);
    const lsm_msg_set before = set;
    lsm_msgset_set(64, &set);
    lsm_msgset_set(-1, &set);
    EXPECT_EQ(std::memcmp(&before, &set, sizeof set), 0);
}

TEST_F(LsmEvent, goes_to_the_stacks_that_subscribed)
{
    ASSERT_TRUE(subscriptions.subscribe(LSM_IF_STACK_TCPIP, all_types(), set_of({INTF_EVENT_CREATE_INDEX})));
    ASSERT_TRUE(
        subscriptions.subscribe(LSM_IF_STACK_PHYSICAL, all_types(), set_of({INTF_EVENT_DESTROY_INDEX})));
    ASSERT_TRUE(subscriptions.set_handler(LSM_IF_STACK_TCPIP, first_handler));
    ASSERT_TRUE(subscriptions.set_handler(LSM_IF_STACK_PHYSICAL, second_handler));
    subscriptions.deliver(created(BOTH, LSM_IF_TYPE_ETHERNET));
    EXPECT_THAT(received, ElementsAre(std::pair('a', 0)));
    received.clear();
    subscriptions.deliver(created(stack_bit(LSM_IF_STACK_PHYSICAL), LSM_IF_TYPE_ETHERNET));
    EXPECT_THAT(received, IsEmpty());
}

TEST_F(LsmEvent, one_handler_on_two_stacks_gets_it_twice)
{
    for (const int stack : {LSM_IF_STACK_PHYSICAL, LSM_IF_STACK_TCPIP}) {
        ASSERT_TRUE(subscriptions.subscribe(stack, all_types(), set_of({INTF_EVENT_CREATE_INDEX})));
        ASSERT_TRUE(subscriptions.set_handler(stack, first_handler));
    }
    subscriptions.deliver(created(BOTH, LSM_IF_TYPE_ETHERNET));
    EXPECT_THAT(received, ElementsAre(std::pair('a', 0), std::pair('a', 0)));
}

TEST_F(LsmEvent, later_subscription_replaces_the_earlier_one)
{
    ASSERT_TRUE(subscriptions.set_handler(LSM_IF_STACK_TCPIP, first_handler));
    ASSERT_TRUE(subscriptions.subscribe(LSM_IF_STACK_TCPIP, all_types(), set_of({INTF_EVENT_CREATE_INDEX})));
    ASSERT_TRUE(subscriptions.subscribe(LSM_IF_STACK_TCPIP, all_types(), set_of({INTF_EVENT_VRF})));
    subscriptions.deliver(created(BOTH, LSM_IF_TYPE_ETHERNET));
    EXPECT_THAT(received, IsEmpty());
}

TEST_F(LsmEvent, filter_chooses_interface_types)
{
    struct Case {
        const char *name;
        int filter_bit;
        int if_type;
        bool passes;
    };
    constexpr Case CASES[] = {
        {"port asked for", 6, LSM_IF_TYPE_ETHERNET, true},
        {"virtual port not asked for", 6, LSM_IF_TYPE_VIRTUAL_ETHERNET, false},
        {"aggregate asked for", 24, LSM_IF_TYPE_AGGREGATE, true},
        {"last bit stands for the types above", 55, LSM_IF_TYPE_BRIDGE, true},
        {"bridge not asked for", 24, LSM_IF_TYPE_BRIDGE, false},
        {"event of no single interface", 6, LSM_IF_TYPE_UNKNOWN, true},
    };
    for (const Case &row : CASES) {
        SCOPED_TRACE(row.name);
        received.clear();
        lsm_iftype_filter filter{};
        filter.bits[row.filter_bit / 8] = static_cast<u_int8_t>(1U << (row.filter_bit % 8));
        ASSERT_TRUE(subscriptions.subscribe(LSM_IF_STACK_TCPIP, filter, set_of({INTF_EVENT_CREATE_INDEX})));
        ASSERT_TRUE(subscriptions.set_handler(LSM_IF_STACK_TCPIP, first_handler));
        subscriptions.deliver(created(BOTH, row.if_type));
        EXPECT_EQ(received.size(), row.passes ? 1u : 0u);
    }
}

TEST_F(LsmEvent, end_of_the_initial_data_goes_to_each_handler_once)
{
    ASSERT_TRUE(subscriptions.set_handler(LSM_IF_STACK_PHYSICAL, first_handler));
    ASSERT_TRUE(subscriptions.set_handler(LSM_IF_STACK_BRIDGE, second_handler));
    ASSERT_TRUE(subscriptions.set_handler(LSM_IF_STACK_TCPIP, first_handler));
    subscriptions.deliver({.number = INTF_EVENT_SYNC_DATA_OVER,
                           .stacks = ALL_STACKS,
                           .if_type = LSM_IF_TYPE_UNKNOWN,
                           .payload = intf_msg_sync_t{.if_count = 2}});
    EXPECT_THAT(received, ElementsAre(std::pair('a', 48), std::pair('b', 48)));
}

TEST_F(LsmEvent, unknown_stack_is_refused)
{
    EXPECT_FALSE(subscriptions.subscribe(4, all_types(), set_of({})));
    EXPECT_FALSE(subscriptions.set_handler(0, first_handler));
}

TEST_F(LsmEvent, handler_gets_the_payload_record)
{
    ASSERT_TRUE(subscriptions.subscribe(LSM_IF_STACK_TCPIP, all_types(), set_of({INTF_EVENT_VRF})));
    static intf_msg_vrf_t got;
    static int got_len;
    ASSERT_TRUE(subscriptions.set_handler(LSM_IF_STACK_TCPIP, [](int, char *data, int len) {
        got_len = len;
        std::memcpy(&got, data, sizeof got);
        return 0;
    }));
    intf_msg_vrf_t sent{};
    sent.sub_type = INTF_EVENT_VRF_BIND;
    sent.vrf_bind = {.ifindex = 5, .vrf_id = 9, .b_bind = 1};
    subscriptions.deliver({.number = INTF_EVENT_VRF,
                           .stacks = stack_bit(LSM_IF_STACK_TCPIP),
                           .if_type = LSM_IF_TYPE_ETHERNET,
                           .payload = sent});
    EXPECT_EQ(got_len, 16);
    EXPECT_EQ(std::memcmp(&got, &sent, sizeof got), 0);
}

} // namespace
