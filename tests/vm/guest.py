"""Runs a command in a guest: qemu, one of Debian's kernels, this machine's files read-only under a file system in
memory. What the command leaves in the folder $EXCHANGE stays; everything else goes with the guest.

    guest.py [--kernel 6.1] [--seconds N] [--exchange FOLDER] COMMAND…

qemu translates instructions (TCG): stock kernels do not boot under every nested KVM, and a tier that needs KVM would
run nearly nowhere. The guest is about ten times slower than the machine.
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

import kernels

QEMU = "qemu-system-x86_64"
MEMORY_MB, CPUS = 1536, 2
#: How long a guest may take until it runs the command, and how many are started until one does.
BOOT_SECONDS, BOOTS = 90, 3
CONSOLE_LINES = 60
#: Status of a command that was not done in time.
LATE = -1


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
    # A machine that is busy makes a guest's clocks look broken: the kernel must not judge them, nor its own delays.
    parameters = ("console=ttyS0 quiet loglevel=4 panic=-1 mitigations=off cryptomgr.notests no_timer_check tsc=reliable "
                  f"nowatchdog rcupdate.rcu_cpu_stall_suppress=1 vm.kernel={folder}")
    return [QEMU, "-M", "q35", "-accel", "tcg,thread=multi", "-cpu", "max", "-smp", str(CPUS), "-m", str(MEMORY_MB),
            "-nodefaults", "-nographic", "-no-reboot", "-device", "virtio-rng-pci", "-kernel", str(folder / "vmlinux"),
            "-initrd", str(initrd), "-serial", f"file:{console}", "-serial", "stdio", "-append", parameters,
            *_share("root", "/", ",readonly=on"), *_share("exchange", exchange)]


def _wait(guest, seconds, begun):
    """Waits for the guest to end: how it did, should the command not have come to its own end. None: time is over."""
    started = time.monotonic()
    while True:
        try:
            return f"qemu ended with status {guest.wait(1)} before the command did"
        except subprocess.TimeoutExpired:
            passed = time.monotonic() - started
        if passed > seconds:
            return None
        if passed > BOOT_SECONDS and not begun.exists():
            return f"the guest had not begun after {BOOT_SECONDS} s"


def _last_lines(console):
    """The end of what the guest's kernel said; terminal control sequences lose their control characters."""
    text = console.read_text(errors="replace") if console.exists() else ""
    return ["".join(filter(str.isprintable, line)) for line in text.splitlines()[-CONSOLE_LINES:]]


def end_in_order():
    """Has the signal that ends this process end its guest too."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))


def run(kernel, command, exchange, seconds):
    """Runs `command` (shell lines) in the current folder of a guest; the folder `exchange` must exist.

    Returns its status and None, LATE and the reason when that took longer than `seconds`, or None and the reason when
    the guest did not come up or died. A guest that does not come up gets another chance: nothing has been run in it."""
    folder = kernels.prepared(kernel)
    exchange = pathlib.Path(exchange)
    status_path, begun = exchange / "status", exchange / "begun"
    for path in (status_path, begun):
        path.unlink(missing_ok=True)
    (exchange / "command").write_text(f"export EXCHANGE=/run/exchange\n: > $EXCHANGE/begun\n"
                                      f"cd {shlex.quote(os.getcwd())} || exit 125\n{command}\n")
    with tempfile.TemporaryDirectory(prefix="vm-") as scratch:
        console = pathlib.Path(scratch) / "console"
        initrd = kernels.make_initrd(folder, pathlib.Path(scratch))
        for _ in range(BOOTS):
            guest = subprocess.Popen(_command_line(folder, initrd, console, exchange), stdin=subprocess.DEVNULL,
                                     stderr=subprocess.STDOUT)
            try:
                reason = _wait(guest, seconds, begun)
            finally:
                guest.kill()
                guest.wait()
            if begun.exists():
                break
        if status_path.exists() and (text := status_path.read_text().strip()):
            return int(text), None
        status = LATE if reason is None and begun.exists() else None
        reason = reason or f"the guest was not done after {seconds} s"
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
                                 arguments.seconds)
    except kernels.Unavailable as error:
        sys.exit(f"guest: {error}")
    if reason:
        sys.exit(f"guest: {reason}")
    return status


if __name__ == "__main__":
    sys.exit(main())
