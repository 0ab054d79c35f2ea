"""The agent on a private message bus: its name, dummyFunction, the signal
routing through the real bus layer, malformed payloads, and tavelctl's bus
commands."""
import os
import time

from harness import Device, cpu_ticks, ctl, wait_owner
from test_flow import FlowCase

# A device that needs onboarding but has no role yet: the run polls for the
# role and the agent otherwise sits idle on the bus.
WAITING = {"Device.X_TAVEL_WiFiService.WorkMode": "CFG"}
WAITING_LINE = "TAVEL work mode is CFG... Waiting to take Role !!"
NAME_FAILED = "fatal failed to request bus name for tavel service\n"
REGISTER_FAILED = "fatal failed to register tavel service\n"


class BusCase(FlowCase):
    def start_agent(self, wait_name=True):
        dev = Device(WAITING)
        self.addCleanup(dev.close)
        dev.start(env=self.bus.env())
        dev.wait_log(WAITING_LINE)
        if wait_name:
            wait_owner(dev, self.bus.env())
        return dev

    def ctl(self, *args, env=None):
        return ctl(dict(self.bus.env(), **(env or {})), *args)

    def assert_ok(self, result):
        self.assertEqual(result.returncode, 0, result.stderr)
        return result


class ServiceTest(BusCase):
    def test_service_and_signals_of_a_waiting_agent(self):
        dev = self.start_agent()
        # Waiting for a role it polls every 10 s: a loop polling the bus, a
        # timer or the store would burn ticks meanwhile.
        time.sleep(0.5)
        before = cpu_ticks(dev.proc.pid)
        time.sleep(3)
        self.assertLessEqual(cpu_ticks(dev.proc.pid) - before, 1, "ticks in 3 s while idle")

        self.assert_ok(self.ctl("dbg", "setTimeout", "600"))
        out = dev.wait_stdout("cmdLine+11 = 600.\n")
        self.assertEqual(out, "enter tavel_processDbgCmdSignal.\n"
                         "tavel_processDbgCmdSignal cmd: setTimeout 600.\n"
                         "debug cmdLine = setTimeout 600.\n"
                         "cmdLine+11 = 600.\n")
        self.assert_ok(self.ctl("dbg", "acsinfo", "--module", "TavelAgent"))
        dev.wait_stdout("tavel_processDbgCmdSignal, ignore.\n")
        self.assert_ok(self.ctl("dbg", "acsinfo"))
        out = dev.wait_stdout("After printing ACS Details...\n")
        acs = out.split("debug cmdLine = acsinfo.\n", 1)[1]
        self.assertTrue(acs.startswith("printing ACS Details...\n"), acs)
        self.assertIn("ACS Connection Details", acs)
        self.assert_ok(self.ctl("dbg", "httpinfo", "now"))
        out = dev.wait_stdout("Dump Http Connection Details.")
        self.assertIn("debug cmdLine = httpinfo now.\nhttpinfo", out)

        for arg in ("0", "-1", "7", "2147483647", "-2147483648"):
            with self.subTest(arg=arg):
                self.assertEqual(self.assert_ok(self.ctl("call", "dummyFunction", arg)).stdout, "1\n")
        started = time.monotonic()
        result = self.ctl("call", "resetDevice", "3")
        self.assertLess(time.monotonic() - started, 5)
        self.assertEqual((result.returncode, result.stdout), (1, ""))
        self.assertIn("UnknownMethod", result.stderr)
        dev.wait_log("fatal unknown message: resetDevice\n")
        self.assertEqual(dev.log().count("unknown message"), 1)

        value = "".join(chr(ord("a") + i % 26) for i in range(60))
        self.assert_ok(self.ctl("ntp", value))
        dev.wait_log("notice tavel_handleNTPTimeZoneUpdateSignal, value received from hmsd module is %s.\n"
                     % value[:49])
        self.assert_ok(self.ctl("sync", "1", "up"))
        dev.wait_log("] Received ACS Connection Status\n")
        self.assert_ok(self.ctl("sync", "1"))
        dev.wait_log("] type = 1, len = 0\n")
        # Routed by member alone, whoever sends it; the log-control rows do nothing.
        for member in ("setLogLevel", "setLogDestination"):
            self.assert_ok(self.ctl("signal", member, "--hex", "07000000"))

        # Malformed payloads: every wrong size runs in exact-size ASan blocks
        # in test_signal.cpp; here the ones only the real bus layer delivers.
        seen = len(dev.stdout())
        for args in (["--size", "7"], ["--size", str(1 << 20)], ["--no-arg"], ["--string", "tavelAgent"]):
            self.assert_ok(self.ctl("signal", "sendDbgCmd", *args))
        self.assert_ok(self.ctl("signal", "tavelCfgmgrSignal", "--no-arg"))
        self.assert_ok(self.ctl("signal", "tavelSyngMgrSignal", "--string", "x"))
        self.assert_ok(self.ctl("signal", "notifyNTPTimezoneUpdate", "--size", "0"))
        self.assert_ok(self.ctl("signal", "somethingElse", "--size", "4", "--no-owner-check"))
        dev.wait_log("signal ignored: payload of 0 bytes, 4 needed\n")
        dev.wait_log("signal ignored: payload of 0 bytes, 1 needed\n")
        dev.wait_log("] msg is NULL\n")
        self.assertNotIn("Send Status TO Server", dev.log())
        dev.wait_stdout("parameter mismatched", count=4)
        out = dev.stdout()[seen:]
        self.assertEqual(out.count("parameter mismatched"), 4, out)
        self.assertEqual(out.count("enter tavel_processDbgCmdSignal."), 4, out)
        self.assertNotIn("cmd:", out)
        self.assertEqual(self.assert_ok(self.ctl("call", "dummyFunction", "9")).stdout, "1\n")

        # A second agent cannot own the name and keeps running; its bus
        # thread ended without subscribing, so only the owner reacts.
        second = self.start_agent(wait_name=False)
        log = second.wait_log(REGISTER_FAILED)
        # The bus thread's lines interleave with the main thread's, so only
        # their order is fixed.
        self.assertTrue(0 <= log.find(NAME_FAILED) < log.find(REGISTER_FAILED), log)
        self.assertEqual(log.count("fatal "), 2)
        self.assertNotIn(NAME_FAILED, dev.log())
        self.assertNotIn(REGISTER_FAILED, dev.log())
        self.assert_ok(self.ctl("dbg", "setTimeout", "5"))
        dev.wait_stdout("cmdLine+11 = 5.\n")
        time.sleep(0.3)
        self.assertEqual(second.stdout(), "")
        self.assertIsNone(second.proc.poll())
        self.assertIsNone(dev.proc.poll())


class TavelctlTest(BusCase):
    def test_errors_are_one_line(self):
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
                result = self.ctl(*args, env=env)
                self.assertEqual(result.returncode, status, result.stderr)
                self.assertEqual(result.stderr.count("\n"), 1, result.stderr)
                self.assertIn(text, result.stderr)
        # A stray signal needs no owner.
        self.assert_ok(self.ctl("signal", "sendDbgCmd", "--size", "2112", "--no-owner-check"))
