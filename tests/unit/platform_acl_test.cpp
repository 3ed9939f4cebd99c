// ACL service: clients and their notices, look-up, references, edits and their publication.

#include "acl_service/acl_service.h"

#include "acl_list/acl_file.h"
#include "cli_platform_double.h"
#include "cli_temporary_directory.h"

#include "platform/acl.h"

#include <atomic>
#include <cstring>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace
{

using platform::AccessList;
using platform::AclService;
using platform::ListKind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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

/// Notices that came, as text; the functions of a registration have no argument of the client's.
std::vector<std::string> notices;

void note_status(bool status)
{
    notices.emplace_back(status ? "up" : "down");
}
void note_create(acl_id_args_t *args)
{
    notices.push_back("create " + std::to_string(args->acl_id) + " " + args->acl_name);
}
void note_delete(acl_id_args_t *args)
{
    notices.push_back("delete " + std::to_string(args->acl_id) + " " + args->acl_name + " " +
                      std::to_string(args->acl_cls));
}
void note_resequence(acl_id_args_t *args)
{
    notices.push_back("resequence " + std::to_string(args->acl_id));
}
void note_entry_add(ace_args_t *args)
{
    notices.push_back("add " + std::to_string(args->acl.acl_id) + " " + std::to_string(args->sequence));
}
void note_entry_delete(ace_args_t *args)
{
    notices.push_back("take " + std::to_string(args->acl.acl_id) + " " + std::to_string(args->sequence));
}

acl_reg_t every_notice()
{
    acl_reg_t registration{};
    registration.acl_svr_status_notify = note_status;
    registration.acl_create_notify = note_create;
    registration.acl_delete_notify = note_delete;
    registration.acl_reseq_notify = note_resequence;
    registration.ace_add_notify = note_entry_add;
    registration.ace_delete_notify = note_entry_delete;
    return registration;
}

acl_id_args_t by_id(int id)
{
    acl_id_args_t args{};
    args.acl_id = id;
    return args;
}

acl_id_args_t by_name(const std::string &name)
{
    acl_id_args_t args{};
    name.copy(args.acl_name, ACL_NAME_LEN);
    return args;
}

acl::Entry permit_tcp()
{
    acl::Entry entry{.action = acl::Action::permit};
    entry.protocol = acl::PROTOCOL_TCP;
    return entry;
}

acl::Entry deny_all()
{
    return {.action = acl::Action::deny};
}

class AclServiceTest : public testing::Test
{
protected:
    AclServiceTest()
    {
        notices.clear();
        platform_double::reset();
    }

    void attach() { ASSERT_EQ(0, service.attach("client", master.get(), every_notice())); }

    int enter(ListKind kind, const std::string &name)
    {
        int id = 0;
        EXPECT_EQ("", service.enter(kind, name, id));
        return id;
    }

    void put(int id, std::uint32_t sequence, const platform::Line &line)
    {
        EXPECT_EQ("", service.edit(id, [&](AccessList &list) { return list.put(sequence, line); }));
    }

    [[nodiscard]] acl::List published(int id) const
    {
        const acl::ReadResult result = acl::read_list(directory, id, "");
        EXPECT_TRUE(std::holds_alternative<acl::List>(result)) << id << " is not published";
        const auto *const list = std::get_if<acl::List>(&result);
        return list == nullptr ? acl::List{} : *list;
    }

    [[nodiscard]] bool is_published(int id) const { return acl::read_list(directory, id, "").index() == 0; }

    TemporaryDirectory temporary;
    std::string directory = acl::directory_below(temporary.path());
    Master master{kx_thread_master_create()};
    AclService service{directory};
};

} // namespace

// ---- Clients -------------------------------------------------------------------------------------------------------

TEST_F(AclServiceTest, reports_itself_up_on_the_clients_master)
{
    attach();
    EXPECT_TRUE(notices.empty()) << "never inside the registration";
    EXPECT_EQ(1, serve(master.get()));
    EXPECT_THAT(notices, ElementsAre("up"));
}

TEST_F(AclServiceTest, empty_notice_functions_are_not_called)
{
    ASSERT_EQ(0, service.attach("client", master.get(), acl_reg_t{}));
    const int id = enter(ListKind::extended, "web");
    put(id, 10, permit_tcp());
    ASSERT_EQ("", service.resequence(id, 5, 5));
    ASSERT_EQ("", service.remove(id));
    EXPECT_EQ(1, serve(master.get())) << "the status";
    EXPECT_TRUE(notices.empty());
}

TEST_F(AclServiceTest, knows_no_list_until_one_is_entered)
{
    attach();
    acl_id_args_t args = by_name("web");
    const acl_id_args_t before = args;
    EXPECT_EQ(ACL_ERR_NOT_FOUND, service.look_up(args));
    EXPECT_EQ(0, std::memcmp(&before, &args, sizeof(args))) << "unchanged";
    EXPECT_EQ(ACL_ERR_NOT_FOUND, service.take_reference(args));
    EXPECT_EQ(ACL_ERR_NOT_FOUND, service.release_reference(args));
}

TEST_F(AclServiceTest, refuses_before_a_client_has_registered)
{
    acl_id_args_t args = by_id(10);
    enter(ListKind::standard, "10");
    EXPECT_EQ(ACL_ERR_NOT_READY, service.look_up(args));
    EXPECT_EQ(ACL_ERR_NOT_READY, service.take_reference(args));
    EXPECT_EQ(ACL_ERR_NOT_READY, service.release_reference(args));
}

TEST_F(AclServiceTest, looks_up_by_id_first_and_by_name_without_one)
{
    attach();
    enter(ListKind::extended, "10");
    const int six = enter(ListKind::ipv6, "six");
    const int frames = enter(ListKind::mac, "frames");
    acl_id_args_t args = by_name("six");
    ASSERT_EQ(0, service.look_up(args));
    EXPECT_EQ(six, args.acl_id);
    EXPECT_EQ(ACL_CLASS_IPV6, args.acl_cls);
    args.acl_id = 10;
    ASSERT_EQ(0, service.look_up(args)) << "the id wins over the name";
    EXPECT_STREQ("10", args.acl_name);
    EXPECT_EQ(ACL_CLASS_IPV4, args.acl_cls);
    args = by_id(frames);
    ASSERT_EQ(0, service.look_up(args));
    EXPECT_EQ(ACL_CLASS_MAC, args.acl_cls);
    args = by_id(11);
    EXPECT_EQ(ACL_ERR_NOT_FOUND, service.look_up(args));
    args = by_name("si");
    EXPECT_EQ(ACL_ERR_NOT_FOUND, service.look_up(args));
}

TEST_F(AclServiceTest, a_name_that_fills_the_record_is_read_within_its_bounds)
{
    attach();
    enter(ListKind::mac, std::string(99, 'n'));
    acl_id_args_t args = by_name(std::string(99, 'n'));
    EXPECT_EQ(0, service.look_up(args));
    args = by_name(std::string(100, 'n'));
    EXPECT_EQ(ACL_ERR_NOT_FOUND, service.look_up(args));
}

TEST_F(AclServiceTest, references_are_counted)
{
    attach();
    const int id = enter(ListKind::extended, "web");
    EXPECT_EQ(ACL_ERR_NOT_HELD, service.release_reference(by_id(id)));
    EXPECT_EQ(0, service.take_reference(by_id(id)));
    EXPECT_EQ(0, service.take_reference(by_name("web")));
    EXPECT_EQ(2, service.find(id)->references);
    EXPECT_EQ(0, service.release_reference(by_id(id)));
    EXPECT_EQ(0, service.release_reference(by_id(id)));
    EXPECT_EQ(ACL_ERR_NOT_HELD, service.release_reference(by_id(id)));
}

TEST_F(AclServiceTest, an_edit_keeps_the_references)
{
    attach();
    const int id = enter(ListKind::extended, "web");
    EXPECT_EQ(0, service.take_reference(by_id(id)));
    put(id, 10, permit_tcp());
    ASSERT_EQ("", service.resequence(id, 1, 1));
    EXPECT_EQ(1, service.find(id)->references);
}

TEST_F(AclServiceTest, a_removed_list_ends_its_references_and_is_told_to_the_client)
{
    attach();
    ASSERT_EQ(10, enter(ListKind::standard, "10"));
    ASSERT_EQ(0, service.take_reference(by_id(10)));
    ASSERT_EQ("", service.remove(10));
    EXPECT_EQ(ACL_ERR_NOT_FOUND, service.release_reference(by_id(10)));
    enter(ListKind::standard, "10");
    EXPECT_EQ(0, service.find(10)->references) << "a new list of the same id";
    serve(master.get());
    EXPECT_THAT(notices, ElementsAre("up", "create 10 10", "delete 10 10 1", "create 10 10"));
    EXPECT_THAT(service.remove(11), HasSubstr("does not exist"));
}

TEST_F(AclServiceTest, clients_are_told_which_entries_changed)
{
    attach();
    ASSERT_EQ(10, enter(ListKind::extended, "10"));
    put(10, 10, permit_tcp());
    put(10, 20, deny_all());
    put(10, 20, deny_all());            // the same again
    put(10, 30, std::string("remark")); // not matched
    put(10, 10, deny_all());
    EXPECT_EQ("", service.edit(10, [](AccessList &list) { return list.remove(20); }));
    ASSERT_EQ("", service.resequence(10, 100, 10));
    serve(master.get());
    EXPECT_THAT(notices, ElementsAre("up", "create 10 10", "add 10 10", "add 10 20", "take 10 10",
                                     "add 10 10", "take 10 20", "resequence 10"));
}

TEST_F(AclServiceTest, every_client_is_told_on_its_own_master)
{
    const Master other(kx_thread_master_create());
    attach();
    ASSERT_EQ(0, service.attach("other", other.get(), every_notice()));
    enter(ListKind::extended, "10");
    EXPECT_EQ(2, serve(master.get()));
    EXPECT_THAT(notices, ElementsAre("up", "create 10 10"));
    EXPECT_EQ(2, serve(other.get()));
    EXPECT_EQ(4U, notices.size());
    EXPECT_THAT(service.client_names(), ElementsAre("client", "other"));
}

TEST_F(AclServiceTest, registering_again_replaces_the_client)
{
    const Master other(kx_thread_master_create());
    attach();
    ASSERT_EQ(0, service.attach("client", other.get(), every_notice()));
    serve(master.get());
    EXPECT_TRUE(notices.empty());
    serve(other.get());
    EXPECT_THAT(notices, ElementsAre("up"));
}

TEST_F(AclServiceTest, after_a_restart_references_have_ended_and_every_client_is_told_that_the_service_is_up)
{
    const Master third(kx_thread_master_create());
    attach();
    ASSERT_EQ(0, service.attach("third", third.get(), every_notice()));
    const int id = enter(ListKind::extended, "web");
    put(id, 10, permit_tcp());
    ASSERT_EQ(0, service.take_reference(by_id(id)));
    serve(master.get());
    serve(third.get());
    notices.clear();
    attach();
    EXPECT_EQ(0, service.find(id)->references) << "the clients take theirs again";
    EXPECT_TRUE(is_published(id)) << "lists outlive the thread";
    serve(master.get());
    serve(third.get());
    EXPECT_THAT(notices, ElementsAre("up", "up"));
}

TEST_F(AclServiceTest, a_client_whose_master_has_ended_is_no_obstacle)
{
    const Master other(kx_thread_master_create());
    ASSERT_EQ(0, service.attach("ended", other.get(), every_notice()));
    kx_thread_master_finish(other.get());
    EXPECT_EQ(ACL_ERR_INVALID, service.attach("late", other.get(), every_notice()));
    attach();
    enter(ListKind::extended, "10");
    serve(master.get());
    EXPECT_THAT(notices, ElementsAre("up", "create 10 10"));
}

TEST_F(AclServiceTest, references_may_be_counted_while_lists_are_edited)
{
    attach();
    const int id = enter(ListKind::extended, "web");
    std::atomic<bool> stop{false};
    std::thread client([&] {
        while (!stop) {
            EXPECT_EQ(0, service.take_reference(by_id(id)));
            EXPECT_EQ(0, service.release_reference(by_id(id)));
        }
    });
    for (std::uint32_t sequence = 1; sequence <= 50; ++sequence)
        put(id, sequence, permit_tcp());
    stop = true;
    client.join();
    EXPECT_EQ(0, service.find(id)->references);
    EXPECT_EQ(50U, published(id).entries.size());
}

// ---- Lists ---------------------------------------------------------------------------------------------------------

TEST_F(AclServiceTest, a_number_is_the_id_and_a_name_has_an_id_above)
{
    EXPECT_EQ(1, enter(ListKind::standard, "1"));
    EXPECT_EQ(2899, enter(ListKind::extended, "2899"));
    const int web = enter(ListKind::extended, "web");
    const int mail = enter(ListKind::mac, "mail");
    EXPECT_GT(web, AclService::most_number);
    EXPECT_GT(mail, AclService::most_number);
    EXPECT_NE(web, mail);
    EXPECT_EQ(web, enter(ListKind::extended, "web")) << "it is entered again, not made again";
}

TEST_F(AclServiceTest, the_id_of_a_name_outlives_a_restart_whatever_lists_there_are_besides)
{
    enter(ListKind::extended, "first");
    const int web = enter(ListKind::extended, "web");
    AclService next(directory);
    int id = 0;
    EXPECT_EQ("", next.enter(ListKind::extended, "web", id));
    EXPECT_EQ(web, id);
}

TEST_F(AclServiceTest, names_that_mean_the_same_id_get_two)
{
    EXPECT_EQ(254887, enter(ListKind::standard, "l529"));
    EXPECT_EQ(254888, enter(ListKind::standard, "l5920"));
    EXPECT_EQ("l529", service.find(254887)->list.name());
    EXPECT_EQ("l5920", service.find(254888)->list.name());
    AclService next(directory);
    int id = 0;
    EXPECT_EQ("", next.enter(ListKind::standard, "l5920", id));
    EXPECT_EQ(254887, id) << "the only one of the two";
}

TEST_F(AclServiceTest, an_unusable_name_is_refused)
{
    const std::string names[] = {
        "",     "0",  "2900", "05",       "-1",  "5a", "_web", "a b",
        "a\tb", "a?", "",     "\xc3\xa4", "a\n", "1 ", "1.5",  std::string(100, 'n')};
    for (const std::string &name : names) {
        int id = 0;
        EXPECT_THAT(service.enter(ListKind::standard, name, id), HasSubstr("An access list is called by"))
            << name;
    }
    EXPECT_THAT(service.all(), IsEmpty());
    for (const char *const name : {"1", "2899", "a", "Web_1.in-out:/x", "standard", "any!|"})
        EXPECT_TRUE(platform::is_list_name(name)) << name;
}

TEST_F(AclServiceTest, a_list_of_another_kind_has_the_name_to_itself)
{
    enter(ListKind::standard, "5");
    int id = 0;
    EXPECT_EQ("Access list 5 is a standard IP access list", service.enter(ListKind::extended, "5", id));
    enter(ListKind::mac, "frames");
    EXPECT_EQ("Access list frames is a MAC access list", service.enter(ListKind::ipv6, "frames", id));
}

TEST_F(AclServiceTest, lists_are_listed_by_number_then_by_name)
{
    for (const char *const name : {"zulu", "7", "alpha", "101", "mike"})
        enter(ListKind::standard, name);
    std::vector<std::string> names;
    for (const AclService::Snapshot &entry : service.all())
        names.push_back(entry.list.name());
    EXPECT_THAT(names, ElementsAre("7", "101", "alpha", "mike", "zulu"));
    EXPECT_EQ(service.find("mike")->list.id(), service.find(service.find("mike")->list.id())->list.id());
    EXPECT_FALSE(service.find("november"));
}

// ---- Publication ---------------------------------------------------------------------------------------------------

TEST_F(AclServiceTest, a_list_is_published_from_its_first_moment_until_it_is_deleted)
{
    const int id = enter(ListKind::ipv6, "six");
    acl::List list = published(id);
    EXPECT_EQ("six", list.name);
    EXPECT_EQ(acl::Family::ipv6, list.family);
    EXPECT_THAT(list.entries, IsEmpty());
    put(id, 0, permit_tcp());
    put(id, 0, std::string("a remark is not matched"));
    put(id, 0, deny_all());
    list = published(id);
    ASSERT_EQ(2U, list.entries.size());
    EXPECT_EQ(10U, list.entries[0].sequence);
    EXPECT_EQ(acl::PROTOCOL_TCP, list.entries[0].protocol);
    EXPECT_EQ(30U, list.entries[1].sequence);
    EXPECT_EQ("", service.remove(id));
    EXPECT_FALSE(is_published(id));
}

TEST_F(AclServiceTest, versions_grow_with_every_change_of_what_is_matched)
{
    const int id = enter(ListKind::extended, "web");
    const acl::List first = published(id);
    EXPECT_NE(0U, first.instance);
    put(id, 10, permit_tcp());
    const acl::List second = published(id);
    EXPECT_EQ(first.instance, second.instance);
    EXPECT_GT(second.version, first.version);
    put(id, 20, std::string("remark"));
    EXPECT_EQ(second.version, published(id).version);
    ASSERT_EQ("", service.resequence(id, 1, 1));
    EXPECT_GT(published(id).version, second.version);
    AclService next(directory);
    int other = 0;
    EXPECT_EQ("", next.enter(ListKind::extended, "other", other));
    EXPECT_NE(first.instance, published(other).instance) << "another run";
}

TEST_F(AclServiceTest, lists_of_the_run_before_are_withdrawn)
{
    const int id = enter(ListKind::extended, "web");
    AclService next(directory);
    const Master other(kx_thread_master_create());
    ASSERT_EQ(0, next.attach("client", other.get(), acl_reg_t{}));
    EXPECT_FALSE(is_published(id));
}

TEST_F(AclServiceTest, what_cannot_be_published_is_not_taken_over)
{
    attach();
    const int id = enter(ListKind::extended, "web");
    put(id, 10, permit_tcp());
    std::filesystem::create_directory(acl::file_of(directory, id) +
                                      ".new"); // in the place of the new version
    const auto add = [](AccessList &list) { return list.put(20, deny_all()); };
    EXPECT_THAT(service.edit(id, add), HasSubstr("cannot create "));
    EXPECT_THAT(service.resequence(id, 5, 5), HasSubstr("cannot create "));
    EXPECT_EQ(1U, service.find(id)->list.lines().size());
    EXPECT_EQ(10U, service.find(id)->list.lines().begin()->first);
    serve(master.get());
    EXPECT_EQ(3U, notices.size()) << "up, create, add";
    std::filesystem::remove(acl::file_of(directory, id) + ".new");
    EXPECT_EQ("", service.edit(id, add));
    EXPECT_EQ(2U, published(id).entries.size());
}

TEST_F(AclServiceTest, without_a_directory_no_list_can_be_entered)
{
    AclService nowhere("");
    int id = 0;
    EXPECT_EQ("Access lists cannot be published: TMPDIR is not set",
              nowhere.enter(ListKind::standard, "5", id));
    EXPECT_THAT(nowhere.all(), IsEmpty());
}

TEST_F(AclServiceTest, a_list_that_cannot_be_withdrawn_is_not_deleted)
{
    attach();
    const int id = enter(ListKind::extended, "web");
    std::filesystem::remove(acl::file_of(directory, id));
    std::filesystem::create_directories(acl::file_of(directory, id));
    EXPECT_THAT(service.remove(id), HasSubstr("cannot be removed"));
    EXPECT_TRUE(service.find(id));
    serve(master.get());
    EXPECT_EQ(2U, notices.size()) << "up, create";
}

TEST_F(AclServiceTest, what_the_run_before_left_and_cannot_be_removed_is_logged)
{
    std::filesystem::create_directories(directory + "/9.acl");
    attach();
    EXPECT_THAT(platform_double::take_log(), ElementsAre(HasSubstr("/9.acl: cannot be removed")));
    enter(ListKind::extended, "web");
}

TEST_F(AclServiceTest, an_edit_of_a_list_that_is_gone_or_that_fails_changes_nothing)
{
    EXPECT_THAT(service.edit(10, [](AccessList &) { return std::string(); }), HasSubstr("does not exist"));
    EXPECT_THAT(service.resequence(10, 1, 1), HasSubstr("does not exist"));
    const int id = enter(ListKind::extended, "web");
    EXPECT_EQ("no", service.edit(id, [](AccessList &list) {
        EXPECT_EQ("", list.put(10, deny_all()));
        return std::string("no");
    }));
    EXPECT_THAT(service.find(id)->list.lines(), IsEmpty());
    EXPECT_THAT(service.resequence(id, 1, 1), IsEmpty());
}

// ---- The client's functions ----------------------------------------------------------------------------------------

TEST(acl_client, checks_its_arguments_and_reaches_the_service)
{
    const TemporaryDirectory temporary;
    setenv("TMPDIR", temporary.path().c_str(), 1); // read when the service is first used
    notices.clear();
    const Master master(kx_thread_master_create());
    const acl_reg_t registration = every_notice();
    EXPECT_EQ(ACL_ERR_INVALID, acl_agent_init(nullptr, master.get(), &registration));
    EXPECT_EQ(ACL_ERR_INVALID, acl_agent_init("", master.get(), &registration));
    EXPECT_EQ(ACL_ERR_INVALID, acl_agent_init("sflow_acl", nullptr, &registration));
    EXPECT_EQ(ACL_ERR_INVALID, acl_agent_init("sflow_acl", master.get(), nullptr));
    ASSERT_EQ(0, acl_agent_init("sflow_acl", master.get(), &registration));
    serve(master.get());
    EXPECT_THAT(notices, ElementsAre("up"));

    acl_id_args_t args = by_name("lab");
    EXPECT_EQ(ACL_ERR_NOT_FOUND, acl_info_get(&args));
    int id = 0;
    ASSERT_EQ("", platform::acl_service().enter(ListKind::standard, "lab", id));
    EXPECT_EQ(0U, acl::read_list(acl::directory_below(temporary.path()), id, "lab").index());
    ASSERT_EQ(0, acl_info_get(&args));
    EXPECT_EQ(id, args.acl_id);
    acl_ref_args_t reference{.acl = by_id(id), .cache_flag = false};
    acl_unref_args_t release{.acl = by_id(id)};
    EXPECT_EQ(0, acl_ref(&reference));
    EXPECT_EQ(1, platform::acl_service().find(id)->references);
    EXPECT_EQ(0, acl_unref(&release));
    EXPECT_EQ(ACL_ERR_NOT_HELD, acl_unref(&release));

    reference.cache_flag = true;
    EXPECT_EQ(ACL_ERR_INVALID, acl_ref(&reference));
    args.vdev_id = reference.acl.vdev_id = release.acl.vdev_id = 1;
    reference.cache_flag = false;
    EXPECT_EQ(ACL_ERR_INVALID, acl_info_get(&args));
    EXPECT_EQ(ACL_ERR_INVALID, acl_ref(&reference));
    EXPECT_EQ(ACL_ERR_INVALID, acl_unref(&release));
    EXPECT_EQ(ACL_ERR_INVALID, acl_info_get(nullptr));
    EXPECT_EQ(ACL_ERR_INVALID, acl_ref(nullptr));
    EXPECT_EQ(ACL_ERR_INVALID, acl_unref(nullptr));
}

TEST(acl_strerror, has_a_text_of_its_own_for_every_code)
{
    std::set<std::string> texts;
    for (int code = ACL_OK; code >= ACL_ERR_NOT_HELD; --code)
        texts.insert(acl_strerror(code));
    EXPECT_EQ(6U, texts.size());
    EXPECT_EQ(0U, texts.count("unknown error"));
    EXPECT_STREQ("unknown error", acl_strerror(1));
    EXPECT_STREQ("unknown error", acl_strerror(ACL_ERR_NOT_HELD - 1));
}
