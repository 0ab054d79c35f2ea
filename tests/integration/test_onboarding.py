"""The agent over real TLS against obsim: what a reply leads to, the requests, retries and waits."""
import calendar
import os
import shutil
import socket
import time

from harness import (CONFIGURED_STORE, FACTORY_ACS_URL as FACTORY_ACS, FIREWALL_INSERT, FIREWALL_REMOVE, LAST_STEP,
                     LOCAL_PORTS, NEW_ACCOUNT, PARIS_NAME, PARIS_ZONE, TZ_PARIS, ServerCase, cert_dir, clock_env, gaps,
                     reply, retry_lines, set_clock, wait_until)
from tavelsim import CLOUD_MARKER, TZ_MARKER, cpu_ticks
from test_flow import REPORT_HEADERS, FlowCase

CC_US = ("countrycode", "US")
DAY = 86400
# Bounds of the non-transient delay: the base plus a jitter of 0 to 254 s.
DAY_MAX = DAY + 254
BACKUP = {"Device.ManagementServer.X_TAVEL_Backup." + k: v for k, v in (
    ("URL", "https://acs.new.test:7547/cwmp"), ("Username", "cpe-new"), ("Password", "new-secret"))}


def account(**override):
    """NEW_ACCOUNT with some values replaced (None drops the header)."""
    return [(n, override.get(n, v)) for n, v in NEW_ACCOUNT if override.get(n, v) is not None]


class OnboardingCase(ServerCase):
    def start(self, dev, scale, env=None):
        dev.start(env=dict(env or {}, TAVEL_TIME_SCALE=str(scale)))

    def assert_exits(self, dev, timeout=30):
        self.assertEqual(dev.wait_exit(timeout), 0, dev.log()[-3000:])
        self.assertEqual(dev.iptables()[-2:], FIREWALL_REMOVE)


class NewAccountTest(FlowCase):
    def test_new_account_is_applied_then_reported_on_the_bootstrap(self):
        self.script({"get": reply(200, NEW_ACCOUNT + [TZ_PARIS, CC_US], body="ignored body"),
                     "put": reply(200, body="accepted\n")})
        dev = self.device()
        self.start(dev, 100)
        log = dev.wait_log(LAST_STEP)
        store = dev.store()
        # "NA" empties a cloud value, an empty one is not written; without the capability no country code.
        expected = {
            "ManagementServer.URL": "https://acs.new.test:7547/cwmp", "ManagementServer.Username": "cpe-new",
            "ManagementServer.Password": "new-secret", "X_TAVEL_Agent.OpDesc": "Operator One\r",
            "X_TAVEL_Agent.SubnetDesc": "Subnet A\r", "X_TAVEL_Agent.OnBoardStatus": "ConnectionSuccess",
            "X_TAVEL_Cloud.L1URL": "https://l1.new.test", "X_TAVEL_Cloud.L1Flags": "1", "X_TAVEL_Cloud.L2URL": None,
            "X_TAVEL_Cloud.RemoteAccessURL": "https://mapp.new.test", "X_TAVEL_Cloud.ConfigURL": "https://cfg.new.test",
            "X_TAVEL_Cloud.ConfigAPIKey": "cfg-key-9", "Time.LocalTimeZone": PARIS_ZONE,
            "Time.X_TAVEL_LocalTimeZoneName": PARIS_NAME, "DeviceInfo.X_TAVEL_CountryCode": None}
        self.assertEqual({k: store.get("Device." + k) for k in expected}, expected)
        self.assertTrue(dev.exists(CLOUD_MARKER) and dev.exists(TZ_MARKER))
        self.assertIn("event[TZ Config] timezone[%s,CET,Europe/Paris]" % PARIS_ZONE, dev.history())

        # The old account was emptied first, for the TR-069 client to let go.
        order = ["Valid Management URL is NOT presnt .. apply TavelServer Data",
                 "Setting URL in MangamentServerObject to NULL", "Sleeping tavelAgent for 5 seconds",
                 "End of tavelAgent sleep", "acsCfg.Username :cpe-new", "tavel_handleTimezonedetails enter",
                 LAST_STEP]
        positions = [log.find(t) for t in order]
        self.assertEqual(positions, sorted(p for p in positions if p >= 0))

        [get] = self.server.requests()
        self.assertEqual((get["method"], get["target"], get["version"], get["tls"]),
                         ("GET", "/onboard", "HTTP/1.1", True))
        self.assertIn(get["client_port"], LOCAL_PORTS)
        self.assertEqual(self.own_headers(get), ["Content-Type: Application/json", "Content-Length:0",
                                                 "x-api-key:test-api-key", "operatorid:OP42", "sn:SN0001",
                                                 "country:DE"])
        self.assertEqual(dev.read("agent.stdout", "rb").decode(), (
            "httpGetUrlFromServer before curl_easy_perform\nhttpGetUrlFromServer after curl_easy_perform\n"
            "******************** OB Server Connection Details ***********************\ng_httpInfo.url: %s\n"
            "g_httpInfo.authType None\ng_httpInfo.userName None\ng_httpInfo.password None\n"
            "g_httpInfo.x_api_key test-api-key\ng_httpInfo.timeout 25\ng_httpInfo.authEnabled 0\n"
            "******************** ACS Connection Details ***********************\n"
            "g_serverData.mgmtUrl https://acs.new.test:7547/cwmp\ng_serverData.cdpusername cpe-new\n"
            "g_serverData.operdesc Operator One\\r\ng_serverData.subnetdesc Subnet A\\r\ng_serverData.tenantID tenant-7\n"
            "\n************************************* END ***********************\n") % self.server.url())
        self.assertNotIn("pwd: new-secret", log)

        # Waiting for the bootstrap signal: no upload, no exit, firewall open, and no CPU (polling burns ticks).
        time.sleep(0.5)
        before = cpu_ticks(dev.proc.pid)
        time.sleep(3)
        self.assertLessEqual(cpu_ticks(dev.proc.pid) - before, 1, "ticks in 3 s while waiting")
        self.assertEqual((dev.proc.poll(), self.server.requests("PUT"), dev.iptables()), (None, [], FIREWALL_INSERT))

        put, _ = self.assert_reported(dev, "1", "?status=SUCCESS")
        self.assertIn(put["client_port"], LOCAL_PORTS)
        self.assertEqual(self.own_headers(put), REPORT_HEADERS)
        # The reply body of the report goes to standard output.
        self.assertIn("accepted\n", dev.stdout())


class ReplyTest(OnboardingCase):
    def test_reply_without_a_new_account_still_applies_the_rest_and_exits(self):
        na_line = "TavelServer send NA/NULL values no need to retry or update data model\n"
        # A bridge controller onboards like a root; at 1970 (before NTP) no fetch until the clock is set.
        for name, url, store, lines, at1970 in (
                ("NA, bridge controller", "NA", {"Device.X_TAVEL_WiFiService.WorkMode": "AP_Bridge"},
                 ("TAVEL work mode is ROOT... Continue !!\n", na_line), False),
                ("no URL, clock at 1970", None, {}, (na_line,), True),
                ("same as the backup", "https://acs.new.test:7547/cwmp", BACKUP,
                 ("Received Same Managment Connection Information from TAVEL Server... Exit Agent!\n",), False)):
            with self.subTest(name):
                self.script({"get": reply(200, account(url=url) + [TZ_PARIS, CC_US])})
                dev = self.device(dict(store, **{"Device.DeviceInfo.X_TAVEL_CCSyncRequired": "1",
                                                 "Device.DeviceInfo.X_TAVEL_SupportedCountries": "CA,US;GB"}))
                self.start(dev, 100, env=clock_env(dev, calendar.timegm((1970, 6, 1, 0, 0, 0))) if at1970 else {})
                if at1970:
                    wait_until(lambda: dev.log().count("TAVEL Waiting for system time !!\n") >= 20, 10, "clock polls")
                    self.assertEqual(("TAVEL Got Valid Time" in dev.log(), self.server.requests(), dev.proc.poll()),
                                     (False, [], None))
                    set_clock(dev, None)
                self.assert_exits(dev)
                log = dev.log()
                self.assertGreater(log.find("TAVEL Got Valid Time ... Connecting to Ob Server !!\n"),
                                   log.rfind("TAVEL Waiting for system time !!\n"))
                positions = [log.find(t) for t in lines + ("Tavel exiting with timer alive flag 0\n",)]
                self.assertEqual(positions, sorted(p for p in positions if p >= 0))
                expected = {"ManagementServer.URL": FACTORY_ACS, "ManagementServer.Username": "",
                            "X_TAVEL_Agent.OpDesc": None, "X_TAVEL_Cloud.L1URL": "https://l1.new.test",
                            "Time.LocalTimeZone": PARIS_ZONE, "DeviceInfo.X_TAVEL_CountryCode": "US",
                            "X_TAVEL_Agent.OnBoardStatus": "ConnectionSuccess"}
                store = dev.store()
                self.assertEqual({k: store.get("Device." + k) for k in expected}, expected)
                self.assertTrue(dev.exists(CLOUD_MARKER))
                self.assertNotIn("ACS Connection Details", dev.stdout())
                self.assertEqual([r["method"] for r in self.server.requests()], ["GET"])

    def test_incomplete_account_applies_only_cloud_and_retries_after_a_day(self):
        for name, broken in (("url without http", {"url": "acs.new.test:7547/cwmp"}),
                             ("empty password", {"pwd": ""}),
                             ("no user name", {"name": None})):
            with self.subTest(name):
                # Two 503s raise retryCount to 2; the incomplete reply resets it, as the time-zone retry shows.
                self.script({"get": [reply(503), reply(503), reply(200, account(**broken) + [TZ_PARIS, CC_US]),
                                     reply(200, [("url", "NA"), ("timezone", "100"), ("countrycode", "")])]})
                dev = self.device({"Device.DeviceInfo.X_TAVEL_CCSyncRequired": "1",
                                   "Device.DeviceInfo.X_TAVEL_SupportedCountries": "US"})
                # A day of retry delay is 0.864 s at this scale.
                self.start(dev, 100000)
                log = dev.wait_log("getTimerIdForErrorCode: 204\n")
                expected = {"X_TAVEL_Cloud.L1URL": "https://l1.new.test", "ManagementServer.URL": FACTORY_ACS,
                            "Time.LocalTimeZone": None, "DeviceInfo.X_TAVEL_CountryCode": None}
                store = dev.store()
                self.assertEqual({k: store.get("Device." + k) for k in expected}, expected)
                self.assertEqual((dev.exists(CLOUD_MARKER), dev.exists(TZ_MARKER)), (True, False))
                self.assertNotIn("tavel_handleTimezonedetails enter", log)
                # A transient status retries with a growing delay (kept by the timers: test_flow, test_settings).
                lines = retry_lines(log, 503)
                self.assertEqual([c for c, _ in lines], [1, 2])
                self.assertTrue(5 <= lines[0][1] <= 9 and 10 <= lines[1][1] <= 19, lines)
                self.assertNotIn("ret 204 ", log)
                g = gaps(self.server.wait_requests("GET", 4, dev=dev))
                self.assertTrue(DAY / 100000 - 0.002 <= g[2] < DAY_MAX / 100000 + 1.5, g)
                log = dev.wait_log("] ret 5001 ")
                self.assertEqual(retry_lines(log, 5001)[0][0], 1)
                dev.close()

    def test_same_account_with_a_failed_acs_connection_is_applied(self):
        # A valid account whose ACS is unreachable: the backup account from the server is worth applying.
        store = dict(CONFIGURED_STORE, **BACKUP, **{"Device.X_TAVEL_Agent.ACSConnStatus": "ACSConnFailed"})
        self.script({"get": reply(200, account() + [TZ_PARIS])})
        dev = self.device(store, markers=(TZ_MARKER, CLOUD_MARKER))
        # Each 300 s grace period of the failed connection is 0.3 s here.
        self.start(dev, 1000)
        log = dev.wait_log(LAST_STEP)
        self.assertIn("Valid Management URL is NOT presnt .. apply TavelServer Data", log)
        self.assertNotIn("Received Same Managment", log)
        self.assertEqual((dev.store()["Device.ManagementServer.Username"], dev.proc.poll()), ("cpe-new", None))


class FirewallTest(OnboardingCase):
    def test_slow_firewall_commands_hold_the_request_and_the_removal_back(self):
        # The commands run while the agent starts and connects: a slow iptables, stamped as each one ends.
        slow = b'#!/bin/sh\nsleep 0.25\nprintf "%s %s\\n" "$(date +%s.%N)" "$*" >> "$TAVEL_ROOT/iptables.log"\n'
        for name, store in (("fetch, nothing new", {}), ("configured, exits at once", CONFIGURED_STORE)):
            with self.subTest(name):
                self.script({"get": reply(200, account(url="NA") + [TZ_PARIS])})
                dev = self.device(store, markers=(CLOUD_MARKER, TZ_MARKER))
                dev.touch("bin/iptables", slow)
                os.chmod(dev.path("bin/iptables"), 0o755)
                self.start(dev, 100)
                self.assertEqual(dev.wait_exit(10), 0, dev.log()[-2000:])
                runs = [line.split(" ", 1) for line in dev.read("iptables.log").splitlines()]
                self.assertEqual([r[1] for r in runs], FIREWALL_INSERT + FIREWALL_REMOVE)
                gets = self.server.requests("GET")
                self.assertEqual(len(gets), 0 if store else 1)
                for get in gets:
                    self.assertGreater(get["received"], float(runs[3][0]))


class FailureTest(OnboardingCase):
    def test_non_transient_status_is_retried_after_a_day_or_never(self):
        for status, code, retried, name in ((401, 401, True, "ConnectionFailed_Error_401"),
                                            (504, 504, False, "NoConnection"), (599, 504, False, "NoConnection")):
            with self.subTest(status=status):
                self.script({"get": reply(status, [("url", "https://ignored.test")])})
                dev = self.device()
                # A day of retry delay is 0.864 s at this scale.
                self.start(dev, 100000)
                if retried:
                    gets = self.server.wait_requests("GET", 3, dev=dev)
                    self.assertTrue(all(DAY / 1e5 - 0.002 <= g < DAY_MAX / 1e5 + 1.5 for g in gaps(gets)), gaps(gets))
                    log = dev.wait_log("getTimerIdForErrorCode: 401\n", count=2)
                    self.assertIn("HTTPS Get Url Not Successful Res : 401\n", log)
                else:
                    self.assertIn("httpGetUrlFromServer ret: 504\n", dev.wait_log("getTimerIdForErrorCode: 504\n"))
                    time.sleep(1.5)
                    self.assertEqual((len(self.server.requests("GET")), dev.proc.poll()), (1, None))
                self.assertNotRegex(dev.log(), "retryCount value is|getRetryExpTimerValue")
                self.assertEqual(dev.store().get("Device.X_TAVEL_Agent.OnBoardStatus"), name)
                self.assertEqual(dev.store()["Device.ManagementServer.URL"], FACTORY_ACS)
                dev.close()

    def test_failed_transfer_retries_after_ten_to_nineteen_seconds(self):
        with socket.socket() as sock:
            sock.bind(("127.0.0.1", 0))
            closed = {"Device.X_TAVEL_Agent.URL": "https://127.0.0.1:%d/onboard" % sock.getsockname()[1]}
        scale = 10
        for name, store, ca in (("refused", closed, None), ("another CA", {}, os.path.join(cert_dir(), "oca.pem"))):
            with self.subTest(name):
                dev = self.device(store, ca_path=ca)
                self.start(dev, scale)
                dev.wait_log("httpGetUrlFromServer ret: 5000\n")
                first = time.monotonic()
                log = dev.wait_log("httpGetUrlFromServer ret: 5000\n", count=2, timeout=10)
                gap = time.monotonic() - first
                lines = retry_lines(log, 5000)
                self.assertEqual(lines[0][0], 2)
                self.assertTrue(10 <= lines[0][1] <= 19, lines)
                self.assertGreaterEqual(gap, lines[0][1] / scale - 0.05)
                self.assertIn("curl_easy_perform() failed: ", log)
                self.assertEqual(dev.store().get("Device.X_TAVEL_Agent.OnBoardStatus"), "ConnectionFailed_Error_curl")
                self.assertEqual(dev.store()["Device.ManagementServer.URL"], FACTORY_ACS)
                # The server saw only failed handshakes, or nothing at all.
                events = self.server.requests()
                self.assertTrue(all(r.get("event") == "tls_error" for r in events) and bool(events) == bool(ca),
                                events)
                dev.close()

    def test_missing_or_cut_ca_file_ends_the_agent_without_a_request(self):
        long_path = os.path.join(cert_dir(), "ca.pem.but-longer")
        shutil.copyfile(self.server.sim.ca_path, long_path)
        self.addCleanup(os.unlink, long_path)
        # The agent keeps 27 characters of the path: the cut long name does not exist, the full one does.
        for ca in (os.path.join(cert_dir(), "none.pem"), long_path):
            with self.subTest(ca=ca):
                dev = self.device(ca_path=ca, mapping=None)
                self.start(dev, 100)
                self.assert_exits(dev)
                for line in ("Tavel Verifed Certificate not exist\n", "httpGetUrlFromServer ret: 505\n",
                             "certificate not EXIST !!!!\n"):
                    self.assertIn(line, dev.log())
                self.assertEqual(dev.store()["Device.X_TAVEL_Agent.OnBoardStatus"], "ConnectionFailed_Error_no_cert")
                self.assertEqual(self.server.requests(), [])

