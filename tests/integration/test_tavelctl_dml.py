"""tavelctl dml get/set/unset/dump against a store under a temporary TAVEL_ROOT,
and the same store read and written by tools/tavelsim.py, which the other
tests and the demo use."""

import os
import shutil
import tempfile
import unittest

from harness import TAVELCTL, run_binary, tavelsim


class TavelctlDmlTest(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="tavelctl-dml-")
        self.addCleanup(shutil.rmtree, self.root, ignore_errors=True)
        self.store = os.path.join(self.root, "flash", "dml", "datamodel.conf")

    def run_ctl(self, *args):
        return run_binary(TAVELCTL, "dml", *args, env=dict(os.environ, TAVEL_ROOT=self.root), text=False)

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
        self.assertEqual(tavelsim.read_store(self.store), {"Device.A": "1", "Device.B": value})

        r = self.run_ctl("dump")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout, b"Device.A=1\nDevice.B=line1\\nline2\\ttab\\\\back\\rcr\n")
        with open(self.store, "rb") as f:
            self.assertTrue(f.read().startswith(b"# factory\nDevice.A=1\n"))

        self.assertEqual(self.run_ctl("unset", "Device.A").returncode, 0)
        self.assertEqual(self.run_ctl("get", "Device.A").stdout, b"\n")
        self.assertEqual(self.run_ctl("dump").stdout.count(b"\n"), 1)

        # The store of the other tests and the demo (tools/tavelsim.py) against
        # the stand-in's: what one writes the other reads alike, and both skip
        # malformed lines and the later lines of a name.
        tavelsim.write_store(self.store, {"Device.C": value})
        with open(self.store, "a") as f:
            f.write("bad name=1\n=2\nDevice.C=later\nDevice.E=a\\x\\\n")
        read = tavelsim.read_store(self.store)
        self.assertEqual(read, {"Device.C": value, "Device.E": "a\\x\\"})
        for name, stored in read.items():
            self.assertEqual(self.run_ctl("get", name).stdout, stored.encode() + b"\n")

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
