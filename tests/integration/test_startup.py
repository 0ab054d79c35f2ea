"""Start-up of the real agent: the disabled exit, the firewall rules, and each
test of the onboarding-needed decision."""
import os
import subprocess
import unittest

from harness import (AGENT, CC_CONFIGURED_BY, CC_FILE, CLOUD_MARKER, FIREWALL_INSERT, FIREWALL_REMOVE, TZ_MARKER,
                     Device, command)

CONFIGURED = {
    "Device.ManagementServer.URL": "https://acs.example.test:7547/cwmp",
    "Device.ManagementServer.Username": "cpe",
    "Device.ManagementServer.Password": "secret",
    "Device.X_TAVEL_Cloud.L1URL": "https://l1.example.test",
}
NEEDED = "Connect to onBoardServer  ...  "
EXIT_LINE = "Valid Management URL is present ... EXIT TavelAgent!!"


class StartupTest(unittest.TestCase):
    def device(self, store=None, markers=(TZ_MARKER, CLOUD_MARKER)):
        dev = Device(store)
        self.addCleanup(dev.close)
        for m in markers:
            dev.touch(m)
        return dev

    def assert_onboarding_started(self, dev):
        # A device without a role yet keeps the run polling, so the decision is
        # all this test sees of it.
        log = dev.wait_log("TAVEL work mode is CFG... Waiting to take Role !!")
        self.assertIn(NEEDED, log)
        self.assertNotIn(EXIT_LINE, log)
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
        dev = self.device({"Device.X_TAVEL_WiFiService.WorkMode": "CFG"},
                          markers=(TZ_MARKER, CLOUD_MARKER, CC_CONFIGURED_BY))
        dev.start()
        log = self.assert_onboarding_started(dev)
        order = ["TAVEL: Start", "TAVELAgent start...", "tavelInit Start", "Establishing handler for signal 10",
                 "Capability: country code sync not required", "tavelInit End", "tavel_isMgmtServerUrlEmpty 1",
                 "isL1ClouldUrlEmpty 1 isL2ClouldUrlEmpty 1 isMAPPUrlEmpty 1",
                 "isKPRconfigUrlEmpty 1 isKPRconfigApikeyEmpty 1", NEEDED]
        positions = [log.find(t) for t in order]
        self.assertNotIn(-1, positions, positions)
        self.assertEqual(positions, sorted(positions))

    def test_one_cloud_setting_without_management_url_exits(self):
        dev = self.device({"Device.X_TAVEL_Cloud.RemoteAccessURL": "https://mapp.example.test"})
        dev.start()
        self.assertEqual(dev.wait_exit(), 0)
        log = dev.log()
        self.assertIn(EXIT_LINE, log)
        self.assertIn("exitTavel !!!!", log)
        self.assertNotIn(NEEDED, log)
        self.assertEqual(dev.iptables(), FIREWALL_INSERT + FIREWALL_REMOVE)

    def test_configured_device_exits(self):
        dev = self.device(CONFIGURED)
        dev.start()
        self.assertEqual(dev.wait_exit(), 0)
        self.assertIn("No Polling .... VALID URL Config preset Already ... EXIT", dev.log())
        self.assertIn(EXIT_LINE, dev.log())

    def test_failed_acs_connection_onboards_after_its_grace_period(self):
        store = dict(CONFIGURED, **{"Device.X_TAVEL_Agent.ACSConnStatus": "ACSConnFailed",
                                    "Device.X_TAVEL_WiFiService.WorkMode": "CFG"})
        dev = self.device(store)
        dev.start(env={"TAVEL_TIME_SCALE": "1000"})
        log = self.assert_onboarding_started(dev)
        self.assertIn(" sleep for 5 mins over check cdp connectoin ", log)

    def test_acs_recovering_during_grace_period_means_no_onboarding(self):
        store = dict(CONFIGURED, **{"Device.X_TAVEL_Agent.ACSConnStatus": "ACSRetryReq"})
        dev = self.device(store)
        # 300 s at this scale is 3 s: time enough to mend the status.
        dev.start(env={"TAVEL_TIME_SCALE": "100"})
        dev.wait_log(" sleep for 5 mins to give time for CDP connetion to complete")
        dev.write_store(dict(CONFIGURED, **{"Device.X_TAVEL_Agent.ACSConnStatus": "ACSConnected"}))
        self.assertEqual(dev.wait_exit(), 0)
        self.assertIn(EXIT_LINE, dev.log())

    def test_missing_marker_onboards(self):
        for present in ((CLOUD_MARKER,), (TZ_MARKER,)):
            with self.subTest(present=present):
                dev = self.device(dict(CONFIGURED, **{"Device.X_TAVEL_WiFiService.WorkMode": "CFG"}),
                                  markers=present)
                dev.start()
                self.assert_onboarding_started(dev)

    def test_country_code_sync_decides_by_marks(self):
        store = dict(CONFIGURED, **{"Device.DeviceInfo.X_TAVEL_CCSyncRequired": "1",
                                    "Device.DeviceInfo.X_TAVEL_SupportedCountries": "US,CA;DE",
                                    "Device.X_TAVEL_WiFiService.WorkMode": "CFG"})
        dev = self.device(store)
        dev.start()
        log = self.assert_onboarding_started(dev)
        self.assertIn("dml get supported list success", log)

        dev = self.device(store, markers=(TZ_MARKER, CLOUD_MARKER, CC_CONFIGURED_BY))
        dev.start()
        self.assertEqual(dev.wait_exit(), 0)
        self.assertIn(EXIT_LINE, dev.log())

    def test_country_files_ignored_without_sync_capability(self):
        dev = self.device(CONFIGURED)
        dev.touch(CC_FILE, b"US\n")
        dev.start()
        self.assertEqual(dev.wait_exit(), 0)
        self.assertNotIn("Country code file is present", dev.log())

    def test_parked_country_code_is_read_back_and_agent_stays(self):
        store = dict(CONFIGURED, **{"Device.DeviceInfo.X_TAVEL_CCSyncRequired": "1",
                                    "Device.DeviceInfo.X_TAVEL_SupportedCountries": "us,CA;DE"})
        dev = self.device(store)
        dev.touch(CC_FILE, b"US\n")
        dev.start()
        log = dev.wait_log("valid country code = US!!")
        self.assertIn("Country code file is present, Reading from the file!!", log)
        self.assertNotIn(EXIT_LINE, log)
        self.assertIsNone(dev.proc.poll())


if __name__ == "__main__":
    unittest.main()
