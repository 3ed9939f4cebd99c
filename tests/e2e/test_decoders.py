"""Independent decoders read what the agent sends: tshark, nfdump's sfcapd, pmacct's sfacctd.

A scripted sampling service commands the real sflowd, so that every count is known exactly.
"""
import json
import os
import re
import signal
import subprocess

import pytest

from harness.collector import Collector
from harness.domain_socket import ServiceEnd, counter_report, flow_record
from harness.wait import PATIENCE, wait_for

from harness.addresses import HOST4, HOST6, SWITCH4, SWITCH6

FLOWS, REPORTS = 40, 5


def ipv4_udp(number):
    """An Ethernet frame with an IPv4 UDP packet whose source port is 1000 + `number`."""
    payload = bytes(100)
    udp = (1000 + number).to_bytes(2, "big") + (53535).to_bytes(2, "big") + (8 + len(payload)).to_bytes(2, "big") + b"\0\0"
    total = 20 + len(udp) + len(payload)
    header = bytearray(b"\x45\0" + total.to_bytes(2, "big") + b"\0\1\x40\0\x40\x11\0\0" + bytes([192, 0, 2, 1, 192, 0, 2, 2]))
    words = sum(int.from_bytes(header[at:at + 2], "big") for at in range(0, 20, 2))
    words = (words & 0xFFFF) + (words >> 16)
    header[10:12] = (0xFFFF - ((words & 0xFFFF) + (words >> 16))).to_bytes(2, "big")
    return b"\2\0\0\0\0\2\2\0\0\0\0\1\x08\0" + bytes(header) + udp + payload


@pytest.fixture(params=[(SWITCH4, HOST4), (SWITCH6, HOST4), (SWITCH4, HOST6), (SWITCH6, HOST6)],
                ids=["v4-agent-v4-collector", "v6-agent-v4-collector", "v4-agent-v6-collector", "v6-agent-v6-collector"])
def export(request, link):
    """A configured daemon, and a function that has it export FLOWS flow samples and REPORTS counters samples."""
    agent, collector = request.param
    words = {True: "ipv6 "}
    link.sandbox.start_sflowd()
    service = ServiceEnd(link.sandbox.domain_socket).connect()
    link.sandbox.ready()
    link.sandbox.configure(
        f"sflow agent address {words.get(':' in agent, '')}{agent}",
        f"sflow collector 1 destination {words.get(':' in collector, '')}{collector} 6343", "sflow sampling-rate 4096",
        "sflow flow max-header 128", "interface port1", "sflow flow collector 1", "sflow counter collector 1",
        "sflow enable")
    wait_for(lambda: " sflow enable\n" in link.sandbox.running_config(), "the settings")

    def send():
        for number in range(FLOWS):
            frame = ipv4_udp(number)
            service.send(flow_record(frame[:128], link.index, ingress=link.index, frame_len=len(frame) + 4))
        for number in range(REPORTS):
            service.send(counter_report(link.index, {"ifInOctets": 1000 * number}))
        wait_for(lambda: f"sflow export flow num:{FLOWS}\n" in link.sandbox.cli("show sflow stats").output and
                 f"sflow export counter num:{REPORTS}\n" in link.sandbox.cli("show sflow stats").output, "the export")

    yield agent, collector, send
    service.disconnect()


def stop(process):
    process.send_signal(signal.SIGTERM)
    process.wait(PATIENCE)


def capture(link, path):
    """tcpdump-like: tshark writes the collector's link into a file; ready when it says so."""
    process = link.host.popen("tshark", "-q", "-n", "-i", "coll0", "-f", "udp dst port 6343", "-w", path,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    wait_for(lambda: os.path.exists(path) and os.path.getsize(path) > 0, "the capture file")
    return process


def test_tshark_finds_no_malformed_or_unknown_field(link, export, tmp_path):
    agent, collector, send = export
    listener = Collector(link.host, collector)
    path = tmp_path / "capture.pcapng"
    process = capture(link, path)
    try:
        send()
        wait_for(lambda: len(listener.flows()) == FLOWS and len(listener.counters()) == REPORTS, "the datagrams")
        sent = len(listener.raw)
        wait_for(lambda: count_packets(path) >= sent, "the capture")
    finally:
        stop(process)
        listener.close()
    read = ["tshark", "-r", str(path), "-o", "sflow.enable_dissection:FALSE"]
    text = subprocess.run([*read, "-V"], capture_output=True, text=True, check=True).stdout
    for word in ("Malformed", "Unknown", "unknown enterprise", "Invalid", "Expert Info (Error"):
        assert word not in text.replace("Input Unknown Protocol Packets", ""), word
    fields = ("sflow_245.version", "sflow_245.agent", "sflow_245.agent.v6", "sflow_245.numsamples", "sflow_245.sampletype",
              "sflow.flow_sample.sampling_rate", "sflow_245.header.frame_length", "sflow_245.header_protocol")
    rows = [row.split("\t") for row in subprocess.run(
        [*read, "-T", "fields", *(word for field in fields for word in ("-e", field))], capture_output=True, text=True,
        check=True).stdout.splitlines()]
    assert {row[0] for row in rows} == {"5"}
    assert {row[1] or row[2] for row in rows} == {agent}
    kinds = [kind for row in rows for kind in row[4].split(",")]
    assert (kinds.count("3"), kinds.count("2"), len(kinds)) == (FLOWS, REPORTS, FLOWS + REPORTS)
    assert sum(int(row[3]) for row in rows) == FLOWS + REPORTS
    assert {rate for row in rows for rate in row[5].split(",") if rate} == {"4096"}
    assert {length for row in rows for length in row[6].split(",") if length} == {str(len(ipv4_udp(0)) + 4)}


def count_packets(path):
    done = subprocess.run(["tshark", "-r", str(path), "-T", "fields", "-e", "frame.number"], capture_output=True, text=True)
    return len(done.stdout.split())


def test_sfcapd_counts_every_flow_sample(link, export, tmp_path):
    agent, collector, send = export
    process = link.host.popen("sfcapd", "-w", tmp_path, "-b", collector, "-p", "6343", "-t", "60", "-I", "agent",
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    try:
        wait_for(lambda: collector in listening(link), "sfcapd to listen")
        send()
        sent = exported_packets(link)
        wait_for(lambda: datagrams_read(link) >= sent, "sfcapd to read every datagram")
    finally:
        stop(process)
    files = sorted(tmp_path.glob("nfcapd.*"))
    assert files, process.stdout.read()
    done = subprocess.run(["nfdump", "-q", "-R", str(tmp_path), "-o", "csv", "-6", "-N"], capture_output=True, text=True,
                          check=True)
    rows = [row.split(",") for row in done.stdout.splitlines() if "192.0.2.1" in row]
    assert len(rows) == FLOWS, done.stdout
    assert {int(row[5]) for row in rows} == {1000 + number for number in range(FLOWS)}


def exported_packets(link):
    return int(re.search(r"sflow export packet num:(\d+)", link.sandbox.cli("show sflow stats").output)[1])


def datagrams_read(link):
    """UDP datagrams, of both families, that programs of the host have taken from their sockets."""
    v4 = [line.split() for line in link.host.run("cat", "/proc/net/snmp").stdout.splitlines() if line.startswith("Udp:")]
    v6 = dict(line.split() for line in link.host.run("cat", "/proc/net/snmp6").stdout.splitlines())
    return int(dict(zip(*v4))["InDatagrams"]) + int(v6["Udp6InDatagrams"])


def listening(link):
    return link.host.run("ss", "-lun").stdout


def test_sfacctd_counts_every_flow_sample(link, export, tmp_path):
    agent, collector, send = export
    configuration = tmp_path / "sfacctd.conf"
    output = tmp_path / "out.json"
    configuration.write_text(
        f"daemonize: false\nsfacctd_ip: {collector}\nsfacctd_port: 6343\nplugins: print[flows]\n"
        "aggregate[flows]: src_host, dst_host, src_port, dst_port, proto, peer_src_ip\nprint_output[flows]: json\n"
        f"print_output_file[flows]: {output}\nprint_refresh_time[flows]: 2\nprint_output_file_append[flows]: true\n"
        f"sfacctd_renormalize: true\npidfile: {tmp_path}/pid\n")
    log = tmp_path / "log"
    with open(log, "wb") as sink:
        process = link.host.popen("sfacctd", "-f", configuration, stdout=sink, stderr=sink, start_new_session=True)
    try:
        wait_for(lambda: collector in listening(link), "sfacctd to listen")
        # Its plugin loses what comes before it is up.
        wait_for(lambda: b"JSON: setting object handlers" in log.read_bytes(), "sfacctd's plugin")
        send()

        def rows():
            text = output.read_text() if output.exists() else ""
            lines = text[:text.rfind("\n") + 1].splitlines()    # the last one may be on its way
            return [json.loads(line) for line in lines if line.startswith("{") and "port_src" in line]

        wait_for(lambda: len(rows()) >= FLOWS, "sfacctd's output")
        found = rows()
        assert {row["port_src"] for row in found} == {1000 + number for number in range(FLOWS)}
        # Renormalised by the sampling rate: each sample stands for 4096 packets.
        assert sum(row["packets"] for row in found) == FLOWS * 4096
        assert {row["peer_ip_src"] for row in found} == {agent}
    finally:
        os.killpg(process.pid, signal.SIGKILL)    # the plugin is a process of its own
        process.wait(PATIENCE)


KERNEL_FIELDS = {"ifinoct": ("rx", "bytes"), "ifinpkt": ("rx", "packets"), "ifoutoct": ("tx", "bytes"),
                 "ifoutpkt": ("tx", "packets")}


def test_tshark_shows_the_counters_of_the_kernel(link, tmp_path):
    """Speed, duplex, states, octets and packets of a real interface, through the whole chain."""
    link.start()
    listener = link.collector()
    link.sandbox.configure(f"sflow agent address {SWITCH4}", f"sflow collector 1 destination {HOST4} 6343",
                           "sflow counter interval 3", "interface port1", "sflow counter collector 1", "sflow enable")
    link.generate(5_000)
    link.generate(3_000, "egress")
    path = tmp_path / "capture.pcapng"
    process = capture(link, path)
    try:
        count = len(listener.counters())
        wait_for(lambda: len(listener.counters()) >= count + 2, "reports of after the traffic")
        wait_for(lambda: count_packets(path) >= 2, "the capture")
    finally:
        stop(process)
    statistics = json.loads(link.switch.ip("-j", "-s", "link", "show", "port1"))[0]["stats64"]
    names = ["ifindex", "ifspeed", "ifdirection", "ifadmin_status", "ifoper_status", *KERNEL_FIELDS]
    rows = subprocess.run(["tshark", "-r", str(path), "-o", "sflow.enable_dissection:FALSE", "-Y", "sflow_245.ifindex",
                           "-T", "fields", *(word for name in names for word in ("-e", f"sflow_245.{name}"))],
                          capture_output=True, text=True, check=True).stdout.splitlines()
    last = dict(zip(names, rows[-1].split("\t")))
    expected = {"ifindex": str(link.index), "ifspeed": str(10**10), "ifdirection": "1", "ifadmin_status": "1",
                "ifoper_status": "1"}
    expected |= {name: str(statistics[way][what]) for name, (way, what) in KERNEL_FIELDS.items()}
    assert last == expected
    assert int(last["ifinpkt"]) >= 5_000 and int(last["ifoutpkt"]) >= 3_000
