"""Interfaces that come and go by the hundred, sampled and polled, while another one carries traffic."""
import struct

from harness.addresses import HOST4, SWITCH4
from harness.wait import wait_for

ROUNDS = 4
PORTS = 250
GROWTH_KB = 4096    # what the allocators may keep between rounds; a node, a program or a session kept is far more
IMAGE_BYTES, IFX_OFFSET = 168, 16    # of the daemon's counter cache file


def resident_kb(process):
    with open(f"/proc/{process.pid}/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))


def test_a_thousand_interfaces_come_and_go_under_traffic(link, tmp_path):
    link.start()
    collector = link.collector()
    link.sandbox.configure(f"sflow agent address {SWITCH4}", f"sflow collector 1 destination {HOST4} 6343",
                           "sflow counter interval 3", "sflow sampling-rate 4096", "interface port1",
                           "sflow flow collector 1", "sflow counter collector 1", "sflow enable")
    wait_for(lambda: " sflow enable\n" in link.sandbox.running_config(), "the settings")
    settled = link.sandbox.running_config()
    cache = link.sandbox.path / "sflow/tmp_file"
    names = [f"w{i}" for i in range(PORTS)]
    make, remove = tmp_path / "make", tmp_path / "remove"
    make.write_text("".join(f"link add {name} type veth peer name x{name}\nlink set {name} up\n" for name in names))
    remove.write_text("".join(f"link del {name}\n" for name in names))
    settings = [line for name in names
                for line in (f"interface {name}", "sflow counter collector 1", "sflow enable ingress")]

    resident = []
    for _ in range(ROUNDS):
        link.switch.run("ip", "-batch", make)
        indexes = {link.switch.ifindex(name) for name in (names[0], names[-1])}
        wait_for(lambda: names[-1] in link.sandbox.cli("show interfaces brief").output, "the last interface")
        link.sandbox.configure(*settings)
        link.generate(20_000)
        wait_for(lambda: indexes <= {sample.source_index for sample in collector.counters()},
                 "the new interfaces to be exported")
        link.switch.run("ip", "-batch", remove)
        link.generate(20_000)
        wait_for(lambda: link.sandbox.running_config() == settled, "the interfaces to be forgotten")
        resident.append([resident_kb(process) for process in (link.daemon, link.service)])

    for first, last in zip(resident[0], resident[-1]):
        assert last - first < GROWTH_KB, resident
    # Nothing that is gone has a counter base.
    def bases():
        images = cache.read_bytes() if cache.exists() else b""
        whole = len(images) - len(images) % IMAGE_BYTES
        return {struct.unpack_from("=I", images, at + IFX_OFFSET)[0] for at in range(0, whole, IMAGE_BYTES)}

    wait_for(lambda: bases() <= {link.index}, lambda: f"port1's base only, there are {bases()}")
    collector.clear()
    wait_for(lambda: any(sample.source_index == link.index for sample in collector.counters()),
             "port1 to be polled still")
