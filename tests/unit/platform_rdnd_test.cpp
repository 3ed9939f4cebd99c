// Redundancy service: registration, delivery on the thread master, and the edition without a partner.

#include "platform_config_use.h"
#include "rdnd_commands_double.h"
#include "redundancy/rdnd_service.h"

#include "platform/rdnd.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

using platform::RdndEdition;
using platform::RdndHost;
using platform::RdndService;

struct Finish {
    void operator()(kx_thread_master_t *master) const { kx_thread_master_finish(master); }
};
using Master = std::unique_ptr<kx_thread_master_t, Finish>;

int serve(kx_thread_master_t *master)
{
    int tasks = 0;
    kx_thread_t task;
    while (kx_thread_fetch(master, &task) != nullptr) {
        kx_thread_call(&task);
        ++tasks;
    }
    return tasks;
}

/// What a handler was called with.
struct Call {
    std::string name;
    RDND_EVENT event;
    std::string data;
    std::thread::id thread;
};
using Calls = std::vector<Call>;

int record_call(char *name, RDND_EVENT event, int data_len, void *data_buf, void *arg)
{
    const auto *data = static_cast<const char *>(data_buf);
    static_cast<Calls *>(arg)->push_back(
        {name, event, data != nullptr ? std::string(data, static_cast<size_t>(data_len)) : "",
         std::this_thread::get_id()});
    return 0;
}

std::vector<std::byte> bytes(std::string_view text)
{
    std::vector<std::byte> data(text.size());
    std::memcpy(data.data(), text.data(), text.size());
    return data;
}

} // namespace

TEST(RdndService_standalone, is_the_active_unit_from_the_start_and_ready_after_the_registration)
{
    RdndService service(platform::make_standalone_edition);
    const Master master(kx_thread_master_create());
    EXPECT_EQ(nullptr, service.edition());
    ASSERT_EQ(0, service.attach(master.get()));
    EXPECT_EQ(RDND_ROLE_MASTER, service.edition()->role());
    EXPECT_EQ(RDND_STAT_INIT, service.edition()->state());
    Calls calls;
    ASSERT_EQ(0, service.register_client("SFLOW_RDND", 1, record_call, &calls));
    EXPECT_TRUE(calls.empty()) << "never inside the registration";
    EXPECT_EQ(1, serve(master.get()));
    ASSERT_EQ(1U, calls.size());
    EXPECT_EQ("SFLOW_RDND", calls[0].name);
    EXPECT_EQ(RDND_E_STAT_READY, calls[0].event);
    EXPECT_EQ("", calls[0].data);
    EXPECT_EQ(RDND_STAT_ALONE, service.edition()->state());
}

TEST(RdndService_standalone, tells_the_sender_of_checkpoints_to_stop)
{
    RdndService service(platform::make_standalone_edition);
    const Master master(kx_thread_master_create());
    ASSERT_EQ(0, service.attach(master.get()));
    EXPECT_EQ(RDND_ENQUEUE_STOP, service.edition()->enqueue("SFLOW_RDND", bytes("record")));
    EXPECT_EQ(0, service.edition()->completed("SFLOW_RDND", RDND_NOTIFY_BATCH));
}

TEST(RdndService_standalone, has_nobody_to_hand_over_to)
{
    RdndService service(platform::make_standalone_edition);
    const Master master(kx_thread_master_create());
    ASSERT_EQ(0, service.attach(master.get()));
    EXPECT_EQ("this unit has no partner", service.edition()->force_switchover());
    ASSERT_FALSE(service.edition()->report().empty());
    EXPECT_EQ("Mode", service.edition()->report()[0].heading);
    EXPECT_EQ("standalone", service.edition()->report()[0].value);
}

namespace
{

/// Notes which answers come back to it.
class Answers final : public RdndEdition
{
public:
    explicit Answers(std::vector<std::string> &answers) : answers_(answers) {}
    [[nodiscard]] rdnd_role role() const override { return RDND_ROLE_NONE; }
    [[nodiscard]] rdnd_stat state() const override { return RDND_STAT_INIT; }
    bool client_registered(const std::string &, unsigned long) override { return true; }
    int enqueue(const std::string &, std::span<const std::byte>) override { return RDND_ENQUEUE_STOP; }
    int completed(const std::string &, rdnd_notify) override { return 0; }
    void handled(const std::string &name, RDND_EVENT event, int answer) override
    {
        answers_.push_back(name + " " + std::to_string(event) + " " + std::to_string(answer));
    }
    std::string force_switchover() override { return "no"; }
    [[nodiscard]] std::vector<platform::RdndReportLine> report() const override { return {}; }

private:
    std::vector<std::string> &answers_;
};

} // namespace

TEST(RdndService_post, the_handlers_answer_goes_back_to_the_edition)
{
    std::vector<std::string> answers;
    RdndService service([&](RdndHost &) { return std::make_unique<Answers>(answers); });
    const Master master(kx_thread_master_create());
    ASSERT_EQ(0, service.attach(master.get()));
    const auto handler = [](char *name, RDND_EVENT event, int, void *, void *) {
        *name = '?'; // its own copy
        return event == RDND_E_VERSION_CHECK ? static_cast<int>(RDND_VERCHK_NG) : 0;
    };
    ASSERT_EQ(0, service.register_client("one", 1, handler, nullptr));
    EXPECT_TRUE(service.post("one", RDND_E_VERSION_CHECK, bytes("12345678")));
    EXPECT_TRUE(service.post("one", RDND_E_BACKUP_MSG, bytes("x")));
    EXPECT_TRUE(answers.empty());
    serve(master.get());
    EXPECT_EQ((std::vector<std::string>{"one 1 1", "one 7 0"}), answers);
}

TEST(RdndService_post, events_arrive_in_order_on_the_masters_thread_with_their_data)
{
    RdndService service(platform::make_standalone_edition);
    const Master master(kx_thread_master_create());
    ASSERT_EQ(0, service.attach(master.get()));
    Calls one;
    Calls two;
    ASSERT_EQ(0, service.register_client("one", 1, record_call, &one));
    ASSERT_EQ(0, service.register_client("two", 1, record_call, &two));
    std::thread([&] {
        EXPECT_TRUE(service.post("one", RDND_E_BACKUP_MSG, bytes("first")));
        EXPECT_TRUE(service.post("two", RDND_E_BATCH_SYN_REQ, {}));
        EXPECT_TRUE(service.post("one", RDND_E_BACKUP_MSG, bytes("second")));
    }).join();
    EXPECT_FALSE(service.post("three", RDND_E_BACKUP_MSG, bytes("nobody")));
    EXPECT_EQ(5, serve(master.get()));
    ASSERT_EQ(3U, one.size());
    EXPECT_EQ("first", one[1].data);
    EXPECT_EQ("second", one[2].data);
    EXPECT_EQ(std::this_thread::get_id(), one[2].thread);
    ASSERT_EQ(2U, two.size());
    EXPECT_EQ(RDND_E_BATCH_SYN_REQ, two[1].event);
}

TEST(RdndService_post, a_handler_may_ask_and_post_from_inside)
{
    struct State {
        RdndService service{platform::make_standalone_edition};
        int events = 0;
        rdnd_role role = RDND_ROLE_NONE;
    } state;
    const Master master(kx_thread_master_create());
    ASSERT_EQ(0, state.service.attach(master.get()));
    const auto handler = [](char *name, RDND_EVENT event, int, void *, void *arg) {
        auto *s = static_cast<State *>(arg);
        ++s->events;
        s->role = s->service.edition()->role();
        if (event == RDND_E_STAT_READY)
            s->service.post(name, RDND_E_SWITCHOVER, {});
        return 0;
    };
    ASSERT_EQ(0, state.service.register_client("x", 1, handler, &state));
    EXPECT_EQ(2, serve(master.get()));
    EXPECT_EQ(2, state.events);
    EXPECT_EQ(RDND_ROLE_MASTER, state.role);
}

TEST(RdndService_register_client, a_second_registration_replaces_the_first)
{
    RdndService service(platform::make_standalone_edition);
    const Master master(kx_thread_master_create());
    ASSERT_EQ(0, service.attach(master.get()));
    Calls first;
    Calls second;
    ASSERT_EQ(0, service.register_client("x", 1, record_call, &first));
    serve(master.get());
    ASSERT_EQ(0, service.register_client("x", 1, record_call, &second));
    EXPECT_TRUE(service.post("x", RDND_E_BACKUP_MSG, bytes("m")));
    serve(master.get());
    EXPECT_EQ(1U, first.size());
    EXPECT_EQ(2U, second.size());
}

TEST(RdndService_attach, moves_to_a_new_master_and_leaves_the_olds_events_behind)
{
    RdndService service(platform::make_standalone_edition);
    const Master first(kx_thread_master_create());
    const Master second(kx_thread_master_create());
    ASSERT_EQ(0, service.attach(first.get()));
    Calls calls;
    ASSERT_EQ(0, service.register_client("x", 1, record_call, &calls));
    ASSERT_EQ(0, service.attach(second.get()));
    ASSERT_TRUE(service.post("x", RDND_E_BACKUP_MSG, bytes("new")));
    serve(first.get());
    EXPECT_TRUE(calls.empty());
    serve(second.get());
    ASSERT_EQ(1U, calls.size());
    EXPECT_EQ("new", calls[0].data);
}

TEST(RdndService_attach, fails_without_a_master_or_an_edition)
{
    RdndService service(platform::make_standalone_edition);
    EXPECT_EQ(-1, service.attach(nullptr));
    EXPECT_EQ(-1, service.register_client("x", 1, record_call, nullptr));
    RdndService none([](RdndHost &) { return std::unique_ptr<RdndEdition>(); });
    const Master master(kx_thread_master_create());
    EXPECT_EQ(-1, none.attach(master.get()));
    EXPECT_EQ(nullptr, none.edition());
}

TEST(RdndService_register_client, fails_when_the_master_has_ended)
{
    RdndService service(platform::make_standalone_edition);
    kx_thread_master_t *ended = kx_thread_master_create();
    ASSERT_EQ(0, service.attach(ended));
    kx_thread_master_finish(ended);
    EXPECT_EQ(-1, service.register_client("x", 1, record_call, nullptr));
}

TEST(rdnd_get_version, reads_a_version_and_nothing_else)
{
    unsigned long version = 2;
    EXPECT_EQ(2U, rdnd_get_version(sizeof(version), &version));
    EXPECT_EQ(0U, rdnd_get_version(sizeof(version) - 1, &version));
    EXPECT_EQ(0U, rdnd_get_version(sizeof(version) + 1, &version));
    EXPECT_EQ(0U, rdnd_get_version(0, &version));
    EXPECT_EQ(0U, rdnd_get_version(sizeof(version), nullptr));
}

TEST(rdnd_client, unusable_arguments_are_refused)
{
    const Master master(kx_thread_master_create());
    const int record = 0;
    EXPECT_EQ(RDND_ROLE_NONE, rdnd_get_role()) << "not known before the service is attached";
    EXPECT_EQ(RDND_STAT_INIT, rdnd_get_state());
    EXPECT_EQ(-1, rdnd_callback_register("x", 1, record_call, 0, nullptr)) << "not attached";
    EXPECT_EQ(-1, rdnd_kx_thread_init(nullptr, 0, 0));
    EXPECT_EQ(-1, rdnd_kx_thread_init(master.get(), 1, 0));
    EXPECT_EQ(-1, rdnd_kx_thread_init(master.get(), 0, 1));
    EXPECT_EQ(0, redundancy_commands_added);
    ASSERT_EQ(0, rdnd_kx_thread_init(master.get(), 0, 0));
    EXPECT_EQ(1, redundancy_commands_added);
    EXPECT_EQ(RDND_ROLE_MASTER, rdnd_get_role());
    Calls calls;
    const std::string long_name(32, 'x');
    EXPECT_EQ(-1, rdnd_callback_register(nullptr, 1, record_call, 0, &calls));
    EXPECT_EQ(-1, rdnd_callback_register("", 1, record_call, 0, &calls));
    EXPECT_EQ(-1, rdnd_callback_register(long_name.c_str(), 1, record_call, 0, &calls));
    EXPECT_EQ(-1, rdnd_callback_register("x", 1, nullptr, 0, &calls));
    EXPECT_EQ(-1, rdnd_callback_register("x", 1, record_call, 1, &calls));
    EXPECT_EQ(RDND_ENQUEUE_FAILED, rdnd_chkpnt_enqueue("x", sizeof(record), &record, 0)) << "not registered";
    EXPECT_EQ(-1, rdnd_notify_completion("x", RDND_NOTIFY_BATCH));
    ASSERT_EQ(0, rdnd_callback_register(long_name.substr(1).c_str(), 1, record_call, 0, &calls));
    ASSERT_EQ(0, rdnd_callback_register("x", 1, record_call, 0, &calls));
    EXPECT_EQ(RDND_ENQUEUE_FAILED, rdnd_chkpnt_enqueue("x", 0, &record, 0));
    EXPECT_EQ(RDND_ENQUEUE_FAILED, rdnd_chkpnt_enqueue("x", -1, &record, 0));
    EXPECT_EQ(RDND_ENQUEUE_FAILED, rdnd_chkpnt_enqueue("x", sizeof(record), nullptr, 0));
    EXPECT_EQ(RDND_ENQUEUE_FAILED, rdnd_chkpnt_enqueue("x", sizeof(record), &record, 1));
    EXPECT_EQ(RDND_ENQUEUE_STOP, rdnd_chkpnt_enqueue("x", sizeof(record), &record, 0));
    EXPECT_EQ(0, rdnd_notify_completion("x", RDND_NOTIFY_SWITCHOVER));
    EXPECT_EQ(2, serve(master.get()));
    EXPECT_EQ(2U, calls.size());
}

// Two units that guessed their role would both be the active one.
TEST(rdnd_client, does_not_start_on_a_broken_configuration)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            use_platform_config("[redundancy]\nmode = \"cluster\"\n");
            kx_thread_master_t *master = kx_thread_master_create();
            std::exit(rdnd_kx_thread_init(master, 0, 0) == -1 && rdnd_get_role() == RDND_ROLE_NONE ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}
