"""A private message bus for integration tests.

PrivateBus() starts a dbus-daemon of its own on a unix socket in a temporary
directory, with an allow-everything policy like a session bus, and hands out
the environment that points the agent and tavelctl at it as their system bus.
The host's system bus is never used.  An optional policy file is included in
the configuration, so a test can check the project's own policy with it.
"""
import os
import shutil
import subprocess
import tempfile

CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  {policy}
  {include}
</busconfig>
"""

# Like a session bus: anyone may send to, receive from and own anything.
OPEN_POLICY = """<policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>"""

# Like a system bus: any local user may connect, but nothing may be owned and
# no method called unless another rule allows it.
CLOSED_POLICY = """<policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus"/>
  </policy>"""


class PrivateBus:
    def __init__(self, policy=OPEN_POLICY, include=None):
        self.dir = tempfile.mkdtemp(prefix="tavel-bus-")
        socket = os.path.join(self.dir, "bus")
        config = os.path.join(self.dir, "bus.conf")
        inc = "<include>%s</include>" % include if include else ""
        with open(config, "w") as f:
            f.write(CONFIG.format(socket=socket, policy=policy, include=inc))
        self.proc = subprocess.Popen(["dbus-daemon", "--config-file=" + config, "--nofork", "--print-address"],
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)
        line = self.proc.stdout.readline().decode().strip()
        if not line:
            err = self.proc.stderr.read().decode()
            self.close()
            raise RuntimeError("dbus-daemon did not start: " + err)
        self.address = line

    def env(self):
        return {"DBUS_SYSTEM_BUS_ADDRESS": self.address}

    def close(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            self.proc.wait(timeout=10)
        self.proc.stdout.close()
        self.proc.stderr.close()
        shutil.rmtree(self.dir, ignore_errors=True)
