"""10,000 bus signals of every kind, malformed ones included, in about ten
seconds while an onboarding runs: the onboarding completes, the agent's
memory does not grow, and every debug command is answered."""
import os
import shutil
import struct
import subprocess
import tempfile
import time
import unittest

import harness
from harness import EXIT_LINE, FULL_SCRIPT, ACS_USER, applied, bootstrap, ctl, wait_until
from busfixture import PrivateBus

SIGSTORM_SRC = os.path.join(harness.SOURCE_DIR, "tests", "tools", "sigstorm.c")
TOTAL = int(os.environ.get("TAVEL_LOAD_SIGNALS", "10000"))
RATE = 1200.0  # signals a second: 10,000 take about 8 s
# RSS may move by a few pages (allocator arenas, stdio); growth per signal
# would show as megabytes.
RSS_SLACK_KIB = 512


def dbg(module, cmd):
    m = module.encode()[:64].ljust(64, b"\0")
    c = cmd.encode()[:2048].ljust(2048, b"\0")
    return (m + c).hex()


# (member, argument) pairs; an argument is hex bytes, "-" for none, or "=text".
VALID_DBG = [dbg("tavelAgent", c) for c in ("httpinfo", "acsinfo", "setTimeout 86400", "help")]
MIX = [("sendDbgCmd", h) for h in VALID_DBG] + [
    ("tavelCfgmgrSignal", struct.pack("<i", 0).hex()),
    ("tavelSyngMgrSignal", (struct.pack("<ii", 1, 2) + b"up").hex()),
    ("notifyNTPTimezoneUpdate", b"CET-1CEST\0".hex()),
    ("setLogLevel", "07000000"),
    ("setLogDestination", "01000000"),
    # Malformed.
    ("sendDbgCmd", "616263"),
    ("sendDbgCmd", "-"),
    ("sendDbgCmd", "=tavelAgent"),
    ("sendDbgCmd", dbg("otherModule", "httpinfo")),
    ("tavelCfgmgrSignal", "0100"),
    ("tavelSyngMgrSignal", "010000"),
    ("notifyNTPTimezoneUpdate", ""),
]
DBG_ALL = sum(1 for m, _ in MIX if m == "sendDbgCmd")
DBG_VALID = len(VALID_DBG)


def build_sender(workdir):
    out = os.path.join(workdir, "sigstorm")
    flags = subprocess.run(["pkg-config", "--cflags", "--libs", "dbus-1"], capture_output=True, text=True,
                           check=True).stdout.split()
    subprocess.run(["cc", "-O2", "-o", out, SIGSTORM_SRC] + flags, check=True)
    return out


def vm_rss(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise AssertionError("no VmRSS")


class SignalStormTest(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="tavel-load-")
        self.addCleanup(shutil.rmtree, self.work, True)
        self.sender = build_sender(self.work)
        # The server refuses at first, so the onboarding retries under the
        # storm; the reply that completes it comes after.
        self.onb = harness.Server({"get": {"status": 503}})
        self.addCleanup(self.onb.close)
        self.bus = PrivateBus()
        self.addCleanup(self.bus.close)

    def storm(self, count, rate):
        spec = os.path.join(self.work, "spec.%d" % count)
        with open(spec, "w") as f:
            for member, arg in MIX:
                f.write("%s %s\n" % (member, arg))
        env = dict(os.environ, **self.bus.env())
        result = subprocess.run([self.sender, str(count), str(rate), spec], env=env, capture_output=True,
                                text=True, timeout=120)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout.strip(), str(count))

    def expect_answered(self, dev, signals, timeout=60):
        cycles, rest = divmod(signals, len(MIX))
        entered = cycles * DBG_ALL + sum(1 for m, _ in MIX[:rest] if m == "sendDbgCmd")
        answered = cycles * DBG_VALID + sum(1 for m, a in MIX[:rest] if a in VALID_DBG)
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            out = dev.stdout()
            if out.count("enter tavel_processDbgCmdSignal.\n") >= entered and \
                    out.count("debug cmdLine = ") >= answered:
                break
            time.sleep(0.1)
        out = dev.stdout()
        self.assertEqual(out.count("enter tavel_processDbgCmdSignal.\n"), entered)
        self.assertEqual(out.count("debug cmdLine = "), answered)
        acsinfo = cycles + sum(1 for _, a in MIX[:rest] if a == VALID_DBG[1])
        self.assertEqual(out.count("After printing ACS Details...\n"), acsinfo)
        return out

    def test_signal_storm_during_onboarding(self):
        dev = self.onb.device()
        self.addCleanup(dev.close)
        dev.start(env=dict(self.bus.env(), TAVEL_TIME_SCALE="1000"))
        wait_until(lambda: len(self.onb.requests("GET")) >= 2, 20, "the fetch retrying")
        deadline = time.monotonic() + 10
        while ctl(self.bus.env(), "call", "dummyFunction", "0").returncode != 0:
            self.assertLess(time.monotonic(), deadline, "agent never owned its name")
            time.sleep(0.05)

        # Warm-up: the first signals of each kind allocate what the agent
        # keeps for good (stdio buffers, bus match state).
        warm = len(MIX) * 20
        self.storm(warm, RATE)
        self.expect_answered(dev, warm)
        rss_start = vm_rss(dev.proc.pid)
        started = time.monotonic()
        self.storm(TOTAL - warm, RATE)
        storm_seconds = time.monotonic() - started
        self.expect_answered(dev, TOTAL)
        rss_end = vm_rss(dev.proc.pid)
        print("\nstorm: %d signals in %.1f s; VmRSS %d KiB at start, %d KiB at end (%+d)"
              % (TOTAL, storm_seconds, rss_start, rss_end, rss_end - rss_start))
        self.assertLess(storm_seconds, 15)
        if not harness.build_sanitizer():
            # Sanitizer builds hold freed memory back in quarantine, so their
            # resident size says nothing about leaks (LeakSanitizer does).
            self.assertLessEqual(rss_end - rss_start, RSS_SLACK_KIB)
        self.assertIsNone(dev.proc.poll())
        log = dev.log()
        self.assertNotIn("Send Status TO Server", log)  # status 0 with no report due is ignored
        self.assertIn("signal ignored: payload of 2 bytes, 4 needed", log)
        self.assertIn("signal ignored: payload of 3 bytes, 8 needed", log)
        self.assertGreater(len(self.onb.requests("GET")), 2)

        # The server comes good: the onboarding completes and reports.
        self.onb.set_script(FULL_SCRIPT)
        wait_until(lambda: applied(dev), 30, "the account in the store")
        deadline = time.monotonic() + 20
        while dev.proc.poll() is None and time.monotonic() < deadline:
            bootstrap(self.bus.env())
            time.sleep(0.3)
        self.assertEqual(dev.wait_exit(10), 0)
        self.assertIn(EXIT_LINE, dev.log())
        puts = self.onb.requests("PUT")
        self.assertEqual(len(puts), 1)
        self.assertTrue(puts[0]["target"].endswith("?status=SUCCESS"), puts[0])
        self.assertEqual(dev.store()["Device.ManagementServer.Username"], ACS_USER)


if __name__ == "__main__":
    unittest.main()
