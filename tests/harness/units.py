"""The systemd units of the daemons, as their templates in packaging/ have them."""
import configparser
import pathlib

TEMPLATES = pathlib.Path(__file__).parents[2] / "packaging/systemd"


def read(path):
    """Settings of the [Service] section."""
    parser = configparser.RawConfigParser(strict=True)
    parser.optionxform = str
    parser.read(path)
    return parser["Service"]


def capabilities(name):
    return read(TEMPLATES / f"{name}.service.in")["CapabilityBoundingSet"].split()


def confinement(name):
    """The beginning of a command line that leaves a program the capabilities of its unit."""
    bounding = "".join(f",+{word.lower().removeprefix('cap_')}" for word in capabilities(name))
    return ["setpriv", "--no-new-privs", "--inh-caps=-all", f"--bounding-set=-all{bounding}"]


def effective_capabilities(pid):
    """How many capabilities a process has."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return bin(int(next(line for line in status.splitlines() if line.startswith("CapEff")).split()[1], 16)).count("1")
