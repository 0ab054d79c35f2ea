"""Faults during a real onboarding: the agent killed at random points and
restarted, the store's file system full, the bus daemon killed, the
onboarding server restarted.  The device must end up configured as without
the fault and its store must never be corrupt.

TAVEL_FAULT_ROUNDS sets the number of kill-and-restart rounds (default 5;
bench/faults_long.py runs more)."""
import glob
import os
import random
import re
import signal
import subprocess
import sys
import time
import unittest

import harness
from harness import ACS_USER, FULL_SCRIPT, PARIS_ZONE, applied, bootstrap, ctl, wait_until
from busfixture import PrivateBus

ROUNDS = int(os.environ.get("TAVEL_FAULT_ROUNDS", "5"))
# Slow enough that a transfer-level retry (10-19 s nominal) does not spin,
# fast enough that the 60 s time-zone pause takes 60 ms.
SCALE = "1000"
STORE = "flash/dml/datamodel.conf"
NAME_RE = re.compile(r"^[A-Za-z0-9_.]+$")


def store_problems(dev):
    """Every way the store file could be corrupt; empty when it is sound."""
    data = dev.read(STORE, "rb")
    problems = []
    if not data:
        return ["store is empty or missing"]
    if not data.endswith(b"\n"):
        problems.append("store does not end with a line feed (truncated?)")
    try:
        text = data.decode("utf-8")
    except UnicodeDecodeError as e:
        return problems + ["store is not UTF-8: %s" % e]
    for n, line in enumerate(text.split("\n")[:-1], 1):
        if line == "" or line.startswith("#"):
            continue
        name, eq, _ = line.partition("=")
        if not eq or not NAME_RE.match(name):
            problems.append("line %d does not parse: %r" % (n, line[:80]))
    return problems


DESCRIPTIONS = ("Device.X_TAVEL_Agent.OpDesc", "Device.X_TAVEL_Agent.SubnetDesc")


def in_description_window(store):
    """The account is written but the descriptions are not: the agent was
    killed between the two writes of the apply step."""
    return (store.get("Device.ManagementServer.Username") == ACS_USER
            and not any(k in store for k in DESCRIPTIONS))


def leftovers(dev):
    return [os.path.basename(p) for p in glob.glob(dev.path(STORE + ".tmp.*"))]


class FaultCase(unittest.TestCase):
    maxDiff = None
    def setUp(self):
        self.onb = harness.Server(FULL_SCRIPT)
        self.addCleanup(self.onb.close)
        self.bus = PrivateBus()
        self.addCleanup(self.bus.close)

    def device(self):
        dev = self.onb.device()
        self.addCleanup(dev.close)
        return dev

    def start(self, dev, scale=SCALE):
        dev.start(env=dict(self.bus.env(), TAVEL_TIME_SCALE=scale))

    def finish(self, dev, timeout=20):
        """Drives a started agent to its exit: a report that falls due gets
        its bootstrap signal, as the configuration manager would send it."""
        deadline = time.monotonic() + timeout
        sent = 0
        while dev.proc.poll() is None:
            if time.monotonic() > deadline:
                self.fail("agent did not finish; log tail:\n" + dev.log()[-3000:])
            if applied(dev) and "Valid Management URL is NOT presnt" in dev.log() and sent < 20:
                if bootstrap(self.bus.env()):
                    sent += 1
                time.sleep(0.2)
            time.sleep(0.02)
        self.assertEqual(dev.proc.returncode, 0)

    def reference_store(self):
        dev = self.device()
        self.start(dev)
        self.finish(dev)
        self.assertEqual(self.onb.methods()[-2:], ["GET", "PUT"])
        self.assertIn(harness.EXIT_LINE, dev.log())
        return dev.store()

    def assert_configured_like(self, dev, reference):
        self.assertEqual(store_problems(dev), [])
        self.assertEqual(dev.store(), reference)
        self.assertTrue(dev.exists(harness.TZ_MARKER))
        self.assertTrue(dev.exists(harness.CLOUD_MARKER))


class KillRestartTest(FaultCase):
    def test_kill9_at_random_points_then_restart(self):
        reference = self.reference_store()
        self.assertEqual(reference["Device.ManagementServer.Username"], ACS_USER)
        self.assertEqual(reference["Device.Time.LocalTimeZone"], PARIS_ZONE)
        seed = int(os.environ.get("TAVEL_FAULT_SEED", str(int(time.time()))))
        rng = random.Random(seed)
        # A whole run takes about a quarter of a second at this scale; a
        # few kill points fall after it, where the kill hits an agent that
        # waits for its bootstrap signal.
        found_tmp, window_hits = [], []
        for round_no in range(ROUNDS):
            with self.subTest(round=round_no, seed=seed):
                dev = self.device()
                self.start(dev)
                delay = rng.uniform(0.0, 0.4)
                time.sleep(delay)
                if dev.proc.poll() is None:
                    dev.proc.send_signal(signal.SIGKILL)
                    dev.proc.wait(timeout=10)
                self.assertEqual(store_problems(dev), [], "after the kill at %.3f s" % delay)
                found_tmp += leftovers(dev)
                killed = dev.store()
                self.start(dev)
                self.finish(dev)
                expected = reference
                if in_description_window(killed):
                    # Known loss, shown on its own by DescriptionWindowTest:
                    # everything else must still match.
                    window_hits.append(round_no)
                    expected = {k: v for k, v in reference.items() if k not in DESCRIPTIONS}
                self.assert_configured_like(dev, expected)
                found_tmp += leftovers(dev)
        if found_tmp:
            print("\nleftover temporary store files (acceptable): %s" % found_tmp, file=sys.stderr)
        if window_hits:
            print("\nrounds killed between the account and the descriptions: %s" % window_hits, file=sys.stderr)


class DescriptionWindowTest(FaultCase):
    @unittest.expectedFailure
    def test_kill_between_account_and_descriptions(self):
        """The state a kill leaves between the account write and the
        descriptions write: on restart the agent finds the same account,
        judges the reply not new, and neither writes the descriptions nor
        reports.  A fault-free run writes both."""
        reference = self.reference_store()
        dev = self.device()
        state = {k: v for k, v in reference.items()
                 if k not in DESCRIPTIONS and not k.startswith("Device.Time.") and k != "Device.X_TAVEL_Agent.OnBoardStatus"}
        dev.write_store(state)
        dev.touch(harness.CLOUD_MARKER)
        self.start(dev)
        self.finish(dev)
        self.assertEqual({k: dev.store().get(k) for k in DESCRIPTIONS}, {k: reference[k] for k in DESCRIPTIONS})


class DiskFullTest(FaultCase):
    def test_store_file_system_full(self):
        if os.geteuid() != 0:
            self.skipTest("mounting a small tmpfs over the store needs root")
        dev = self.device()
        dml = dev.path("flash/dml")
        saved = dev.read(STORE, "rb")
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16k", "tavel-full", dml],
                          capture_output=True).returncode != 0:
            self.skipTest("cannot mount a tmpfs here (no privilege in this container?)")
        self.addCleanup(subprocess.run, ["umount", "-l", dml], capture_output=True)
        with open(dev.path(STORE), "wb") as f:
            f.write(saved)
        # Fill what is left, so the next temporary copy of the store cannot
        # be written.
        fd = os.open(os.path.join(dml, "filler"), os.O_WRONLY | os.O_CREAT, 0o644)
        try:
            while os.write(fd, b"x" * 512) > 0:
                pass
        except OSError:
            pass
        finally:
            os.close(fd)
        before = dev.read(STORE, "rb")
        self.start(dev)
        log = dev.wait_log("tavel_handleTimezonedetails exit", timeout=20)
        self.assertRegex(log, r"error dml: dml_setOnBoardStatus: cannot write .*datamodel\.conf\.tmp\.\S+: "
                              r"No space left on device")
        self.assertRegex(log, r"error dml: dml_setManagementServerInfo: cannot write .*No space left on device")
        # The agent carried on through the whole apply step and is still up.
        self.assertIn("httpGetUrlFromServer ret: 200", log)
        self.assertIsNone(dev.proc.poll())
        self.assertEqual(dev.read(STORE, "rb"), before)
        self.assertEqual(leftovers(dev), [])


class BusKilledTest(FaultCase):
    def test_bus_daemon_killed_mid_run(self):
        # The reply is held back so the bus dies while the fetch is under way.
        self.onb.set_script(dict(FULL_SCRIPT, get=dict(FULL_SCRIPT["get"], delay=1.0)))
        dev = self.device()
        self.start(dev)
        deadline = time.monotonic() + 10
        while ctl(self.bus.env(), "call", "dummyFunction", "0").returncode != 0:
            self.assertLess(time.monotonic(), deadline, "agent never owned its name")
            time.sleep(0.05)
        wait_until(lambda: self.onb.methods() == ["GET"], 10, "the GET in the server's hands")
        self.bus.proc.send_signal(signal.SIGKILL)
        self.bus.proc.wait(timeout=10)
        wait_until(lambda: applied(dev), 20, "the apply step without a bus")
        log = dev.wait_log("hbus: disconnected from the bus")
        self.assertIn("httpGetUrlFromServer ret: 200", log)
        store = dev.store()
        self.assertEqual(store["Device.ManagementServer.URL"], "https://acs.new.test:7547/cwmp")
        self.assertEqual(store["Device.Time.LocalTimeZone"], PARIS_ZONE)
        self.assertTrue(dev.exists(harness.TZ_MARKER))
        self.assertEqual(store_problems(dev), [])
        # Still waiting for a bootstrap signal that cannot come: alive, idle,
        # no report sent.
        time.sleep(0.5)
        self.assertIsNone(dev.proc.poll())
        self.assertNotIn("PUT", self.onb.methods())


class ServerRestartTest(FaultCase):
    def test_server_restarted_mid_run(self):
        # The server holds the request unanswered until it goes down.
        self.onb.set_script(dict(FULL_SCRIPT, get={"hang": True}))
        dev = self.device()
        # Retries of 10-19 s nominal take 0.1-0.19 s.
        self.start(dev, scale="100")
        wait_until(lambda: self.onb.methods() == ["GET"], 10, "the first GET")
        # The server dies with the request in hand: its connections are reset.
        self.onb.sim.stop()
        log = dev.wait_log("httpGetUrlFromServer ret: 5000")
        wait_until(lambda: "retryCount seconds is" in dev.log(), 5, "the retry delay")
        log = dev.log()
        m = re.search(r"ret 5000 retryCount value is 2 retryCount seconds is (\d+)", log)
        self.assertIsNotNone(m, log[-3000:])
        self.assertTrue(10 <= int(m.group(1)) <= 19, m.group(0))
        self.assertEqual(dev.store()["Device.X_TAVEL_Agent.OnBoardStatus"], "ConnectionFailed_Error_curl")
        port = self.onb.sim.port
        self.onb.restart(FULL_SCRIPT)
        self.assertEqual(self.onb.sim.port, port)
        self.finish(dev)
        self.assertEqual(self.onb.methods(), ["GET", "PUT"])
        store = dev.store()
        self.assertEqual(store["Device.X_TAVEL_Agent.OnBoardStatus"], "ConnectionSuccess")
        self.assertEqual(store["Device.ManagementServer.Username"], ACS_USER)
        self.assertEqual(store_problems(dev), [])


if __name__ == "__main__":
    unittest.main()
