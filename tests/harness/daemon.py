"""sflowd and sflow-samplingd as a test starts them, and commands given through sflow-cli."""
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile

from harness.wait import PATIENCE, wait_for

BIN = pathlib.Path(os.environ.get("SFLOW_BIN", pathlib.Path(__file__).parents[2] / "build/release/bin")).resolve()


class CommandResult:
    def __init__(self, done):
        self.status = done.returncode
        self.output = done.stdout
        self.errors = done.stderr

    def __repr__(self):
        return f"status {self.status}\n{self.output}{self.errors}"


class Process:
    """A program of the project in a namespace, its standard error in a file of the sandbox."""

    def __init__(self, sandbox, name, *arguments):
        self.name = name
        self.log_path = sandbox.path / f"{name}.log"
        self._log = open(self.log_path, "ab")
        command = [*sandbox.wrapper, str(BIN / name), *map(str, arguments)]
        if sandbox.namespace:
            command = sandbox.namespace.command(*command)
        self.popen = subprocess.Popen(command, env=sandbox.environment, stdin=subprocess.DEVNULL, stdout=self._log,
                                      stderr=self._log)

    @property
    def pid(self):
        return self.popen.pid

    def log(self):
        return self.log_path.read_text(errors="replace")

    def running(self):
        return self.popen.poll() is None

    def wait(self, seconds=PATIENCE):
        return self.popen.wait(seconds)

    def stop(self, how=signal.SIGKILL):
        """Ends the process; returns its status."""
        if self.running():
            self.popen.send_signal(how)
        try:
            return self.popen.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.popen.kill()
            return self.popen.wait(PATIENCE)

    def close(self):
        self.stop()
        self._log.close()
        found = [line for line in self.log().splitlines() if "Sanitizer" in line or "runtime error:" in line]
        assert not found, f"{self.name}: {found[0]}\n{self.log()}"


class Sandbox:
    """A TMPDIR and a configuration folder of their own for one set of daemons in one namespace."""

    def __init__(self, namespace=None):
        self.path = pathlib.Path(tempfile.mkdtemp(prefix="sft", dir="/tmp"))
        self.config = self.path / "etc"
        self.config.mkdir()
        (self.config / "platform.toml").write_text('[syslog]\ntarget = "stderr"\n')
        self.namespace = namespace
        self.environment = {**os.environ, "TMPDIR": str(self.path), "SFLOW_CONFIG_DIR": str(self.config)}
        self.processes = []
        self._small_disks = []
        self.wrapper = []    # words in front of the programs started from here on

    @property
    def domain_socket(self):
        return str(self.path / "sflow/domain_socket")

    def debug_file(self):
        path = self.path / "sflow/app_debug"
        return path.read_text(errors="replace") if path.exists() else ""

    def start(self, name, *arguments):
        process = Process(self, name, *arguments)
        self.processes.append(process)
        return process

    def start_sflowd(self):
        process = self.start("sflowd")
        wait_for(lambda: os.path.exists(self.domain_socket) or not process.running(), "the domain socket")
        assert process.running(), f"sflowd ended with status {process.wait()}:\n{process.log()}{self.debug_file()}"
        return process

    def cli(self, *commands, wait=None, stdin=None):
        """Runs commands through `sflow-cli -c`; returns a CommandResult."""
        words = [str(BIN / "sflow-cli")]
        if wait is not None:
            words += ["--wait", str(wait)]
        for command in commands:
            words += ["-c", command]
        return CommandResult(subprocess.run(words, env=self.environment, capture_output=True, text=True, input=stdin,
                                            timeout=2 * PATIENCE))

    def configure(self, *commands):
        """Runs commands in configuration mode; every one must succeed."""
        result = self.cli("configure terminal", *commands)
        assert result.status == 0, f"{commands}: {result}"
        return result

    def ready(self, seconds=PATIENCE):
        """Waits until the daemon accepts configuration."""
        result = self.cli("show version", wait=seconds)
        assert result.status == 0, f"not ready: {result}\n{self.debug_file()}"

    def wait_interface(self, name):
        """Waits until the daemon knows the interface of this name that there is now, not one that had it before."""
        index = self.namespace.ifindex(name)
        wait_for(lambda: f"  Index {index}, " in self.cli(f"show interfaces {name}").output, f"interface {name}")

    def running_config(self):
        result = self.cli("show running-config")
        assert result.status == 0, result
        return result.output

    def use_small_disk(self, folder):
        """Gives a folder of the sandbox a small file system of its own; before any daemon starts."""
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", folder], check=True)
        self._small_disks.append(folder)

    def config_sections(self):
        """The running configuration: its global lines under "", the lines of each interface under its name; sorted."""
        found = {"": []}
        name = ""
        for line in self.running_config().splitlines():
            if line.startswith("interface "):
                name = line.removeprefix("interface ")
                found[name] = []
            elif line == "!":
                name = ""
            elif line.strip():
                found[name].append(line.strip())
        return {name: sorted(lines) for name, lines in found.items()}

    def use_small_config_disk(self):
        self.use_small_disk(self.config)

    @staticmethod
    def fill_disk(folder):
        with open(folder / "filler", "wb", buffering=0) as filler:
            try:
                while True:
                    filler.write(bytes(4096))
            except OSError:
                pass    # full

    def fill_config_disk(self):
        self.fill_disk(self.config)

    def close(self):
        try:
            for process in reversed(self.processes):
                process.close()
        finally:
            for process in self.processes:
                process.stop()
            for folder in self._small_disks:
                subprocess.run(["umount", "-l", folder], check=True)
            shutil.rmtree(self.path, ignore_errors=True)
