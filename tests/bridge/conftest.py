"""tarvik-bridge's world for a test: tarvikd on a private bus (tests/service's
Bus and Service) serving the simulated camera of the tarvik-sim run this test
runs under, and the bridge as a client of it, listening on a free port.

Environment: TARVIK_BRIDGE (the binary) and what tests/service/conftest.py needs.
"""
import importlib.util
import json
import os
import subprocess
import tempfile
import time

import pytest

_spec = importlib.util.spec_from_file_location(
    "service_world", os.path.join(os.path.dirname(__file__), "..", "service", "conftest.py"))
service_world = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(service_world)

CLEAN_ENV = service_world.CLEAN_ENV
sim = service_world.sim
SOURCE = service_world.SOURCE
CAMERA = "SN2024SIMCAMERA00042"
CAMERA_PATH = "/org/tarvik/Tarvik1/camera/" + CAMERA
CARD_NAME = "张三"


class Bridge(service_world.LoggedProcess):
    """tarvik-bridge on `bus` (as its session bus), its log in a file."""

    def __init__(self, bus, *origins, listen="127.0.0.1:0"):
        self.log = tempfile.NamedTemporaryFile(prefix="tarvik-bridge-", suffix=".log", delete=False)
        command = [os.environ["TARVIK_BRIDGE"], "--session", "--listen", listen,
                   "--log-level", "debug"] + ["--allow-origin=" + o for o in origins]
        self.process = subprocess.Popen(command, env=bus.env, stdout=subprocess.PIPE,
                                        stderr=self.log, text=True)
        line = self.process.stdout.readline()
        assert line.startswith("listening on "), (line, self.log_text())
        self.port = int(line.rsplit(":", 1)[1])
        self.url = "ws://127.0.0.1:%d" % self.port



def run_bridge(*args, bus=None):
    """The bridge with `args` that should end by itself: (status, stderr)."""
    env = bus.env if bus is not None else CLEAN_ENV
    p = subprocess.run([os.environ["TARVIK_BRIDGE"]] + list(args), env=env, capture_output=True,
                       text=True, timeout=20)
    return p.returncode, p.stderr


def status(bus):
    """The simulated camera's GetStatus as a dict."""
    out = service_world.busctl(bus, "--json=short", "call", service_world.BUS_NAME, CAMERA_PATH,
                               "org.tarvik.Tarvik1.Camera", "GetStatus").stdout
    return {k: v["data"] for k, v in json.loads(out)["data"][0].items()}


def wait_for_status(bus, key, value, seconds=10):
    end = time.monotonic() + seconds
    while status(bus)[key] != value:
        assert time.monotonic() < end, "%s never became %r" % (key, value)
        time.sleep(0.05)


@pytest.fixture
def bus():
    b = service_world.Bus()
    yield b
    b.close()


@pytest.fixture
def service(bus):
    """tarvikd on the private bus, as on a session bus (polkit is tests/service's)."""
    s = service_world.Service(bus, "--session")
    yield s
    print(s.log_text())  # shown when the test fails
    assert s.stop() == 0
