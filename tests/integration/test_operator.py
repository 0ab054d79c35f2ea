"""What an operator sees: tavelctl status and dbg over the bus, secrets kept out of the output, the CLI's rules."""
import json
import os
import re
import time

from harness import ACS_USER, FACTORY_ACS_URL, FULL_SCRIPT, NEW_ACCOUNT, TAVELCTL, ctl, reply, run_binary, wait_until
from tavelsim import CC_FILE, CLOUD_MARKER, TZ_MARKER
from test_flow import FlowCase

ISO = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
SECRETS = ("test-api-key", "new-secret", "cfg-key-9")  # API key, management password, cloud API key


def epoch(iso):
    return time.mktime(time.strptime(iso, "%Y-%m-%dT%H:%M:%SZ")) - time.timezone


class StatusTest(FlowCase):
    def status(self, *extra):
        r = ctl(self.bus.env(), "status", *extra)
        self.assertEqual(r.returncode, 0, r.stderr)
        return r.stdout

    def wait_state(self, dev, state):
        return wait_until(lambda: (lambda s: s["state"] == state and s)(json.loads(self.status("--json"))), 20,
                          "state " + state, dev.proc, dev.log)

    def test_status_through_a_retry_and_the_bootstrap_wait_and_debug_output_comes_back(self):
        scale = 4
        # "101": no zone from the server, so no 60-s pause for a new zone.
        self.script({"get": [reply(503), reply(200, NEW_ACCOUNT + [("timezone", "101")])], "put": reply(200)})
        dev = self.device()
        self.start(dev, scale)

        s = self.wait_state(dev, "retry-wait")
        asked = time.time()
        self.assertEqual((s["attempt"], s["retry_count"], s["last_result"], s["firewall_open"], s["account"],
                          s["pending_report"], s["parked_country_code"]),
                         (1, 1, "503 Service Unavailable", True, "empty", False, None), s)
        # 5 to 9 s nominal, a quarter of that here; whole seconds, rounded up.
        self.assertRegex(s["next_try"], ISO)
        self.assertTrue(-2 <= epoch(s["next_try"]) - asked <= 9 / scale + 2, (s["next_try"], asked))
        self.assertRegex(dev.log(), r"notice tavel: \[\w+ main_timers.cpp:\d+\] state retry-wait: fetch 503 Service "
                                    r"Unavailable: back-off retry 1; next try \d{4}-\S+Z \(in [5-9] s\)\n")

        s = self.wait_state(dev, "waiting-bootstrap")
        self.assertEqual((s["attempt"], s["last_result"], s["next_try"], s["account"], s["pending_report"]),
                         (2, "200 OK", None, "present", True), s)
        self.assertNotIn(ACS_USER, json.dumps(s))
        # The plain form: the same values, aligned after the longest key, null as "none".
        plain = self.status().splitlines()
        width = max(len(k) for k in s) + 2
        self.assertEqual(plain, ["%-*s%s" % (width, k + ":", "none" if v is None else str(v).lower()
                                             if isinstance(v, bool) else v) for k, v in s.items()])

        # The method form answers with what the command printed; the agent's stdout gets it as well.
        out = self.send("dbg", "acsinfo").stdout
        self.assertRegex(out, r"^debug cmdLine = acsinfo\.\nprinting ACS Details\.\.\.\n\*+ ACS Connection Details "
                              r"\*+\ng_serverData.mgmtUrl https://acs.new.test:7547/cwmp\n(.|\n)*END \*+\n"
                              r"After printing ACS Details\.\.\.\n$")
        self.assertIn(out, dev.stdout())
        self.assertEqual(self.send("dbg", "setTimeout", "77").stdout, "debug cmdLine = setTimeout 77.\ncmdLine+11 = 77.\n")
        self.assertIn("Dump Http Connection Details.", self.send("dbg", "bogus").stdout)
        # The signal form returns nothing to its sender.
        self.assertEqual(self.send("dbg", "--signal", "httpinfo").stdout, "")
        dev.wait_stdout("tavel_processDbgCmdSignal cmd: httpinfo.\n")
        # A method the agent answered is not also reported as unknown.
        self.assertNotIn("unknown message", dev.log())
        r = ctl(dict(self.bus.env(), TAVEL_ROOT=dev.root), "factory-reset", "--yes")
        self.assertEqual((r.returncode, "stop it first" in r.stderr), (1, True), r.stderr)

        self.send("bootstrap", "1")
        self.assertEqual(dev.wait_exit(20), 0)
        self.assertIn("] state exiting: report accepted: onboarding complete\n", dev.log())
        for args in (["status"], ["status", "--json"], ["dbg", "httpinfo"]):
            r = ctl(self.bus.env(), *args)
            self.assertEqual((r.returncode, r.stdout, r.stderr), (3, "", "tavelAgent is not running\n"), args)

    def test_the_clear_causes_a_missing_ca_file_a_disabled_agent_and_the_day_long_wait(self):
        cases = [({"get": reply(401)}, {}, "retry-wait",
                  r"state retry-wait: fetch 401 Unauthorized is not transient: the long wait of (86[4-6]\d\d) s \(about "
                  r"1 day\(s\); \"setTimeout\" changes it\); next try \S+Z \(in \1 s\)\n"),
                 ({"get": reply(200)}, {"Device.DeviceInfo.X_TAVEL_CACertPath": "/nonexistent/ca.pem"}, None,
                  r"state exiting: CA file /nonexistent/ca.pem missing \(Device.DeviceInfo.X_TAVEL_CACertPath\): "
                  r"not retried\n"),
                 ({"get": reply(200)}, {"Device.X_TAVEL_Agent.Enable": "0"}, None,
                  r"state exiting: agent disabled: Device.X_TAVEL_Agent.Enable is 0 or unreadable\n")]
        for script, store, state, line in cases:
            with self.subTest(line=line[:40]):
                self.script(script)
                dev = self.device(store)
                if state is None:
                    dev.start(env=self.bus.env())
                    self.assertEqual(dev.wait_exit(20), 0)
                else:
                    self.start(dev, 1)
                    self.wait_state(dev, state)
                self.assertRegex(dev.log(), r"notice tavel: \[\w+ \w+\.cpp:\d+\] " + line)


class RedactionTest(FlowCase):
    def test_secrets_leave_no_output_when_redacted_and_still_travel(self):
        for redact in (False, True):
            with self.subTest(redact=redact):
                self.script(FULL_SCRIPT)
                dev = self.device()
                self.start(dev, 100, env={"TAVEL_REDACT_SECRETS": "1"} if redact else {})
                dev.wait_log("state waiting-bootstrap")
                self.send("dbg", "httpinfo")
                self.send("bootstrap", "1")
                self.assertEqual(dev.wait_exit(20), 0)
                shown = dev.log() + dev.stdout() + dev.read("agent.stderr") + dev.history()
                hits = {s: shown.count(s) for s in SECRETS}
                if redact:
                    self.assertEqual(hits, dict.fromkeys(SECRETS, 0))
                    self.assertIn("x-api-key: ***\n", dev.read("agent.stderr"))
                    self.assertIn("kprConfigApikey[***]", dev.log())
                    self.assertIn("setkprconfigApikey set is [***]\n", dev.log())
                else:
                    # The documented lines carry them: the switch, not the lines, hides them.
                    self.assertTrue(all(hits[s] > 0 for s in ("test-api-key", "cfg-key-9")), hits)
                # Sent and stored as they are either way.
                put = self.server.requests("PUT")[0]
                self.assertIn("x-api-key: test-api-key", put["headers"])
                store = dev.store()
                self.assertEqual((store["Device.ManagementServer.Password"], store["Device.X_TAVEL_Cloud.ConfigAPIKey"]),
                                 ("new-secret", "cfg-key-9"))


class CliTest(FlowCase):
    def test_help_usage_errors_root_checks_masked_dump_and_factory_reset(self):
        def run(*args, env=None):
            return run_binary(TAVELCTL, *args, env=dict(os.environ, **(env or {})))

        r = run("--help")
        self.assertEqual((r.returncode, r.stderr), (0, ""))
        for word in ("status [--json]", "dbg CMDLINE", "factory-reset --yes", "--show-secrets", "Exit status"):
            self.assertIn(word, r.stdout)
        for args in ([], ["frobnicate"], ["status", "--yaml"], ["dml", "dump", "--all"], ["factory-reset", "now"]):
            r = run(*args)
            self.assertEqual((r.returncode, r.stdout), (2, ""), args)
            self.assertNotEqual(r.stderr, "", args)

        dev = self.device({"Device.ManagementServer.Password": "pw-1", "Device.X_TAVEL_Cloud.ConfigAPIKey": "ck-2",
                           "Device.ManagementServer.X_TAVEL_Backup.Password": ""})
        for root, text in (("relative/root", "absolute path"), (dev.root + "/missing", "not an existing directory")):
            r = run("dml", "get", "Device.A", env={"TAVEL_ROOT": root})
            self.assertEqual((r.returncode, r.stdout), (2, ""))
            self.assertIn(text, r.stderr)

        env = dict(self.bus.env(), TAVEL_ROOT=dev.root)
        dump = run("dml", "dump", env=env).stdout.splitlines()
        self.assertIn("Device.X_TAVEL_Agent.APIKey=***", dump)
        self.assertIn("Device.ManagementServer.Password=***", dump)
        self.assertIn("Device.X_TAVEL_Cloud.ConfigAPIKey=***", dump)
        self.assertIn("Device.ManagementServer.X_TAVEL_Backup.Password=", dump)  # empty: nothing to hide
        self.assertIn("Device.ManagementServer.URL=" + FACTORY_ACS_URL, dump)
        self.assertIn("Device.ManagementServer.Password=pw-1", run("dml", "dump", "--show-secrets", env=env).stdout)

        # A device onboarded once, put back to its factory state.
        for name, value in (("Device.ManagementServer.URL", "https://acs.new.test"), ("Device.ManagementServer.Username",
                            "u"), ("Device.X_TAVEL_Cloud.L1URL", "https://l1"), ("Device.X_TAVEL_Agent.OnBoardStatus",
                                                                                  "ConnectionSuccess")):
            run("dml", "set", name, value, env=env)
        for marker in (TZ_MARKER, CLOUD_MARKER, CC_FILE):
            dev.touch(marker)
        before = dev.store()
        r = run("factory-reset", env=env)
        self.assertEqual((r.returncode, dev.store(), dev.exists(TZ_MARKER)), (2, before, True), r.stderr)
        r = run("factory-reset", "--yes", env=env)
        self.assertEqual(r.returncode, 0, r.stderr)
        store = dev.store()
        self.assertEqual({k: store.get(k) for k in ("Device.ManagementServer.URL", "Device.ManagementServer.Username",
                                                     "Device.ManagementServer.Password", "Device.X_TAVEL_Cloud.L1URL",
                                                     "Device.X_TAVEL_Cloud.ConfigAPIKey",
                                                     "Device.X_TAVEL_Agent.OnBoardStatus", "Device.X_TAVEL_Agent.APIKey")},
                         {"Device.ManagementServer.URL": FACTORY_ACS_URL, "Device.ManagementServer.Username": "",
                          "Device.ManagementServer.Password": "", "Device.X_TAVEL_Cloud.L1URL": None,
                          "Device.X_TAVEL_Cloud.ConfigAPIKey": None, "Device.X_TAVEL_Agent.OnBoardStatus": None,
                          "Device.X_TAVEL_Agent.APIKey": "test-api-key"})
        self.assertEqual([dev.exists(m) for m in (TZ_MARKER, CLOUD_MARKER, CC_FILE)], [False] * 3)
        # And it onboards again.
        self.script(FULL_SCRIPT)
        self.start(dev, 100)
        dev.wait_log("state waiting-bootstrap")
