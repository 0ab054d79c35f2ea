"""The signal storm of tests/integration/test_faults.py at soak length:
10,000 bus signals of every kind (TAVEL_LOAD_SIGNALS), malformed ones
included, in about ten seconds while an onboarding runs.  Beyond what the
suite checks, the agent's memory must not grow with the signals.

    python3 -m unittest -v load     (in bench/; bench/soak.py runs it)"""
import os
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(HERE), "tests", "integration"))
os.environ.setdefault("TAVEL_BUILD_DIR", os.path.join(os.path.dirname(HERE), "build"))

import harness  # noqa: E402
import test_faults  # noqa: E402

# RSS may move by a few pages (allocator arenas, stdio); growth per signal
# would show as megabytes.
RSS_SLACK_KIB = 512


def build_sanitizer():
    """'asan', 'tsan' or '' for the build under test, from its CMake cache."""
    try:
        with open(os.path.join(harness.BUILD_DIR, "CMakeCache.txt")) as f:
            for line in f:
                if line.startswith("TAVEL_SANITIZE:"):
                    return line.split("=", 1)[1].strip()
    except OSError:
        pass
    return ""


def vm_rss(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise AssertionError("no VmRSS")


class SignalSoakTest(test_faults.SignalStormTest):
    SIGNALS = int(os.environ.get("TAVEL_LOAD_SIGNALS", "10000"))

    def flood(self, dev):
        # Warm-up: the first signals of each kind allocate what the agent
        # keeps for good (stdio buffers, bus match state).
        warm = len(test_faults.MIX) * 20
        self.storm(warm)
        self.expect_answered(dev, warm)
        rss_start = vm_rss(dev.proc.pid)
        started = time.monotonic()
        self.storm(self.SIGNALS - warm)
        seconds = time.monotonic() - started
        self.expect_answered(dev, self.SIGNALS)
        rss_end = vm_rss(dev.proc.pid)
        print("\nstorm: %d signals in %.1f s; VmRSS %d KiB at start, %d KiB at end (%+d)"
              % (self.SIGNALS, seconds, rss_start, rss_end, rss_end - rss_start))
        self.assertLess(seconds, 15 * self.SIGNALS / 10000)
        if not build_sanitizer():
            # Sanitizer builds hold freed memory back in quarantine, so their
            # resident size says nothing about leaks (LeakSanitizer does).
            self.assertLessEqual(rss_end - rss_start, RSS_SLACK_KIB)
