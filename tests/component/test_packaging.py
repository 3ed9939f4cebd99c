"""What `cmake --install` puts on a machine: programs, units, man pages, the operators' group."""
import os
import pathlib
import shutil
import stat
import subprocess

import pytest

from harness import units
from harness.daemon import BIN
from harness.domain_socket import counter_report

PROGRAMS = {"bin/sflow-cli", "sbin/sflowd", "sbin/sflow-samplingd"}
UNITS = ("sflowd", "sflow-samplingd")
PAGES = ("man1/sflow-cli.1", "man5/sflow-startup-config.5", "man8/sflowd.8", "man8/sflow-samplingd.8")


def have(program):
    return pytest.mark.skipif(shutil.which(program) is None, reason=f"{program} is not installed")


def run(*words, **keywords):
    return subprocess.run([str(word) for word in words], capture_output=True, text=True, timeout=600, **keywords)


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    """A prefix into which everything has been installed."""
    prefix = tmp_path_factory.mktemp("prefix")
    done = run("cmake", "--install", BIN.parent, "--prefix", prefix)
    assert done.returncode == 0, done.stdout + done.stderr
    return prefix


def unit(prefix, name):
    return units.read(prefix / f"lib/systemd/system/{name}.service")


def test_every_file_is_installed(installed):
    files = {str(path.relative_to(installed)) for path in installed.rglob("*") if path.is_file()}
    expected = PROGRAMS | {f"lib/systemd/system/{name}.service" for name in UNITS}
    expected |= {f"share/man/{page}" for page in PAGES}
    expected |= {"lib/sysusers.d/sflow-agent.conf", "lib/tmpfiles.d/sflow-agent.conf",
                 "share/doc/sflow-agent/platform.toml", "share/doc/sflow-agent/configuration.md"}
    assert expected <= files, expected - files
    for program in PROGRAMS:
        assert os.access(installed / program, os.X_OK)


def test_an_installation_into_a_staging_folder_names_the_final_paths(tmp_path):
    done = run("cmake", "--install", BIN.parent, "--prefix", "/opt/sflow", env={**os.environ, "DESTDIR": str(tmp_path)})
    assert done.returncode == 0, done.stderr
    for name in UNITS:
        assert unit(tmp_path / "opt/sflow", name)["ExecStart"] == f"/opt/sflow/sbin/{name}"
    assert (tmp_path / "opt/sflow/sbin/sflowd").exists()


def test_installed_programs_run(installed):
    for program in PROGRAMS:
        done = run(installed / program, "--version")
        assert done.returncode == 0 and done.stdout.startswith(program.split("/")[1]), done


@have("systemd-analyze")
@pytest.mark.parametrize("name", UNITS)
def test_the_units_are_sound(installed, name):
    done = run("systemd-analyze", "verify", "--man=no", "--recursive-errors=no",
               installed / f"lib/systemd/system/{name}.service")
    assert done.returncode == 0, done.stderr
    assert name not in done.stderr, done.stderr


@have("systemd-analyze")
@pytest.mark.parametrize("name", UNITS)
def test_the_units_leave_little_open(installed, name):
    """The threshold is systemd's own measure, times ten: 30 is "OK", an ordinary unit has 96."""
    done = run("systemd-analyze", "security", "--offline=yes", "--threshold=30",
               installed / f"lib/systemd/system/{name}.service")
    assert done.returncode == 0, done.stdout.splitlines()[-1:] + done.stderr.splitlines()


def test_counters_are_remembered_on_a_disk(installed):
    service = unit(installed, "sflow-samplingd")
    assert (service["StateDirectory"], service["StateDirectoryMode"]) == ("sflow-samplingd", "0750")


@have("systemd-sysusers")
@have("systemd-tmpfiles")
def test_group_and_directories_are_made(installed, tmp_path):
    (tmp_path / "etc").mkdir()
    (tmp_path / "etc/passwd").write_text("root:x:0:0:root:/root:/bin/sh\n")
    (tmp_path / "etc/group").write_text("root:x:0:\n")
    done = run("systemd-sysusers", f"--root={tmp_path}", installed / "lib/sysusers.d/sflow-agent.conf")
    assert done.returncode == 0, done.stderr
    group = next(line for line in (tmp_path / "etc/group").read_text().splitlines() if line.startswith("sflow:"))
    done = run("systemd-tmpfiles", f"--root={tmp_path}", "--create", installed / "lib/tmpfiles.d/sflow-agent.conf")
    assert done.returncode == 0, done.stderr
    platform = (tmp_path / "run/platform").stat()
    assert (stat.S_IMODE(platform.st_mode), platform.st_gid) == (0o750, int(group.split(":")[2]))
    assert (tmp_path / "run/sflow").is_dir() and (tmp_path / "etc/sflow").is_dir()


@pytest.mark.parametrize("page", PAGES)
def test_the_man_pages_are_clean(installed, page):
    path = installed / "share/man" / page
    if shutil.which("mandoc"):
        # "style": references to pages that are not installed here
        done = run("mandoc", "-T", "lint", "-W", "warning", path)
    elif shutil.which("groff"):
        done = run("groff", "-mdoc", "-ww", "-z", path)
    else:
        pytest.skip("neither mandoc nor groff is installed")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", ""), done


@pytest.mark.parametrize("program, page", [("sbin/sflowd", "man8/sflowd.8"), ("bin/sflow-cli", "man1/sflow-cli.1"),
                                           ("sbin/sflow-samplingd", "man8/sflow-samplingd.8")])
def test_the_man_pages_name_every_option_of_their_program(installed, program, page):
    usage = run(installed / program, "--help").stdout
    options = {word.strip(",[]") for word in usage.replace("|", " ").split() if word.startswith("--")}
    text = (installed / "share/man" / page).read_text()
    assert options, usage
    for option in options:
        assert f"Fl {option[1:]}" in text or f", {option[1:]}" in text, option


# ---- The unit's privileges are enough --------------------------------------------------------------------------------

@have("setpriv")
def test_sflowd_serves_with_the_capabilities_of_its_unit(stage):
    stage.sandbox.wrapper = units.confinement("sflowd")
    daemon = stage.start()
    stage.connect()
    stage.sandbox.ready(60)
    assert units.effective_capabilities(daemon.pid) == len(units.capabilities("sflowd"))
    collector = stage.collector()
    index = stage.export_to_collector()
    stage.service.send(counter_report(index))
    collector.wait_datagrams(1)
    assert stage.cli("write memory").output.endswith("[OK]\n")
