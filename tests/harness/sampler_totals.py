"""The sampling service's own account of its samplers, which it writes into its log when asked."""
import collections
import re

from harness.wait import wait_for

Totals = collections.namedtuple("Totals", "on pool taken dropped")

LINE = re.compile(r"sampler (\S+ \S+): (on|off), .* pool (\d+), taken (\d+), dropped (\d+)")
LAST = re.compile(r": connected, sent \d+ samples .*\n")


def sampler_totals(service, ask):
    """Totals of each sampler, by names such as "port1 ingress"; `ask` has the service write them, when it is there."""
    before = len(LAST.findall(service.log()))

    def told():
        ask()
        return len(LAST.findall(service.log())) > before

    wait_for(told, "the service's information", pause=0.1)
    log = service.log()
    *_, end = LAST.finditer(log)
    told_last = log[:end.start()].rpartition(": capacity ")[2]
    return {name: Totals(on == "on", *map(int, numbers)) for name, on, *numbers in LINE.findall(told_last)}
