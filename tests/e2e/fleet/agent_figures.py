"""The files for collectors that an agent has left, for collectors to be compared with them."""
import grp
import os
import sys
import tempfile

import pytest

from conftest import ROOT, require_ordinary_user, wait_until

sys.path.insert(0, os.path.join(ROOT, "tests", "e2e", "bundled-application"))
from test_outputs import ON_REQUEST, ask_for_a_beat, files_of_the_last_beat  # noqa: E402,F401 pylint: disable=wrong-import-position,import-error

# A counter with a fraction, labels with every character that is written in a special way, a name of more than 127 bytes, and one that has
# as many only where a collector writes its characters in a way of its own.
PLUGIN = """
return { name = "Marked", version = "2.5", interval = 3600, units = { free = "bytes" },
  metrics = { sent = { type = "counter", unit = "bytes" }, queues = { label = "queue" } },
  collect = function(dom)
    dom:AgentEvent{ number = 7, severity = 4, text = "seen" }
    return { free = 5.25, sent = 2 ^ 40 + 0.5, queues = { ["mail \\"in\\" /var"] = { length = 3 }, ["100% \\\\ grüß"] = { length = 4 },
                                                            [("%"):rep(40)] = { length = 5 } },
             ["long" .. ("x"):rep(140)] = 1 }
  end }"""


class Figures:
    """What an agent has written into `folder`, which the group `group` may read, as docs/METRICS.md has it; the agent has ended."""

    def __init__(self, tree, group):
        self._kept = tempfile.TemporaryDirectory(prefix="vex-out-", ignore_cleanup_errors=True)  # pytest's folders are closed to others
        os.chmod(self._kept.name, 0o755)
        self.folder = self._kept.name + "/out"
        os.mkdir(self.folder)
        os.chown(self.folder, -1, grp.getgrnam(group).gr_gid)
        os.chmod(self.folder, 0o2750)
        os.makedirs(tree.work, 0o700, exist_ok=True)
        os.symlink(self.folder, os.path.join(tree.work, "out"))
        tree.file("marked/plugin.lua", PLUGIN)
        supervisor, _ = tree.background(*ON_REQUEST, "--plugins", "marked,absent")
        wait_until(lambda: "plugin marked: " in tree.log(), what="a collection")
        ask_for_a_beat(tree)
        self.samples = wait_until(lambda: (now := files_of_the_last_beat(tree)).get('vex_plugin_up{plugin="marked"}') == 1 and now,
                                  what="the files of a beat behind the collection")
        tree.stop(supervisor)

    def close(self):
        self._kept.cleanup()


def figures_for(group):
    """The fixture "figures": those of an agent of the test's own, which a collector of that group reads as another user."""
    @pytest.fixture(name="figures")
    def figures(tree):
        require_ordinary_user()
        made = Figures(tree, group)
        yield made
        made.close()
    return figures
