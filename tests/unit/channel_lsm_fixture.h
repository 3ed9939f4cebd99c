// The fixture of the tests of interface events: the agent record, and a client of the interface manager.
#pragma once

#include "channel_support.h"

#include "sflow_lsm.h"

#include <arpa/inet.h>

namespace channel
{

constexpr int TCPIP = 7;
constexpr int PHYSICAL = 3;

inline sfladdress_value_t ipv4(const char *text)
{
    sfladdress_value_t value;
    std::memset(&value, 0, sizeof(value));
    inet_pton(AF_INET, text, &value.ip_v4);
    return value;
}

inline sfladdress_value_t ipv6(const char *text)
{
    sfladdress_value_t value;
    std::memset(&value, 0, sizeof(value));
    inet_pton(AF_INET6, text, value.ip_v6);
    return value;
}

class Lsm : public AgentTest
{
protected:
    Lsm()
    {
        master_ = kx_thread_master_create();
        fake::forget_calls();
    }

    /// Registered and connected.
    void registered()
    {
        ASSERT_EQ(sflow_lsm_init(master_), 0);
        fake::run_due();
        fake::forget_calls();
        fake::forget_syslog();
        forget_debug();
        sflow_agent.cli_ready_flag = 0;
    }

    /// These tests have one thread.
    static sflow_agent_address_t &agent_ip() SFLOW_NO_THREAD_SAFETY_ANALYSIS { return sflow_agent.agent_ip; }

    static std::string log(const std::string &text) { return "[SFLOW-CONF]" + text + "\n"; }

    kx_thread_master_t *master_ = nullptr;
};

} // namespace channel
