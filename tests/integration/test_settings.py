"""Time zone and country code from the reply to the data model, the markers and the history log."""
import os
import time

from harness import (FIREWALL_REMOVE, MAPPING, NEW_ACCOUNT, PARIS_NAME, PARIS_ZONE, TZ_PARIS, ctl, gaps, reply,
                     retry_lines, wait_until)
from tavelsim import CC_CONFIGURED_BY, CC_FILE, ONBOARDING_IN_PROGRESS, TZ_MARKER
from test_flow import FlowCase

# A decoy before the Paris line: the city matches, the code does not.
ZONES = ('WET,Europe,Paris,"WET0","Wrong/Paris"\n' + MAPPING +
         'ART,America,Jujuy,"<-03>3","America/Argentina/Jujuy"\n')
NOT_USED = ("url", "NA")
SUCCESS_EVENT = ("event[TZ Config] timezone[%s,%s,%s] Timezone:{timezone} Configuration from Velka Cloud "
                 "Successful\n")
TZ_FAILED = "event[TZ Config Failed] reason[%s] Timezone Configuration failed from Velka WiFi Cloud, Reason: {reason}\n"
UNAVAILABLE_EVENT, NO_INFO_EVENT = (TZ_FAILED % r for r in ("Service Unavailable", "No Timezone Info"))
CC_STORE = {"Device.DeviceInfo.X_TAVEL_CCSyncRequired": "1",
            "Device.DeviceInfo.X_TAVEL_SupportedCountries": "CA,us;GB"}


class SettingsTest(FlowCase):
    def device(self, extra=None, mapping=ZONES):
        return super().device(extra, mapping=mapping)

    def run_to_exit(self, dev, scale=100):
        dev.start(env={"TAVEL_TIME_SCALE": str(scale)})
        self.assertEqual(dev.wait_exit(30), 0, dev.log()[-3000:])
        return dev.log()

    def test_received_zone_and_country_code(self):
        # Zone header, mapping, (zone, name, code, id) or the failure line; code, cc_configured_by, code applied.
        for header, mapping, mapped, cc, mark, applied in (
                ('{"code":"CET","x":"y","id":"Europe/Paris"}', ZONES, (PARIS_ZONE, PARIS_NAME, "CET", "Europe/Paris"),
                 "US", None, True),
                # Set by the mobile app.
                ('{"code":"ART","name":"x","id":"America\\/Argentina\\/Jujuy"}', ZONES,
                 ('"<-03>3"', "America/Argentina/Jujuy\n", "ART", "America/Argentina/Jujuy"), "US", b"MAPP", False),
                ('{"code":"XYZ","x":"y","id":"Atlantis\\/Nowhere"}', ZONES, "read eof -content is empty \n", "US",
                 b"mapp,FR\n", False),
                # The code matches, the city does not; a code not supported.
                ('{"code":"CET","x":"y","id":"Europe\\/Rome"}', ZONES, "read eof -content is empty \n", "FR", None,
                 False),
                (TZ_PARIS[1], None, "popen error \n", "USA", None, False)):
            with self.subTest(zone=header, code=cc, mark=mark):
                self.script({"get": reply(200, [NOT_USED, ("timezone", header), ("countrycode", cc)])})
                dev = self.device(CC_STORE, mapping=mapping)
                if mark is not None:
                    dev.touch(CC_CONFIGURED_BY, mark)
                log = self.run_to_exit(dev)
                store = dev.store()
                self.assertTrue(dev.exists(TZ_MARKER))
                if isinstance(mapped, str):
                    for line in (mapped, "Applying timezoneconfig failed\n", "] gettimezonecmd failed"):
                        self.assertIn(line, log)
                    self.assertEqual((dev.history(), "Device.Time.LocalTimeZone" in store), ("", False))
                else:
                    zone, name, code, ident = mapped
                    self.assertEqual(store.get("Device.Time.LocalTimeZone"), zone)
                    self.assertEqual(store.get("Device.Time.X_TAVEL_LocalTimeZoneName"), name)
                    self.assertEqual(dev.history(), SUCCESS_EVENT % (zone, code, ident))
                    self.assertIn("send history event: event[TZ Config] timezone[[%s,%s,%s]] Timezone:{timezone} "
                                  "Configuration from Velka Cloud Successful" % (zone, code, ident), log)
                    # The marker follows the data-model write, after the pause.
                    self.assertLess(log.index("final timezone = %s" % zone),
                                    log.index("tavel_handleTimezonedetails exit"))
                self.assertIn("update cc since MAPP didn't set\n" if applied else
                              "country code from tavel %s is not valid\n" % cc[:3], log)
                marked = dev.read(CC_CONFIGURED_BY, "rb") if dev.exists(CC_CONFIGURED_BY) else None
                self.assertEqual(marked, b"TAVEL,US\0\0" if applied else mark)
                self.assertEqual(store.get("Device.DeviceInfo.X_TAVEL_CountryCode"), "US" if applied else None)
                self.assertFalse(dev.exists(CC_FILE))

    def test_configured_zone_is_only_rewritten_when_it_differs(self):
        # The device value has three leading characters the mapping lacks; the last one is not compared.
        for current, same in (("TZ:" + PARIS_ZONE[:-1], True), ("TZ:" + PARIS_ZONE + "x", True),
                              ("TZ:\"CET-1\"", False), ("TZ", False)):
            with self.subTest(current=current):
                self.script({"get": reply(200, [NOT_USED, TZ_PARIS])})
                dev = self.device({"Device.Time.LocalTimeZone": current})
                dev.touch(TZ_MARKER)
                log = self.run_to_exit(dev)
                self.assertIn("timezoneconfigdone file present, timezone from dml: %s" % current, log)
                self.assertIn("] Same timezone" if same else
                              "Different timezone, handling timezone update, g_timezone: %s" % PARIS_ZONE, log)
                self.assertEqual((dev.store()["Device.Time.LocalTimeZone"], dev.history()), (current, "") if same else
                                 (PARIS_ZONE, SUCCESS_EVENT % (PARIS_ZONE, "CET", "Europe/Paris")))

    def test_unavailable_service_retries_with_one_event_and_no_info_keeps_the_zone(self):
        scale = 100
        self.script({"get": [reply(200, [NOT_USED, ("timezone", "100")]),
                             reply(200, [NOT_USED, ("timezone", "100")]),
                             reply(200, [NOT_USED, ("timezone", "101")])]})
        dev = self.device({"Device.Time.LocalTimeZone": "TZ:keep"})
        log = self.run_to_exit(dev, scale)
        self.assertEqual(dev.history(), UNAVAILABLE_EVENT + NO_INFO_EVENT)
        self.assertEqual(log.count("history event send: event[TZ Config] Timezone Configuration failed from "
                                   "Velka WiFi Cloud, Reason[Service Unavailable]"), 1)
        self.assertEqual(log.count(" IP Stack is down going for retry exponetial \n"), 2)
        retries = retry_lines(log, 5001)
        self.assertEqual([c for c, _ in retries], [1, 2])
        self.assertTrue(5 <= retries[0][1] <= 9 and 10 <= retries[1][1] <= 19, retries)
        gets = self.server.requests("GET")
        self.assertEqual(len(gets), 3)
        for (_, nominal), gap in zip(retries, gaps(gets)):
            self.assertGreaterEqual(gap, nominal / scale - 0.002)
        # No zone was applied; only the last reply left the marker.
        self.assertTrue(dev.exists(TZ_MARKER))
        self.assertIn("No Timezone Info from IP STACK use existing ONT timezone\n", log)
        # Without the marker the next run asks again (the last reply repeats): one more event.
        os.unlink(dev.path(TZ_MARKER))
        self.run_to_exit(dev)
        self.assertEqual((dev.exists(TZ_MARKER), dev.history(), dev.store()["Device.Time.LocalTimeZone"]),
                         (True, UNAVAILABLE_EVENT + NO_INFO_EVENT * 2, "TZ:keep"))

    def test_code_is_parked_while_the_app_onboards_and_applied_later(self):
        self.script({"get": reply(200, NEW_ACCOUNT + [("timezone", "101"), ("countrycode", "US")])})
        dev = self.device(CC_STORE)
        dev.touch(ONBOARDING_IN_PROGRESS)
        # The 30-minute wait is 3.6 s at this scale.
        dev.start(env=dict(self.bus.env(), TAVEL_TIME_SCALE="500"))
        dev.wait_log("MAPP onboarding started wait for 30 min\n")
        # The line comes first, then the file is rewritten, then the timer armed.
        wait_until(lambda: dev.read(CC_FILE, "rb") == b"US\n", 5, "the parked code file")
        # Timed from the file's own stamp: a test starved of CPU sees the line late.
        parked = os.stat(dev.path(CC_FILE)).st_mtime
        self.assertNotIn("Device.DeviceInfo.X_TAVEL_CountryCode", dev.store())
        self.assertFalse(dev.exists(CC_CONFIGURED_BY))

        # A successful report would end the agent, but the parked code holds it: the firewall closes only.
        wait_until(lambda: ctl(self.bus.env(), "bootstrap", "1").returncode == 0, 10, "the agent on the bus")
        log = dev.wait_log("Not exiting Tavle, as timer is running !!!!")
        self.assertEqual(len(self.server.requests("PUT")), 1)
        self.assertEqual((dev.iptables()[-2:], dev.proc.poll()), (FIREWALL_REMOVE, None))
        self.assertNotIn("exitTavel !!!!", log)
        self.assertNotIn("Device.DeviceInfo.X_TAVEL_CountryCode", dev.store())

        dev.wait_log("timeout reached apply cc via tavel\n", timeout=15)
        self.assertGreaterEqual(time.time() - parked, 3.6 - 0.1)
        wait_until(lambda: "Outside update_country_code, country code set successfully" in dev.log(), 10,
                   "the parked code to be applied")
        self.assertEqual((dev.read(CC_CONFIGURED_BY, "rb"), dev.store()["Device.DeviceInfo.X_TAVEL_CountryCode"],
                          dev.exists(CC_FILE)), (b"TAVEL,US\0\0", "US", False))
        # The flag that refused the exit stays set for good.
        time.sleep(0.3)
        self.assertIsNone(dev.proc.poll())
