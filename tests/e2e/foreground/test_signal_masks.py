"""A script reads its own process's masks and dispositions from /proc: they are what the run sequence promises."""
import os
import signal

import pytest

SHOW = """
local M = {}
function M.main()
  for _, task in ipairs({"/proc/self/status", "/proc/thread-self/status"}) do
    for line in io.lines(task) do
      local name, bits = line:match("^(Sig%a+):%s*(%x+)")
      if name then print(name, bits) end
    end
    print("--")
  end
  return 0
end
return M
"""


def masks(text):
    found = []
    for part in text.split("--\n")[:2]:
        found.append({name: int(bits, 16) for name, bits in (line.split() for line in part.splitlines())})
    return found


def has(mask, number):
    return bool(mask >> (number - 1) & 1)


@pytest.mark.fast
def test_the_foreground_blocks_and_handles_what_it_should(tree):
    tree.app("probe", SHOW)
    main, script = masks(tree.run(name="probe").out)
    delete_thread = signal.SIGRTMIN + 4
    for thread in (main, script):
        assert has(thread["SigBlk"], signal.SIGINT) and has(thread["SigBlk"], signal.SIGTERM)
        for other in (signal.SIGHUP, signal.SIGUSR1, signal.SIGUSR2, signal.SIGALRM, signal.SIGCHLD, delete_thread):
            assert not has(thread["SigBlk"], other), other
        for handled in (signal.SIGINT, signal.SIGTERM, signal.SIGUSR1, signal.SIGUSR2, signal.SIGALRM, delete_thread):
            assert has(thread["SigCgt"], handled), handled
        for ignored in (signal.SIGHUP, signal.SIGPIPE):
            assert has(thread["SigIgn"], ignored), ignored


WAIT = """
local M = {}
function M.main()
  io.open(dom0:Get("app.path.work") .. "/ready", "w"):close()
  dom0:Wait("never", 1)
  return 6
end
return M
"""


@pytest.mark.parametrize("number", [signal.SIGUSR1, signal.SIGUSR2, signal.SIGALRM, signal.SIGHUP, signal.SIGPIPE,
                                    signal.SIGRTMIN + 4, signal.SIGTERM, signal.SIGINT])
def test_a_signal_does_not_end_a_foreground_run(tree, number):
    from conftest import PATIENCE, send_signal, wait_until
    tree.app("probe", WAIT)
    process = tree.start(name="probe")
    wait_until(lambda: os.path.exists(os.path.join(tree.work, "ready")), what="the script runs")
    send_signal(process.pid, number)
    assert process.wait(timeout=PATIENCE) == 6
