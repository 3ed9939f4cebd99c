"""What interfaces there are: as the kernel tells it, and as the daemon shows it, in the same form."""
import json
import re

SCOPES = {"global": 0, "site": 200, "link": 253, "host": 254}


def _usable(address):
    return not address.get("dadfailed") and (not address.get("tentative") or address.get("optimistic", False))


def _rank(address):
    """The daemon's order of preference; addresses of one rank stay in the kernel's order."""
    scope = SCOPES.get(address["scope"], 255)
    if address["family"] == "inet":
        return 0, address.get("secondary", False), scope, False
    return 0 if _usable(address) else 1, scope, address.get("deprecated", False), address.get("temporary", False)


def kernel_links(namespace):
    """ip(8)'s description of every interface of the namespace, by index."""
    return {link["ifindex"]: link for link in json.loads(namespace.ip("-j", "-d", "addr", "show"))}


def preferred(link, family):
    """Addresses of one family ("inet" or "inet6"), the first choice in front; those not to be used are left out."""
    addresses = [address for address in link["addr_info"] if address["family"] == family and _usable(address)]
    return [address["local"] for address in sorted(addresses, key=_rank)]


def kernel_view(namespace):
    """Name, state, size, hardware address, master and addresses of every interface, by index."""
    links = kernel_links(namespace)
    view = {}
    for index, link in links.items():
        addresses = [address for family in ("inet", "inet6")
                     for address in sorted((a for a in link["addr_info"] if a["family"] == family), key=_rank)]
        admin = "UP" in link["flags"]
        view[index] = (link["ifname"], admin, admin and "NO-CARRIER" not in link["flags"], link["mtu"],
                       link.get("address", "00:00:00:00:00:00"), link.get("master", ""),
                       [f"{address['local']}/{address['prefixlen']}" for address in addresses])
    return view


def daemon_view(sandbox):
    """The same from `show interfaces`."""
    result = sandbox.cli("show interfaces")
    assert result.status == 0, result
    view = {}
    for text in re.split(r"^(?=\S)", result.output, flags=re.MULTILINE)[1:]:
        name, admin, line = re.match(r"(\S+) is (up|administratively down), line protocol is (up|down)\n",
                                     text).groups()
        index, mac = re.search(r"  Index (\d+), type .*, address (\S+)\n", text).groups()
        member = re.search(r", member of (\S+)\n", text)
        view[int(index)] = (name, admin == "up", line == "up", int(re.search(r"MTU (\d+)", text)[1]), mac,
                            member[1] if member else "", re.findall(r"address is (\S+)", text))
    return view
