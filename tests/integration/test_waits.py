"""SIGTERM while the agent waits on something stuck: exit 0 within the stop budget, nothing of it left running."""
import fcntl
import os
import signal
import sys
import time

from harness import NEW_ACCOUNT, TZ_PARIS, reply
from tavelsim import CC_CONFIGURED_BY, STORE_FILE
from test_flow import FlowCase

STOP_BUDGET = 30  # seconds; the unit's TimeoutStopSec leaves room above it
RUNS = int(os.environ.get("TAVEL_WAIT_RUNS", "1"))  # the stop-budget measurement runs each case 20 times
CC_STORE = {"Device.DeviceInfo.X_TAVEL_CCSyncRequired": "1", "Device.DeviceInfo.X_TAVEL_SupportedCountries": "US,DE"}
HUNG_IPTABLES = b"#!/bin/sh\nsleep 600 &\nwait\n"


def started_for(root):
    """Live processes of this device: they inherit its TAVEL_ROOT (a zombie shows no environment)."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open("/proc/%s/environ" % pid, "rb") as f:
                if b"TAVEL_ROOT=%s\0" % root.encode() in f.read():
                    found.append(int(pid))
        except OSError:
            pass
    return found


class WaitTest(FlowCase):
    def held(self, dev, rel):
        """An exclusive flock on the device file rel, held by this test until the case ends."""
        f = open(dev.path(rel), "a+b")
        self.addCleanup(f.close)
        fcntl.flock(f, fcntl.LOCK_EX)

    def hung_iptables(self, dev):
        # Start-up inserts the rules before the bus thread exists.
        dev.wait_log("Establishing handler for signal")
        time.sleep(0.5)

    def store_lock(self, dev):
        dev.wait_log("httpGetUrlFromServer ret: 200")
        time.sleep(0.5)

    def configured_by_lock(self, dev):
        # After the time-zone pause (1 s here) the country code's check reads the mark under its lock.
        dev.wait_log("final timezone =", timeout=30)
        time.sleep(2.0)

    def test_a_stop_ends_every_wait(self):
        script = {"get": reply(200, NEW_ACCOUNT + [TZ_PARIS, ("countrycode", "US")]), "put": reply(200)}
        cases = [("hung iptables", {}, None, self.hung_iptables,
                  ["still running at the stop: killed", "still running after 5000 ms: killed"]),
                 ("store lock", {}, STORE_FILE + ".lock", self.store_lock, ["cancelled"]),
                 ("configured-by lock", CC_STORE, CC_CONFIGURED_BY, self.configured_by_lock,
                  ["cc_configured_by given up at the stop"])]
        longest = {}
        for name, store, lock, reach, lines in cases:
            for run in range(RUNS):
                with self.subTest(case=name, run=run):
                    self.script(script)
                    dev = self.device(store)
                    if lock is not None:
                        self.held(dev, lock)
                    if name == "hung iptables":
                        dev.touch("bin/iptables", HUNG_IPTABLES)
                    dev.start(env=dict(self.bus.env(), TAVEL_TIME_SCALE="60"))
                    reach(dev)
                    stopped = time.monotonic()
                    dev.proc.send_signal(signal.SIGTERM)
                    self.assertEqual(dev.wait_exit(STOP_BUDGET + 10), 0, dev.log()[-3000:])
                    took = time.monotonic() - stopped
                    longest[name] = max(longest.get(name, 0), took)
                    self.assertLess(took, STOP_BUDGET, name)
                    self.assertEqual(started_for(dev.root), [], "%s: left running" % name)
                    log = dev.log()
                    for line in lines + ["stopped by signal 15 !!!!"]:
                        self.assertIn(line, log, name)
        print("longest stop of %d run(s): %s" % (RUNS, ", ".join("%s %.2f s" % kv for kv in longest.items())),
              file=sys.stderr)
