"""The shipped bus policy on a closed private bus: each member sent by nobody, the modules' group and root."""
import grp
import os
import shutil
import subprocess
import tempfile
import unittest

from harness import SOURCE_DIR, TAVELCTL, wait_until
from tavelsim import CLOSED_POLICY, PrivateBus, command
from test_bus import BusCase

POLICY = os.path.join(SOURCE_DIR, "packaging", "dbus", "velka.tavel.conf")


def listened(member):
    return (member, lambda who, i: ["signal", member, "--hex", who.encode().hex()], "listener",
            lambda who, i: 'member=%s\n   array of bytes "%s"' % (member, who))


# member, tavelctl arguments of sender i named who, where a delivered one shows (a subscriber when the
# handler does nothing) and the trace itself.
MEMBERS = [
    listened("setLogLevel"), listened("setLogDestination"),
    ("sendDbgCmd", lambda who, i: ["dbg", "--signal", "probe-" + who], "stdout",
     lambda who, i: "cmdLine = probe-%s.\n" % who),
    ("tavelCfgmgrSignal", lambda who, i: ["signal", "tavelCfgmgrSignal", "--size", str(i)], "log",
     lambda who, i: "signal ignored: payload of %d bytes, 4 needed\n" % i),
    ("tavelSyngMgrSignal", lambda who, i: ["sync", str(100 + i)], "log",
     lambda who, i: "] type = %d, len = 0\n" % (100 + i)),
    ("notifyNTPTimezoneUpdate", lambda who, i: ["ntp", "ntp-" + who], "log",
     lambda who, i: "value received from hmsd module is ntp-%s.\n" % who),
    # Methods: whether the caller got the answer.
    ("dummyFunction", lambda who, i: ["call", "dummyFunction", str(i)], "reply", lambda out: out == "1\n"),
    ("GetStatus", lambda who, i: ["status", "--json"], "reply", lambda out: out.startswith('{"state":"waiting-role"')),
    ("RunDebugCommand", lambda who, i: ["dbg", "call-" + who], "reply", lambda out: "cmdLine = call-" in out),
]


@unittest.skipUnless(os.geteuid() == 0, "senders of other users are made with setpriv, which needs root")
@unittest.skipUnless(shutil.which("setpriv"), "setpriv (util-linux) is not installed")
class PolicyTest(BusCase):
    def setUp(self):
        super().setUp()
        with open(POLICY) as f:
            shipped = f.read()
        self.assertIn('<policy group="tavel">', shipped)
        # dbus-daemon drops rules of unknown groups: another plays "tavel" (setpriv gives exact groups).
        groups = {g.gr_name: g.gr_gid for g in grp.getgrall()}
        self.gid = groups.get("tavel") or next(g for g in groups.values() if g not in (0, groups["nogroup"]))
        tmp = tempfile.mkdtemp(prefix="tavel-policy-")
        self.addCleanup(shutil.rmtree, tmp, True)
        policy = os.path.join(tmp, "velka.tavel.conf")
        with open(policy, "w") as f:
            f.write(shipped.replace('group="tavel"', 'group="%d"' % self.gid))
        self.bus = PrivateBus(policy=CLOSED_POLICY, include=policy)
        self.addCleanup(self.bus.close)
        # The other users reach the socket through its directory.
        os.chmod(self.bus.dir, 0o755)
        nobody = ["setpriv", "--reuid=nobody", "--regid=nogroup"]
        self.senders = [("nobody", nobody + ["--clear-groups"]), ("group", nobody + ["--groups=%d" % self.gid]),
                        ("root", [])]

    def send_as(self, prefix, args):
        return subprocess.run(prefix + command(TAVELCTL, *args), env=dict(os.environ, **self.bus.env()),
                              capture_output=True, text=True, timeout=30, stdin=subprocess.DEVNULL)

    def listen(self):
        """dbus-monitor as nobody subscribes like a module; as root it would see even refused messages."""
        path = os.path.join(self.bus.dir, "listener.out")
        out = open(path, "w")
        self.addCleanup(out.close)
        rules = ["type='signal',member='%s'" % m for m, _, where, _ in MEMBERS if where == "listener"]
        proc = subprocess.Popen(self.senders[0][1] + ["dbus-monitor", "--address", self.bus.address] + rules,
                                stdout=out, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
        self.addCleanup(proc.wait, 10)
        self.addCleanup(proc.terminate)

        def read():
            with open(path) as f:
                return f.read()

        wait_until(lambda: self.send_as([], ["signal", "setLogLevel", "--hex", b"ready".hex()]) and '"ready"' in read(),
                   10, "the listener's subscription")
        return read

    def test_only_root_and_the_modules_group_are_served(self):
        dev = self.start_agent()
        traces = {"stdout": dev.stdout, "log": dev.log, "listener": self.listen()}
        matrix = {}
        for member, args, where, trace in MEMBERS:
            results = [self.send_as(prefix, args(who, i)) for i, (who, prefix) in enumerate(self.senders, 1)]
            if where == "reply":
                row = [r.returncode == 0 and trace(r.stdout) for r in results]
                for served, r in zip(row, results):
                    self.assertTrue(served or "AccessDenied" in r.stderr or "refused by the bus policy" in r.stderr,
                                    (member, r.stderr))
            else:
                # A signal leaves no error at its sender: the trace tells.
                self.assertEqual([r.returncode for r in results], [0] * len(results), member)
                # Root sends last: once its signal is through, the earlier ones are through or refused.
                wait_until(lambda: trace("root", len(self.senders)) in traces[where](), 10, "root's %s" % member)
                row = [trace(who, i) in traces[where]() for i, (who, _) in enumerate(self.senders, 1)]
            matrix[member] = ["served" if s else "refused" for s in row]
        # Senders nobody, group, root.
        self.assertEqual(matrix, {m[0]: ["refused", "served", "served"] for m in MEMBERS},
                         "group \"tavel\" played by gid %d" % self.gid)
        self.assertIsNone(dev.proc.poll())
