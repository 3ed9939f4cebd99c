// Interface commands, their guards, and the interface sections of the running configuration.
#include "dcli_doubles.h"
#include "sflow_cli_msg.h"

#include <cstring>

using namespace dcli;
using Lines = std::vector<std::string>;

namespace
{

constexpr IFINDEX PORT = 7;
constexpr IFINDEX AGG = 8;
constexpr IFINDEX SUB = 9;
constexpr IFINDEX BRIDGED_SUB = 10;

struct Interface_case : Case {
    void SetUp() override
    {
        Case::SetUp();
        fake::set_interface(PORT, {.name = "eth0"});
        fake::set_interface(AGG,
                            {.name = "bond0", .type = LSM_IF_TYPE_AGGREGATE, .kind = LSM_IF_KIND_AGGREGATE});
        fake::set_interface(SUB, {.name = "eth0.5", .subinterface = true, .kind = LSM_IF_KIND_SUBINTERFACE});
        fake::set_interface(BRIDGED_SUB, {.name = "eth0.6",
                                          .subinterface = true,
                                          .top_stack = LSM_IF_STACK_BRIDGE,
                                          .kind = LSM_IF_KIND_SUBINTERFACE});
    }
};

using Interface_guard = Interface_case;
using Interface_enable = Interface_case;
using Interface_acl = Interface_case;
using Interface_collector = Interface_case;
using Interface_configuration = Interface_case;

int support(IFINDEX ifx, int direct)
{
    struct_command_data_block record{};
    record.mode_name = CLI_MODE_INTERFACE;
    record.mode_intidx = ifx;
    return sflow_interface_support_test(&record, direct);
}

int range_support(u_int64_t kinds, int direct)
{
    struct_command_data_block record{};
    record.mode_name = CLI_MODE_IFRANGE;
    record.mode_intidx = kinds;
    return sflow_interface_support_test(&record, direct);
}

/// The capacity bit that alone makes the test pass, 0 for none.
template <typename Test>
u_int32_t bit_of(Test test)
{
    u_int32_t bit = 0;
    for (u_int32_t candidate = 1; candidate != 0; candidate <<= 1) {
        sflow_intf_support_flag = candidate;
        if (test() == 0)
            continue;
        EXPECT_EQ(bit, 0U) << "more than one bit answers";
        bit = candidate;
    }
    sflow_intf_support_flag = ~bit;
    EXPECT_EQ(test(), 0);
    return bit;
}

Ran run_on(IFINDEX ifx, const std::string &line)
{
    return run(line, fake::interface(ifx));
}

bool is_command(IFINDEX ifx, const std::string &line)
{
    return fake::cli_match(line, fake::interface(ifx)).kind == fake::CliResult::Kind::run;
}

void fill_slot(sflow_intf_config_t *intf, int slot, int id, const char *name)
{
    intf->acl[slot].enable = true;
    intf->acl[slot].enable_acl_id = id;
    std::strncpy(intf->acl[slot].enable_acl_name, name, SFLOW_ACL_NAME_LEN - 1);
    intf->acl_enable = true;
}

} // namespace

// ---- Guards --------------------------------------------------------------------------------------------------

TEST_F(Interface_guard, each_direction_and_kind_has_its_capacity_bit)
{
    struct Row {
        int direct;
        u_int32_t port;
        u_int32_t aggregate;
        u_int32_t subinterface;
    };
    for (const Row &row : {Row{0, 0x1, 0x4, 0x10}, Row{1, 0x2, 0x8, 0x20}, Row{2, 0x40, 0x80, 0x100},
                           Row{3, 0x200, 0x400, 0x800}}) {
        EXPECT_EQ(bit_of([&] { return support(PORT, row.direct); }), row.port) << row.direct;
        EXPECT_EQ(bit_of([&] { return support(AGG, row.direct); }), row.aggregate) << row.direct;
        EXPECT_EQ(bit_of([&] { return support(SUB, row.direct); }), row.subinterface) << row.direct;
        EXPECT_EQ(bit_of([&] { return range_support(0x1, row.direct); }), row.port) << row.direct;
        EXPECT_EQ(bit_of([&] { return range_support(0x20000, row.direct); }), row.aggregate) << row.direct;
        EXPECT_EQ(bit_of([&] { return range_support(0x800, row.direct); }), row.subinterface) << row.direct;
    }
}

TEST_F(Interface_guard, an_unknown_direction_is_never_supported)
{
    EXPECT_EQ(support(PORT, -1), 0);
    EXPECT_EQ(support(PORT, 4), 0);
    const std::string text = "sflow_interface_support_test:direction is failure\n";
    EXPECT_EQ(conf_log(), (Lines{text, text}));
}

TEST_F(Interface_guard, a_subinterface_in_the_bridge_is_never_supported)
{
    for (int direct = 0; direct < 4; direct++)
        EXPECT_EQ(support(BRIDGED_SUB, direct), 0) << direct;
    fake::set_interface(PORT, {.name = "eth0", .top_stack = LSM_IF_STACK_BRIDGE});
    EXPECT_EQ(support(PORT, 0), 1);
}

TEST_F(Interface_guard, answers_follow_the_interface_type)
{
    struct Row {
        int type;
        bool as_port;
        bool as_aggregate;
        bool as_subinterface;
    };
    std::vector<Row> rows = {{0, false, false, false},  {5, false, false, false}, {12, true, false, true},
                             {13, false, false, false}, {24, false, true, false}, {48, false, false, false},
                             {52, false, false, false}, {60, false, false, false}};
    for (const int ethernet : {6, 7, 8, 9, 10, 11, 49, 50, 51})
        rows.push_back({ethernet, true, false, true});
    const auto answer = [](u_int32_t bits, bool subinterface, int type) {
        sflow_intf_support_flag = bits;
        fake::set_interface(99, {.name = "x", .type = type, .subinterface = subinterface});
        return support(99, 0) != 0;
    };
    for (const Row &row : rows) {
        EXPECT_EQ(answer(0x1, false, row.type), row.as_port) << row.type;
        EXPECT_EQ(answer(0x4, false, row.type), row.as_aggregate) << row.type;
        EXPECT_FALSE(answer(0x10, false, row.type)) << row.type;
        EXPECT_EQ(answer(0x10, true, row.type), row.as_subinterface) << row.type;
        EXPECT_FALSE(answer(0x5, true, row.type)) << row.type;
    }
    EXPECT_EQ(support(1234, 0), 0);
}

TEST_F(Interface_guard, is_ethernet_port_by_type_knows_two_ranges)
{
    for (int type = -1; type < 70; type++) {
        const bool expected = (type >= 6 && type <= 11) || (type >= 49 && type <= 51);
        EXPECT_EQ(is_ethernet_port_by_type(type), expected ? 1 : 0) << type;
    }
}

TEST_F(Interface_guard, a_range_is_judged_by_the_kinds_in_it)
{
    struct Row {
        u_int64_t kinds;
        u_int32_t bit;
    };
    std::vector<Row> rows = {
        {0, 0},    {0x800, 0x10}, {0x20000, 0x4}, {0x20800, 0x4}, {0x20001, 0x1}, {0x801, 0x1},    {0x4, 0},
        {0x40, 0}, {0x840, 0},    {0x20040, 0x4}, {0x1000000, 0}, {0x100000, 0},  {0x100001, 0x1},
    };
    for (const u_int64_t port : {0x1U, 0x2U, 0x8U, 0x8000U, 0x10000U, 0x08000000U, 0x10000000U, 0x20000000U,
                                 0x40000000U, 0x80000000U})
        rows.push_back({port, 0x1});
    for (const Row &row : rows)
        EXPECT_EQ(bit_of([&] { return range_support(row.kinds, 0); }), row.bit) << std::hex << row.kinds;
}

TEST_F(Interface_guard, a_range_mask_is_not_taken_for_an_interface_index)
{
    // The mask 0x1 of a range of ports is also the index of a subinterface that is never supported.
    fake::set_interface(0x1, {.name = "eth9.9", .subinterface = true, .top_stack = LSM_IF_STACK_BRIDGE});
    EXPECT_EQ(range_support(0x1, 0), 1);
}

TEST_F(Interface_guard, the_range_mode_is_logged)
{
    range_support(0x1, 0);
    EXPECT_EQ(conf_log(), Lines{"sflow_interface_support_test:strcmp\n"});
}

TEST_F(Interface_guard, any_and_both_combine_ingress_and_egress)
{
    struct_command_data_block record{};
    record.mode_name = CLI_MODE_INTERFACE;
    record.mode_intidx = PORT;
    struct Row {
        u_int32_t capacity;
        int ingress;
        int egress;
        int any;
        int both;
        int acl;
        int snoop;
    };
    for (const Row &row :
         {Row{0, 0, 0, 0, 0, 0, 0}, Row{0x1, 1, 0, 1, 0, 0, 0}, Row{0x2, 0, 1, 1, 0, 0, 0},
          Row{0x3, 1, 1, 1, 1, 0, 0}, Row{0x40, 0, 0, 0, 0, 1, 0}, Row{0x200, 0, 0, 0, 0, 0, 1}}) {
        sflow_intf_support_flag = row.capacity;
        EXPECT_EQ(sflow_interface_ingress_test(&record), row.ingress) << row.capacity;
        EXPECT_EQ(sflow_interface_egress_test(&record), row.egress) << row.capacity;
        EXPECT_EQ(sflow_interface_test(&record), row.any) << row.capacity;
        EXPECT_EQ(sflow_interface_both_test(&record), row.both) << row.capacity;
        EXPECT_EQ(sflow_interface_acl_test(&record), row.acl) << row.capacity;
        EXPECT_EQ(sflow_interface_snoop_test(&record), row.snoop) << row.capacity;
    }
}

TEST_F(Interface_guard, no_sflow_on_an_aggregate_when_only_ports_can_be_sampled)
{
    sflow_intf_support_flag = 0x1 | 0x2;
    EXPECT_FALSE(is_command(AGG, "sflow flow collector 1"));
    EXPECT_FALSE(is_command(AGG, "sflow enable"));
    EXPECT_TRUE(is_command(PORT, "sflow enable"));
}

TEST_F(Interface_guard, without_egress_only_ingress_can_be_enabled)
{
    sflow_intf_support_flag = 0x1;
    EXPECT_FALSE(is_command(PORT, "sflow enable"));
    EXPECT_FALSE(is_command(PORT, "sflow enable egress"));
    EXPECT_TRUE(is_command(PORT, "sflow enable ingress"));
}

TEST_F(Interface_guard, a_command_for_a_range_runs_on_each_member)
{
    EXPECT_EQ(run("sflow enable ingress", fake::ifrange({PORT, AGG})), SILENT);
    EXPECT_EQ(calls("sflow_enable_intf_config"),
              (Lines{"ifx=7 direct=1 ifx_type=1 acl_id=0 acl_name= snoop=0",
                     "ifx=8 direct=1 ifx_type=2 acl_id=0 acl_name= snoop=0"}));
}

// ---- Enable --------------------------------------------------------------------------------------------------

TEST_F(Interface_enable, asks_for_the_direction_on_the_kind_of_interface)
{
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"sflow enable", "direct=3"},
        {"sflow enable ingress", "direct=1"},
        {"sflow enable egress", "direct=2"},
    };
    for (const auto &[line, direct] : rows) {
        for (const auto &[ifx, type] : {std::pair{PORT, 1}, {AGG, 2}, {SUB, 3}}) {
            const std::string arguments = "ifx=" + std::to_string(ifx) + " " + direct +
                                          " ifx_type=" + std::to_string(type) + " acl_id=0 acl_name= snoop=0";
            forget_calls();
            EXPECT_EQ(run_on(ifx, line), SILENT);
            EXPECT_EQ(run_on(ifx, "no " + line), SILENT);
            EXPECT_EQ(calls(), (Lines{"sflow_enable_intf_config " + arguments,
                                      "sflow_disable_intf_config " + arguments}));
        }
    }
}

TEST_F(Interface_enable, by_snoop_asks_for_ingress_by_snooping)
{
    EXPECT_EQ(run_on(PORT, "sflow enable ingress by-snoop"), SILENT);
    EXPECT_EQ(run_on(PORT, "no sflow enable ingress by-snoop"), SILENT);
    const std::string arguments = "ifx=7 direct=1 ifx_type=1 acl_id=0 acl_name= snoop=1";
    EXPECT_EQ(calls(),
              (Lines{"sflow_enable_intf_config " + arguments, "sflow_disable_intf_config " + arguments}));
}

TEST_F(Interface_enable, a_request_that_cannot_be_made_fails_the_command)
{
    results["sflow_enable_intf_config"] = -1;
    results["sflow_disable_intf_config"] = -1;
    for (const std::string line : {"sflow enable", "sflow enable ingress by-snoop"}) {
        EXPECT_EQ(run_on(PORT, line), (Ran{true, "sflow enable failure.\n"}));
        EXPECT_EQ(run_on(PORT, "no " + line), (Ran{true, "sflow disable failure.\n"}));
    }
    EXPECT_EQ(calls("sflow_acl_unref"), Lines{});
}

// ---- Access lists --------------------------------------------------------------------------------------------

TEST_F(Interface_acl, a_list_is_looked_up_referenced_and_asked_for)
{
    EXPECT_EQ(run_on(PORT, "sflow enable ingress acl 5"), SILENT);
    EXPECT_EQ(calls(),
              (Lines{"sflow_acl_lookup acl_id=5 acl_name=", "sflow_acl_ref acl_id=5 acl_name=",
                     "sflow_enable_intf_config ifx=7 direct=1 ifx_type=1 acl_id=5 acl_name= snoop=0"}));
    forget_calls();
    results["id of the named list"] = 3001;
    EXPECT_EQ(run_on(PORT, "sflow enable ingress acl web"), SILENT);
    EXPECT_EQ(calls(),
              (Lines{"sflow_acl_lookup acl_id=0 acl_name=web", "sflow_acl_ref acl_id=3001 acl_name=web",
                     "sflow_enable_intf_config ifx=7 direct=1 ifx_type=1 acl_id=3001 acl_name=web snoop=0"}));
}

TEST_F(Interface_acl, a_name_has_at_most_99_characters)
{
    const std::string longest(99, 'a');
    EXPECT_EQ(run_on(PORT, "sflow enable ingress acl " + longest), SILENT);
    EXPECT_EQ(calls("sflow_acl_lookup"), Lines{"acl_id=0 acl_name=" + longest});
    forget_calls();
    EXPECT_EQ(run_on(PORT, "sflow enable ingress acl a" + longest), (Ran{true, "Invalid acl name.\n"}));
    EXPECT_EQ(run_on(PORT, "no sflow enable ingress acl a" + longest), (Ran{true, "Invalid acl name.\n"}));
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(Interface_acl, a_list_that_does_not_exist_is_refused_also_for_removal)
{
    results["sflow_acl_lookup"] = -1;
    for (const std::string prefix : {"", "no "}) {
        EXPECT_EQ(run_on(PORT, prefix + "sflow enable ingress acl web"),
                  (Ran{true, "ACL(web) rule referenced by SFLOW does not exist.\n"}));
        EXPECT_EQ(run_on(PORT, prefix + "sflow enable ingress acl 5"),
                  (Ran{true, "ACL(5) rule referenced by SFLOW does not exist.\n"}));
    }
    EXPECT_EQ(calls("sflow_acl_ref"), Lines{});
    EXPECT_EQ(calls("sflow_disable_intf_config"), Lines{});
}

TEST_F(Interface_acl, a_third_list_is_refused)
{
    sflow_intf_config_t *intf = add_intf(PORT);
    intf->enable = SFLOW_INGRESS;
    fill_slot(intf, 0, 5, "");
    EXPECT_EQ(run_on(PORT, "sflow enable ingress acl 7"), SILENT);
    fill_slot(intf, 1, 6, "");
    forget_calls();
    EXPECT_EQ(run_on(PORT, "sflow enable ingress acl 7"),
              (Ran{true, "Max acl rule number has been configure.\n"}));
    EXPECT_EQ(calls("sflow_acl_ref"), Lines{});
}

TEST_F(Interface_acl, a_list_applied_already_fails_without_a_word)
{
    sflow_intf_config_t *intf = add_intf(PORT);
    intf->enable = SFLOW_INGRESS;
    fill_slot(intf, 1, 5, "");
    conf_log();
    EXPECT_EQ(run_on(PORT, "sflow enable ingress acl 5"), (Ran{true, ""}));
    EXPECT_EQ(conf_log(), Lines{"intf_sflow_enable_acl_cmd: acl 5 has been configured\n"});
    results["id of the named list"] = 5;
    EXPECT_EQ(run_on(PORT, "sflow enable ingress acl web"), (Ran{true, ""}));
    EXPECT_EQ(conf_log(), Lines{"intf_sflow_enable_acl_cmd: acl web has been configured\n"});
    EXPECT_EQ(calls("sflow_acl_ref"), Lines{});
}

TEST_F(Interface_acl, removing_a_list_that_is_not_applied_succeeds_without_a_word)
{
    conf_log();
    EXPECT_EQ(run_on(PORT, "no sflow enable ingress acl 5"), SILENT);
    EXPECT_EQ(run_on(PORT, "no sflow enable ingress acl web"), SILENT);
    EXPECT_EQ(conf_log(), (Lines{"intf_sflow_enable_acl_cmd: acl 5 is not configured\n",
                                 "intf_sflow_enable_acl_cmd: acl web is not configured\n"}));
    EXPECT_EQ(calls("sflow_disable_intf_config"), Lines{});
}

TEST_F(Interface_acl, removing_an_applied_list_stops_it_and_keeps_the_reference)
{
    sflow_intf_config_t *intf = add_intf(PORT);
    intf->enable = SFLOW_INGRESS;
    fill_slot(intf, 0, 5, "");
    EXPECT_EQ(run_on(PORT, "no sflow enable ingress acl 5"), SILENT);
    EXPECT_EQ(calls("sflow_disable_intf_config"),
              Lines{"ifx=7 direct=1 ifx_type=1 acl_id=5 acl_name= snoop=0"});
    EXPECT_EQ(calls("sflow_acl_unref"), Lines{});
}

TEST_F(Interface_acl, a_list_that_cannot_be_referenced_is_refused)
{
    results["sflow_acl_ref"] = -1;
    EXPECT_EQ(run_on(PORT, "sflow enable ingress acl 5"), (Ran{true, "Failed to reference ACL(5) rule.\n"}));
    EXPECT_EQ(run_on(PORT, "sflow enable ingress acl web"),
              (Ran{true, "Failed to reference ACL(web) rule.\n"}));
    EXPECT_EQ(calls("sflow_enable_intf_config"), Lines{});
}

TEST_F(Interface_acl, the_reference_is_released_when_the_request_cannot_be_made)
{
    results["sflow_enable_intf_config"] = -1;
    EXPECT_EQ(run_on(PORT, "sflow enable ingress acl 5"), (Ran{true, "sflow enable failure.\n"}));
    EXPECT_EQ(calls("sflow_acl_unref"), Lines{"acl_id=5 acl_name="});
    results["sflow_acl_unref"] = -1;
    EXPECT_EQ(
        run_on(PORT, "sflow enable ingress acl web"),
        (Ran{true, "sflow enable failure.\nFailed to de-reference the ACL(sflow enable ingress) rule.\n"}));
}

TEST_F(Interface_acl, local_acl_cap_check_counts_slots_and_compares_ids)
{
    EXPECT_EQ(local_acl_cap_check(PORT, 5, ""), 0) << "no configuration";
    sflow_intf_config_t *intf = add_intf(PORT);
    fill_slot(intf, 0, 5, "web");
    fill_slot(intf, 1, 6, "");
    EXPECT_EQ(local_acl_cap_check(PORT, 5, ""), 0) << "no direction enabled";
    intf->enable = SFLOW_EGRESS;
    EXPECT_EQ(local_acl_cap_check(PORT, 5, ""), 2);
    EXPECT_EQ(local_acl_cap_check(PORT, 6, ""), 2);
    EXPECT_EQ(local_acl_cap_check(PORT, 7, "web"), 1) << "names are not compared";
    intf->acl[0].enable = false;
    EXPECT_EQ(local_acl_cap_check(PORT, 5, ""), 0) << "a free slot's id does not count";
    EXPECT_EQ(local_acl_cap_check(PORT, 6, ""), 2);
    EXPECT_EQ(local_acl_cap_check(PORT, 7, ""), 0);
}

// ---- Collectors of an interface ------------------------------------------------------------------------------

TEST_F(Interface_collector, needs_a_collector_with_a_destination)
{
    EXPECT_EQ(run_on(PORT, "sflow flow collector 2"),
              (Ran{true, "Failed to configure sflow flow collector 2. Sflow collector 2 should be configured "
                         "first.\n"}));
    EXPECT_EQ(
        run_on(PORT, "sflow counter collector 1"),
        (Ran{true, "Failed to configure sflow counter collector 1. Sflow collector 1 should be configured "
                   "first.\n"}));
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(Interface_collector, asks_the_sampling_service)
{
    enable_receiver(2, collector("10.0.0.1"), 6343);
    EXPECT_EQ(run_on(PORT, "sflow flow collector 2"), SILENT);
    EXPECT_EQ(run_on(PORT, "sflow counter collector 2"), SILENT);
    EXPECT_EQ(calls(), (Lines{"sflow_ifx_is_conf_msg ifx=7 cid=2 flag=1",
                              "sflow_ifx_is_conf_msg ifx=7 cid=2 flag=2"}));
    results["sflow_ifx_is_conf_msg"] = -1;
    EXPECT_EQ(run_on(PORT, "sflow flow collector 2"),
              (Ran{true, "Failed to configure sflow flow collector.\n"}));
    EXPECT_EQ(run_on(PORT, "sflow counter collector 2"),
              (Ran{true, "Failed to configure sflow counter collector.\n"}));
}

TEST_F(Interface_collector, no_form_clears_without_a_word)
{
    EXPECT_EQ(run_on(PORT, "no sflow flow collector"), SILENT);
    EXPECT_EQ(run_on(PORT, "no sflow counter collector"), SILENT);
    EXPECT_EQ(calls(), (Lines{"sflow_sampler_clear_cid ifx=7", "sflow_poller_clear_cid ifx=7"}));
}

// ---- Running configuration -----------------------------------------------------------------------------------

namespace
{

constexpr cli_handler_t INTERFACE_HANDLERS[] = {
    intf_sflow_counter_collector_cmd, intf_sflow_flow_collector_cmd, intf_sflow_enable_acl_cmd,
    intf_sflow_enable_snoop_cmd,      intf_sflow_enable_cmd,
};

Lines interface_lines(IFINDEX ifx)
{
    Lines lines;
    for (const cli_handler_t handler : INTERFACE_HANDLERS) {
        for (const std::string &line : lines_of(handler, ifx))
            lines.push_back(line);
    }
    return lines;
}

} // namespace

TEST_F(Interface_configuration, lines_of_an_interface)
{
    sflow_intf_config_t *intf = add_intf(PORT);
    struct Row {
        const char *name;
        u_int32_t cid;
        u_int32_t fid;
        u_int32_t enable;
        int snoop;
        bool acl;
        Lines lines;
    };
    const std::vector<Row> rows = {
        {"nothing", 0, 0, 0, 0, false, {}},
        {"collectors", 1, 2, 0, 0, false, {"sflow counter collector 1", "sflow flow collector 2"}},
        {"both", 0, 0, 3, 0, false, {"sflow enable"}},
        {"ingress", 0, 0, 1, 0, false, {"sflow enable ingress"}},
        {"egress", 0, 0, 2, 0, false, {"sflow enable egress"}},
        {"snoop", 0, 0, 1, 1, false, {"sflow enable ingress by-snoop"}},
        {"snoop and egress", 0, 0, 3, 1, false, {"sflow enable ingress by-snoop", "sflow enable egress"}},
        {"egress with a snoop flag", 0, 0, 2, 1, false, {"sflow enable egress"}},
        {"list", 0, 0, 1, 0, true, {"sflow enable ingress acl 5\n"}},
        {"list and egress", 0, 0, 3, 0, true, {"sflow enable ingress acl 5\n", "sflow enable egress"}},
        {"list with a snoop flag", 0, 0, 1, 1, true, {"sflow enable ingress acl 5\n"}},
        {"list without ingress", 0, 0, 2, 0, true, {"sflow enable egress"}},
    };
    for (const Row &row : rows) {
        *intf = {.list = intf->list,
                 .ifx = PORT,
                 .cid = row.cid,
                 .fid = row.fid,
                 .enable = row.enable,
                 .snoop = row.snoop};
        if (row.acl)
            fill_slot(intf, 0, 5, "");
        EXPECT_EQ(interface_lines(PORT), row.lines) << row.name;
    }
    EXPECT_EQ(interface_lines(AGG), Lines{}) << "no configuration";
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(Interface_configuration, a_list_is_printed_by_name_when_it_has_one)
{
    sflow_intf_config_t *intf = add_intf(PORT);
    intf->enable = SFLOW_INGRESS;
    fill_slot(intf, 0, 3001, "web");
    fill_slot(intf, 1, 5, "");
    EXPECT_EQ(lines_of(intf_sflow_enable_acl_cmd, PORT),
              (Lines{"sflow enable ingress acl web\n", "sflow enable ingress acl 5\n"}));
    intf->acl[0].enable = false;
    intf->acl[1].enable_acl_id = 0;
    EXPECT_EQ(lines_of(intf_sflow_enable_acl_cmd, PORT), Lines{});
}

namespace
{

/// What the interface section of the running configuration adds, mode and index in front of each line.
Lines section_lines()
{
    struct_command_data_block record{};
    record.mode_name = CLI_MODE_CONFIG;
    Lines lines;
    for (const fake::ConfigLine &line : fake::print_config(cfg_sflow_show_run_interface_cmd, record))
        lines.push_back(line.mode + " " + std::to_string(line.mode_intidx) + ": " + line.text);
    return lines;
}

} // namespace

TEST_F(Interface_configuration, sections_come_in_the_order_of_the_list)
{
    add_intf(PORT)->enable = SFLOW_BOTH;
    add_intf(AGG)->fid = 2;
    EXPECT_EQ(section_lines(),
              (Lines{"config 0: interface eth0", "interface 7: sflow enable", "config 7: !",
                     "config 7: interface bond0", "interface 8: sflow flow collector 2", "config 8: !"}));
    EXPECT_EQ(conf_log(), (Lines{"XXX cfg_sflow_show_run_interface_cmd 1. ifx(7) .\n",
                                 "XXX cfg_sflow_show_run_interface_cmd 2. ifx(7) intf_name(eth0).\n",
                                 "XXX cfg_sflow_show_run_interface_cmd 1. ifx(8) .\n",
                                 "XXX cfg_sflow_show_run_interface_cmd 2. ifx(8) intf_name(bond0).\n"}));
}

TEST_F(Interface_configuration, a_failing_name_ends_the_sections)
{
    add_intf(PORT)->enable = SFLOW_BOTH;
    add_intf(99)->enable = SFLOW_BOTH;
    add_intf(AGG)->enable = SFLOW_BOTH;
    EXPECT_EQ(section_lines(),
              (Lines{"config 0: interface eth0", "interface 7: sflow enable", "config 7: !"}));
    EXPECT_EQ(conf_log().back(), "cfg_sflow_show_run_interface_cmd: lsm_if_get_name fail\n");
}

TEST_F(Interface_configuration, interfaces_that_are_not_the_operators_are_skipped)
{
    fake::set_interface(PORT, {.name = "eth0", .flags = LSM_IF_FLAG_INTERNAL});
    fake::set_interface(AGG, {.name = "bond0", .flags = LSM_IF_FLAG_TRANSIENT});
    fake::set_interface(SUB, {.name = "eth0.5", .main_index = 0});
    fake::set_interface(20, {.name = "eth20", .flags = 0x4});
    for (const IFINDEX ifx : {PORT, AGG, SUB, IFINDEX{20}})
        add_intf(ifx)->enable = SFLOW_INGRESS;
    EXPECT_EQ(section_lines(),
              (Lines{"config 0: interface eth20", "interface 20: sflow enable ingress", "config 20: !"}));
}

TEST_F(Interface_configuration, lines_stay_visible_while_the_capacity_is_missing)
{
    add_intf(PORT)->enable = SFLOW_BOTH;
    sflow_intf_support_flag = 0;
    EXPECT_EQ(section_lines().size(), 3U);
}
