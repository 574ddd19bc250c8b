"""The service's world for a test: a private bus shaped like the system bus
(its policy files, the package's own), polkitd on it when we are root, users
made for the test, and tarvikd serving the simulated cameras of the
tarvik-sim run this test runs under.

Environment: TARVIKD (the binary), TARVIK_SIM (tarvik-sim), TARVIK_SOURCE_DIR.
"""

import grp
import os
import pwd
import shutil
import subprocess
import tempfile
import time

import pytest

SOURCE = os.environ.get("TARVIK_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
PACKAGE_FILES = os.path.join(SOURCE, "packaging", "service")
BUS_NAME = "org.tarvik.Tarvik1"
MANAGER = "/org/tarvik/Tarvik1"
CAMERA_IFACE = "org.tarvik.Tarvik1.Camera"
ERROR = "org.tarvik.Tarvik1.Error."

KIOSK_USER = "tarvik-test-kiosk"  # in the group tarvik
OTHER_USER = "tarvik-test-other"  # in no group of ours
SERVICE_USER = "tarvikd"

IS_ROOT = os.geteuid() == 0

# Programs that need no simulated camera run without its preload.
CLEAN_ENV = {k: v for k, v in os.environ.items() if k != "LD_PRELOAD"}

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <auth>EXTERNAL</auth>
  <listen>unix:path={dir}/bus</listen>
  <policy context="default">
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
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Introspectable"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Properties"/>
  </policy>
  <includedir>/usr/share/dbus-1/system.d</includedir>
  <includedir>{policies}</includedir>
</busconfig>
"""

# The service runs as the test's own user here (the simulator's files are
# that user's): it may own the name on this bus too, besides the service's
# user as the package says.
TEST_POLICY = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><policy user="{user}"><allow own="org.tarvik.Tarvik1"/></policy></busconfig>
"""


class Bus:
    def __init__(self, with_test_owner=True):
        self.dir = tempfile.mkdtemp(prefix="tarvik-bus-")
        os.chmod(self.dir, 0o755)  # the test's users connect too
        policies = os.path.join(self.dir, "policies")
        os.mkdir(policies)
        shutil.copy(os.path.join(PACKAGE_FILES, "org.tarvik.Tarvik1.conf"), policies)
        if with_test_owner:
            with open(os.path.join(policies, "zz-test-owner.conf"), "w") as f:
                f.write(TEST_POLICY.format(user=pwd.getpwuid(os.geteuid()).pw_name))
        config = os.path.join(self.dir, "bus.conf")
        with open(config, "w") as f:
            f.write(BUS_CONFIG.format(dir=self.dir, policies=policies))
        self.address = "unix:path=%s/bus" % self.dir
        self.daemon = subprocess.Popen(
            ["dbus-daemon", "--config-file=" + config, "--nofork", "--nopidfile", "--print-address"],
            stdout=subprocess.PIPE, env=CLEAN_ENV)
        self.daemon.stdout.readline()  # listening
        self.env = dict(CLEAN_ENV, DBUS_SYSTEM_BUS_ADDRESS=self.address,
                        DBUS_SESSION_BUS_ADDRESS=self.address)
        self.polkitd = None

    def start_polkit(self):
        install_polkit_files()
        self.polkitd = subprocess.Popen(["/usr/lib/polkit-1/polkitd", "--no-debug"], env=self.env,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for_name(self, "org.freedesktop.PolicyKit1")

    def close(self):
        for p in (self.polkitd, self.daemon):
            if p is not None:
                p.terminate()
                p.wait(10)
        shutil.rmtree(self.dir, ignore_errors=True)


def busctl(bus, *args, user=None, check=True, timeout=30):
    """busctl --system ... on the test's bus, as `user` when given."""
    command = ["busctl", "--system", "--timeout=25"] + list(args)
    if user is not None:
        command = ["runuser", "-u", user, "--"] + command
    p = subprocess.run(command, env=bus.env, capture_output=True, text=True, timeout=timeout)
    if check and p.returncode != 0:
        raise AssertionError("%s: %s" % (" ".join(args), p.stderr))
    return p


def wait_for_name(bus, name, seconds=20):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        p = busctl(bus, "status", name, check=False)
        if p.returncode == 0:
            return
        time.sleep(0.05)
    raise AssertionError("%s never appeared on the bus" % name)


def ensure_users():
    """The test's users and the group the package makes (needs root). Tests
    running side by side may make them at the same time: whoever is second
    finds them made."""
    try:
        grp.getgrnam("tarvik")
    except KeyError:
        subprocess.run(["groupadd", "--system", "tarvik"], capture_output=True)
        grp.getgrnam("tarvik")
    for user, groups in ((KIOSK_USER, "tarvik"), (OTHER_USER, None), (SERVICE_USER, None)):
        try:
            pwd.getpwnam(user)
            continue
        except KeyError:
            pass
        command = ["useradd", "--system", "--no-create-home", "--shell", "/usr/sbin/nologin"]
        if groups:
            command += ["--groups", groups]
        subprocess.run(command + [user], capture_output=True)
        pwd.getpwnam(user)


POLKIT_FILES = [
    ("org.tarvik.tarvik1.policy", "/usr/share/polkit-1/actions"),
    ("50-tarvik.rules", "/etc/polkit-1/rules.d"),
]


def install_polkit_files():
    """The package's polkit action and rules where polkitd reads them, as the
    package installs them (root only). They stay: tests running side by side
    may have a polkitd reading them; each copy is renamed into place whole."""
    for name, folder in POLKIT_FILES:
        os.makedirs(folder, exist_ok=True)
        source = os.path.join(PACKAGE_FILES, name)
        target = os.path.join(folder, name)
        with open(source, "rb") as f:
            wanted = f.read()
        if os.path.exists(target):
            with open(target, "rb") as f:
                if f.read() == wanted:
                    continue
        temporary = "%s.%d" % (target, os.getpid())
        with open(temporary, "wb") as f:
            f.write(wanted)
        os.chmod(temporary, 0o644)
        os.rename(temporary, target)


class LoggedProcess:
    """A program of ours with its standard error in a file (self.log, self.process)."""

    def log_text(self):
        with open(self.log.name, encoding="utf-8", errors="replace") as f:
            return f.read()

    def stop(self):
        self.process.terminate()
        status = self.process.wait(20)
        os.unlink(self.log.name)
        return status


class Service(LoggedProcess):
    """tarvikd on `bus`, with its standard error in a file."""

    def __init__(self, bus, *args, umask=None):
        self.bus = bus
        self.log = tempfile.NamedTemporaryFile(prefix="tarvikd-", suffix=".log", delete=False)
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=bus.address,
                   DBUS_SESSION_BUS_ADDRESS=bus.address)
        self.process = subprocess.Popen(
            [os.environ["TARVIKD"], "--poll-interval", "50", "--log-level", "debug"] + list(args),
            env=env, stdout=subprocess.DEVNULL, stderr=self.log,
            preexec_fn=None if umask is None else (lambda: os.umask(umask)))
        wait_for_name(bus, BUS_NAME)

    def cameras(self):
        out = busctl(self.bus, "call", BUS_NAME, MANAGER, "org.tarvik.Tarvik1.Manager",
                     "GetCameras").stdout.split()
        return [p.strip('"') for p in out[2:]]



@pytest.fixture
def bus():
    b = Bus()
    yield b
    b.close()


@pytest.fixture
def service(bus, request):
    """tarvikd on a private bus. As root, polkitd runs there too and decides
    every call (it allows uid 0, the test's own calls); otherwise the service
    runs as on a session bus, where polkit is not asked."""
    if IS_ROOT:
        bus.start_polkit()
    args = getattr(request, "param", [])
    s = Service(bus, *([] if IS_ROOT else ["--session"]), *args)
    yield s
    print(s.log_text())  # shown when the test fails
    assert s.stop() == 0


def sim(*args):
    return subprocess.run([os.environ["TARVIK_SIM"], "ctl"] + list(args), check=True,
                          capture_output=True, text=True, env=CLEAN_ENV)
