"""tools/demo/demo.py, an integrator's first command, on the built binaries: both runs report and clean up."""
import os
import re
import shutil
import subprocess
import sys
import unittest

from harness import BUILD_DIR, SOURCE_DIR

DEMO = os.path.join(SOURCE_DIR, "tools", "demo", "demo.py")
TIMELINE_ROW = re.compile(r"^ {2,}(\d+\.\d{3})  (\S+) +(.*)$")
SCALE = 600


def run_demo(*args, timeout=120):
    env = {k: v for k, v in os.environ.items() if k != "NO_COLOR"}  # plain output must come from the pipe alone
    return subprocess.run([sys.executable, DEMO, "--build-dir", BUILD_DIR, "--time-scale", str(SCALE)] + list(args),
                          capture_output=True, text=True, timeout=timeout, env=env, stdin=subprocess.DEVNULL)


def section(out, title):
    """The lines of one report section, up to the next blank line."""
    lines = out.split("\n" + title, 1)[1].split("\n")[1:]
    return lines[:next((i for i, l in enumerate(lines) if not l.strip()), len(lines))]


def root_of(out):
    return re.search(r"^  device root  (\S+)", out, re.M).group(1)


def first(rows, text):
    found = [t for t, _, row in rows if text in row]
    assert found, "no timeline row with %r:\n%s" % (text, "\n".join(r[2] for r in rows))
    return found[0]


class DemoTest(unittest.TestCase):
    def check_common(self, result):
        out = result.stdout
        self.assertNotIn("\x1b[", out, "no colour when standard output is not a terminal")
        rows = [(float(m[1]), m[2], m[3]) for m in map(TIMELINE_ROW.match, section(out, "Timeline")) if m]
        self.assertGreater(len(rows), 10, out)
        times = [t for t, _, _ in rows]
        self.assertEqual(times, sorted(times), "timeline out of order:\n" + out)
        self.assertLess(times[-1], 30)
        # Secrets the demo hands the agent never reach the screen whole.
        for secret in ("obk-7f3a9c21d4e85b60", "Xk7pQ2v9LmWt", "cfk-5d1e9a0b7c2f41"):
            self.assertNotIn(secret, out)
        lines = out.rstrip("\n").split("\n")
        self.assertEqual([l for l in lines if l.startswith("RESULT: ")], lines[-1:], "one RESULT line, the last")
        return rows

    def test_default_onboarding_completes(self):
        result = run_demo()
        out = result.stdout
        self.assertEqual(result.returncode, 0, out + result.stderr)
        rows = self.check_common(result)
        self.assertIn("RESULT: onboarding completed in ", out)
        self.assertIn("the agent exited with status 0", out)

        get = first(rows, "received GET /onboard from port 4777")
        first(rows, "ACS account emptied")
        first(rows, "ACS account written: https://acs.operator.example:7547/cwmp, user cpe-TVG4A2190013")
        bootstrap = first(rows, "bootstrap status 1 sent on the bus")
        put = first(rows, "received PUT /onboard?status=SUCCESS from port 4777")
        tz = first(rows, "/flash/mcq/tavel/timezoneconfigdone.txt created")
        exited = first(rows, "agent exited with status 0")
        # Only the server, bootstrap and exit stamps are exact; watched lines and files may be seen late.
        self.assertTrue(get < bootstrap < put < exited, (get, bootstrap, put, exited))
        mapped = first(rows, 'time zone: mapped to "CET-1CEST,M3.5.0,M10.5.0/3" (Europe/Berlin) and written')
        # The marker follows the 60-s (nominal) pause that lets the zone settle.
        self.assertGreater(tz - mapped, 60.0 / SCALE * 0.5)
        self.assertLess(exited, 10)

        requests = "\n".join(section(out, "Requests the onboarding server received"))
        self.assertRegex(requests, r"#1  GET /onboard HTTP/1.1  \(from port 4777[7-9], answered 200\)")
        for text in ("x-api-key: obk-...60", "sn:TVG4A2190013", "opdesc: Nordlicht Fibre Home"):
            self.assertIn(text, requests)

        diff = "\n".join(section(out, "Data model: what changed"))
        self.assertIn("  Device.ManagementServer.URL\n      - https://acs.tavel.invalid:7754\n"
                      "      + https://acs.operator.example:7547/cwmp", diff)
        # Secrets masked, unchanged parameters left out.
        self.assertIn("  Device.ManagementServer.Password\n      - (empty)\n      + ********", diff)
        self.assertIn("+ cfk-...41", diff)
        self.assertNotIn("SerialNumber", diff)

        self.assertIn('event[TZ Config] timezone["CET-1CEST,M3.5.0,M10.5.0/3",CET,Europe/Berlin]',
                      "\n".join(section(out, "History events")))
        for marker in (r"/configs/cc_configured_by +present: \"TAVEL,DE\\0\\0\" \(10 bytes\)",
                       r"/flash/mcq/tavel/timezoneconfigdone.txt +present", r"/flash/cc_from_tavel +absent"):
            self.assertRegex("\n".join(section(out, "Marker files")), marker)
        firewall = section(out, "Firewall commands recorded")
        self.assertEqual(len(firewall), 6, firewall)
        self.assertEqual(firewall[2], "  iptables -I INPUT_WAN_REMOTE_ACCESS -p tcp -m tcp --sport 443 "
                                      "--dport 47777:47780 -j ACCEPT")

        self.assertFalse(os.path.exists(root_of(out)), "the device root is removed without --keep")

    def test_failed_bootstrap_is_reported_and_root_kept(self):
        result = run_demo("--bootstrap-fail", "--keep")
        out = result.stdout
        m = re.search(r"^Kept: TAVEL_ROOT=(\S+)  \(CA in (\S+)\)$", out, re.M)
        self.assertIsNotNone(m, out)
        for kept in (m.group(1), m.group(2)):
            self.addCleanup(shutil.rmtree, kept, True)
        self.assertEqual(result.returncode, 1, out + result.stderr)
        rows = self.check_common(result)
        first(rows, "received PUT /onboard?status=ERROR:CONN_FAILED")
        self.assertTrue(out.rstrip().endswith(
            "RESULT: FAILED: not completed: the device reported ?status=ERROR:CONN_FAILED (bootstrap status 0: "
            "the TR-069 client did not reach its ACS)"), out[-500:])
        self.assertEqual(m.group(1), root_of(out))
        self.assertTrue(os.path.isfile(os.path.join(m.group(1), "flash", "dml", "datamodel.conf")))
        self.assertTrue(os.path.isfile(os.path.join(m.group(2), "ca.pem")))
