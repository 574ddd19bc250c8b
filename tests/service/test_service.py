"""tarvikd on a private bus, against two simulated cameras, with real clients:
busctl and gdbus, and our own (dbus-next) for signals and crowds."""

import asyncio
import json
import os
import subprocess

import pytest
from dbus_next import BusType, Message, MessageType, Variant
from dbus_next.aio import MessageBus

from conftest import (BUS_NAME, CAMERA_IFACE, ERROR, IS_ROOT, KIOSK_USER, MANAGER, OTHER_USER,
                      Service, busctl, ensure_users, sim)

CARD_NAME = "张三"
ORIGINAL_ROI = [100, 200, 640, 480]


def call(bus, path, method, *args, user=None, check=True):
    return busctl(bus, "--json=short", "call", BUS_NAME, path, CAMERA_IFACE, method, *args,
                  user=user, check=check)


def values(p):
    """An a{sv} answer of busctl --json=short as a plain dict."""
    return {k: v["data"] for k, v in json.loads(p.stdout)["data"][0].items()}


def error_of(p):
    assert p.returncode != 0, p.stdout
    return p.stderr.strip()


def run(coroutine):
    return asyncio.run(asyncio.wait_for(coroutine, 60))


async def connect(bus):
    return await MessageBus(bus_address=bus.address, bus_type=BusType.SYSTEM).connect()


async def method(conn, path, member, signature="", body=(), interface=CAMERA_IFACE,
                 destination=BUS_NAME):
    return await conn.call(Message(destination=destination, path=path, interface=interface,
                                   member=member, signature=signature, body=list(body)))


class Signals:
    """The camera signals one client hears, in order."""

    def __init__(self, conn):
        self.heard = []
        self.arrived = asyncio.Event()
        conn.add_message_handler(self.handle)

    def handle(self, message):
        if message.message_type == MessageType.SIGNAL and message.path.startswith(MANAGER):
            self.heard.append(message)
            self.arrived.set()

    async def wait_for(self, member, count=1):
        while sum(m.member == member for m in self.heard) < count:
            self.arrived.clear()
            await self.arrived.wait()
        return [m for m in self.heard if m.member == member]


async def subscribe(conn):
    await method(conn, "/org/freedesktop/DBus", "AddMatch", "s",
                 ["type='signal',sender='%s'" % BUS_NAME], interface="org.freedesktop.DBus",
                 destination="org.freedesktop.DBus")


def test_cameras_are_offered_read_and_written_by_real_clients(service):
    paths = service.cameras()
    assert len(paths) == 2
    first = paths[0]
    assert busctl(service.bus, "get-property", BUS_NAME, first, CAMERA_IFACE,
                  "State").stdout.split() == ["s", '"ready"']
    assert values(call(service.bus, first, "ReadItem", "s", "roi"))["value"] == ORIGINAL_ROI
    call(service.bus, first, "WriteItem", "sa{sv}", "roi", "1", "value", "ai", "4", "1", "2", "3",
         "4")
    gdbus = subprocess.run(
        ["gdbus", "call", "--system", "--dest", BUS_NAME, "--object-path", first, "--method",
         CAMERA_IFACE + ".ReadItem", "roi"], env=service.bus.env, capture_output=True, text=True,
        check=True)
    assert "'value': <[int64 1, 2, 3, 4]>" in gdbus.stdout
    # The other camera is its own.
    assert values(call(service.bus, paths[1], "ReadItem", "s", "roi"))["value"] == ORIGINAL_ROI
    card = values(call(service.bus, first, "ReadCard", "a{sv}", "0"))
    assert card["name"] == CARD_NAME and len(card["photo"]) == 1024


def V(signature, value):
    return Variant(signature, value)


INVALID = ERROR + "TARVIK_E_INVALID_ARGUMENT"
NOT_HANDLED = ERROR + "TARVIK_E_NOT_HANDLED"
FOUR = V("ai", [1, 2, 3, 4])
BAD_CALLS = [
    # (member, signature, body, the error's name, words of its message)
    ("ReadItem", "i", [5], "org.freedesktop.DBus.Error.InvalidArgs", "expecting 's'"),
    ("ReadItem", "s", ["nope"], INVALID, "no item named 'nope'"),
    ("ReadItem", "s", ["r" * 100000], INVALID, "name too long"),
    ("ReadItem", "s", ["gpio"], NOT_HANDLED, "not read"),
    ("ReadItem", "s", ["sam"], NOT_HANDLED, "SamCommand"),
    ("ReadItemWith", "sa{sv}", ["roi", {"mode": V("u", 1)}], INVALID, "takes no value mode"),
    ("WriteItem", "sa{sv}", ["roi", {"value": V("ai", [1, 2, 3])}], INVALID, "takes 4 numbers"),
    ("WriteItem", "sa{sv}", ["roi", {"value": V("ax", [1, 2, 3, 1 << 40])}], INVALID,
     "not 32-bit"),
    ("WriteItem", "sa{sv}", ["roi", {"value": V("s", "1 2 3 4")}], INVALID,
     "not a list of numbers"),
    ("WriteItem", "sa{sv}", ["roi", {"value": FOUR, "x": V("u", 1)}], INVALID,
     "takes no value x"),
    ("WriteItem", "sa{sv}", ["roi", {"value": V("v", V("s", "deep"))}], INVALID, "not taken"),
    ("WriteItem", "sa{sv}", ["roi", {"record": V("ay", b"123")}], INVALID, "16 bytes"),
    ("WriteItem", "sa{sv}", ["device-id", {"value": V("s", "x" * 21)}], INVALID, "at most 20"),
    ("WriteItem", "sa{sv}", ["device-id", {"value": V("s", "x" * 300)}], INVALID, "too long"),
    ("WriteItem", "sa{sv}", ["vcm", {"value": V("u", 70000)}], INVALID, "out of range"),
    ("WriteItem", "sa{sv}", ["vcm", {"value": V("t", 1 << 63)}], INVALID, "out of range"),
    ("WriteItem", "sa{sv}", ["et", {"left_time": V("u", 1)}], INVALID, "right_time is missing"),
    ("WriteItem", "sa{sv}", ["version", {}], NOT_HANDLED, "not written"),
    ("WriteItem", "sa{sv}", ["roi", {"k%d" % i: V("u", 1) for i in range(33)}], INVALID,
     "too many keys"),
    ("WriteItem", "sa{sv}", ["gpio", {"value": V("ai", list(range(2000)))}], INVALID,
     "too many numbers"),
    ("SamCommand", "y", [5], INVALID, "no SAM command 5"),
    ("ReadCard", "a{sv}", [{"photo": V("b", True)}], INVALID, "takes one option"),
    ("Unwatch", "", [], INVALID, "does not watch"),
]


def test_bad_input_is_refused_before_the_camera_and_changes_nothing(service):
    first = service.cameras()[0]
    before = values(call(service.bus, first, "GetStatus"))["calls"]

    async def scenario():
        conn = await connect(service.bus)
        for member, signature, body, name, words in BAD_CALLS:
            reply = await method(conn, first, member, signature, body)
            assert (reply.error_name, words in str(reply.body)) == (name, True), \
                (member, body if len(str(body)) < 200 else "...", reply.body)
        reply = await method(conn, MANAGER + "/camera/NOPE", "ReadItem", "s", ["roi"])
        assert reply.error_name == "org.freedesktop.DBus.Error.UnknownObject"
        conn.disconnect()

    run(scenario())
    status = values(call(service.bus, first, "GetStatus"))
    assert status["calls"] == before  # nothing reached the camera
    assert values(call(service.bus, first, "ReadItem", "s", "roi"))["value"] == ORIGINAL_ROI


def test_card_events_are_signals_without_card_data(service):
    first = service.cameras()[0]

    async def scenario():
        conn = await connect(service.bus)
        signals = Signals(conn)
        await subscribe(conn)
        assert (await method(conn, first, "Watch")).message_type == MessageType.METHOD_RETURN
        placed = await signals.wait_for("CardPlaced")  # the card the simulator starts with
        sim("remove-card")
        removed = await signals.wait_for("CardRemoved")
        sim("place-card")
        placed = await signals.wait_for("CardPlaced", 2)
        sequences = [placed[0].body[0], removed[0].body[0], placed[1].body[0]]
        assert sequences == sorted(sequences) and len(set(sequences)) == 3
        for m in signals.heard:
            assert m.signature in ("t", "st", "sa{sv}as"), m.signature
            assert CARD_NAME not in repr(m.body)
        card = await method(conn, first, "ReadCard", "a{sv}", [{}])
        assert card.body[0]["name"].value == CARD_NAME
        conn.disconnect()

    run(scenario())
    log = service.log_text()
    assert "watched; card polls start" in log
    assert CARD_NAME not in log and "19900101" not in log


def test_unplug_and_replug_are_followed(service):
    first = service.cameras()[0]

    async def scenario():
        conn = await connect(service.bus)
        signals = Signals(conn)
        await subscribe(conn)
        sim("--camera", "0", "unplug")
        gone = (await signals.wait_for("StateChanged"))[0]
        assert gone.body[0] == "gone"
        reply = await method(conn, first, "ReadItem", "s", ["roi"])
        assert reply.error_name == ERROR + "LIBUSB_ERROR_NO_DEVICE"
        sim("--camera", "0", "replug")
        back = (await signals.wait_for("StateChanged", 2))[1]
        assert back.body[0] == "ready" and back.body[1] > gone.body[1]
        conn.disconnect()

    run(scenario())
    assert len(service.cameras()) == 2
    assert values(call(service.bus, first, "ReadItem", "s", "roi"))["value"] == ORIGINAL_ROI
    assert values(call(service.bus, first, "GetStatus"))["reopens"] == 1


def test_clients_that_leave_lose_their_watches_and_calls(service):
    first = service.cameras()[0]

    async def scenario():
        leaving = await connect(service.bus)
        await method(leaving, first, "Watch")
        await method(leaving, first, "Watch")
        # A card read, and the client gone before its answer.
        await leaving.send(Message(destination=BUS_NAME, path=first, interface=CAMERA_IFACE,
                                   member="ReadCard", signature="a{sv}", body=[{}]))
        leaving.disconnect()
        staying = await connect(service.bus)
        for _ in range(100):
            status = (await method(staying, first, "GetStatus")).body[0]
            if status["watchers"].value == 0 and status["pending"].value == 0:
                break
            await asyncio.sleep(0.05)
        assert status["watchers"].value == 0 and status["pending"].value == 0
        reply = await method(staying, first, "ReadItem", "s", ["roi"])
        assert reply.body[0]["value"].value == ORIGINAL_ROI
        staying.disconnect()

    run(scenario())
    assert "no one watches; card polls stop" in service.log_text() or \
        "a watching client left the bus" in service.log_text()


def test_a_crowd_gets_answers_or_a_limit_and_a_busy_camera_holds_up_nothing_else(service):
    first, second = service.cameras()

    async def scenario():
        crowd = await asyncio.gather(*(connect(service.bus) for _ in range(50)))
        order = []

        async def read(conn, path, member, body, tag):
            signature = {"ReadCard": "a{sv}", "ReadItem": "s", "GetStatus": ""}[member]
            reply = await method(conn, path, member, signature, body)
            order.append(tag)
            return reply

        # Every client asks the first camera for a card; one more call asks
        # the other camera and one the first camera's status.
        calls = [read(c, first, "ReadCard", [{}], "card") for c in crowd]
        calls.append(read(crowd[0], second, "ReadItem", ["roi"], "other"))
        calls.append(read(crowd[1], first, "GetStatus", [], "status"))
        replies = await asyncio.gather(*calls)
        names = {r.error_name for r in replies[:50]}
        assert names <= {None, "org.freedesktop.DBus.Error.LimitsExceeded"}, names
        assert sum(r.error_name is None for r in replies[:50]) >= 1
        assert replies[50].error_name is None and replies[51].error_name is None
        # The busy camera held up neither the other camera nor its own status.
        assert order.index("other") < len(order) - 1 and order.index("status") < len(order) - 1
        for c in crowd:
            c.disconnect()

    run(scenario())
    assert values(call(service.bus, first, "ReadItem", "s", "roi"))["value"] == ORIGINAL_ROI


@pytest.mark.parametrize("service", [["--call-timeout", "100"]], indirect=True)
def test_calls_past_their_deadline_hear_a_timeout(service):
    first = service.cameras()[0]

    async def scenario():
        clients = await asyncio.gather(*(connect(service.bus) for _ in range(8)))
        replies = await asyncio.gather(*(method(c, first, "ReadCard", "a{sv}", [{}])
                                         for c in clients for _ in range(8)))
        names = {r.error_name for r in replies}
        assert ERROR + "LIBUSB_ERROR_TIMEOUT" in names, names
        assert names <= {None, ERROR + "LIBUSB_ERROR_TIMEOUT"}
        for c in clients:
            c.disconnect()

    run(scenario())
    metrics = busctl(service.bus, "call", BUS_NAME, MANAGER, "org.tarvik.Tarvik1.Manager",
                     "GetMetrics").stdout
    assert 'result=\\"LIBUSB_ERROR_TIMEOUT\\"' in metrics


def test_metrics_parse_and_the_file_is_replaced_whole(bus, tmp_path):
    from prometheus_client.parser import text_string_to_metric_families

    if IS_ROOT:
        bus.start_polkit()
    path = tmp_path / "tarvik.prom"
    # A service's umask is often 0077; the collector must still read the file.
    service = Service(bus, *([] if IS_ROOT else ["--session"]), "--metrics-file", str(path),
                      umask=0o077)
    first = service.cameras()[0]
    call(bus, first, "ReadCard", "a{sv}", "0")
    call(bus, first, "ReadItem", "s", "nope", check=False)  # refused: not counted
    sim("--camera", "0", "remove-card")
    call(bus, first, "ReadCard", "a{sv}", "0", check=False)
    text = json.loads(busctl(bus, "--json=short", "call", BUS_NAME, MANAGER,
                             "org.tarvik.Tarvik1.Manager", "GetMetrics").stdout)["data"][0]
    assert service.stop() == 0
    samples = {}
    for family in text_string_to_metric_families(text):
        for s in family.samples:
            samples[(s.name, s.labels.get("serial"), s.labels.get("result"))] = s.value
    serial = "SN2024SIMCAMERA00042"
    assert samples[("tarvik_cards_read_total", serial, None)] == 1
    assert samples[("tarvik_calls_total", serial, None)] == 2
    assert samples[("tarvik_failures_total", serial, "TARVIK_E_SAM")] == 1
    assert samples[("tarvik_last_failure_timestamp_seconds", serial, None)] > 0
    assert CARD_NAME not in text
    written = path.read_text()  # written at the stop, whole
    assert list(text_string_to_metric_families(written)) and written == text
    assert not (tmp_path / "tarvik.prom.tmp").exists()
    assert path.stat().st_mode & 0o777 == 0o644


@pytest.mark.skipif(not IS_ROOT, reason="polkitd and the test's users need root")
def test_polkit_lets_the_group_in_and_keeps_others_out(bus):
    ensure_users()
    bus.start_polkit()
    service = Service(bus)
    first = service.cameras()[0]
    card = values(call(bus, first, "ReadCard", "a{sv}", "0", user=KIOSK_USER))
    assert card["name"] == CARD_NAME
    for args in (["ReadCard", "a{sv}", "0"], ["WriteItem", "sa{sv}", "roi", "1", "value", "ai",
                                              "4", "1", "2", "3", "4"],
                 ["ReadItem", "s", "roi"], ["Watch"]):
        refused = error_of(call(bus, first, *args, user=OTHER_USER, check=False))
        assert "org.freedesktop.DBus.Error.AccessDenied" in refused or "Access denied" in refused
    assert values(call(bus, first, "ReadItem", "s", "roi"))["value"] == ORIGINAL_ROI
    assert service.stop() == 0


@pytest.mark.skipif(not IS_ROOT, reason="running as other users needs root")
def test_only_the_service_user_may_own_the_name(tmp_path):
    from conftest import Bus

    ensure_users()
    bus = Bus(with_test_owner=False)
    try:
        for user, owns in ((OTHER_USER, False), ("tarvikd", True)):
            p = subprocess.Popen(["setpriv", "--reuid", user, "--regid", user, "--init-groups",
                                  os.environ["TARVIKD"]],
                                 env=dict(bus.env), stdout=subprocess.DEVNULL,
                                 stderr=subprocess.PIPE, text=True)
            if owns:
                from conftest import wait_for_name
                wait_for_name(bus, BUS_NAME)
                p.terminate()
                assert p.wait(20) == 0
            else:
                assert p.wait(20) == 1
                assert "cannot own org.tarvik.Tarvik1" in p.stderr.read()
    finally:
        bus.close()
