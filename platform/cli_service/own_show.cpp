// Show commands of the platform: configurations, interfaces, debug switches, version.
#include "config_file.h"
#include "console.h"
#include "own_commands.h"
#include "platform/lsm.h"
#include "platform/tech.h"
#include "platform/zformat.h"

#include <arpa/inet.h>
#include <array>
#include <cinttypes>
#include <sys/utsname.h>

namespace cli
{
namespace
{

cli_session_t &command_of(const struct_command_data_block *record)
{
    return *record->session;
}

std::string address_text(const lsm_if_addr_t &address)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (inet_ntop(address.family, address.addr, text.data(), text.size()) == nullptr)
        return "?";
    return std::string(text.data()) + "/" + std::to_string(address.prefix_len);
}

std::string speed_text(const lsm_if_record_t &interface)
{
    if (!interface.has_eth_info || interface.eth.speed == 0)
        return "-";
    return std::to_string(interface.eth.speed) + " Mb/s";
}

std::string_view duplex_text(const lsm_if_record_t &interface)
{
    switch (interface.has_eth_info ? interface.eth.duplex : LSM_DUPLEX_AUTO) {
    case LSM_DUPLEX_FULL:
        return ", full duplex";
    case LSM_DUPLEX_HALF:
        return ", half duplex";
    case LSM_DUPLEX_AUTO:
        break;
    }
    return "";
}

std::string name_of(IFINDEX ifindex)
{
    std::array<char, LSM_IF_NAME_LEN> name{};
    if (lsm_if_get_name(ifindex, name.data(), LSM_IF_NAME_LEN) < 0)
        return std::to_string(ifindex);
    return name.data();
}

std::string vrf_text(int vrf)
{
    std::array<char, LSM_VRF_NAME_LEN> name{};
    if (vrf <= 0)
        return "default";
    if (lsm_vrf_index2name(vrf, name.data(), LSM_VRF_NAME_LEN) < 0)
        return std::to_string(vrf);
    return std::string(name.data()) == LSM_VRF_MGMT_NAME ? "mgmt" : name.data();
}

bool offered(const lsm_if_record_t &interface)
{
    return (interface.flags & (LSM_IF_FLAG_INTERNAL | LSM_IF_FLAG_TRANSIENT)) == 0;
}

std::string hardware_address(const u_int8_t (&mac)[6])
{
    std::array<char, 24> text{};
    zsnprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
              mac[4], mac[5]);
    return text.data();
}

std::string describe(const lsm_if_record_t &interface)
{
    std::string text = interface.name + " is " + (interface.admin_up ? "up" : "administratively down") +
                       ", line protocol is " + (interface.oper_up ? "up" : "down") + "\n";
    text += "  Index " + std::to_string(interface.ifx) + ", type " +
            std::string(interface_type_word(interface.kind));
    if (interface.subinterface)
        text += " of " + name_of(interface.main_index);
    text += ", address " + hardware_address(interface.mac) + "\n";
    text += "  MTU " + std::to_string(interface.mtu) + " bytes, speed " + speed_text(interface) +
            std::string(duplex_text(interface)) + "\n";
    text += "  VRF " + vrf_text(interface.vrf);
    if (interface.master != 0)
        text += ", member of " + name_of(interface.master);
    text += "\n";
    for (const lsm_if_addr_t &address : interface.addrs)
        text += std::string(address.family == AF_INET6 ? "  IPv6" : "  Internet") + " address is " +
                address_text(address) + (address.secondary ? " secondary" : "") + "\n";
    return text;
}

std::string brief_row(std::string_view name, std::string_view admin, std::string_view oper,
                      std::string_view speed, std::string_view type, std::string_view address)
{
    std::string row;
    const std::array<std::pair<std::string_view, std::size_t>, 5> columns{
        {{name, 17}, {admin, 7}, {oper, 6}, {speed, 13}, {type, 11}}};
    for (const auto &[text, width] : columns) {
        row += text;
        row += std::string(text.size() < width ? width - text.size() : 1, ' ');
    }
    return row.append(address.empty() ? "-" : address) + "\n";
}

void write_config_text(const struct_command_data_block *record, bool all)
{
    cli_session_t &command = command_of(record);
    const auto &mirrored = command.core().mirror().mirrored();
    command.write(mirrored ? *mirrored : command.core().running_config(all));
}

} // namespace

std::string_view interface_type_word(u_int32_t kinds)
{
    struct Word {
        u_int32_t kind;
        std::string_view text;
    };
    static constexpr Word WORDS[] = {
        {LSM_IF_KIND_SUBINTERFACE, "vlan"},
        {LSM_IF_KIND_PORT, "ethernet"},
        {LSM_IF_KIND_VIRTUAL_PORT, "virtual"},
        {LSM_IF_KIND_AGGREGATE, "aggregate"},
        {LSM_IF_KIND_BRIDGE, "bridge"},
        {LSM_IF_KIND_LOOPBACK, "loopback"},
        {LSM_IF_KIND_VRF, "vrf"},
        {LSM_IF_KIND_TUNNEL, "tunnel"},
    };
    for (const Word &word : WORDS)
        if ((kinds & word.kind) != 0)
            return word.text;
    return "other";
}

void show_running_config(struct_command_data_block *record)
{
    write_config_text(record, false);
}

void show_running_config_all(struct_command_data_block *record)
{
    write_config_text(record, true);
}

void show_startup_config(struct_command_data_block *record)
{
    cli_session_t &command = command_of(record);
    const ConfigText file = read_config_file(startup_config_path());
    if (file.text) {
        command.write(*file.text);
        return;
    }
    command.write(file.missing ? "% There is no startup configuration\n" : "% " + file.error + "\n");
    command.fail();
}

void show_interfaces(struct_command_data_block *record)
{
    for (const lsm_if_record_t &interface : lsm_if_walk())
        if (offered(interface))
            command_of(record).write(describe(interface));
}

void show_one_interface(struct_command_data_block *record)
{
    const auto wanted = static_cast<IFINDEX>(record->int_var[0]);
    for (const lsm_if_record_t &interface : lsm_if_walk())
        if (interface.ifx == wanted)
            command_of(record).write(describe(interface));
}

void show_interfaces_brief(struct_command_data_block *record)
{
    cli_session_t &command = command_of(record);
    command.write(brief_row("Interface", "Admin", "Oper", "Speed", "Type", "Address"));
    for (const lsm_if_record_t &interface : lsm_if_walk())
        if (offered(interface))
            command.write(brief_row(interface.name, interface.admin_up ? "up" : "down",
                                    interface.oper_up ? "up" : "down", speed_text(interface),
                                    interface_type_word(interface.kind),
                                    interface.addrs.empty() ? "" : address_text(interface.addrs.front())));
}

void show_debugging(struct_command_data_block *record)
{
    cli_session_t &command = command_of(record);
    sys_show_debug([&](std::string_view text) { command.write(text); });
}

void show_version(struct_command_data_block *record)
{
    cli_session_t &command = command_of(record);
    command.write("sFlow agent, version " SFLOW_VERSION "\n");
    utsname system{};
    if (uname(&system) == 0)
        command.write(std::string(system.sysname) + " " + system.release + " " + system.machine + ", host " +
                      system.nodename + "\n");
    command.write(command.core().saved() ? "The running configuration is saved\n"
                                         : "The running configuration is not saved\n");
}

} // namespace cli
