#include "desk_sequences.h"

namespace desk
{

std::vector<std::string> Sequences::sequence()
{
    std::vector<std::string> steps;
    for (int count = number(1, 25); count > 0; --count)
        add_step(steps);
    return steps;
}

std::string Sequences::one_of(Words words)
{
    return words.begin()[number(0, static_cast<int>(words.size()) - 1)];
}

std::string Sequences::interface()
{
    return one_of({"port1", "port2", "port3", "bond0", "port1.5", "port5", "ra", "ma1"});
}

std::string Sequences::any_interface()
{
    return chance(85) ? interface() : one_of({"port1.6", "port4", "br0", "tun7", "lo", "red", "nosuch"});
}

std::string Sequences::ipv4()
{
    return one_of({"198.51.100.1", "198.51.100.2", "198.51.100.3", "10.9.9.1", "127.0.0.1"});
}

std::string Sequences::ipv6()
{
    return one_of({"2001:db8::1", "2001:db8::2", "fe80::9", "::ffff:10.1.1.1", "ff02::1"});
}

std::string Sequences::description()
{
    if (chance(10))
        return std::string(static_cast<std::size_t>(number(63, 66)), 'd');
    return one_of({"rack-4", "source", "via", "oob", "description", "no", "|", "a|b", "!", "#1", "\"quoted\"",
                   "gr\xc3\xb6\xc3\x9f"
                   "e",
                   "%s%d%n", "\\"});
}

std::string Sequences::destination()
{
    const bool is_ipv6 = chance(40);
    std::string line =
        " destination " + (is_ipv6 ? "ipv6 " + ipv6() : ipv4()) + one_of({" 1", " 6343", " 65535"});
    if (chance(50))
        line += management_stays_ && chance(30)
                    ? " oob via ma1"
                    : one_of({" vrf red", " vrf mgmt", " vrf nosuch", " oob", " oob via ma2"});
    if (chance(40))
        line += " description " + description();
    if (chance(40))
        line += chance(50) ? " source address " + (is_ipv6 ? ipv6() : ipv4())
                           : " source interface " + any_interface();
    return line;
}

std::string Sequences::collector()
{
    const std::string id = one_of({"1", "2"});
    const int kind = number(1, 8);
    if (kind == 1)
        return "sflow collector " + id + " max-datagram-size " + one_of({"200", "500", "1400", "9000"});
    if (kind == 2)
        return "no sflow collector " + id + " max-datagram-size";
    if (kind == 3 && !destinations_.empty())
        return "no " +
               destinations_[static_cast<std::size_t>(number(0, static_cast<int>(destinations_.size()) - 1))];
    destinations_.push_back("sflow collector " + id + destination());
    return destinations_.back();
}

std::string Sequences::agent_or_source()
{
    switch (number(1, 8)) {
    case 1:
        return "sflow agent address " + (chance(50) ? ipv4() : "ipv6 " + ipv6());
    case 2:
        return "sflow agent interface " + one_of({"", "ipv6 "}) + any_interface();
    case 3:
        return one_of({"no sflow agent address", "no sflow agent interface"});
    case 4:
    case 5:
        return "sflow source address " + (chance(50) ? ipv4() : "ipv6 " + ipv6());
    case 6:
        return "sflow source interface " + one_of({"", "ipv6 "}) + any_interface();
    case 7:
        return "no sflow source " +
               (chance(50) ? "address ipv6 " + ipv6() : "interface ipv6 " + any_interface());
    default:
        return one_of({"no sflow source address", "no sflow source interface"});
    }
}

std::string Sequences::parameter()
{
    return one_of({"sflow flow max-header 18", "sflow flow max-header 61", "sflow flow max-header 64",
                   "sflow flow max-header 256", "no sflow flow max-header", "sflow counter interval 3",
                   "sflow counter interval 30", "sflow counter interval 2147483647",
                   "no sflow counter interval", "sflow sampling-rate 4096", "sflow sampling-rate 8192",
                   "sflow sampling-rate 16777215", "no sflow sampling-rate"});
}

std::string Sequences::interface_command()
{
    const std::string no = chance(30) ? "no " : "";
    if (chance(35))
        return no + one_of({"sflow flow collector", "sflow counter collector"}) +
               (no.empty() ? one_of({" 1", " 2"}) : "");
    return no + "sflow enable" +
           one_of({"", " ingress", " egress", " ingress by-snoop", " ingress acl 5", " ingress acl 6",
                   " ingress acl 7", " ingress acl web", " ingress acl voice", " ingress acl 99",
                   " ingress acl nosuch"});
}

std::string Sequences::list()
{
    return one_of({"ip access-list standard 5", "ip access-list standard 6", "ip access-list extended 7",
                   "ip access-list extended web", "ipv6 access-list voice"});
}

void Sequences::edit_list(std::vector<std::string> &steps)
{
    const std::string which = list();
    if (chance(15)) {
        steps.push_back("no " + which);
        return;
    }
    steps.push_back(which);
    for (int count = number(0, 3); count > 0; --count)
        steps.push_back(
            one_of({"permit any", "deny host 192.0.2.1", "30 permit 192.0.2.0/24",
                    "permit tcp any any eq 443", "20 deny udp any range 1000 2000 any dscp 46",
                    "15 permit ip any any", "no 20", "no permit any", "remark the web servers", "5 remark !",
                    "resequence", "permit ipv6 2001:db8::/32 any", "permit tcp any any established"}));
    steps.push_back("exit");
}

// Two things are left out, because what they lead to cannot be entered: addresses that come are no collector's (an
// agent address that is learnt later than a collector of the same address is accepted), and what a collector is reached
// through stays in its VRF (two collectors of the same address may then no longer be told apart).
std::string Sequences::event()
{
    if (!management_stays_ && chance(20))
        return one_of({"@remove mgmt", "@move ma1", "@move ma1 mgmt"});
    return one_of({"@refuse 0",
                   "@refuse 0",
                   "@refuse 1",
                   "@disconnect",
                   "@connect",
                   "@connect",
                   "@capacity fff",
                   "@capacity fff",
                   "@capacity 3",
                   "@remove port1",
                   "@remove bond0",
                   "@remove red",
                   "@move ma1 red",
                   "@move port1 red",
                   "@restore",
                   "@restore",
                   "@add port3 10.0.3.1/24",
                   "@delete port3 10.0.3.1/24",
                   "@add port1 10.0.1.1/24",
                   "@delete port1 10.0.1.1/24"});
}

void Sequences::add_step(std::vector<std::string> &steps)
{
    const int kind = number(1, 100);
    if (kind <= 20) {
        steps.push_back(collector());
    } else if (kind <= 25) {
        edit_list(steps);
    } else if (kind <= 40) {
        steps.push_back(agent_or_source());
    } else if (kind <= 48) {
        steps.push_back(parameter());
    } else if (kind <= 90) {
        steps.push_back(chance(85) ? "interface " + any_interface()
                                   : "interface range " + interface() + ", " + interface());
        for (int count = number(1, 4); count > 0; --count)
            steps.push_back(interface_command());
        steps.push_back("exit");
    } else if (kind <= 92) {
        steps.push_back("default interface " + interface());
    } else if (with_events_) {
        steps.push_back(event());
    }
}

} // namespace desk
