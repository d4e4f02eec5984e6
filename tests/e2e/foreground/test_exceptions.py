"""An exception that escapes ends the process as the framework says, with its trace line when "Appl" is traced, and with
nothing at all when it is not. The launcher runs on the fake core, which throws at the call that a test names."""
import os
import subprocess

import pytest

from conftest import BUILD, PATIENCE

PLACES = {
    "construction of the settings in OnInit": "Dom.SetWx(\"app.path.lib\"",
    "the parsed command line in OnInit": "Dom.SetWx(\"app.name\"",
    "the crash handler in OnInit": "InitCrashHandler",
    "OnRun": "Runnable.SetDom",
    "an event handler": "Runnable.start",
    "the script thread": "Lua.RunScript",
}


def run(place, trace, tmp_path):
    env = dict(os.environ, VEX_FAKE_THROW=PLACES[place])
    env.pop("VEX_FAKE_TRACE", None)
    if trace:
        env["VEX_FAKE_TRACE"] = "1"
    # Copied, so that the application's name is the agent's own, which hands the script's status back to the main thread.
    agent = tmp_path / "vx_agent"
    os.link(os.path.join(BUILD, "tests", "fake_agent"), agent)
    return subprocess.run([str(agent), "--workdir", str(tmp_path)], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=PATIENCE, check=False, env=env)


@pytest.mark.fast
@pytest.mark.parametrize("place", PLACES)
def test_an_escaped_exception_ends_with_failure_and_two_trace_lines(place, tmp_path):
    result = run(place, True, tmp_path)
    assert result.returncode == 255, result
    traces = [line for line in result.stdout.splitlines() if line.startswith('Trace("Appl", "OnUnhandledException"')]
    assert len(traces) == 2, result.stdout
    assert traces[0] == 'Trace("Appl", "OnUnhandledException", "OnUnhandledException()")'
    assert traces[1] == ('Trace("Appl", "OnUnhandledException", "OnUnhandledException() - caught unhandled std::exception of type '
                         '"St13runtime_error", what() = "boom", terminating app.")')


@pytest.mark.parametrize("place", PLACES)
def test_without_tracing_it_ends_with_failure_and_says_nothing(place, tmp_path):
    result = run(place, False, tmp_path)
    assert (result.returncode, result.stderr) == (255, "")
    assert "OnUnhandledException" not in result.stdout
    assert "Log(Error" not in result.stdout


@pytest.mark.parametrize("place", ["OnRun", "an event handler"])
def test_the_exit_banner_comes_before_the_report_when_the_run_was_left(place, tmp_path):
    lines = run(place, True, tmp_path).stdout.splitlines()
    banner = next(i for i, line in enumerate(lines) if "exiting. Run time was" in line)
    report = next(i for i, line in enumerate(lines) if "OnUnhandledException" in line)
    assert banner < report
