// Real-time checkpoints: when a change of the counter cache goes to the standby, and as what.
#include "export_fixture.h"

#include <cstddef>
#include <cstring>

using namespace export_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

class Poller_realtime_msg : public Export
{
protected:
    Poller_realtime_msg() { log_everything(); }
};

} // namespace

TEST_F(Poller_realtime_msg, nothing_is_sent_before_a_batch_synchronisation)
{
    sflow_counter_node_t node = {};
    sflow_config_wrlock();
    sflow_rdnd_realtime_add_msg(&node);
    sflow_rdnd_realtime_del_msg(&node);
    sflow_config_wrunlock();
    EXPECT_EQ(fake::call_count("rdnd_chkpnt_enqueue"), 0U);
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
}

TEST_F(Poller_realtime_msg, golden_records)
{
    g_can_backup = true;
    sflow_counter_node_t node;
    std::memset(&node, 0x22, sizeof(node));
    node.ifx = 0x33333333;
    node.pad = node.pad_end = 0;
    sflow_config_wrlock();
    sflow_rdnd_realtime_add_msg(&node);
    sflow_rdnd_realtime_del_msg(&node);
    sflow_config_wrunlock();
    const std::vector<fake::Checkpoint> checkpoints = fake::checkpoints();
    ASSERT_EQ(checkpoints.size(), 2U);
    for (std::size_t i = 0; i < 2; i++) {
        EXPECT_EQ(checkpoints[i].name, "SFLOW_RDND");
        std::vector<std::uint8_t> bytes;
        for (const std::byte each : checkpoints[i].data)
            bytes.push_back(std::to_integer<std::uint8_t>(each));
        const Field fields[] = {
            {"type, host byte order", i == 0 ? "01000000" : "00000000"},
            {"padding", "00000000"},
            {"links", "00000000 00000000 00000000 00000000"},
            {"ifx", "33333333"},
            {"padding", "00000000"},
            {"generic", "22222222 22222222 22222222 22222222 22222222 22222222 22222222 22222222"
                        "22222222 22222222 22222222 22222222 22222222 22222222 22222222 22222222"
                        "22222222 22222222 22222222 22222222 22222222 22222222"},
            {"ether", "22222222 22222222 22222222 22222222 22222222 22222222 22222222 22222222"
                      "22222222 22222222 22222222 22222222 22222222"},
            {"padding", "00000000"},
        };
        expect_datagram(bytes, fields);
    }
}

TEST_F(Poller_realtime_msg, results_of_the_service)
{
    const struct {
        int result;
        const char *line;
        bool goes_on;
    } rows[] = {
        {0, "[SFLOW-EVENT]rdnd sflow send msg success\n", true},
        {-1, "[SFLOW-EVENT]RDND sflow send backup msg failed.\n", true},
        {1, "[SFLOW-EVENT]RDND sflow send backup msg return unknown.\n", true},
        {-2, "[SFLOW-EVENT]RDND sflow send backup msg return unknown.\n", true},
        {2, "[SFLOW-EVENT]RDND stop send sflow backup msg.\n", false},
    };
    for (const auto &row : rows) {
        fake::forget_syslog();
        g_can_backup = true;
        if (row.result != 0)
            fake::fail_next("rdnd_chkpnt_enqueue", row.result);
        const sflow_counter_node_t node = {};
        sflow_config_wrlock();
        sflow_rdnd_realtime_add_msg(&node);
        sflow_config_wrunlock();
        EXPECT_THAT(fake::syslog_texts(), ElementsAre(row.line));
        EXPECT_EQ(g_can_backup, row.goes_on) << row.line;
    }
    fake::forget_calls();
    const sflow_counter_node_t node = {};
    sflow_config_wrlock();
    sflow_rdnd_realtime_add_msg(&node);
    sflow_config_wrunlock();
    EXPECT_EQ(fake::call_count("rdnd_chkpnt_enqueue"), 0U) << "nothing after the service said stop";
}

TEST_F(Poller_realtime_msg, a_removed_node_is_announced_before_it_is_freed)
{
    g_can_backup = true;
    sflow_config_wrlock();
    sflow_counter_node_t *node = sflow_poller_add_counter(7);
    node->generic.ifInErrors = 5;
    sflow_poller_del_counter(node);
    sflow_config_wrunlock();
    const std::vector<fake::Checkpoint> checkpoints = fake::checkpoints();
    ASSERT_EQ(checkpoints.size(), 1U);
    rdnd_sflow_counter_t record;
    std::memcpy(&record, checkpoints[0].data.data(), sizeof(record));
    EXPECT_EQ(record.rdnd_type, 0);
    EXPECT_EQ(record.counter.ifx, 7U);
    EXPECT_EQ(record.counter.generic.ifInErrors, 5U);
}
