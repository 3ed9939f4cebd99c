"""sflow-cli at a terminal: what an operator types and sees."""
import contextlib
import os
import signal
import subprocess
import termios

import pytest

from harness.terminal import Terminal
from harness.wait import halted, wait_for

INVALID = "% Invalid input detected at '^' marker."
KILL_LINE, INTERRUPT, QUOTE, END_OF_INPUT, UP, TAB = "\x15", "\x03", "\x16", "\x04", "\x10", "\t"


@pytest.fixture
def open_terminal(ready):
    """A function that starts a shell at a terminal and waits for its first prompt."""
    opened = []

    def open_one(*arguments, **options):
        terminal = Terminal(ready.sandbox, *arguments, **options)
        opened.append(terminal)
        terminal.expect("> ")
        return terminal

    yield open_one
    for terminal in opened:
        terminal.close()


@pytest.fixture
def terminal(open_terminal):
    """A shell in privileged exec mode."""
    terminal = open_terminal()
    enable(terminal)
    return terminal


def enable(terminal):
    terminal.type("enable\r")
    terminal.expect("# ")


def run(terminal, line, prompt="# "):
    """Types a line and returns what is printed before the next prompt."""
    terminal.type(line + "\r")
    terminal.expect("\n")
    return terminal.expect(prompt)


def configure(terminal):
    run(terminal, "configure terminal")


def test_the_prompt_tells_level_and_mode(open_terminal):
    terminal = open_terminal()
    host = terminal.text().rstrip("> ").splitlines()[-1]
    for line, prompt in [("enable", "# "), ("configure terminal", "(config)# "),
                         ("interface port1", "(config-if-port1)# "),
                         ("interface range port1, port2", "(config-if-range)# "), ("exit", "(config)# "),
                         ("end", "# "), ("disable", "> ")]:
        assert run(terminal, line, prompt) == host + prompt, line


def test_a_mistake_is_marked_below_the_typed_word(terminal):
    configure(terminal)
    start = len(terminal.text())
    run(terminal, "sflow sampling-rate 17")
    typed, marker, message = terminal.text()[start:].splitlines()[:3]
    assert message == INVALID
    # The typed line stands behind the prompt, which was printed before.
    assert terminal.text()[:start].splitlines()[-1].endswith("(config)# ")
    prompt = terminal.text()[:start].splitlines()[-1]
    assert marker.index("^") == len(prompt) + typed.index("17")


# ---- Help and completion -------------------------------------------------------------------------------------------

def help_for(terminal, text):
    terminal.type(KILL_LINE + text + "?")
    terminal.expect("\n")
    return terminal.expect("# " + text)


def test_help_lists_what_may_follow_with_its_texts(terminal):
    configure(terminal)
    listing = help_for(terminal, "sflow ")
    for word, text in [("agent", "sflow agent"), ("collector", "sflow collector"),
                       ("counter", "sflow counter interval"), ("flow", "sflow flow max-header"),
                       ("sampling-rate", "sflow sampling-rate"), ("source", "sflow source address")]:
        assert any(line.split(maxsplit=1) == [word, text] for line in listing.splitlines()), f"{word}: {listing}"
    assert "<4096-16777215>  rate" in help_for(terminal, "sflow sampling-rate ")
    assert "A.B.C.D  agent ip address" in help_for(terminal, "sflow agent address ")
    # The range of the line's end, and nothing hidden.
    terminal.type(KILL_LINE)
    run(terminal, "end")
    listing = help_for(terminal, "show ")
    assert "running-config" in listing and "sflow_lib_info" not in listing


def test_help_in_mid_line_is_for_the_place_of_the_cursor(terminal):
    configure(terminal)
    back = "\x02"
    terminal.type("sflow sampling-rate 4096" + back * len("pling-rate 4096") + "?")
    terminal.expect("\n")
    assert terminal.expect("# sflow sampling-rate 4096").splitlines()[0].split() == [
        "sampling-rate", "sflow", "sampling-rate"]
    # The line and the cursor are as they were.
    terminal.type("X\r")
    terminal.expect("samXpling-rate 4096")
    terminal.expect(INVALID)


def test_a_quoted_question_mark_is_text(terminal, ready):
    configure(terminal)
    assert INVALID not in run(terminal, f"sflow collector 1 destination 198.51.100.2 6343 description why{QUOTE}?")
    assert "description why?\n" in ready.sandbox.running_config()


def test_help_for_what_is_no_command_says_so(terminal):
    assert "There is no help for this" in help_for(terminal, "nonsense ")


def test_tab_completes_keywords_and_interface_names(terminal):
    terminal.type("conf" + TAB + "t" + TAB + "\r")
    terminal.expect("(config)# ")
    terminal.type("INTER" + TAB)
    terminal.expect("interface ")
    terminal.type("port" + TAB + TAB)       # three ports: the second Tab lists them
    listing = terminal.expect("port3")
    assert "port1" in listing and "port2" in listing
    terminal.type("3\r")
    terminal.expect("(config-if-port3)# ")


def test_tab_completes_a_member_of_a_range(terminal):
    configure(terminal)
    terminal.type("interface range port1,far2" + TAB)
    terminal.type("\r")
    terminal.expect("(config-if-range)# ")


def test_tab_completes_behind_the_bar(terminal):
    assert "sflow" not in run(terminal, "terminal length 0")
    terminal.type("show run |inc" + TAB + "nothing-like-this\r")
    terminal.expect("|include nothing-like-this")
    terminal.expect("# ")
    assert INVALID not in terminal.text()


def test_a_listing_below_a_wrapped_line_leaves_it_whole(open_terminal, ready):
    terminal = open_terminal(columns=40)
    enable(terminal)
    configure(terminal)
    line = "sflow collector 1 destination 198.51.100.2 6343 desc"
    terminal.type(line + "?")
    terminal.expect("description  Describe sflow collector")
    terminal.type("ription long source interface port1\r")
    wait_for(lambda: "description long source interface port1\n" in ready.sandbox.running_config(), "the setting")


# ---- History -------------------------------------------------------------------------------------------------------

def test_history_lasts_from_session_to_session(open_terminal, ready):
    first = open_terminal()
    run(first, "show version", "> ")
    first.type("exit\r")
    assert first.wait() == 0
    path = ready.sandbox.path / ".sflow_cli_history"
    assert path.read_text() == "show version\nexit\n"
    assert path.stat().st_mode & 0o777 == 0o600
    second = open_terminal()
    second.type(UP + UP)
    second.expect("show version")
    second.type("\r")
    second.expect("sFlow agent, version")


def test_history_of_two_sessions_is_kept(open_terminal, ready):
    first, second = open_terminal(), open_terminal()
    run(first, "show version", "> ")
    run(second, "show sflow status", "> ")
    run(first, "show debugging", "> ")
    assert (ready.sandbox.path / ".sflow_cli_history").read_text() == (
        "show version\nshow sflow status\nshow debugging\n")


def test_history_can_be_put_elsewhere_or_nowhere(open_terminal, ready):
    path = ready.sandbox.path / "elsewhere"
    run(open_terminal(environment={"SFLOW_CLI_HISTORY": str(path)}), "show version", "> ")
    assert path.read_text() == "show version\n"
    run(open_terminal(environment={"SFLOW_CLI_HISTORY": ""}), "show version", "> ")
    assert not (ready.sandbox.path / ".sflow_cli_history").exists()


# ---- Pages ---------------------------------------------------------------------------------------------------------

def test_output_stops_at_a_page(terminal):
    run(terminal, "terminal length 5")
    terminal.type("show interfaces\r")
    terminal.expect("--More--")
    terminal.type(" ")
    terminal.expect("--More--")
    terminal.type("\r")         # one line
    terminal.expect("--More--")
    terminal.type("q")
    printed = terminal.expect("# ")
    assert "Index" not in printed
    assert "sFlow agent" in run(terminal, "show version | include version")


def test_terminal_length_0_does_not_stop(terminal):
    run(terminal, "terminal length 0")
    assert "--More--" not in run(terminal, "show interfaces")


def test_a_page_is_as_long_as_the_window(open_terminal):
    terminal = open_terminal(rows=8)
    terminal.type("show interfaces\r")
    page = terminal.expect("--More--")
    assert page.count("\n") == 8
    terminal.type(INTERRUPT)
    terminal.expect("> ")


# ---- Interrupts ----------------------------------------------------------------------------------------------------

def test_the_interrupt_key_drops_an_unfinished_line(terminal, ready):
    configure(terminal)
    terminal.type("sflow sampling-rate 5000é" + INTERRUPT)
    terminal.expect("# ")
    terminal.type("sflow sampling-rate 6000\r")
    terminal.expect("# ")
    run(terminal, "end")
    config = ready.sandbox.running_config()
    assert "sampling-rate 6000\n" in config
    assert terminal.popen.poll() is None


@contextlib.contextmanager
def a_command_that_is_not_answered(stage, terminal, line):
    """Runs `line` while the daemon is stopped; inside, the request lies in the daemon's socket."""
    with halted(stage.daemon.pid):
        terminal.type(line + "\r")
        wait_for(lambda: waiting_requests(stage), "the request to be sent")
        yield


def waiting_requests(stage):
    """Bytes that shells have sent and the daemon has not read."""
    listing = subprocess.run(["ss", "-Hxn"], capture_output=True, text=True, check=True).stdout
    rows = [line.split() for line in listing.splitlines()]
    return sum(int(row[2]) for row in rows if row[4] == str(stage.sandbox.path / "platform/cli_socket"))


def interrupt(terminal):
    """Presses the interrupt key and waits until the shell has taken note of it."""
    terminal.press(INTERRUPT)
    terminal.expect("^C")
    wait_for(lambda: not interrupted(terminal), "the interrupt to be seen")


def test_the_interrupt_key_ends_a_command_that_runs(terminal, ready):
    with a_command_that_is_not_answered(ready, terminal, "show interfaces"):
        interrupt(terminal)
    assert "line protocol" not in terminal.expect("# ")
    # The session is still there.
    configure(terminal)
    run(terminal, "end")


def test_a_second_interrupt_gives_up_a_daemon_that_does_not_answer(terminal, ready):
    with a_command_that_is_not_answered(ready, terminal, "show version"):
        interrupt(terminal)
        terminal.press(INTERRUPT)
        terminal.expect("sflow-cli: sflowd does not answer: interrupted")
        assert terminal.wait() == 2


def test_an_interrupted_save_goes_on_without_the_shell(terminal, ready):
    configure(terminal)
    run(terminal, "sflow sampling-rate 5003")
    run(terminal, "end")
    with a_command_that_is_not_answered(ready, terminal, "write memory"):
        interrupt(terminal)
    assert "[OK]" not in terminal.expect("# ")
    saved = ready.sandbox.config / "startup-config"
    wait_for(lambda: saved.exists() and "sampling-rate 5003\n" in saved.read_text(), "the saved configuration")


def interrupted(terminal):
    """Whether an interrupt is pending for the shell."""
    with open(f"/proc/{terminal.popen.pid}/status") as status:
        pending = next(line for line in status if line.startswith("ShdPnd")).split()[1]
    return int(pending, 16) & 1 << (signal.SIGINT - 1)


def test_an_interrupt_at_the_prompt_does_not_touch_the_next_command(terminal):
    os.kill(terminal.popen.pid, signal.SIGINT)
    wait_for(lambda: interrupted(terminal), "the signal")
    assert "sFlow agent" in run(terminal, "show version")


# ---- Odd input -----------------------------------------------------------------------------------------------------

@pytest.mark.parametrize("locale", ["C.UTF-8", "C"])
@pytest.mark.parametrize("keys", ["é", "日本語 ✓", b"\xff\xfe\xc3", b"show\x00version", "x" * 3000, QUOTE + "\x1b[2J"],
                         ids=["latin", "wide", "no UTF-8", "NUL", "long", "control"])
def test_odd_input_is_refused_and_the_session_goes_on(open_terminal, locale, keys):
    terminal = open_terminal(environment={"LC_ALL": locale})
    terminal.type(keys)
    terminal.type("\r")
    terminal.expect("\n")
    terminal.expect("> ")
    terminal.type(KILL_LINE + "show version\r")
    terminal.expect("sFlow agent, version")


def test_lines_pasted_at_once_are_all_run(terminal, ready):
    terminal.type("configure terminal\rsflow sampling-rate 5001\rsflow counter interval 17\rend\r")
    lines = ("sflow sampling-rate 5001\n", "sflow counter interval 17\n")
    wait_for(lambda: all(line in ready.sandbox.running_config() for line in lines), "both settings")


# ---- Ends ----------------------------------------------------------------------------------------------------------

def test_the_end_of_input_ends_the_shell(terminal):
    terminal.type(END_OF_INPUT)
    assert terminal.wait() == 0


def test_a_daemon_that_goes_is_said(terminal, ready):
    ready.daemon.stop()
    terminal.type("show version\r")
    terminal.expect("sflow-cli: sflowd closed the session")
    assert terminal.wait() == 2


def test_the_terminal_is_left_as_it_was(open_terminal):
    terminal = open_terminal()
    terminal.type("show")
    terminal.popen.send_signal(signal.SIGTERM)
    assert terminal.wait() == -signal.SIGTERM
    ordinary = termios.ICANON | termios.ECHO | termios.ISIG
    assert terminal.local_modes() & ordinary == ordinary


# ---- Two operators -------------------------------------------------------------------------------------------------

def test_two_operators_configure_side_by_side(open_terminal, ready):
    first, second = open_terminal(), open_terminal()
    for terminal in (first, second):
        enable(terminal)
    configure(first)
    notice = run(second, "configure terminal")
    assert f"% The session of user {os.geteuid()} (process {first.popen.pid}) is in configuration mode too" in notice
    run(first, "interface port1")
    run(second, "sflow sampling-rate 5002")
    run(second, "interface port2")
    run(first, "exit")
    second.type("\r")
    second.expect("(config-if-port2)# ")
    assert "sampling-rate 5002\n" in ready.sandbox.running_config()
