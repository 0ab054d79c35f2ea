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

    def ctl(self, *args, status=0):
        r = run_binary(TAVELCTL, "dml", *args, env=dict(os.environ, TAVEL_ROOT=self.root), text=False)
        self.assertEqual(r.returncode, status, (args, r.stderr))
        return r

    def test_set_get_dump_round_trip(self):
        # Absent parameter and missing store: an empty line, an empty dump.
        self.assertEqual(self.ctl("get", "Device.Missing").stdout, b"\n")
        self.assertEqual(self.ctl("dump").stdout, b"")
        os.makedirs(os.path.dirname(self.store))
        with open(self.store, "wb") as f:
            f.write(b"# factory\nDevice.A=1\n")
        value = "line1\nline2\ttab\\back\rcr"
        self.ctl("set", "Device.B", value)
        self.assertEqual(self.ctl("get", "Device.B").stdout, value.encode() + b"\n")
        self.assertEqual(tavelsim.read_store(self.store), {"Device.A": "1", "Device.B": value})
        self.assertEqual(self.ctl("dump").stdout, b"Device.A=1\nDevice.B=line1\\nline2\\ttab\\\\back\\rcr\n")
        with open(self.store, "rb") as f:
            self.assertTrue(f.read().startswith(b"# factory\nDevice.A=1\n"))
        self.ctl("unset", "Device.A")
        self.assertEqual(self.ctl("get", "Device.A").stdout, b"\n")
        self.assertEqual(self.ctl("dump").stdout.count(b"\n"), 1)

        # The store of the other tests and the demo (tools/tavelsim.py) against
        # the stand-in's: what one writes the other reads alike, and both skip
        # malformed lines and the later lines of a name.
        tavelsim.write_store(self.store, {"Device.C": value})
        with open(self.store, "a") as f:
            f.write("bad name=1\n=2\nDevice.C=later\nDevice.E=a\\x\\\n")
        read = tavelsim.read_store(self.store)
        self.assertEqual(read, {"Device.C": value, "Device.E": "a\\x\\"})
        for name, stored in read.items():
            self.assertEqual(self.ctl("get", name).stdout, stored.encode() + b"\n")

    def test_errors(self):
        for args in [(), ("get",), ("set", "A"), ("dump", "x"), ("frobnicate",)]:
            self.assertIn(b"tavelctl dml get", self.ctl(*args, status=2).stderr)
        self.ctl("set", "bad name", "x", status=2)
        os.makedirs(self.store)  # a directory where the store belongs
        for args in [("get", "A"), ("set", "A", "1"), ("dump",)]:
            r = self.ctl(*args, status=1)
            self.assertEqual(r.stderr.count(b"\n"), 1, r.stderr)
            self.assertIn(b"datamodel.conf", r.stderr)
