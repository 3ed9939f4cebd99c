"""The support text and the debug listing as an operator gets them from sflow-cli."""
import os
import shutil
import subprocess

import pytest

from harness.addresses import AGENT4, COLLECTOR4
from harness.daemon import BIN
from harness.wait import PATIENCE, wait_for

SECTIONS = ("-----------------show sflow_server_lib_info-----\n", "-----------------show sflow_server_cmd_list -----\n",
            "-----------------show sflow------------------\n", "-----------------show sflow stats--------------\n",
            "-----------------show sflow status-------------\n")
NOBODY = 65534


def test_show_tech_support_has_every_section_in_order(ready):
    wait_for(lambda: "sflow app init success." in ready.sandbox.debug_file(), "the main thread to be through")
    output = ready.cli("show tech-support").output
    assert "| - sflow - sflow is off!\n" in output
    places = [output.index(section) for section in SECTIONS]
    assert places == sorted(places)
    for text in ("sflow domain socket is connect\n", "sflow datagram version 5\n", "sflow current msg list len:0\n",
                 "sflow cli ready\n", "sflow app init success."):
        assert text in output
    assert f"----- {ready.sandbox.path}/sflow/app_debug -----\n" in output
    ready.configure("interface port1", "sflow enable")
    wait_for(lambda: "sflow enable" in ready.sandbox.running_config(), "the setting")
    assert "| - sflow - sflow is on!\n" in ready.cli("show tech-support").output


def test_show_tech_support_sflow_runs_the_four_commands(ready):
    ready.configure(f"sflow agent address {AGENT4}", f"sflow collector 1 destination {COLLECTOR4} 6343")
    result = ready.cli("show tech-support sflow")
    assert result.status == 0
    headings = [line for line in result.output.splitlines() if line.startswith("--- ")]
    assert headings == ["--- show sflow ---", "--- show sflow stats ---", "--- show sflow status ---",
                        "--- show run | include sflow ---"]
    assert result.output.endswith(f"sflow agent address {AGENT4}\nsflow collector 1 destination {COLLECTOR4} 6343\n")


def test_the_support_text_goes_into_a_new_file(ready, tmp_path):
    path = tmp_path / "support"
    result = ready.cli(f"show tech-support file {path}")
    assert (result.status, result.output) == (0, f"{path.stat().st_size} bytes written to {path}\n")
    text = path.read_text()
    assert all(section in text for section in SECTIONS)
    assert ready.cli(f"show tech-support file {path}").status == 1
    assert path.read_text() == text


@pytest.mark.skipif(os.geteuid() != 0, reason="another user's session needs root")
def test_the_file_is_the_operators_and_made_with_his_rights(ready, tmp_path):
    for path, mode in ((ready.sandbox.path, 0o755), (ready.sandbox.path / "platform", 0o755),
                       (ready.sandbox.path / "platform/cli_socket", 0o666), (tmp_path, 0o700)):
        path.chmod(mode)
    common = ready.sandbox.path / "common"
    common.mkdir()
    common.chmod(0o1777)

    # Where the program was built another user may not get to.
    shell = shutil.copy(BIN / "sflow-cli", ready.sandbox.path)

    def as_nobody(path):
        return subprocess.run([shell, "-c", f"show tech-support file {path}"], user=NOBODY,
                              group=NOBODY, extra_groups=[], env=ready.sandbox.environment, capture_output=True,
                              text=True, timeout=2 * PATIENCE)

    refused = as_nobody(tmp_path / "support")
    assert (refused.returncode, refused.stdout) == (
        1, f"% Cannot create {tmp_path}/support: Permission denied\n"), refused.stderr
    for name, path in ((common / "support", common / "support"), ("support", ready.sandbox.path / "platform/support")):
        done = as_nobody(name)
        assert done.returncode == 0, done
        status = path.stat()
        assert (status.st_uid, status.st_gid, status.st_mode & 0o777) == (NOBODY, NOBODY, 0o600)


def test_show_debugging_lists_what_is_on(ready):
    listing = "sflow debug:\n{}"
    lines = {"event": "flow", "export": "export", "conf": "configure", "socket": "socket"}
    for name, word in lines.items():
        assert ready.cli(f"debug sflow {name}").status == 0
        assert ready.cli("show debugging").output == listing.format(f"  sflow {word} debug information is on\n")
        assert ready.cli(f"no debug sflow {name}").status == 0
    assert ready.cli("debug sflow all").status == 0
    assert ready.cli("show debugging").output == listing.format(
        "".join(f"  sflow {word} debug information is on\n" for word in lines.values()))
    ready.cli("no debug sflow all")
    assert ready.cli("show debugging").output == ""
