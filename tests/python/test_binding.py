# The Python binding on the simulated camera (tarvik-sim run, its default camera and card);
# test_no_camera alone under tarvik-sim run --cameras 0, test_no_card under --no-card.
import datetime
import logging
import os
import threading

import pytest

import tarvik
from tarvik._library import lib
from tarvik.card import date_or_text
from tarvik.errors import error_for

SERIAL, NODE, ROI = "SN2024SIMCAMERA00042", "/dev/video0", (1, -2, 3, 0x7FFFFFFF)
EXPOSURE = tarvik.Exposure(tarvik.EyeExposure(1, 2, 3, 4, b"\0\0\0\0\1\0\0\0"),
                           tarvik.EyeExposure(5, 6, 7, 8, bytes(range(8, 16))))


@pytest.fixture
def cam():
    with tarvik.Camera() as camera:
        yield camera


@pytest.fixture
def lines():
    """Every line of the library, as logging records."""
    got = []
    tarvik.set_log_level(logging.DEBUG)
    tarvik.set_log_handler(got.append)
    yield got
    tarvik.set_log_handler(None)
    tarvik.set_log_level(logging.WARNING)


# Valid for life, no such month, digits that are not ASCII ones: the text stays.
@pytest.mark.parametrize("text", ["长期", "20301301", "１９９００１０１", "2030010", ""])
def test_dates_parse_where_they_are_dates(text):
    assert date_or_text(text) == text and date_or_text("19900228") == datetime.date(1990, 2, 28)


def test_card_fields_and_the_wiped_record(cam, monkeypatch):
    wiped, clear = [], lib().tarvik_card_clear
    monkeypatch.setattr(lib(), "tarvik_card_clear", lambda r: (clear(r), wiped.append(r._obj)))
    card = cam.read_card()
    assert (card.name, card.sex, card.sex_code, card.nation, card.nation_code, card.reserved) == (
        "张三", "男", "1", "汉", "01", "")
    assert (card.birth, card.valid_from, card.valid_to, card.id_number) == (datetime.date(
        1990, 1, 1), datetime.date(2020, 1, 1), datetime.date(2030, 1, 1), "000000199001010000")
    assert len(card.photo) == 1024 and card.third_block is None and card.sam_result == 0
    assert wiped[0].name == b"" and not any(wiped[0].photo)
    assert len(cam.read_card(third_block=True).third_block) == 1024


@pytest.mark.parametrize("given, stored", [("SIM-7", b"SIM-7" + bytes(15)), (b"\1" * 20, b"\1" * 20)])
def test_settings_round_trip(cam, given, stored):
    cam.device_id, cam.roi, cam.exposure = given, ROI, EXPOSURE
    assert (cam.device_id, cam.roi, cam.exposure) == (stored, ROI, EXPOSURE)
    assert cam.exposure.left.manual and not cam.exposure.right.manual


BIG = 2**40 + 5


# Refused before any call, the camera as it was; ctypes would cut the numbers short.
@pytest.mark.parametrize("call, error", [
    (lambda c: setattr(c, "device_id", "X" * 21), ValueError),
    (lambda c: setattr(c, "device_id", b"\1" * 21), ValueError),
    (lambda c: setattr(c, "device_id", "é"), ValueError),
    (lambda c: setattr(c, "roi", (1, 2, 3, BIG)), ValueError),
    (lambda c: setattr(c, "roi", (1, 2, 3, 2**31)), ValueError),
    (lambda c: setattr(c, "roi", (1, 2, 3, "4")), TypeError),
    (lambda c: setattr(c, "mjpeg_qp", (1, 2, 3)), ValueError),
    (lambda c: c.sam_command(BIG), ValueError),
    (lambda c: c.sam_command(-1), ValueError),
    (lambda c: c.set_gpio(0, -(2**31) - 1), ValueError),
    (lambda c: c.write_vcm(0x10000), ValueError),
    (lambda c: c.write_vcm(1, ctrl0=256), ValueError),
    (lambda c: c.read_vcm(mode=1.0), TypeError),
    (lambda c: c.read_item(True), TypeError),
    (lambda c: c.write_item(BIG, b""), ValueError),
    (lambda c: setattr(c, "exposure", tarvik.Exposure(EXPOSURE.left, tarvik.EyeExposure(
        -1, 2, 3, 4, bytes(8)))), ValueError),
    (lambda c: tarvik.Camera(bus=1, address=256), ValueError),
    (lambda c: tarvik.set_log_handler(42), TypeError),
    (lambda c: tarvik.set_log_level("debug"), TypeError),
])
def test_hostile_inputs(cam, call, error):
    before = (cam.roi, cam.device_id, cam.mjpeg_qp)
    with pytest.raises(error):
        call(cam)
    assert (cam.roi, cam.device_id, cam.mjpeg_qp) == before


def test_events_and_a_cancel_from_another_thread(cam):
    assert cam.fileno() >= 0
    first = next(cam.events(timeout=5))
    assert (first.kind, first.sequence) == ("card-placed", 1)
    threading.Timer(0.05, cam.cancel).start()
    assert list(cam.events()) == []  # no more changes: only the cancel ends it


def test_reprs_say_which_camera_and_hide_the_holder(cam):
    card = cam.read_card()
    text = repr(card) + str(card)
    assert not any(v in text for v in (card.name, card.id_number, card.address, "1990"))
    assert f"serial={SERIAL!r}" in repr(cam) and "path=" in repr(cam)


def test_code_without_a_class_raises_the_base_class():
    e = error_for(-99)
    assert (type(e), e.code, e.name, e.message) == (
        tarvik.TarvikError, -99, "LIBUSB_ERROR_OTHER", tarvik.strerror(-99))


def test_invalid_sam_command(cam):
    with pytest.raises(tarvik.InvalidArgument) as e:
        cam.sam_command(5)
    assert (e.value.code, e.value.name) == (-1001, "TARVIK_E_INVALID_ARGUMENT")
    assert cam.sam_command(2) == (0, b"NUM-0123456789AB")


def test_closed_once_and_use_after_close(lines):
    with tarvik.Camera(bus=1, address=2) as camera:
        pass
    camera.close()
    assert sum("release" in r.getMessage() for r in lines) == 1
    with pytest.raises(tarvik.NotOpen):
        camera.roi
    camera.open()
    assert camera.roi and camera.streaming is True


def test_no_camera():
    assert tarvik.list_cameras() == []
    with pytest.raises(tarvik.NoCamera):
        tarvik.Camera()
    assert tarvik.version() == tarvik.__version__ == os.environ["TARVIK_EXPECTED_VERSION"]


def test_no_card(cam):  # status 0x80, result 17 for the SAM
    with pytest.raises(tarvik.SamError) as card:
        cam.read_card()
    with pytest.raises(tarvik.SamError) as command:
        cam.sam_command(3)
    assert card.value.sam_result == command.value.sam_result == 17


# On the USB path the video driver is detached: the camera has no capture node then.
@pytest.mark.parametrize("how, node, path", [({"transport": "usb"}, None, "usb"),
                                             ({"video_node": NODE}, NODE, "kernel"),
                                             ({"serial": SERIAL}, NODE, "kernel")])
def test_listed_and_opened_where_asked(how, node, path):
    assert tarvik.list_cameras() == [tarvik.CameraInfo(1, 2, SERIAL, NODE)]
    with tarvik.Camera(**how) as cam:
        assert cam.describe() == (tarvik.CameraInfo(1, 2, SERIAL, node), path)
    with pytest.raises(tarvik.NoCamera):
        tarvik.Camera(serial=SERIAL + "0")


def test_log_handler_and_logger(cam, lines, capfd, caplog):
    cam.roi
    tarvik.set_log_handler(lambda record: 1 / 0)
    assert cam.roi
    tarvik.set_log_handler(None)
    with caplog.at_level(logging.DEBUG, logger="tarvik"):
        cam.roi
    out, err = capfd.readouterr()
    messages = [r.getMessage() for r in lines]
    assert messages and all(m.startswith("[File:") and "\n" not in m for m in messages)
    assert {r.levelno for r in lines} == {logging.DEBUG} and out == ""
    assert "ZeroDivisionError" in err
    assert any("ReadROI" in r.getMessage() and r.name == "tarvik" for r in caplog.records)
    with pytest.raises(TypeError):
        tarvik.set_log_handler(42)
