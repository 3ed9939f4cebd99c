// ACL service: clients and their notices, look-up, references.

#include "acl_service/acl_service.h"

#include "platform/acl.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace
{

using platform::AclService;

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

acl_reg_t every_notice()
{
    acl_reg_t registration{};
    registration.acl_svr_status_notify = note_status;
    registration.acl_create_notify = note_create;
    registration.acl_delete_notify = note_delete;
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

class AclServiceTest : public testing::Test
{
protected:
    AclServiceTest() { notices.clear(); }

    void attach() { ASSERT_EQ(0, service.attach("client", master.get(), every_notice())); }

    Master master{kx_thread_master_create()};
    AclService service;
};

} // namespace

TEST_F(AclServiceTest, reports_itself_up_on_the_clients_master)
{
    attach();
    EXPECT_TRUE(notices.empty()) << "never inside the registration";
    EXPECT_EQ(1, serve(master.get()));
    EXPECT_EQ((std::vector<std::string>{"up"}), notices);
}

TEST_F(AclServiceTest, empty_notice_functions_are_not_called)
{
    ASSERT_EQ(0, service.attach("client", master.get(), acl_reg_t{}));
    ASSERT_EQ(0, service.create(10, "web", ACL_CLASS_IPV4));
    ASSERT_EQ(0, service.remove(10));
    EXPECT_EQ(3, serve(master.get()));
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
    ASSERT_EQ(0, service.create(10, "web", ACL_CLASS_IPV4));
    EXPECT_EQ(ACL_ERR_NOT_READY, service.look_up(args));
    EXPECT_EQ(ACL_ERR_NOT_READY, service.take_reference(args));
    EXPECT_EQ(ACL_ERR_NOT_READY, service.release_reference(args));
}

TEST_F(AclServiceTest, looks_up_by_id_first_and_by_name_without_one)
{
    attach();
    ASSERT_EQ(0, service.create(10, "web", ACL_CLASS_IPV4));
    ASSERT_EQ(0, service.create(2700, "six", ACL_CLASS_IPV6));
    acl_id_args_t args = by_name("six");
    ASSERT_EQ(0, service.look_up(args));
    EXPECT_EQ(2700, args.acl_id);
    EXPECT_EQ(ACL_CLASS_IPV6, args.acl_cls);
    args.acl_id = 10;
    ASSERT_EQ(0, service.look_up(args)) << "the id wins over the name";
    EXPECT_STREQ("web", args.acl_name);
    args = by_id(11);
    EXPECT_EQ(ACL_ERR_NOT_FOUND, service.look_up(args));
    args = by_name("we");
    EXPECT_EQ(ACL_ERR_NOT_FOUND, service.look_up(args));
}

TEST_F(AclServiceTest, a_name_that_fills_the_record_is_read_within_its_bounds)
{
    attach();
    ASSERT_EQ(0, service.create(10, std::string(99, 'n'), ACL_CLASS_MAC));
    acl_id_args_t args = by_name(std::string(99, 'n'));
    EXPECT_EQ(0, service.look_up(args));
    args = by_name(std::string(100, 'n'));
    EXPECT_EQ(ACL_ERR_NOT_FOUND, service.look_up(args));
}

TEST_F(AclServiceTest, an_unusable_or_taken_list_cannot_be_entered)
{
    ASSERT_EQ(0, service.create(10, "web", ACL_CLASS_IPV4));
    EXPECT_EQ(ACL_ERR_INVALID, service.create(10, "other", ACL_CLASS_IPV4));
    EXPECT_EQ(ACL_ERR_INVALID, service.create(11, "web", ACL_CLASS_IPV4));
    EXPECT_EQ(ACL_ERR_INVALID, service.create(0, "zero", ACL_CLASS_IPV4));
    EXPECT_EQ(ACL_ERR_INVALID, service.create(-1, "minus", ACL_CLASS_IPV4));
    EXPECT_EQ(ACL_ERR_INVALID, service.create(12, "", ACL_CLASS_IPV4));
    EXPECT_EQ(ACL_ERR_INVALID, service.create(12, std::string(100, 'n'), ACL_CLASS_IPV4));
    EXPECT_EQ(ACL_ERR_NOT_FOUND, service.remove(12));
}

TEST_F(AclServiceTest, references_are_counted)
{
    attach();
    ASSERT_EQ(0, service.create(10, "web", ACL_CLASS_IPV4));
    EXPECT_EQ(ACL_ERR_NOT_HELD, service.release_reference(by_id(10)));
    EXPECT_EQ(0, service.take_reference(by_id(10)));
    EXPECT_EQ(0, service.take_reference(by_name("web")));
    EXPECT_EQ(2, service.references(10));
    EXPECT_EQ(0, service.release_reference(by_id(10)));
    EXPECT_EQ(0, service.release_reference(by_id(10)));
    EXPECT_EQ(ACL_ERR_NOT_HELD, service.release_reference(by_id(10)));
}

TEST_F(AclServiceTest, a_removed_list_ends_its_references_and_is_told_to_the_client)
{
    attach();
    ASSERT_EQ(0, service.create(10, "web", ACL_CLASS_IPV4));
    ASSERT_EQ(0, service.take_reference(by_id(10)));
    ASSERT_EQ(0, service.remove(10));
    EXPECT_EQ(0, service.references(10));
    EXPECT_EQ(ACL_ERR_NOT_FOUND, service.release_reference(by_id(10)));
    ASSERT_EQ(0, service.create(10, "web", ACL_CLASS_IPV4));
    EXPECT_EQ(0, service.references(10)) << "a new list of the same id";
    serve(master.get());
    EXPECT_EQ((std::vector<std::string>{"up", "create 10 web", "delete 10 web 1", "create 10 web"}), notices);
}

TEST_F(AclServiceTest, every_client_is_told_on_its_own_master)
{
    const Master other(kx_thread_master_create());
    attach();
    ASSERT_EQ(0, service.attach("other", other.get(), every_notice()));
    ASSERT_EQ(0, service.create(10, "web", ACL_CLASS_IPV4));
    EXPECT_EQ(2, serve(master.get()));
    EXPECT_EQ((std::vector<std::string>{"up", "create 10 web"}), notices);
    EXPECT_EQ(2, serve(other.get()));
    EXPECT_EQ(4U, notices.size());
}

TEST_F(AclServiceTest, registering_again_replaces_the_client)
{
    const Master other(kx_thread_master_create());
    attach();
    ASSERT_EQ(0, service.attach("client", other.get(), every_notice()));
    serve(master.get());
    EXPECT_TRUE(notices.empty());
    serve(other.get());
    EXPECT_EQ((std::vector<std::string>{"up"}), notices);
}

TEST_F(AclServiceTest, a_client_whose_master_has_ended_is_no_obstacle)
{
    const Master other(kx_thread_master_create());
    ASSERT_EQ(0, service.attach("ended", other.get(), every_notice()));
    kx_thread_master_finish(other.get());
    EXPECT_EQ(ACL_ERR_INVALID, service.attach("late", other.get(), every_notice()));
    attach();
    ASSERT_EQ(0, service.create(10, "web", ACL_CLASS_IPV4));
    serve(master.get());
    EXPECT_EQ((std::vector<std::string>{"up", "create 10 web"}), notices);
}

TEST(acl_client, checks_its_arguments_and_reaches_the_service)
{
    notices.clear();
    const Master master(kx_thread_master_create());
    const acl_reg_t registration = every_notice();
    EXPECT_EQ(ACL_ERR_INVALID, acl_agent_init(nullptr, master.get(), &registration));
    EXPECT_EQ(ACL_ERR_INVALID, acl_agent_init("", master.get(), &registration));
    EXPECT_EQ(ACL_ERR_INVALID, acl_agent_init("sflow_acl", nullptr, &registration));
    EXPECT_EQ(ACL_ERR_INVALID, acl_agent_init("sflow_acl", master.get(), nullptr));
    ASSERT_EQ(0, acl_agent_init("sflow_acl", master.get(), &registration));
    serve(master.get());
    EXPECT_EQ((std::vector<std::string>{"up"}), notices);

    acl_id_args_t args = by_name("lab");
    EXPECT_EQ(ACL_ERR_NOT_FOUND, acl_info_get(&args));
    ASSERT_EQ(0, platform::acl_service().create(100, "lab", ACL_CLASS_IPV4));
    ASSERT_EQ(0, acl_info_get(&args));
    EXPECT_EQ(100, args.acl_id);
    acl_ref_args_t reference{.acl = by_id(100), .cache_flag = false};
    acl_unref_args_t release{.acl = by_id(100)};
    EXPECT_EQ(0, acl_ref(&reference));
    EXPECT_EQ(1, platform::acl_service().references(100));
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
