"""Eight agents that boot together and fail together must not retry together (bench/fleet/fleet.py)."""
import csv
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import harness

FLEET = os.path.join(harness.SOURCE_DIR, "bench", "fleet", "fleet.py")
DEVICES = 8


@unittest.skipUnless(os.geteuid() == 0, "the fleet needs network namespaces (root)")
class FleetTest(unittest.TestCase):
    def test_devices_failing_in_one_second_draw_their_own_delays(self):
        out = tempfile.mkdtemp(prefix="tavel-fleet-")
        self.addCleanup(shutil.rmtree, out, True)
        run = subprocess.run([sys.executable, FLEET, "-n", str(DEVICES), "--down-attempts", "3", "--time-scale", "4",
                              "--build", harness.BUILD_DIR, "--out", out], capture_output=True, text=True,
                             timeout=280, stdin=subprocess.DEVNULL)
        self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
        with open(os.path.join(out, "summary.json")) as f:
            summary = json.load(f)
        # The outage refused the first requests and the retry after it got the reply.
        self.assertEqual(summary["rows"][0]["answers"], ["503"])
        self.assertEqual(summary["onboarded"], DEVICES)
        # Seeded by the second alone, devices whose first failures share a second (all of them, or two
        # groups) draw one sequence of delays; independent draws of the first three (5 x 10 x 20
        # values) give eight sequences, and fewer than five about once in 10^8 runs.
        delays = summary["delays"]
        self.assertEqual(len(delays), DEVICES)
        self.assertTrue(all(len(d) >= 2 for d in delays.values()), delays)
        self.assertGreaterEqual(len({tuple(d[:3]) for d in delays.values()}), 5, run.stdout)
        with open(os.path.join(out, "arrivals.csv")) as f:
            puts = [r["serial"] for r in csv.DictReader(f) if r["method"] == "PUT" and r["status"] == "200"]
        self.assertEqual(sorted(puts), sorted(delays))


if __name__ == "__main__":
    unittest.main()
