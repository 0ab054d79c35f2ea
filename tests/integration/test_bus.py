"""The agent on a private bus: its name, methods, signals, malformed payloads; tavelctl's bus and dml commands."""
import os
import re
import shutil
import subprocess
import tempfile
import time

from harness import NO_ROLE, TAVELCTL, Device, build_sigstorm, ctl, run_binary, wait_owner, wait_until
import tavelsim
from tavelsim import cpu_ticks
from test_flow import FlowCase

NAME_FAILED = "fatal failed to request bus name for tavel service\n"
REGISTER_FAILED = "fatal failed to register tavel service\n"


class BusCase(FlowCase):
    def start_agent(self, wait_name=True, store=None):
        dev = Device(dict(NO_ROLE, **(store or {})))
        self.addCleanup(dev.close)
        dev.start(env=self.bus.env())
        dev.wait_log("TAVEL work mode is CFG... Waiting to take Role !!")
        if wait_name:
            wait_owner(dev, self.bus.env())
        return dev


class ServiceTest(BusCase):
    def test_service_and_signals_of_a_waiting_agent(self):
        dev = self.start_agent()
        # Waiting for a role it polls every 10 s: any busier loop would burn ticks.
        time.sleep(0.5)
        before = cpu_ticks(dev.proc.pid)
        time.sleep(3)
        self.assertLessEqual(cpu_ticks(dev.proc.pid) - before, 1, "ticks in 3 s while idle")

        self.send("dbg", "--signal", "setTimeout", "600")
        out = dev.wait_stdout("cmdLine+11 = 600.\n")
        self.assertEqual(out, "enter tavel_processDbgCmdSignal.\ntavel_processDbgCmdSignal cmd: setTimeout 600.\n"
                         "debug cmdLine = setTimeout 600.\ncmdLine+11 = 600.\n")
        self.send("dbg", "acsinfo", "--module", "TavelAgent")
        dev.wait_stdout("tavel_processDbgCmdSignal, ignore.\n")
        self.send("dbg", "acsinfo")
        out = dev.wait_stdout("After printing ACS Details...\n")
        self.assertRegex(out, r"debug cmdLine = acsinfo\.\nprinting ACS Details\.\.\.\n(.|\n)*ACS Connection Details")
        self.send("dbg", "httpinfo", "now")
        out = dev.wait_stdout("Dump Http Connection Details.")
        self.assertIn("debug cmdLine = httpinfo now.\nhttpinfo", out)

        for arg in ("0", "-1", "7", "2147483647", "-2147483648"):
            with self.subTest(arg=arg):
                self.assertEqual(self.send("call", "dummyFunction", arg).stdout, "1\n")
        started = time.monotonic()
        result = ctl(self.bus.env(), "call", "resetDevice", "3")
        self.assertLess(time.monotonic() - started, 5)
        self.assertEqual((result.returncode, result.stdout, "UnknownMethod" in result.stderr), (1, "", True))
        dev.wait_log("fatal unknown message: resetDevice\n")
        self.assertEqual(dev.log().count("unknown message"), 1)

        value = "".join(chr(ord("a") + i % 26) for i in range(60))
        self.send("ntp", value)
        dev.wait_log("notice tavel_handleNTPTimeZoneUpdateSignal, value received from hmsd module is %s.\n"
                     % value[:49])
        self.send("sync", "1", "up")
        dev.wait_log("] Received ACS Connection Status\n")
        # A sync message without a body and the log-control rows are test_bus_policy's.

        # Malformed payloads only the real bus layer delivers (test_signal.cpp has every wrong size).
        seen = len(dev.stdout())
        for args in (["sendDbgCmd", "--size", "7"], ["sendDbgCmd", "--size", str(1 << 20)], ["sendDbgCmd", "--no-arg"],
                     ["sendDbgCmd", "--string", "tavelAgent"], ["tavelCfgmgrSignal", "--no-arg"],
                     ["tavelSyngMgrSignal", "--string", "x"], ["notifyNTPTimezoneUpdate", "--size", "0"],
                     ["somethingElse", "--size", "4", "--no-owner-check"]):
            self.send("signal", *args)
        dev.wait_log("signal ignored: payload of 0 bytes, 4 needed\n")
        dev.wait_log("signal ignored: payload of 0 bytes, 1 needed\n")
        dev.wait_log("] msg is NULL\n")
        self.assertNotIn("Send Status TO Server", dev.log())
        dev.wait_stdout("parameter mismatched", count=4)
        out = dev.stdout()[seen:]
        self.assertEqual(out.count("parameter mismatched"), 4, out)
        self.assertEqual(out.count("enter tavel_processDbgCmdSignal."), 4, out)
        self.assertNotIn("cmd:", out)
        self.assertEqual(self.send("call", "dummyFunction", "9").stdout, "1\n")

        # A second agent cannot own the name and keeps running; its bus thread ended unsubscribed.
        second = self.start_agent(wait_name=False)
        log = second.wait_log(REGISTER_FAILED)
        # The bus thread's lines interleave with the main thread's: only their order is fixed.
        self.assertTrue(0 <= log.find(NAME_FAILED) < log.find(REGISTER_FAILED), log)
        self.assertEqual(log.count("fatal "), 2)
        self.assertNotIn("fatal failed", dev.log())
        self.send("dbg", "setTimeout", "5")
        dev.wait_stdout("cmdLine+11 = 5.\n")
        time.sleep(0.3)
        self.assertEqual((second.stdout(), second.proc.poll(), dev.proc.poll()), ("", None, None))


class ListeningTest(BusCase):
    def test_a_signal_sent_the_instant_the_name_appears_is_heard(self):
        # The sender waits for the name and signals at once, as a module started alongside the agent does;
        # the time-zone row's match is the last one added, so it has the widest window to be missed in.
        work = tempfile.mkdtemp(prefix="tavel-listen-")
        self.addCleanup(shutil.rmtree, work, True)
        sender = build_sigstorm(work)
        missed = []
        for n in range(5):
            value = "RACE%d" % n
            spec = os.path.join(work, "spec")
            with open(spec, "w") as f:
                f.write("notifyNTPTimezoneUpdate %s\n" % (value.encode() + b"\0").hex())
            proc = subprocess.Popen([sender, "1", "1000", spec, "velka.tavel"], env=dict(os.environ, **self.bus.env()),
                                    stdout=subprocess.PIPE, text=True)
            self.assertEqual(proc.stdout.readline(), "ready\n")
            dev = self.start_agent(wait_name=False)
            try:
                out = proc.communicate(timeout=10)[0]
            except subprocess.TimeoutExpired:
                proc.kill()
                self.fail("the sender never saw the name appear; the agent's log:\n" + dev.log()[-3000:])
            self.assertEqual((out, proc.returncode), ("1\n", 0))
            wait_owner(dev, self.bus.env())  # the agent has handled everything sent before this call
            if "value received from hmsd module is %s.\n" % value not in dev.log():
                missed.append(value)
            dev.close()
            # The next agent must find the name free: the bus daemon drops the old owner on its own time.
            wait_until(lambda: ctl(self.bus.env(), "call", "dummyFunction", "0").returncode != 0, 10,
                       "the name to be released")
        self.assertEqual(missed, [])


# What a sender would need to write a record of its own into the log, and to wipe an operator's terminal.
FORGED = "\nerror tavel: [forged] injected\r\x1b[2J"
FORGED_SHOWN = "\\nerror tavel: [forged] injected\\r\\x1b[2J"


class RecordTest(BusCase):
    def test_text_from_the_bus_or_the_store_stays_in_its_own_record(self):
        dev = self.start_agent(store={"Device.X_TAVEL_Agent.URL": "https://ob.test/x" + FORGED})
        self.send("ntp", "CET" + FORGED)
        self.send("sync", "1", "up" + FORGED)
        self.send("sync", "7", "up" + FORGED)
        self.send("dbg", "setTimeout 5" + FORGED)
        self.send("dbg", "httpinfo")
        out = dev.wait_stdout("g_httpInfo.authEnabled")
        log = dev.wait_log("] unknown type 7\n")
        self.assertIsNone(re.search(r"^error tavel: \[forged\]", log + out, re.M))
        self.assertEqual([line for line in log.split("\n")[:-1] if not re.match(r"(debug|notice|error|fatal) ", line)],
                         [])
        self.assertIn("notice tavel_handleNTPTimeZoneUpdateSignal, value received from hmsd module is CET%s.\n"
                      % FORGED_SHOWN, log)
        self.assertIn("] g_httpInfo.url: https://ob.test/x%s\n" % FORGED_SHOWN, log)
        self.assertEqual(log.count("] Received ACS Connection Status\n"), 1)
        for line in ("debug cmdLine = setTimeout 5%s.\n" % FORGED_SHOWN, "cmdLine+11 = 5%s.\n" % FORGED_SHOWN,
                     "g_httpInfo.url: https://ob.test/x%s\n" % FORGED_SHOWN):
            self.assertIn(line, out)


class TavelctlTest(BusCase):
    def dml(self, *args, status=0):
        r = run_binary(TAVELCTL, "dml", *args, env=dict(os.environ, TAVEL_ROOT=self.root), text=False)
        self.assertEqual(r.returncode, status, (args, r.stderr))
        return r

    def test_dml_round_trip_and_one_line_errors(self):
        self.root = tempfile.mkdtemp(prefix="tavelctl-dml-")
        self.addCleanup(shutil.rmtree, self.root, ignore_errors=True)
        self.store = os.path.join(self.root, "flash", "dml", "datamodel.conf")
        for args in [(), ("get",), ("set", "A"), ("dump", "x"), ("frobnicate",)]:
            self.assertIn(b"tavelctl dml get", self.dml(*args, status=2).stderr)
        self.dml("set", "bad name", "x", status=2)
        # Absent parameter and missing store: an empty line, an empty dump.
        self.assertEqual(self.dml("get", "Device.Missing").stdout, b"\n")
        self.assertEqual(self.dml("dump").stdout, b"")
        os.makedirs(os.path.dirname(self.store))
        with open(self.store, "wb") as f:
            f.write(b"# factory\nDevice.A=1\n")
        value = "line1\nline2\ttab\\back\rcr"
        self.dml("set", "Device.B", value)
        self.assertEqual(self.dml("get", "Device.B").stdout, value.encode() + b"\n")
        self.assertEqual(tavelsim.read_store(self.store), {"Device.A": "1", "Device.B": value})
        self.assertEqual(self.dml("dump").stdout, b"Device.A=1\nDevice.B=line1\\nline2\\ttab\\\\back\\rcr\n")
        with open(self.store, "rb") as f:
            self.assertTrue(f.read().startswith(b"# factory\nDevice.A=1\n"))
        self.dml("unset", "Device.A")
        self.assertEqual(self.dml("get", "Device.A").stdout, b"\n")
        self.assertEqual(self.dml("dump").stdout.count(b"\n"), 1)

        # tavelsim's store and the stand-in's read each other's, both skipping bad lines and repeated names.
        tavelsim.write_store(self.store, {"Device.C": value})
        with open(self.store, "a") as f:
            f.write("bad name=1\n=2\nDevice.C=later\nDevice.E=a\\x\\\n")
        read = tavelsim.read_store(self.store)
        self.assertEqual(read, {"Device.C": value, "Device.E": "a\\x\\"})
        for name, stored in read.items():
            self.assertEqual(self.dml("get", name).stdout, stored.encode() + b"\n")
        os.unlink(self.store)
        os.makedirs(self.store)  # a directory where the store belongs
        for args in [("get", "A"), ("set", "A", "1"), ("dump",)]:
            r = self.dml(*args, status=1)
            self.assertEqual(r.stderr.count(b"\n"), 1, r.stderr)
            self.assertIn(b"datamodel.conf", r.stderr)
        # The bus commands' errors are one line too.
        nowhere = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=" + os.path.join(self.bus.dir, "none")}
        for args, env, status, text in (
                (["bootstrap", "1"], None, 1, "velka.tavel has no owner"),
                (["call", "dummyFunction", "1"], None, 1, "ServiceUnknown"),
                (["ntp", "CET"], nowhere, 1, "cannot connect to the system bus"),
                (["bootstrap", "x1"], None, 1, "not a 32-bit integer"),
                (["bootstrap", "4294967296"], None, 1, "not a 32-bit integer"),
                (["signal", "sendDbgCmd", "--hex", "0g"], None, 1, "hex"),
                (["dbg", "x" * 2048], None, 1, "longer than 2047"),
                (["dbg", "acsinfo", "--module", "m" * 64], None, 1, "longer than 63"),
                (["bootstrap"], None, 2, "usage"),
                (["signal", "sendDbgCmd"], None, 2, "exactly one of"),
                (["signal", "sendDbgCmd", "--size", "1", "--no-arg"], None, 2, "exactly one of"),
                (["signal", "sendDbgCmd", "--bogus"], None, 2, "--bogus")):
            with self.subTest(args=args[:3]):
                result = ctl(dict(self.bus.env(), **(env or {})), *args)
                self.assertEqual(result.returncode, status, result.stderr)
                self.assertEqual(result.stderr.count("\n"), 1, result.stderr)
                self.assertIn(text, result.stderr)
        # A stray signal needs no owner.
        self.send("signal", "sendDbgCmd", "--size", "2112", "--no-owner-check")
