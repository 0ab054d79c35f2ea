"""Start-up of the real agent: the disabled exit, the firewall rules, and each
test of the onboarding-needed decision."""
import os
import subprocess
import unittest

from harness import (AGENT, CC_CONFIGURED_BY, CC_FILE, CLOUD_MARKER, CONFIGURED_STORE, FIREWALL_INSERT,
                     FIREWALL_REMOVE, TZ_MARKER, Device, command)

NEEDED = "Connect to onBoardServer  ...  "
CONFIGURED_EXIT = "Valid Management URL is present ... EXIT TavelAgent!!"
# No role yet: a run that starts keeps polling for one, so the decision is all
# a test sees of it.
NO_ROLE = {"Device.X_TAVEL_WiFiService.WorkMode": "CFG"}
CC_SYNC = {"Device.DeviceInfo.X_TAVEL_CCSyncRequired": "1",
           "Device.DeviceInfo.X_TAVEL_SupportedCountries": "US,CA;DE"}
MARKERS = (TZ_MARKER, CLOUD_MARKER)

# name, store on top of the factory one, files present (a name, or a name and
# its content), onboarding needed, a line the log must hold besides.
DECISIONS = [
    ("configured", CONFIGURED_STORE, MARKERS, False, "No Polling .... VALID URL Config preset Already ... EXIT"),
    ("one cloud setting, factory management URL", {"Device.X_TAVEL_Cloud.RemoteAccessURL": "https://mapp.test"},
     MARKERS, False, None),
    ("no time-zone marker", CONFIGURED_STORE, (CLOUD_MARKER,), True, None),
    ("no cloud marker", CONFIGURED_STORE, (TZ_MARKER,), True, None),
    # The 300 s grace period for the ACS connection is 0.3 s here.
    ("ACS connection failed", dict(CONFIGURED_STORE, **{"Device.X_TAVEL_Agent.ACSConnStatus": "ACSConnFailed"}),
     MARKERS, True, " sleep for 5 mins over check cdp connectoin "),
    ("country code sync, code not configured", dict(CONFIGURED_STORE, **CC_SYNC), MARKERS, True,
     "dml get supported list success"),
    ("country code sync, code configured", dict(CONFIGURED_STORE, **CC_SYNC), MARKERS + (CC_CONFIGURED_BY,), False,
     None),
    # Without the capability a parked code is not even looked at.
    ("parked code, no sync capability", CONFIGURED_STORE, MARKERS + ((CC_FILE, b"US\n"),), False, None),
]


class StartupTest(unittest.TestCase):
    def device(self, store=None, markers=MARKERS):
        dev = Device(store)
        self.addCleanup(dev.close)
        for m in markers:
            dev.touch(m)
        return dev

    def assert_onboarding_started(self, dev):
        log = dev.wait_log("TAVEL work mode is CFG... Waiting to take Role !!")
        self.assertIn(NEEDED, log)
        self.assertNotIn(CONFIGURED_EXIT, log)
        self.assertEqual(dev.iptables(), FIREWALL_INSERT)
        return log

    def test_disabled_agent_exits_before_timers_and_firewall(self):
        for enable in ("0", "", "yes"):
            with self.subTest(enable=enable):
                dev = self.device({"Device.X_TAVEL_Agent.Enable": enable})
                dev.start()
                self.assertEqual(dev.wait_exit(), 0)
                self.assertFalse(dev.exists("iptables.log"))
                log = dev.log()
                after = log.split("tavelInit Start ...  ")[1]
                self.assertIn("getOnBoardServerInfo Entered", after)
                self.assertNotIn("Establishing handler", after)
                self.assertNotIn("tavelInit End", after)

    def test_unsafe_root_is_refused(self):
        # Shell words, an option-like relative root, a relative directory.
        for bad in ("a b;touch x", "-r", "relative/root"):
            with self.subTest(root=bad):
                dev = self.device()
                cwd = os.path.join(dev.root, "cwd")
                os.makedirs(os.path.join(cwd, bad.split(";")[0]))
                with open(dev.path("agent.stdout"), "wb") as out, open(dev.path("agent.stderr"), "wb") as err:
                    dev.proc = subprocess.Popen(command(AGENT), env=dev.env({"TAVEL_ROOT": bad}), cwd=cwd,
                                                stdout=out, stderr=err, stdin=subprocess.DEVNULL)
                self.assertEqual(dev.wait_exit(), 0)
                err = dev.read("agent.stderr")
                self.assertEqual(len(err.strip().split("\n")), 1)
                self.assertIn("TAVEL_ROOT must be an absolute path", err)
                self.assertEqual(sorted(os.listdir(cwd)), sorted({bad.split("/")[0].split(";")[0]}))
                self.assertFalse(os.path.exists(os.path.join(cwd, "x")))

    def test_factory_device_onboards_even_with_all_markers(self):
        dev = self.device(NO_ROLE, markers=MARKERS + (CC_CONFIGURED_BY,))
        dev.start()
        log = self.assert_onboarding_started(dev)
        order = ["TAVEL: Start", "TAVELAgent start...", "tavelInit Start", "Establishing handler for signal 10",
                 "Capability: country code sync not required", "tavelInit End", "tavel_isMgmtServerUrlEmpty 1",
                 "isL1ClouldUrlEmpty 1 isL2ClouldUrlEmpty 1 isMAPPUrlEmpty 1",
                 "isKPRconfigUrlEmpty 1 isKPRconfigApikeyEmpty 1", NEEDED]
        positions = [log.find(t) for t in order]
        self.assertNotIn(-1, positions, positions)
        self.assertEqual(positions, sorted(positions))

    def test_onboarding_needed_decision(self):
        for name, store, files, needed, line in DECISIONS:
            with self.subTest(name):
                dev = self.device(dict(store, **NO_ROLE), markers=())
                for f in files:
                    dev.touch(*((f,) if isinstance(f, str) else f))
                dev.start(env={"TAVEL_TIME_SCALE": "1000"})
                if needed:
                    log = self.assert_onboarding_started(dev)
                else:
                    self.assertEqual(dev.wait_exit(), 0)
                    log = dev.log()
                    self.assertIn(CONFIGURED_EXIT, log)
                    self.assertIn("exitTavel !!!!", log)
                    self.assertNotIn(NEEDED, log)
                    self.assertNotIn("Country code file is present", log)
                    self.assertEqual(dev.iptables(), FIREWALL_INSERT + FIREWALL_REMOVE)
                if line:
                    self.assertIn(line, log)
                dev.close()

    def test_acs_recovering_during_grace_period_means_no_onboarding(self):
        store = dict(CONFIGURED_STORE, **{"Device.X_TAVEL_Agent.ACSConnStatus": "ACSRetryReq"})
        dev = self.device(store)
        # 300 s at this scale is 3 s: time enough to mend the status.
        dev.start(env={"TAVEL_TIME_SCALE": "100"})
        dev.wait_log(" sleep for 5 mins to give time for CDP connetion to complete")
        dev.write_store(dict(store, **{"Device.X_TAVEL_Agent.ACSConnStatus": "ACSConnected"}))
        self.assertEqual(dev.wait_exit(), 0)
        self.assertIn(CONFIGURED_EXIT, dev.log())

    def test_parked_country_code_is_read_back_and_agent_stays(self):
        store = dict(CONFIGURED_STORE, **{"Device.DeviceInfo.X_TAVEL_CCSyncRequired": "1",
                                          "Device.DeviceInfo.X_TAVEL_SupportedCountries": "us,CA;DE"})
        dev = self.device(store)
        dev.touch(CC_FILE, b"US\n")
        dev.start()
        log = dev.wait_log("valid country code = US!!")
        self.assertIn("Country code file is present, Reading from the file!!", log)
        self.assertNotIn(CONFIGURED_EXIT, log)
        self.assertIsNone(dev.proc.poll())


if __name__ == "__main__":
    unittest.main()
