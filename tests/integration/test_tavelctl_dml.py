"""tavelctl dml get/set/unset/dump against a store under a temporary TAVEL_ROOT."""

import os
import shutil
import subprocess
import tempfile
import unittest

from harness import command

BUILD_DIR = os.environ.get("TAVEL_BUILD_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "build"))
TAVELCTL = os.path.join(BUILD_DIR, "tavelctl")


class TavelctlDmlTest(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="tavelctl-dml-")
        self.addCleanup(shutil.rmtree, self.root, ignore_errors=True)
        self.store = os.path.join(self.root, "flash", "dml", "datamodel.conf")

    def run_ctl(self, *args):
        env = dict(os.environ, TAVEL_ROOT=self.root)
        return subprocess.run(command(TAVELCTL, "dml", *args), env=env, capture_output=True, timeout=30)

    def write_store(self, text):
        os.makedirs(os.path.dirname(self.store), exist_ok=True)
        with open(self.store, "wb") as f:
            f.write(text)

    def test_set_get_dump_round_trip(self):
        self.write_store(b"# factory\nDevice.A=1\n")
        value = "line1\nline2\ttab\\back\rcr"
        r = self.run_ctl("set", "Device.B", value)
        self.assertEqual(r.returncode, 0, r.stderr)
        r = self.run_ctl("get", "Device.B")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout, value.encode() + b"\n")

        r = self.run_ctl("dump")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout, b"Device.A=1\nDevice.B=line1\\nline2\\ttab\\\\back\\rcr\n")
        with open(self.store, "rb") as f:
            self.assertTrue(f.read().startswith(b"# factory\nDevice.A=1\n"))

        self.assertEqual(self.run_ctl("unset", "Device.A").returncode, 0)
        self.assertEqual(self.run_ctl("get", "Device.A").stdout, b"\n")
        self.assertEqual(self.run_ctl("dump").stdout.count(b"\n"), 1)

    def test_absent_parameter_and_missing_store_print_an_empty_line(self):
        r = self.run_ctl("get", "Device.Missing")
        self.assertEqual((r.returncode, r.stdout), (0, b"\n"))
        r = self.run_ctl("dump")
        self.assertEqual((r.returncode, r.stdout), (0, b""))

    def test_errors(self):
        for args in [(), ("get",), ("set", "A"), ("dump", "x"), ("frobnicate",)]:
            r = self.run_ctl(*args)
            self.assertEqual(r.returncode, 2, args)
            self.assertIn(b"tavelctl dml get", r.stderr)
        r = self.run_ctl("set", "bad name", "x")
        self.assertEqual(r.returncode, 2)

        os.makedirs(self.store)  # a directory where the store belongs
        for args in [("get", "A"), ("set", "A", "1"), ("dump",)]:
            r = self.run_ctl(*args)
            self.assertEqual(r.returncode, 1, args)
            self.assertEqual(r.stderr.count(b"\n"), 1, r.stderr)
            self.assertIn(b"datamodel.conf", r.stderr)


if __name__ == "__main__":
    unittest.main()
