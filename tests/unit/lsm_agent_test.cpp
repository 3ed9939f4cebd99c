// The client set-up against the kernel that the tests run on: reading needs no privileges, and every
// namespace has a loopback interface.
#include "platform/lsm.h"

#include "interface_manager/lsm_ethtool.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <vector>

namespace
{

/// Reads of a dump that are still to fail, with the error of libnl that they fail with; sleeps that were asked for.
int failing_dumps = 0;
int dump_error = 0;
int sleeps = 0;

} // namespace

extern "C" {

// Dumps are waited for, everything else is read without waiting or from another protocol.
int __real_nl_recvmsgs_default(nl_sock *sock);
int __wrap_nl_recvmsgs_default(nl_sock *sock)
{
    if (failing_dumps == 0 || (fcntl(nl_socket_get_fd(sock), F_GETFL) & O_NONBLOCK) != 0) {
        return __real_nl_recvmsgs_default(sock);
    }
    --failing_dumps;
    return -dump_error;
}

int __wrap_nanosleep(const timespec *duration, timespec * /*left*/)
{
    EXPECT_EQ(duration->tv_sec, 1);
    ++sleeps;
    return 0;
}

} // extern "C"

namespace
{

struct Received {
    int event;
    IFINDEX ifx;

    bool operator==(const Received &) const = default;
};

std::vector<Received> received;
bool connected = false;
bool stop = false;

int on_event(int event, char *data, int)
{
    Received one{.event = event, .ifx = 0};
    std::memcpy(&one.ifx, data, sizeof one.ifx);
    received.push_back(one);
    stop = event == INTF_EVENT_SYNC_DATA_OVER || event == INTF_EVENT_DEFAULT_INDEX;
    return 0;
}

void on_connected()
{
    connected = true;
    EXPECT_EQ(lsm_client_reg_event_over(), 0);
    EXPECT_TRUE(received.empty()); // nothing is delivered from inside the call
}

void run_until_stopped(kx_thread_master_t *master)
{
    stop = false;
    kx_thread_t task{};
    while (!stop && kx_thread_fetch(master, &task) != nullptr) {
        kx_thread_call(&task);
    }
}

void subscribe()
{
    lsm_iftype_filter filter{};
    std::fill(std::begin(filter.bits), std::end(filter.bits), u_int8_t{0xFF});
    lsm_msg_set set;
    lsm_msgset_zero(&set);
    lsm_msgset_set(INTF_EVENT_CREATE_INDEX, &set);
    lsm_msgset_set(INTF_EVENT_DEFAULT_INDEX, &set);
    ASSERT_EQ(lsm_client_reg_event_ex(LSM_IF_STACK_TCPIP, &filter, &set), 0);
    ASSERT_EQ(lsm_reg_msg_handler_ex(LSM_IF_STACK_TCPIP, on_event), 0);
}

TEST(Lsm_agent, unusable_arguments_are_refused)
{
    const lsm_iftype_filter filter{};
    const lsm_msg_set set{};
    EXPECT_EQ(lsm_client_set_mode(1), -1);
    EXPECT_EQ(lsm_client_reg_event_ex(1, &filter, &set), -1);
    EXPECT_EQ(lsm_client_reg_event_ex(LSM_IF_STACK_TCPIP, nullptr, &set), -1);
    EXPECT_EQ(lsm_client_reg_event_ex(LSM_IF_STACK_TCPIP, &filter, nullptr), -1);
    EXPECT_EQ(lsm_reg_msg_handler_ex(LSM_IF_STACK_TCPIP, nullptr), -1);
    EXPECT_EQ(lsm_reg_msg_handler_ex(1, on_event), -1);
    errno = 0;
    EXPECT_EQ(lsm_agent_init("test", nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(Lsm_agent, life_of_a_client)
{
    // Before the connection every interface is unknown.
    EXPECT_EQ(lsm_if_get_index("lo"), 0u);
    EXPECT_EQ(lsm_get_intfcb(1), nullptr);
    EXPECT_EQ(lsm_client_reg_event_over(), -1);
    EXPECT_EQ(lsm_raise_default_event(1), -1);

    kx_thread_master_t *master = kx_thread_master_create();
    ASSERT_NE(master, nullptr);
    lsm_agent_set_connect_callback(on_connected);
    ASSERT_EQ(lsm_client_set_mode(LSM_CLIENT_MODE_DUPLICATOR), 0);
    subscribe();
    if (lsm_agent_init("test", master) != 0) {
        GTEST_SKIP() << "rtnetlink is not to be had here: " << std::strerror(errno);
    }
    const IFINDEX lo = if_nametoindex("lo");
    EXPECT_EQ(lsm_if_get_index("lo"), lo);
    EXPECT_EQ(lsm_if_get_type(lo), LSM_IF_TYPE_LOOPBACK);
    EXPECT_FALSE(connected); // runs from the loop
    EXPECT_TRUE(received.empty());

    run_until_stopped(master);
    EXPECT_TRUE(connected);
    EXPECT_THAT(received, testing::Contains(Received{INTF_EVENT_CREATE_INDEX, lo}));
    EXPECT_EQ(received.back().event, INTF_EVENT_SYNC_DATA_OVER);

    received.clear();
    EXPECT_EQ(lsm_raise_default_event(lo), 0);
    EXPECT_TRUE(received.empty());
    run_until_stopped(master);
    EXPECT_THAT(received, testing::ElementsAre(Received{INTF_EVENT_DEFAULT_INDEX, lo}));
    kx_thread_master_finish(master);

    // A new master starts over.
    received.clear();
    connected = false;
    kx_thread_master_t *second = kx_thread_master_create();
    ASSERT_EQ(lsm_agent_init("test", second), 0);
    run_until_stopped(second);
    EXPECT_TRUE(connected);
    EXPECT_THAT(received, testing::Contains(Received{INTF_EVENT_CREATE_INDEX, lo}));
    kx_thread_master_finish(second);
}

struct StartCase {
    const char *name;
    int failures;
    int error;
    int result;
    int error_number; ///< of a start that fails
    int sleeps;
};

class LsmAgentStart : public testing::TestWithParam<StartCase>
{
};

TEST_P(LsmAgentStart, reads_again_while_interfaces_change_faster_than_they_can_be_read)
{
    kx_thread_master_t *master = kx_thread_master_create();
    if (lsm_agent_init("test", master) != 0) {
        GTEST_SKIP() << "rtnetlink is not to be had here: " << std::strerror(errno);
    }
    sleeps = 0;
    failing_dumps = GetParam().failures;
    dump_error = GetParam().error;
    errno = 0;
    EXPECT_EQ(lsm_agent_init("test", master), GetParam().result);
    if (GetParam().result != 0) {
        EXPECT_EQ(errno, GetParam().error_number);
    }
    EXPECT_EQ(sleeps, GetParam().sleeps);
    failing_dumps = 0;
    kx_thread_master_finish(master);
}

constexpr int ATTEMPTS = 20; // without a pause

INSTANTIATE_TEST_SUITE_P(Failures, LsmAgentStart,
                         testing::Values(StartCase{"once", 1, NLE_DUMP_INTR, 0, 0, 0},
                                         StartCase{"for_a_while", 3 * ATTEMPTS, NLE_DUMP_INTR, 0, 0, 3},
                                         StartCase{"for_ever", 1000 * ATTEMPTS, NLE_DUMP_INTR, -1, EAGAIN,
                                                   29},
                                         StartCase{"refused", 1, NLE_PERM, -1, EPERM, 0},
                                         StartCase{"out_of_memory", 1, NLE_NOMEM, -1, ENOMEM, 0}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(Lsm_ethtool, interface_without_ethernet_facts_has_none)
{
    platform::lsm::EthtoolReader by_ioctl; // not opened: no netlink
    EXPECT_FALSE(by_ioctl.query(1, "lo").has_value());
    EXPECT_FALSE(by_ioctl.query(1, "").has_value());
    EXPECT_FALSE(by_ioctl.query(1, "a-name-that-is-too-long-for-a-device").has_value());
    EXPECT_EQ(by_ioctl.fd(), -1);
    platform::lsm::EthtoolReader reader;
    reader.open();
    EXPECT_FALSE(reader.query(if_nametoindex("lo"), "lo").has_value());
    EXPECT_FALSE(reader.query(0x7FFFFFFF, "nosuch").has_value());
}

} // namespace
