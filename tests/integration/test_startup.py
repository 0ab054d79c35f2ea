"""Start-up of the real agent: the disabled exit, the firewall rules, each test of the onboarding decision."""
import os
import time
import unittest

from harness import CONFIGURED_STORE, FIREWALL_INSERT, FIREWALL_REMOVE, NO_ROLE, Device, wait_until
from tavelsim import CC_CONFIGURED_BY, CC_FILE, CLOUD_MARKER, TZ_MARKER

NEEDED = "Connect to onBoardServer  ...  "
CONFIGURED_EXIT = "Valid Management URL is present ... EXIT TavelAgent!!"
CC_SYNC = {"Device.DeviceInfo.X_TAVEL_CCSyncRequired": "1",
           "Device.DeviceInfo.X_TAVEL_SupportedCountries": "US,CA;DE"}
MARKERS = (TZ_MARKER, CLOUD_MARKER)

# name, store over the factory one, files (name or (name, content)), outcome, lines the log holds in order.
DECISIONS = [
    ("factory device, all markers", {}, MARKERS + (CC_CONFIGURED_BY,), "onboards",
     ("TAVEL: Start", "TAVELAgent start...", "tavelInit Start", "Establishing handler for signal 10",
      "Capability: country code sync not required", "tavelInit End", "tavel_isMgmtServerUrlEmpty 1",
      "isL1ClouldUrlEmpty 1 isL2ClouldUrlEmpty 1 isMAPPUrlEmpty 1", "isKPRconfigUrlEmpty 1 isKPRconfigApikeyEmpty 1",
      NEEDED)),
    ("configured", CONFIGURED_STORE, MARKERS, "exits", ("No Polling .... VALID URL Config preset Already ... EXIT",)),
    ("one cloud setting, factory management URL", {"Device.X_TAVEL_Cloud.RemoteAccessURL": "https://mapp.test"},
     MARKERS, "exits", ()),
    ("no time-zone marker", CONFIGURED_STORE, (CLOUD_MARKER,), "onboards", ()),
    ("no cloud marker", CONFIGURED_STORE, (TZ_MARKER,), "onboards", ()),
    # The 300 s grace period for the ACS connection is 0.3 s here.
    ("ACS connection failed", dict(CONFIGURED_STORE, **{"Device.X_TAVEL_Agent.ACSConnStatus": "ACSConnFailed"}),
     MARKERS, "onboards", (" sleep for 5 mins over check cdp connectoin ",)),
    ("country code sync, code not configured", dict(CONFIGURED_STORE, **CC_SYNC), MARKERS, "onboards",
     ("dml get supported list success",)),
    ("country code sync, code configured", dict(CONFIGURED_STORE, **CC_SYNC), MARKERS + (CC_CONFIGURED_BY,), "exits",
     ()),
    # Without the capability a parked code is not even looked at.
    ("parked code, no sync capability", CONFIGURED_STORE, MARKERS + ((CC_FILE, b"US\n"),), "exits", ()),
    # With it, the code is read back (a supported list in any case) and the agent stays.
    ("parked code, sync capability", dict(CONFIGURED_STORE, **dict(CC_SYNC, **{
        "Device.DeviceInfo.X_TAVEL_SupportedCountries": "us,CA;DE"})), MARKERS + ((CC_FILE, b"US\n"),), "stays",
     ("Country code file is present, Reading from the file!!", "valid country code = US!!")),
] + [("bridge, role %r" % role, {"Device.X_TAVEL_WiFiService.WorkMode": "AP_Bridge",
                                  "Device.X_TAVEL_WiFiService.WorkRole": role}, (), "bridge",
      ("TAVEL work mode is AP-Bridge... Exit Tavel !!\n",)) for role in ("", "Agent")
    # Disabled: the exit comes before the timers and the firewall.
] + [("disabled: %r" % enable, {"Device.X_TAVEL_Agent.Enable": enable}, (), "disabled",
      ("tavelInit Start ...  ", "getOnBoardServerInfo Entered")) for enable in ("0", "", "yes")]


class StartupTest(unittest.TestCase):
    def device(self, store=None, markers=MARKERS):
        dev = Device(store)
        self.addCleanup(dev.close)
        for m in markers:
            dev.touch(m)
        return dev

    def test_unsafe_root_is_refused(self):
        # Shell words, an option-like relative root, a relative directory.
        for bad in ("a b;touch x", "-r", "relative/root"):
            with self.subTest(root=bad):
                dev = self.device()
                cwd = os.path.join(dev.root, "cwd")
                os.makedirs(os.path.join(cwd, bad.split(";")[0]))
                dev.start({"TAVEL_ROOT": bad}, cwd=cwd)
                self.assertEqual(dev.wait_exit(), 0)
                self.assertRegex(dev.read("agent.stderr"), r"^[^\n]*TAVEL_ROOT must be an absolute path[^\n]*\n?$")
                self.assertEqual(sorted(os.listdir(cwd)), sorted({bad.split("/")[0].split(";")[0]}))
                self.assertFalse(os.path.exists(os.path.join(cwd, "x")))

    def test_onboarding_needed_decision(self):
        for name, store, files, outcome, lines in DECISIONS:
            with self.subTest(name):
                # No role yet: a run that starts keeps polling for one, so the decision is all it shows.
                dev = self.device(dict(NO_ROLE, **store), markers=())
                for f in files:
                    dev.touch(*((f,) if isinstance(f, str) else f))
                dev.start(env={"TAVEL_TIME_SCALE": "1000"})
                if outcome in ("onboards", "stays"):
                    log = dev.wait_log("TAVEL work mode is CFG... Waiting to take Role !!" if outcome == "onboards"
                                       else lines[-1])
                else:
                    self.assertEqual(dev.wait_exit(), 0)
                    log = dev.log()
                if outcome != "disabled":  # the rules go in while start-up goes on
                    wait_until(lambda: len(dev.iptables()) >= 4, 10, "the firewall commands")
                exits = outcome in ("exits", "bridge")
                self.assertEqual(dev.iptables(), [] if outcome == "disabled" else
                                 FIREWALL_INSERT + (FIREWALL_REMOVE if exits else []))
                self.assertEqual((CONFIGURED_EXIT in log, "exitTavel !!!!" in log), (outcome == "exits", exits))
                self.assertEqual(("Establishing handler" in log, "tavelInit End" in log), (outcome != "disabled",) * 2)
                self.assertEqual("Country code file is present" in log, outcome == "stays")
                self.assertEqual(NEEDED in log, outcome in ("onboards", "bridge"))
                positions = [log.find(t) for t in lines]
                self.assertEqual(positions, sorted(p for p in positions if p >= 0))
                if outcome == "stays":
                    time.sleep(0.2)
                    self.assertIsNone(dev.proc.poll())
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
