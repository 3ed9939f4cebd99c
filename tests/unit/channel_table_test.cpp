// The domain-socket server without its threads: control block, send queue, command table and walk.
#include "channel_support.h"

#include "sflow_lib_server.h"

#include <cerrno>
#include <cstdlib>
#include <gmock/gmock.h>

using namespace channel;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

/// What the handlers below were called with, newest last: the record's type and its place in the packet.
std::vector<std::uint32_t> handled;
std::vector<const char *> handled_at;

void note_record(char *msg)
{
    std::uint32_t type = 0;
    std::memcpy(&type, msg, sizeof(type));
    handled.push_back(type);
    handled_at.push_back(msg);
}

void other_handler(char *) {}

int calls_left = 0;

/// Ends a walk that does not advance: the last of `calls_left` calls makes the record as long as its header.
void repair_record(char *msg)
{
    note_record(msg);
    if (--calls_left == 0) {
        const std::uint32_t len = sizeof(sflow_msg_head_t);
        std::memcpy(msg + 4, &len, sizeof(len));
    }
}

std::uint32_t walk(Bytes packet)
{
    sflow_lib_server_deal_recv_msg(reinterpret_cast<char *>(packet.data()),
                                   static_cast<std::uint32_t>(packet.size()));
    return sflow_lib_server_cb.recv_message_num;
}

int send(const Bytes &record)
{
    return sflow_lib_server_send_msg(reinterpret_cast<const char *>(record.data()),
                                     static_cast<int>(record.size()));
}

class Table : public AgentTest
{
protected:
    Table()
    {
        replace_modules(false);
        EXPECT_EQ(sflow_lib_server_init(), 0);
        forget_debug();
        sflow_lib_debug_switch = 0;
        handled.clear();
        handled_at.clear();
    }

    ~Table() override
    {
        sflow_lib_server_cmd_clear();
        free_queue();
    }

    static void free_queue() SFLOW_NO_THREAD_SAFETY_ANALYSIS
    {
        sflow_list_for_each<sflow_lib_msg_t>(&sflow_lib_server_cb.send_list,
                                             [](sflow_lib_msg_t *node) { std::free(node); });
        sflow_list_init(&sflow_lib_server_cb.send_list);
        sflow_lib_server_cb.send_len = 0;
    }

    static std::vector<Bytes> queue() SFLOW_NO_THREAD_SAFETY_ANALYSIS
    {
        std::vector<Bytes> records;
        sflow_list_for_each<sflow_lib_msg_t>(
            &sflow_lib_server_cb.send_list, [&](const sflow_lib_msg_t *node) {
                records.emplace_back(node->msg, node->msg + sizeof(node->msg));
            });
        EXPECT_EQ(records.size(), static_cast<std::size_t>(sflow_lib_server_cb.send_len));
        return records;
    }

    /// Has senders believe that a service is connected; nothing is written there.
    static void connect() { sflow_lib_server_cb.client_sd = 1000; }

    static std::vector<std::uint32_t> registered() SFLOW_NO_THREAD_SAFETY_ANALYSIS
    {
        std::vector<std::uint32_t> codes;
        sflow_list_for_each<sflow_lib_cmd_t>(
            &sflow_lib_server_cb.cmd_list,
            [&](const sflow_lib_cmd_t *entry) { codes.push_back(entry->cmd); });
        EXPECT_EQ(codes.size(), static_cast<std::size_t>(sflow_lib_server_cb.cmd_len));
        return codes;
    }

    static void append(sflow_lib_cmd_t *entry) SFLOW_NO_THREAD_SAFETY_ANALYSIS
    {
        sflow_list_insert_before(&sflow_lib_server_cb.cmd_list, &entry->list);
        ++sflow_lib_server_cb.cmd_len;
    }

    static sflow_deal_msg_t handler_of(unsigned int cmd) SFLOW_NO_THREAD_SAFETY_ANALYSIS
    {
        const sflow_lib_cmd_t *entry = sflow_lib_server_get_cmd(cmd);
        return entry == nullptr ? nullptr : entry->sflow_deal_msg;
    }
};

// Suites are named after what they test.
using LibServer_init = Table;
using LibServer_send_msg = Table;
using LibServer_cmd_register = Table;
using LibServer_cmd_unregister = Table;
using LibServer_get_cmd = Table;
using LibServer_deal_recv_msg = Table;

// ---- Control block -------------------------------------------------------------------------------------------------

TEST(LibServer_cb, starts_disconnected_before_init)
{
    // Senders may come before the server does.
    EXPECT_EQ(sflow_lib_server_cb.client_sd, -1);
    EXPECT_EQ(sflow_lib_server_cb.server_sd, -1);
    EXPECT_EQ(sflow_lib_server_send_msg("12345678", 8), -1);
}

TEST_F(LibServer_init, zeroes_the_block)
{
    EXPECT_EQ(sflow_lib_server_cb.client_sd, -1);
    EXPECT_EQ(sflow_lib_server_cb.server_sd, -1);
    EXPECT_THAT(queue(), IsEmpty());
    EXPECT_THAT(registered(), IsEmpty());
    EXPECT_EQ(sflow_lib_server_cb.send_message_num, 0U);
    EXPECT_THAT(live_objects(), ElementsAre("send_lock", "cmd_lock", "condattr", "send_cond"));
    EXPECT_EQ(threads_requested(), 3); // the agent's one-second thread, then the server's two
}

struct InitFailure {
    const char *function;
    int skip;
    const char *text;
};

class ServerInit : public AgentTest, public testing::WithParamInterface<InitFailure>
{
protected:
    ServerInit() { replace_modules(false); }
};

TEST_P(ServerInit, failure_is_undone_and_told)
{
    fail_next(GetParam().function, ENOMEM, GetParam().skip);
    EXPECT_EQ(sflow_lib_server_init(), -1);
    EXPECT_THAT(debug_lines(), ElementsAre(DebugLine{"sflow_lib_server", GetParam().text}));
    EXPECT_THAT(live_objects(), IsEmpty());
    EXPECT_EQ(threads_requested(), 1); // that of the agent record
    EXPECT_EQ(sflow_lib_server_cb.client_sd, -1);
}

INSTANTIATE_TEST_SUITE_P(sflow_lib_server_init, ServerInit,
                         testing::Values(InitFailure{"pthread_mutex_init", 0, "send_lock failure."},
                                         InitFailure{"pthread_mutex_init", 1, "cmd_lock failure."},
                                         InitFailure{"pthread_condattr_init", 0, "cond_attr failure."},
                                         InitFailure{"pthread_condattr_setclock", 0,
                                                     "cond_attr set clock failure."},
                                         InitFailure{"pthread_cond_init", 0, "send_cond failure."}),
                         [](const auto &info) { return "step" + std::to_string(info.index); });

TEST_F(LibServer_init, failed_receive_thread)
{
    fail_thread(1);
    EXPECT_EQ(sflow_lib_server_init(), -1);
    EXPECT_THAT(debug_texts(), ElementsAre("create recv thread failure."));
    EXPECT_THAT(live_objects(), IsEmpty());
    EXPECT_EQ(sflow_lib_server_init(), 0); // for the fixture, which uses the locks
}

TEST_F(LibServer_init, failed_send_thread)
{
    fail_thread(2);
    EXPECT_EQ(sflow_lib_server_init(), -1);
    EXPECT_THAT(debug_texts(), ElementsAre("create send thread failure."));
    EXPECT_THAT(live_objects(), IsEmpty());
    EXPECT_EQ(sflow_lib_server_init(), 0);
}

TEST_F(LibServer_init, failed_send_thread_ends_the_receive_thread)
{
    set_threads(Threads::run);
    fail_thread(2);
    EXPECT_EQ(sflow_lib_server_init(), -1);
    ASSERT_EQ(running_threads().size(), 1U);
    join_thread(0); // ends by itself, without having touched the destroyed block
    EXPECT_THAT(debug_texts(), ElementsAre("create send thread failure."));
    EXPECT_EQ(libc_counts().accepts, 0);
    stop_threads();
    set_threads(Threads::noted);
    EXPECT_EQ(sflow_lib_server_init(), 0);
}

// ---- Send queue ----------------------------------------------------------------------------------------------------

TEST_F(LibServer_send_msg, refuses_bad_arguments)
{
    connect();
    const Bytes record(SFLOW_MSG_MAX_LEN + 1);
    EXPECT_EQ(sflow_lib_server_send_msg(nullptr, 8), -1);
    EXPECT_EQ(send(record), -1); // 1001 bytes
    EXPECT_EQ(sflow_lib_server_send_msg(reinterpret_cast<const char *>(record.data()), -1), -1);
    EXPECT_THAT(debug_lines(), ElementsAre(DebugLine{"sflow_lib_server", "arg invalid"},
                                           DebugLine{"sflow_lib_server", "arg invalid"},
                                           DebugLine{"sflow_lib_server", "arg invalid"}));
    EXPECT_THAT(queue(), IsEmpty());
    EXPECT_EQ(sflow_lib_server_cb.send_message_num, 0U);
}

TEST_F(LibServer_send_msg, takes_1000_bytes)
{
    connect();
    Bytes record(SFLOW_MSG_MAX_LEN, 0xAB);
    put(record, 4, SFLOW_MSG_MAX_LEN);
    EXPECT_EQ(send(record), 0);
    EXPECT_THAT(queue(), ElementsAre(record));
    EXPECT_EQ(sflow_lib_server_cb.send_message_num, 1U);
    EXPECT_THAT(debug_texts(), IsEmpty());
}

TEST_F(LibServer_send_msg, without_service)
{
    EXPECT_EQ(send(words({0x101, 8})), -1);
    EXPECT_EQ(send(words({0x101, 8})), -1);
    EXPECT_THAT(debug_texts(), ElementsAre("client sd invalid", "client sd invalid"));
    EXPECT_THAT(queue(), IsEmpty());
    EXPECT_EQ(sflow_lib_server_cb.send_message_num, 0U);
    EXPECT_EQ(sflow_lib_server_cb.send_drop_num, 0U);
}

TEST_F(LibServer_send_msg, without_memory)
{
    connect();
    fail_allocation(sizeof(sflow_lib_msg_t));
    EXPECT_EQ(send(words({0x101, 8})), -1);
    EXPECT_THAT(debug_texts(), ElementsAre("malloc fail"));
    EXPECT_THAT(queue(), IsEmpty());
}

TEST_F(LibServer_send_msg, keeps_the_order)
{
    connect();
    for (std::uint32_t type = 1; type <= 3; ++type)
        EXPECT_EQ(send(words({type, 8})), 0);
    const std::vector<Bytes> queued = queue();
    ASSERT_EQ(queued.size(), 3U);
    for (std::uint32_t i = 0; i < 3; ++i)
        EXPECT_EQ(word_at(queued[i], 0), i + 1);
}

TEST_F(LibServer_send_msg, drops_the_8193rd)
{
    connect();
    for (int i = 0; i < SFLOW_LIB_SEND_LIST_MAX; ++i)
        ASSERT_EQ(send(words({static_cast<std::uint32_t>(i), 8})), 0);
    EXPECT_THAT(debug_texts(), IsEmpty());
    EXPECT_EQ(send(words({9999, 8})), -1);
    EXPECT_THAT(debug_texts(), ElementsAre("list full"));
    EXPECT_EQ(sflow_lib_server_cb.send_drop_num, 1U);
    EXPECT_EQ(sflow_lib_server_cb.send_message_num, 8192U);
    const std::vector<Bytes> queued = queue();
    ASSERT_EQ(queued.size(), 8192U);
    EXPECT_EQ(word_at(queued.back(), 0), 8191U); // the newest is the one that is dropped
}

TEST_F(LibServer_send_msg, goes_on_without_the_lock)
{
    connect();
    fail_lock(&sflow_lib_server_cb.send_lock.mutex);
    EXPECT_EQ(send(words({1, 8})), 0);
    EXPECT_EQ(sflow_lib_server_cb.send_lock_fail_num, 1U);
    fail_unlock(&sflow_lib_server_cb.send_lock.mutex);
    EXPECT_EQ(send(words({2, 8})), 0);
    EXPECT_EQ(sflow_lib_server_cb.send_unlock_fail_num, 1U);
    EXPECT_THAT(debug_texts(), ElementsAre("lock fail", "unlock fail"));
    EXPECT_EQ(queue().size(), 2U);
}

// ---- Command table -------------------------------------------------------------------------------------------------

TEST_F(LibServer_cmd_register, keeps_the_first_handler)
{
    EXPECT_EQ(sflow_lib_server_cmd_register(7, note_record), 0);
    EXPECT_THAT(debug_texts(), IsEmpty());
    EXPECT_EQ(sflow_lib_server_cmd_register(7, other_handler), 0);
    EXPECT_THAT(debug_texts(), ElementsAre("cmd is exist"));
    EXPECT_EQ(handler_of(7), note_record);
    EXPECT_THAT(registered(), ElementsAre(7U));
}

TEST_F(LibServer_cmd_register, holds_1025_entries)
{
    for (unsigned int cmd = 0; cmd < 1025; ++cmd)
        ASSERT_EQ(sflow_lib_server_cmd_register(cmd, note_record), 0);
    EXPECT_EQ(sflow_lib_server_cmd_register(1025, note_record), -1);
    EXPECT_THAT(debug_texts(), ElementsAre("list full"));
    EXPECT_EQ(sflow_lib_server_cb.cmd_len, 1025);
    EXPECT_EQ(sflow_lib_server_cmd_register(3, other_handler), 0); // known: no room is needed
    sflow_lib_server_cmd_unregister(12);
    EXPECT_EQ(sflow_lib_server_cmd_register(1025, note_record), 0);
}

TEST_F(LibServer_cmd_register, without_memory)
{
    fail_allocation(sizeof(sflow_lib_cmd_t));
    EXPECT_EQ(sflow_lib_server_cmd_register(7, note_record), -1);
    EXPECT_THAT(debug_texts(), ElementsAre("malloc fail"));
    EXPECT_THAT(registered(), IsEmpty());
}

TEST_F(LibServer_cmd_unregister, removes_one_entry)
{
    for (const unsigned int cmd : {5U, 3U, 9U})
        sflow_lib_server_cmd_register(cmd, note_record);
    EXPECT_THAT(registered(), ElementsAre(5U, 3U, 9U));
    sflow_lib_server_cmd_unregister(3);
    sflow_lib_server_cmd_unregister(4); // unknown: ignored
    EXPECT_THAT(registered(), ElementsAre(5U, 9U));
    EXPECT_EQ(handler_of(3), nullptr);
    sflow_lib_server_cmd_clear();
    EXPECT_THAT(registered(), IsEmpty());
}

TEST_F(LibServer_get_cmd, finds_the_last_of_equal_codes)
{
    sflow_lib_server_cmd_register(7, note_record);
    auto *second = static_cast<sflow_lib_cmd_t *>(std::calloc(1, sizeof(sflow_lib_cmd_t)));
    second->cmd = 7;
    second->sflow_deal_msg = other_handler;
    append(second);
    EXPECT_EQ(handler_of(7), other_handler);
    sflow_lib_server_cmd_unregister(7); // the first of them
    EXPECT_EQ(handler_of(7), other_handler);
    EXPECT_THAT(registered(), ElementsAre(7U));
}

TEST_F(LibServer_cmd_register, goes_on_without_the_lock)
{
    fail_lock(&sflow_lib_server_cb.cmd_lock.mutex);
    EXPECT_EQ(sflow_lib_server_cmd_register(7, note_record), 0);
    fail_unlock(&sflow_lib_server_cb.cmd_lock.mutex);
    EXPECT_EQ(sflow_lib_server_cmd_register(8, note_record), 0);
    EXPECT_THAT(debug_texts(), ElementsAre("lock failure.", "unlock failure."));
    EXPECT_THAT(registered(), ElementsAre(7U, 8U));
}

// ---- Walk ----------------------------------------------------------------------------------------------------------

TEST_F(LibServer_deal_recv_msg, dispatches_back_to_back_records)
{
    sflow_lib_server_cmd_register(0x201, note_record);
    sflow_lib_server_cmd_register(0x202, note_record);
    Bytes packet = words({0x202, 8, 0x201, 12, 0xFFFFFFFF, 0x202, 8});
    sflow_lib_server_deal_recv_msg(reinterpret_cast<char *>(packet.data()), 28);
    EXPECT_THAT(handled, ElementsAre(0x202U, 0x201U, 0x202U));
    const char *base = reinterpret_cast<const char *>(packet.data());
    EXPECT_THAT(handled_at, ElementsAre(base, base + 8, base + 20));
    EXPECT_EQ(sflow_lib_server_cb.recv_message_num, 3U);
    EXPECT_EQ(sflow_lib_server_cb.recv_error_num, 0U);
    EXPECT_EQ(sflow_lib_server_cb.recv_packet_num, 0U); // counted by the receiver of the packet
}

TEST_F(LibServer_deal_recv_msg, needs_no_alignment)
{
    sflow_lib_server_cmd_register(1, note_record);
    Bytes packet = words({1, 9, 0, 0, 0});
    packet.resize(17);
    const Bytes second = words({1, 8});
    std::copy(second.begin(), second.end(), packet.begin() + 9);
    EXPECT_EQ(walk(packet), 2U);
    EXPECT_THAT(handled, ElementsAre(1U, 1U));
}

TEST_F(LibServer_deal_recv_msg, ignores_a_short_packet)
{
    sflow_lib_server_cmd_register(1, note_record);
    for (std::size_t len = 0; len < 8; ++len) {
        Bytes packet = words({1, static_cast<std::uint32_t>(len)});
        packet.resize(len);
        EXPECT_EQ(walk(packet), 0U) << len;
    }
    EXPECT_THAT(handled, IsEmpty());
    EXPECT_EQ(sflow_lib_server_cb.recv_error_num, 0U);
    EXPECT_THAT(debug_texts(), IsEmpty());
}

TEST_F(LibServer_deal_recv_msg, ignores_a_record_past_the_end)
{
    sflow_lib_server_cmd_register(1, note_record);
    for (const std::uint32_t len : {13U, 1000U, 0x80000000U, 0xFFFFFFFFU})
        EXPECT_EQ(walk(words({1, len, 0})), 0U) << len;
    EXPECT_THAT(handled, IsEmpty());
    EXPECT_EQ(sflow_lib_server_cb.recv_error_num, 0U);
    EXPECT_THAT(debug_texts(), IsEmpty());
}

TEST_F(LibServer_deal_recv_msg, stops_at_a_short_tail)
{
    sflow_lib_server_cmd_register(1, note_record);
    EXPECT_EQ(walk(words({1, 8, 1, 12})), 1U); // the second record lacks its last word
    EXPECT_EQ(walk(words({1, 8, 1})), 2U);
    EXPECT_THAT(handled, ElementsAre(1U, 1U));
    EXPECT_EQ(sflow_lib_server_cb.recv_error_num, 0U);
}

TEST_F(LibServer_deal_recv_msg, skips_an_unregistered_code)
{
    sflow_lib_server_cmd_register(1, note_record);
    EXPECT_EQ(walk(words({99, 12, 0, 1, 8})), 2U);
    EXPECT_THAT(handled, ElementsAre(1U));
    EXPECT_EQ(sflow_lib_server_cb.recv_error_num, 1U);
    EXPECT_THAT(debug_lines(), ElementsAre(DebugLine{"sflow_lib_server", "recv error msg."}));
}

TEST_F(LibServer_deal_recv_msg, counts_an_entry_without_handler)
{
    EXPECT_EQ(sflow_lib_server_cmd_register(1, nullptr), 0);
    EXPECT_EQ(walk(words({1, 8})), 1U);
    EXPECT_EQ(sflow_lib_server_cb.recv_error_num, 1U);
    EXPECT_THAT(debug_texts(), ElementsAre("recv error msg."));
}

TEST_F(LibServer_deal_recv_msg, never_passes_a_record_of_length_0)
{
    sflow_lib_server_cmd_register(1, repair_record);
    calls_left = 1000;
    EXPECT_EQ(walk(words({1, 0, 1, 8})), 1002U); // 1000 rounds in place, the repaired record, the next one
    EXPECT_EQ(handled.size(), 1002U);
    EXPECT_THAT(std::vector<const char *>(handled_at.begin(), handled_at.begin() + 1000),
                testing::Each(handled_at.front()));
}

TEST_F(LibServer_deal_recv_msg, applies_no_lower_bound)
{
    sflow_lib_server_cmd_register(1, note_record);
    sflow_lib_server_cmd_register(4, note_record);
    // Advances by 4, into its own header: the length is read as the next type.
    EXPECT_EQ(walk(words({1, 4, 8, 0})), 2U);
    EXPECT_THAT(handled, ElementsAre(1U, 4U));
    EXPECT_EQ(handled_at[1], handled_at[0] + 4);
}

TEST_F(LibServer_deal_recv_msg, goes_on_without_the_lock)
{
    sflow_lib_server_cmd_register(1, note_record);
    fail_lock(&sflow_lib_server_cb.cmd_lock.mutex);
    walk(words({1, 8}));
    fail_unlock(&sflow_lib_server_cb.cmd_lock.mutex);
    walk(words({1, 8}));
    EXPECT_THAT(debug_texts(), ElementsAre("lock failure.", "unlock failure."));
    EXPECT_THAT(handled, ElementsAre(1U, 1U));
}

} // namespace
