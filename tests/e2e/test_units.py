"""Both daemons with no more privileges than their systemd units leave them."""
import shutil

import pytest

from harness import units
from harness.addresses import HOST4, SWITCH4
from harness.wait import wait_for

pytestmark = pytest.mark.skipif(shutil.which("setpriv") is None, reason="setpriv is not installed")


@pytest.mark.parametrize("setting", ["sflow enable", "sflow enable ingress by-snoop", "sflow enable ingress acl 5"])
def test_packets_and_counters_are_exported_with_the_capabilities_of_the_units(link, setting):
    collector = link.collector()
    link.sandbox.wrapper = units.confinement("sflowd")
    daemon = link.sandbox.start_sflowd()
    link.sandbox.wrapper = units.confinement("sflow-samplingd")
    service = link.sandbox.start("sflow-samplingd")
    link.sandbox.ready()
    for process, name in ((daemon, "sflowd"), (service, "sflow-samplingd")):
        assert units.effective_capabilities(process.pid) == len(units.capabilities(name))
    link.sandbox.configure(f"sflow agent address {SWITCH4}", f"sflow collector 1 destination {HOST4} 6343",
                           "sflow sampling-rate 4096", "sflow counter interval 3",
                           "ip access-list standard 5", "permit any", "interface port1",
                           "sflow flow collector 1", "sflow counter collector 1", setting)
    wait_for(lambda: f" {setting}\n" in link.sandbox.running_config(), "the setting")
    link.generate(200000)
    collector.wait_flows(1)
    collector.wait_counters(1)
