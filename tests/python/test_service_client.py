# tarvik.Service against a real tarvikd on a private session bus, under tarvik-sim:
#   dbus-run-session -- tarvik-sim run -- pytest test_service_client.py
# with TARVIKD and TARVIK_SIM naming the binaries. What the service says must
# be what the local Camera says: the same values, the same card, the same
# exception classes; events come in order; closing drops the client's watch.
import asyncio
import os
import subprocess
import sys
import threading
import time

import pytest

import tarvik
from tarvik.errors import error_for
from tarvik.service import ERROR_PREFIX, _error_of

pytest.importorskip("dbus_next")

EXPOSURE = tarvik.Exposure(tarvik.EyeExposure(1, 2, 3, 4, b"\0\0\0\0\1\0\0\0"),
                           tarvik.EyeExposure(5, 6, 7, 8, bytes(range(8, 16))))
DBUS_ERROR = "org.freedesktop.DBus.Error."


def sim(command):
    subprocess.run([os.environ["TARVIK_SIM"], "ctl", command], check=True,
                   stdout=subprocess.DEVNULL)


# Runs first, before the module's tarvikd starts.
@pytest.mark.parametrize("bus, hide_dbus_next, words", [
    ("session", True, "python3-dbus-next"),
    ("session", False, "tarvikd is not running"),
    ("unix:path=/nonexistent/bus", False, "cannot connect"),
])
def test_a_service_out_of_reach_says_why(monkeypatch, bus, hide_dbus_next, words):
    if hide_dbus_next:
        monkeypatch.setitem(sys.modules, "dbus_next", None)
    with pytest.raises(tarvik.ServiceUnavailable) as e:
        tarvik.Service(bus, timeout=5)
    assert words in str(e.value) and isinstance(e.value, ConnectionError)
    assert [t.name for t in threading.enumerate()].count("tarvik.Service") == 0


@pytest.mark.parametrize("error, text, cls, name", [
    (ERROR_PREFIX + "TARVIK_E_SAM", "the SAM answered 17 (no card)", tarvik.SamError, "TARVIK_E_SAM"),
    (ERROR_PREFIX + "LIBUSB_ERROR_TIMEOUT", "no answer within 20000 ms", tarvik.Timeout,
     "LIBUSB_ERROR_TIMEOUT"),
    (ERROR_PREFIX + "TARVIK_E_NOT_MANUAL", "", tarvik.NotManual, "TARVIK_E_NOT_MANUAL"),
    (ERROR_PREFIX + "TARVIK_E_FROM_A_NEWER_SERVICE", "x", tarvik.TarvikError,
     "TARVIK_E_FROM_A_NEWER_SERVICE"),
    (DBUS_ERROR + "AccessDenied", "not authorized", tarvik.ServiceAccessDenied,
     "LIBUSB_ERROR_ACCESS"),
    (DBUS_ERROR + "LimitsExceeded", "too many calls", tarvik.CameraBusy, "LIBUSB_ERROR_BUSY"),
    (DBUS_ERROR + "UnknownObject", "no such object", tarvik.DeviceGone, "LIBUSB_ERROR_NO_DEVICE"),
    (DBUS_ERROR + "ServiceUnknown", "not provided", tarvik.ServiceUnavailable,
     "SERVICE_UNAVAILABLE"),
    (DBUS_ERROR + "UnknownMethod", "no Frobnicate", tarvik.TarvikError, "TARVIK_E_UNKNOWN"),
])
def test_dbus_errors_raise_the_librarys_classes(error, text, cls, name):
    e = _error_of(error, text, "session bus")
    assert (type(e), e.name) == (cls, name)
    assert getattr(e, "sam_result", 17) == 17
    # The service's refusal is a permission error; the library's own stays AccessDenied.
    assert isinstance(e, PermissionError) == (cls is tarvik.ServiceAccessDenied)
    assert type(error_for(-3)) is tarvik.AccessDenied


class Daemon:
    """tarvikd on the session bus, up once its name answers."""

    def __init__(self):
        self.process = subprocess.Popen(
            [os.environ["TARVIKD"], "--session", "--poll-interval", "50"], stdout=subprocess.DEVNULL)
        for _ in range(200):
            try:
                tarvik.Service("session").close()
                return
            except tarvik.ServiceUnavailable:
                time.sleep(0.05)

    def stop(self):
        self.process.terminate()
        self.process.wait(10)


@pytest.fixture(scope="module")
def daemon():
    holder = [Daemon()]
    try:
        yield holder
    finally:
        holder[0].stop()


@pytest.fixture
def service(daemon):
    with tarvik.Service("session") as s:
        yield s


@pytest.fixture
def cam(service):
    return service.camera()


@pytest.fixture
def local():
    with tarvik.Camera() as c:
        yield c


# None: read only, compared as it is.
@pytest.mark.parametrize("name, value, stored", [
    ("roi", (1, -2, 3, 0x7FFFFFFF), (1, -2, 3, 0x7FFFFFFF)),
    ("mjpeg_qp", [5, 6, 7, -8], (5, 6, 7, -8)),
    ("device_id", "SIM-7", b"SIM-7" + bytes(15)),
    ("device_sn", b"\1" * 20, b"\1" * 20),
    ("exposure", EXPOSURE, EXPOSURE),
    ("version", None, None),
    ("roi_status", None, None),
    ("gyro", None, None),
])
def test_settings_through_the_service_are_the_local_cameras(cam, local, name, value, stored):
    if value is not None:
        setattr(cam, name, value)
        assert getattr(cam, name) == stored
    assert getattr(cam, name) == getattr(local, name)


# Records as the library fills them, the rest of the room as the request left it.
@pytest.mark.parametrize("item, given, size", [
    (6, None, 64),
    (2, b"\xff" * 20, 20),
    (18, b"\1\0\0\0", 8),  # the lens motor in mode 1
    (10, bytes([1, 8, 2, 0]) + b"\xee" * 60, 64),  # a data block: target 1, 8 bytes from 2
])
def test_records_are_the_local_cameras(cam, local, item, given, size):
    assert cam.read_item(item, given, size) == local.read_item(item, given, size)


@pytest.mark.parametrize("call", [
    lambda c: c.read_item(99),
    lambda c: c.read_item(12),
    lambda c: c.read_item(3),  # beep: written only
    lambda c: c.read_item(6, size=8),
    lambda c: c.read_item(18),  # the lens motor needs its mode
    lambda c: c.write_item(6, b"short"),
    lambda c: c.write_item(5, bytes(56)),  # version: read only
    lambda c: c.sam_command(5),
    lambda c: c.write_vcm(1, ctrl0=256),
    lambda c: setattr(c, "roi", (1, 2, 3)),
])
def test_errors_are_the_local_cameras(cam, local, call):
    errors = []
    for camera in (cam, local):
        with pytest.raises(tarvik.TarvikError) as e:
            call(camera)
        errors.append((type(e.value), e.value.name))
    assert errors[0] == errors[1]


def test_the_card_is_the_local_cameras(cam, local):
    card = cam.read_card(third_block=True)
    assert card.name == "张三" and card == local.read_card(third_block=True)
    assert len(card.third_block) == 1024 and "张三" not in repr(card)
    sim("remove-card")
    try:
        with pytest.raises(tarvik.SamError) as remote:
            cam.read_card()
        with pytest.raises(tarvik.SamError) as here:
            local.read_card()
        assert remote.value.sam_result == here.value.sam_result == 17
    finally:
        sim("place-card")


def test_events_in_order_and_the_camera_coming_back(cam):
    steps = {"card-placed": "remove-card", "card-removed": "unplug", "camera-gone": "replug",
             "camera-back": "place-card"}
    seen = []
    for event in cam.events(timeout=10):
        seen.append(event)
        if len(seen) == 5:
            break
        sim(steps[event.kind])
    assert [e.kind for e in seen] == ["card-placed", "card-removed", "camera-gone",
                                      "camera-back", "card-placed"]
    assert all(a.sequence < b.sequence and a.time_ns <= b.time_ns for a, b in zip(seen, seen[1:]))
    assert (cam.state, cam.card_present) == ("ready", True)


def test_closing_drops_the_watch_and_ends_the_iteration(daemon, service):
    observer = service.camera()
    client = tarvik.Service("session")
    cam = client.camera()
    cam.watch()
    waiting = threading.Thread(target=lambda: list(cam.events()))
    waiting.start()
    assert observer.status()["watchers"] == 1
    client.close()
    waiting.join(5)
    assert not waiting.is_alive() and observer.status()["watchers"] == 0
    with pytest.raises(tarvik.ServiceUnavailable):
        cam.roi


def test_the_asyncio_form(daemon):
    async def main():
        async with await tarvik.Service.connect("session") as service:
            cam = await service.camera()
            await cam.set("roi", (9, 8, 7, 6))
            assert (await cam.get("roi"), await cam.get("state")) == ((9, 8, 7, 6), "ready")
            with pytest.raises(tarvik.NoCamera):
                await service.camera(serial="none such")
            assert "tarvik_calls_total{" in await service.metrics()
            await cam.watch()
            assert (await cam.status())["watches"] == 1
            waiting = asyncio.ensure_future(collect(cam.events()))
            cam.cancel()
            assert {e.kind for e in await asyncio.wait_for(waiting, 5)} <= {"card-placed"}

    async def collect(events):
        return [e async for e in events]

    asyncio.run(main())


def test_a_restarted_service_is_watched_again(daemon, cam):
    cam.watch()
    daemon[0].stop()
    daemon[0] = Daemon()
    for _ in range(100):
        if cam.status()["watchers"] == 1:
            break
        time.sleep(0.05)
    assert cam.status()["watchers"] == 1
