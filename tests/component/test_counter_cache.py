"""Counter bases: what is exported keeps growing through kills, and no file at their place stops the daemon."""
import contextlib
import struct

import pytest

from harness.domain_socket import GENERIC_FIELDS, GENERIC_FORMAT, UPDATE_COUNTER, counter_report
from harness.wait import wait_for

IMAGE = struct.Struct("=16xI4x" + GENERIC_FORMAT[1:] + "13I4x")
assert IMAGE.size == 168


def cache_file(stage):
    return stage.sandbox.path / "sflow/tmp_file"


def bases(stage):
    """The complete images of the file as (ifx, generic counters, Ethernet counters), in its order."""
    content = cache_file(stage).read_bytes() if cache_file(stage).is_file() else b""
    content = content[:len(content) // IMAGE.size * IMAGE.size]
    return [(ifx, dict(zip(GENERIC_FIELDS, values)), values[len(GENERIC_FIELDS):])
            for ifx, *values in IMAGE.iter_unpack(content)]


def octets(stage, index):
    return sum(generic["ifInOctets"] for ifx, generic, _ in bases(stage) if ifx == index)


def send_update(stage, index, **generic):
    # An update names its interface in the counters only.
    stage.service.send(counter_report(0, {"ifIndex": index, **generic}, kind=UPDATE_COUNTER))


def exporting(stage):
    return stage.export_to_collector()


def exported_octets(stage, index, reported):
    """What reaches the collector for a report of `reported` octets."""
    with contextlib.closing(stage.collector()) as sink:
        stage.service.send(counter_report(index, {"ifInOctets": reported}))
        return sink.wait_counters(1)[0].generic["ifInOctets"]


def test_updates_stand_in_the_file_and_are_added_to_every_report(ready):
    index = exporting(ready)
    other = ready.ifindex("port2")
    for ifx in (index, other, index):
        send_update(ready, ifx, ifInOctets=1000, ifOutErrors=3)
    wait_for(lambda: [(ifx, generic["ifInOctets"], generic["ifOutErrors"]) for ifx, generic, _ in bases(ready)] ==
             [(index, 2000, 6), (other, 1000, 3)], "all updates in the file")
    assert exported_octets(ready, index, 100) == 2100
    assert octets(ready, index) == 2000
    assert not (ready.sandbox.path / "sflow/tmp_file.new").exists()


def test_an_update_that_an_interface_does_not_live_to_see_leaves_no_base(ready):
    gone, there = ready.ifindex("port1"), ready.ifindex("port2")
    exporting(ready)
    send_update(ready, gone, ifInOctets=1000)
    wait_for(lambda: octets(ready, gone) == 1000, "the base in the file")
    ready.namespace.ip("link", "del", "port1")
    wait_for(lambda: not bases(ready), "the end of the interface")
    send_update(ready, gone, ifInOctets=2000)
    send_update(ready, there, ifInOctets=5)
    wait_for(lambda: octets(ready, there) == 5, "the later update in the file")
    assert [ifx for ifx, *_ in bases(ready)] == [there]


@pytest.mark.parametrize("seen", [100, 5000, 20000])
def test_a_killed_daemon_goes_on_where_its_file_ends(stage, seen):
    stage.ready()
    index = exporting(stage)
    others = [stage.ifindex(name) for name in ("port2", "port3")]
    for _ in range(300):
        for ifx in (index, *others):
            send_update(stage, ifx, ifInOctets=100, ifInErrors=1)
    wait_for(lambda: octets(stage, index) >= seen, f"{seen} octets in the file")
    stage.daemon.stop()
    stage.service.disconnect()

    kept = {ifx: generic for ifx, generic, _ in bases(stage)}
    assert len(kept) == len(bases(stage)), "no interface twice"
    assert kept[index]["ifInOctets"] >= seen
    for generic in kept.values():
        assert generic["ifInOctets"] % 100 == 0
        assert abs(generic["ifInOctets"] // 100 - generic["ifInErrors"]) <= 1
    stage.ready()
    exporting(stage)
    assert exported_octets(stage, index, 7) == kept[index]["ifInOctets"] + 7


FOREIGN = {
    "empty": b"",
    "one byte": b"x",
    "a byte short of an image": bytes(167),
    "text": b"interface port1\n sflow enable\n" * 20,
    "400 bytes": bytes(range(200)) * 2,
    "700 bytes of ones": b"\xff" * 700,
    "directory": None,
}


@pytest.mark.parametrize("name", FOREIGN)
def test_the_daemon_starts_with_anything_in_the_place_of_its_file(stage, name):
    cache_file(stage).parent.mkdir()
    if FOREIGN[name] is None:
        cache_file(stage).mkdir()
    else:
        cache_file(stage).write_bytes(FOREIGN[name])
    stage.ready()
    assert "read file fail" in stage.sandbox.debug_file()
    index = exporting(stage)
    send_update(stage, index, ifInOctets=1000)
    assert exported_octets(stage, index, 1) == 1001
    if FOREIGN[name] is not None:
        assert cache_file(stage).read_bytes()[-IMAGE.size:][16:20] == struct.pack("=I", index)
        assert len(cache_file(stage).read_bytes()) % IMAGE.size == 0


def test_a_full_disk_costs_the_file_and_nothing_else(stage):
    folder = cache_file(stage).parent
    folder.mkdir()
    stage.sandbox.use_small_disk(folder)
    stage.ready()
    stage.configure("end", "debug sflow conf")
    index = exporting(stage)
    stage.sandbox.fill_disk(folder)
    send_update(stage, index, ifInOctets=1000)
    wait_for(lambda: "sflow_poller_save_counter write fail" in stage.daemon.log(), "the failure in the log")
    assert exported_octets(stage, index, 1) == 1001
    assert octets(stage, index) == 0

    (folder / "filler").unlink()
    send_update(stage, stage.ifindex("port2"), ifInOctets=5)
    wait_for(lambda: len(bases(stage)) == 2 and octets(stage, index) == 1000, "both interfaces in the file")
