"""Runs a command in a guest: qemu, one of Debian's kernels, this machine's files read-only under a file system in
memory. What the command leaves in the folder $EXCHANGE stays; everything else goes with the guest.

    guest.py [--kernel 6.1] [--seconds N] [--exchange FOLDER] COMMAND…

qemu translates instructions (TCG): stock kernels do not boot under every nested KVM, and a tier that needs KVM would
run nearly nowhere. The guest is about ten times slower than the machine, but does not see it: its time is made of the
instructions that it has executed and of the time that it was idle, so that no clock and no time-out of its own depends
on how busy the machine is.
"""
import argparse
import os
import pathlib
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import typing

import kernels

QEMU = "qemu-system-x86_64"
MEMORY_MB = 1536
#: What translated code is slow at: instructions on many words, strings in one instruction, a fifth level of pages.
CPU = "max,-avx,-avx2,-erms,-fsrm,-la57"
#: One CPU, because several would wait for each other's interrupts while the machine runs something else. Its clocks
#: count 2 ns for an instruction: clocks of the machine's own are measured wrongly by a kernel that is held up while it
#: boots, and then all its waiting takes a multiple of the time for good.
CLOCK = ["-smp", "1", "-accel", "tcg,thread=single", "-icount", "shift=1,sleep=on"]
#: How long a guest may take until it runs the command, and how many are started until one does.
BOOT_SECONDS, BOOTS = 120, 2
CONSOLE_LINES = 60
#: Status of a command that did not end although it had the time, of one whose guest was too slow or stood still, of one
#: whose guest never came up, and of one whose guest died.
LATE, SLOW, DOWN, DEAD = -1, -2, -3, -4
#: Seconds without a sign of life after which a guest stands still. It gives one every second, but its seconds are long.
STILL_SECONDS = 300


class Limits(typing.NamedTuple):
    """Seconds until a command is asked to end and until its guest is given up, both since the guest was started, and
    those by the guest's own clock within which a command must have ended that was asked to."""
    over: float
    given_up: float
    own: float


def check():
    """Unavailable when no guest can run here."""
    if not shutil.which(QEMU):
        raise kernels.Unavailable(f"{QEMU} is not installed (Debian: qemu-system-x86)")
    if os.geteuid() != 0:
        raise kernels.Unavailable("the guest needs root, to read all of this machine's files")
    memory = dict(line.split(":") for line in pathlib.Path("/proc/meminfo").read_text().splitlines())
    available = int(memory["MemAvailable"].split()[0]) // 1024
    if available < MEMORY_MB + 256:
        raise kernels.Unavailable(f"{available} MB of memory are free, the guest takes {MEMORY_MB}")


def _share(tag, folder, options=""):
    return ["-fsdev", f"local,id={tag},path={folder},security_model=none,multidevs=remap{options}",
            "-device", f"virtio-9p-pci,fsdev={tag},mount_tag={tag}"]


def _command_line(folder, initrd, console, exchange):
    # Programs always at the same addresses (norandmaps) need not be translated again; nor must pages be cleared by one
    # long instruction (clearcpuid).
    parameters = ("console=ttyS0 quiet loglevel=4 panic=-1 mitigations=off cryptomgr.notests tsc=reliable nowatchdog "
                  f"norandmaps clearcpuid=rep_good vm.kernel={folder}")
    return [QEMU, "-M", "q35", *CLOCK, "-cpu", CPU, "-m", str(MEMORY_MB), "-nodefaults", "-nographic",
            "-no-reboot", "-device", "virtio-rng-pci", "-kernel", str(folder / "vmlinux"), "-initrd", str(initrd),
            "-serial", f"file:{console}", "-serial", "stdio", "-append", parameters,
            *_share("root", "/", ",readonly=on"), *_share("exchange", exchange)]


def _uptime(pulse):
    """By the guest's own clock, as it said last; 0 when it has not yet."""
    try:
        return float(pulse.read_text())
    except (FileNotFoundError, ValueError):
        return 0.0  # just being written


def wait_for_end(guest, limits, exchange):
    """Waits for the guest to end: a status and the reason, should the command not have come to its own end."""
    started = time.monotonic()
    begun, pulse, over = (exchange / name for name in ("begun", "pulse", "over"))
    uptime_over = 0
    while True:
        try:
            return DEAD, f"qemu ended with status {guest.wait(1)} before the command did"
        except subprocess.TimeoutExpired:
            passed = time.monotonic() - started
        if not begun.exists():
            if passed > BOOT_SECONDS:
                return DOWN, f"the guest had not begun after {BOOT_SECONDS} s"
            continue
        if passed > limits.over:
            over.touch()
            uptime_over = uptime_over or _uptime(pulse)
        if uptime_over and _uptime(pulse) > uptime_over + limits.own:
            return LATE, f"the command did not end within {limits.own} s of the guest's own"
        if pulse.exists() and time.time() - pulse.stat().st_mtime > STILL_SECONDS:
            return SLOW, f"the guest has done nothing for {STILL_SECONDS} s"
        if passed > limits.given_up:
            return SLOW, f"the guest was not done after {limits.given_up} s"


def _last_lines(console):
    """The end of what the guest's kernel said; terminal control sequences lose their control characters."""
    text = console.read_text(errors="replace") if console.exists() else ""
    return ["".join(filter(str.isprintable, line)) for line in text.splitlines()[-CONSOLE_LINES:]]


def end_in_order():
    """Has the signal that ends this process end its guest too."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))


def run(kernel, command, exchange, limits):
    """Runs `command` (shell lines) in the current folder of a guest; the folder `exchange` must exist.

    Returns its status and None, or LATE, SLOW, DOWN or DEAD and the reason. A guest that does not come up gets another
    chance: nothing has been run in it. Once `limits.over` has passed there is a file `over` in the exchange folder."""
    folder = kernels.prepared(kernel)
    exchange = pathlib.Path(exchange)
    status_path, begun = exchange / "status", exchange / "begun"
    for name in ("status", "begun", "pulse", "over"):
        (exchange / name).unlink(missing_ok=True)
    (exchange / "command").write_text(f"export EXCHANGE=/run/exchange\n: > $EXCHANGE/begun\n"
                                      f"cd {shlex.quote(os.getcwd())} || exit 125\n{command}\n")
    with tempfile.TemporaryDirectory(prefix="vm-") as scratch:
        console = pathlib.Path(scratch) / "console"
        initrd = kernels.make_initrd(folder, pathlib.Path(scratch))
        for _ in range(BOOTS):
            guest = subprocess.Popen(_command_line(folder, initrd, console, exchange), stdin=subprocess.DEVNULL,
                                     stderr=subprocess.STDOUT)
            try:
                status, reason = wait_for_end(guest, limits, exchange)
            finally:
                guest.kill()
                guest.wait()
            if begun.exists():
                break
            status = DOWN
        if status_path.exists() and (text := status_path.read_text().strip()):
            return int(text), None
        return status, "\n".join([reason, *(f"    console: {line}" for line in _last_lines(console))])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--kernel", choices=kernels.PACKAGES, default="6.1")
    parser.add_argument("--seconds", type=int, default=600)
    parser.add_argument("--exchange", type=pathlib.Path)
    parser.add_argument("command", nargs="+")
    arguments = parser.parse_args()
    end_in_order()
    try:
        check()
        with tempfile.TemporaryDirectory(prefix="vm-") as scratch:
            status, reason = run(arguments.kernel, shlex.join(arguments.command), arguments.exchange or scratch,
                                 Limits(arguments.seconds, arguments.seconds, arguments.seconds))
    except kernels.Unavailable as error:
        sys.exit(f"guest: {error}")
    if reason:
        sys.exit(f"guest: {reason}")
    return status


if __name__ == "__main__":
    sys.exit(main())
