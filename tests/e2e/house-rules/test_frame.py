"""The frame itself: a test that asks for the sandbox has an empty /run and cannot see the machine's processes."""
import os

import pytest

from conftest import send_signal


@pytest.mark.sandbox
def test_a_sandboxed_test_has_an_empty_run_folder():
    assert os.listdir("/run") == []
    assert os.listdir("/var/run") == []


@pytest.mark.sandbox
def test_a_sandboxed_test_sees_only_processes_of_its_own_namespace():
    with open("/proc/1/cmdline", "rb") as file:
        assert file.read().split(b"\0")[:4] == [b"bash", b"-c", b'"$@"; exit $?', b"sandbox"]


@pytest.mark.parametrize("pid", [1, 0, -1, -2])
def test_the_signal_wrapper_refuses_every_pid_that_is_not_above_one(pid):
    with pytest.raises(AssertionError):
        send_signal(pid, 0)
