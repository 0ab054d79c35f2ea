"""SIGTERM at any point, real iptables in a private netns: no rule left, store sound, an account, exit 0."""
import ctypes
import os
import random
import re
import shutil
import signal
import subprocess
import time
import unittest

from harness import AGENT, FACTORY_ACS_URL, FIREWALL_INSERT, FIREWALL_REMOVE, LAST_STEP, NEW_ACCOUNT, TZ_PARIS, reply
from tavelsim import CC_FILE, ONBOARDING_IN_PROGRESS, STORE_FILE, command, store_problems
from test_flow import FlowCase

CHAINS = ("INPUT_FW_LEVEL", "INPUT_WAN_REMOTE_ACCESS")
FACTORY_ACCOUNT = (FACTORY_ACS_URL, "", "")
NEW_ACCOUNT_VALUES = tuple(dict(NEW_ACCOUNT)[k] for k in ("url", "name", "pwd"))
CC_STORE = {"Device.DeviceInfo.X_TAVEL_CCSyncRequired": "1", "Device.DeviceInfo.X_TAVEL_SupportedCountries": "US,DE"}
RULES = ["-A %s -p tcp -m tcp --sport 443 --dport 47777:47780 -j ACCEPT" % c for c in CHAINS]


def iptables(*args):
    return subprocess.run(["iptables"] + list(args), capture_output=True, text=True, check=True).stdout


class StopTest(FlowCase):
    @classmethod
    def setUpClass(cls):
        # This process in a network namespace of its own (CLONE_NEWNET), loopback up.
        if (os.geteuid() != 0 or ctypes.CDLL(None, use_errno=True).unshare(0x40000000) != 0
                or subprocess.run(["ip", "link", "set", "lo", "up"]).returncode != 0
                or subprocess.run(["iptables", "-S"], capture_output=True).returncode != 0):
            raise unittest.SkipTest("needs root, a private network namespace and iptables")
        for chain in CHAINS:
            iptables("-N", chain)

    def device(self, extra=None, **kw):
        dev = super().device(extra, **kw)
        # The real iptables, in this namespace only: no recording stand-in.
        os.unlink(os.path.join(dev.bin, "iptables"))
        return dev

    def rules(self):
        return [l for l in iptables("-S").splitlines() if l.startswith("-A ")]

    def test_stop_at_any_point_of_an_onboarding(self):
        rng = random.Random(os.environ.get("TAVEL_STOP_SEED", "stop"))
        scale = 40  # pauses: account 0.125 s, time zone 1.5 s
        slow_get = {"get": reply(200, NEW_ACCOUNT + [TZ_PARIS], delay=1.0), "put": reply(200)}
        slow_put = {"get": reply(200, NEW_ACCOUNT + [TZ_PARIS]), "put": reply(200, delay=1.0)}
        parked = {"get": reply(200, NEW_ACCOUNT + [TZ_PARIS, ("countrycode", "US")]), "put": reply(200)}

        # Where the stop comes: what to wait for, then a random moment of the span (a parked code holds the exit).
        points = [("GET", slow_get, {}, [("request", "GET")], 0.8),
                  ("account pause", slow_get, {}, [("log", "Sleeping tavelAgent for 5 seconds")], 0.05),
                  ("time-zone pause", slow_get, {}, [("log", "final timezone =")], 1.4),
                  ("PUT", slow_put, {}, [("log", LAST_STEP), "bootstrap", ("request", "PUT")], 0.8),
                  ("parked-code wait", parked, CC_STORE, [("log", "MAPP onboarding started wait for 30 min"),
                                                          "bootstrap", ("log", "Not exiting Tavle, as timer is")], 0.5)]
        for i in range(2 * len(points)):
            name, script, store, steps, span = points[i % len(points)]
            with self.subTest(point=name, run=i):
                self.script(script)
                dev = self.device(store)
                if name == "parked-code wait":
                    dev.touch(ONBOARDING_IN_PROGRESS)
                self.start(dev, scale)
                for step in steps:
                    if step == "bootstrap":
                        self.send("bootstrap", "1")
                    elif step[0] == "log":
                        dev.wait_log(step[1], timeout=30)
                    else:
                        self.server.wait_requests(step[1], dev=dev)
                time.sleep(rng.uniform(0, span))
                # A refused exit has taken the rules away already; otherwise both are in place.
                self.assertEqual(sorted(self.rules()), [] if name == "parked-code wait" else RULES, name)
                dev.proc.send_signal(signal.SIGTERM)
                self.assertEqual(dev.wait_exit(20), 0, "%s: %s" % (name, dev.log()[-3000:]))
                self.assertEqual((self.rules(), store_problems(dev.path(STORE_FILE)),
                                  [f for f in os.listdir(dev.path("flash/dml")) if "tmp" in f]), ([], [], []), name)
                account = tuple(dev.store().get("Device.ManagementServer." + k, "")
                                for k in ("URL", "Username", "Password"))
                self.assertIn(account, (FACTORY_ACCOUNT, NEW_ACCOUNT_VALUES), name)
                log = dev.log()
                if "Sleeping tavelAgent for 5 seconds" in log and "End of tavelAgent sleep" not in log:
                    # Caught between emptying the account and writing the new one.
                    self.assertIn("restoring the previous account", log, name)
                    self.assertEqual(account, FACTORY_ACCOUNT, name)
                self.assertIn("stopped by signal 15 !!!!", log, name)
                if name == "parked-code wait":
                    self.assertTrue(dev.exists(CC_FILE), "the parked code stays for the next start")

    def test_one_status_upload_at_a_time_and_no_program_but_iptables(self):
        # The failed report arms the status timer (1-1.8 s here), which expires during a second, 3 s upload.
        self.script({"get": reply(200, NEW_ACCOUNT + [TZ_PARIS]), "put": [reply(503), reply(200, delay=3)]})
        dev = self.device()
        strace = (["strace", "-f", "-qq", "-e", "trace=execve", "-e", "signal=none", "-o", dev.path("execve.trace")]
                  if shutil.which("strace") else [])
        # LeakSanitizer cannot run under ptrace.
        self.start(dev, 5, env={"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"},
                   wrapper=strace)
        dev.wait_log(LAST_STEP, timeout=60)
        self.send("bootstrap", "1")
        dev.wait_log("Response code received from tavel server 503")
        self.send("bootstrap", "1")
        dev.wait_log("status upload already under way; not starting another", timeout=20)
        self.assertEqual(dev.wait_exit(30), 0, dev.log()[-3000:])
        self.assertEqual((len(self.server.requests("PUT")), dev.log().count("exitTavel !!!!"), self.rules()),
                         (2, 1, []))
        if not strace:
            return
        # Only successful calls: posix_spawnp tries each PATH entry in turn.
        runs = [re.search(r'execve\("([^"]*)", \[(.*)\]', l).groups()
                for l in dev.read("execve.trace").splitlines() if "execve(" in l and l.endswith("= 0")]
        self.assertEqual(os.path.basename(runs[0][0]), os.path.basename(command(AGENT)[0]))
        self.assertEqual([os.path.basename(path) for path, _ in runs[1:]], ["iptables"] * 6)
        self.assertEqual([" ".join(a.strip('"') for a in args.split(", ")[1:]) for _, args in runs[1:]],
                         FIREWALL_INSERT + FIREWALL_REMOVE)
