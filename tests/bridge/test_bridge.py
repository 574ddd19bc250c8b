"""tarvik-bridge between real clients (python3-websockets, raw sockets,
headless Chromium with the example kiosk page) and tarvikd on a private bus,
against one simulated camera."""
import asyncio
import base64
import json
import os
import socket
import subprocess
import sys

import pytest
import websockets
import websockets.exceptions

from conftest import (CAMERA, CARD_NAME, CLEAN_ENV, SOURCE, Bridge, run_bridge, sim, status,
                      wait_for_status)

ORIGIN = "http://127.0.0.1:8000"


def run(coroutine):
    return asyncio.run(asyncio.wait_for(coroutine, 60))


def connect(bridge, origin=ORIGIN):
    return websockets.connect(bridge.url, origin=origin, max_size=1 << 20, open_timeout=10)


async def call(ws, method, params=None, id=1):
    await ws.send(json.dumps({"jsonrpc": "2.0", "id": id, "method": method,
                              "params": params or {}}))
    while True:  # notifications may come first
        message = json.loads(await ws.recv())
        if "id" in message:
            return message


async def notification(ws, method):
    while True:
        message = json.loads(await asyncio.wait_for(ws.recv(), 10))
        if message.get("method") == method:
            return message["params"]


def upgrade_status(port, host, origin, upgrade=True):
    """The status line's code of a raw HTTP request (None: closed without one)."""
    lines = ["GET / HTTP/1.1", "Host: " + host]
    if upgrade:
        lines += ["Upgrade: websocket", "Connection: Upgrade", "Sec-WebSocket-Version: 13",
                  "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ=="]
    if origin is not None:
        lines.append("Origin: " + origin)
    with socket.create_connection(("127.0.0.1", port), timeout=10) as s:
        s.sendall(("\r\n".join(lines) + "\r\n\r\n").encode())
        answer = s.recv(4096)
    return int(answer.split()[1]) if answer else None


def test_pages_not_allowed_are_refused_before_the_service_hears_of_them(bus, service):
    before = status(bus)
    bridge = Bridge(bus, ORIGIN, "https://kiosk.example.org")
    port = bridge.port
    here = "127.0.0.1:%d" % port
    refused = [
        # (Host, Origin, plain HTTP rather than an upgrade, the answer)
        (here, "http://evil.example", False, 403),
        (here, None, False, 403),
        (here, "null", False, 403),
        (here, ORIGIN + "/", False, 403),
        ("rebind.example:%d" % port, ORIGIN, False, 403),  # DNS rebinding
        ("127.0.0.1:1", ORIGIN, False, 403),
        (here, ORIGIN, True, 426),
    ]
    for host, origin, plain, code in refused:
        assert upgrade_status(port, host, origin, upgrade=not plain) == code, (host, origin)

    async def with_websockets():
        with pytest.raises(websockets.exceptions.InvalidStatusCode) as e:
            async with connect(bridge, origin="http://evil.example"):
                pass
        assert e.value.status_code == 403

    run(with_websockets())
    after = status(bus)
    assert (after["calls"], after["watchers"]) == (before["calls"], 0)
    log = bridge.log_text()
    assert "connected from" not in log and "Origin 'http://evil.example' is not allowed" in log
    assert bridge.stop() == 0

    # No --allow-origin: every page is refused.
    closed = Bridge(bus)
    assert upgrade_status(closed.port, "127.0.0.1:%d" % closed.port, ORIGIN) == 403
    assert "every page is refused" in closed.log_text()
    assert closed.stop() == 0
    assert status(bus)["watchers"] == 0


@pytest.mark.parametrize("args, words", [
    (["--listen", "0.0.0.0:8737"], "not a loopback address"),
    (["--listen", "[::]:8737"], "not a loopback address"),
    (["--listen", "192.168.1.20:0"], "not a loopback address"),
    (["--listen", "localhost:8737"], "not 'localhost'"),
    (["--listen", "127.0.0.1:99999"], "port"),
    (["--allow-origin", "null"], "null"),
    (["--allow-origin", "http://127.0.0.1:8000/"], "without a path"),
    (["--bogus"], "bogus"),
])
def test_bad_options_end_with_status_2_before_anything_else(args, words):
    code, stderr = run_bridge("--session", *args)
    assert (code, words in stderr) == (2, True), stderr


def test_bad_input_gets_errors_or_a_close_and_harms_no_one(bus, service):
    bridge = Bridge(bus, ORIGIN)
    bad = [
        # (what is sent, the error's code, its data.name)
        ("garbage", -32700, None),
        ("[" * 60000, -32700, None),
        ("[]", -32600, None),
        ('{"jsonrpc":"2.0","id":{},"method":"status"}', -32600, None),
        ({"method": "format"}, -32601, None),
        ({"method": "status", "params": {"camera": 42}}, -32602, None),
        ({"method": "readCard", "params": {"camera": CAMERA, "thirdBlock": "yes"}}, -32602, None),
        ({"method": "writeItem", "params": {"camera": CAMERA, "item": "roi",
                                            "values": {"value": [1, 2, 3.5, 4]}}}, -32602, None),
        ({"method": "readItem", "params": {"camera": CAMERA, "item": "nope"}}, -32000,
         "TARVIK_E_INVALID_ARGUMENT"),
        ({"method": "writeItem", "params": {"camera": CAMERA, "item": "roi",
                                            "values": {"value": [1, 2, 3]}}}, -32000,
         "TARVIK_E_INVALID_ARGUMENT"),
        ({"method": "status", "params": {"camera": "NOPE/../x"}}, -32000,
         "org.freedesktop.DBus.Error.UnknownObject"),
    ]

    async def scenario():
        async with connect(bridge) as bystander, connect(bridge) as ws:
            for i, (sent, code, name) in enumerate(bad):
                if isinstance(sent, dict):
                    sent = json.dumps(dict(sent, jsonrpc="2.0", id=i))
                await ws.send(sent)
                while True:
                    answer = json.loads(await ws.recv())
                    if "id" in answer:
                        break
                assert answer["error"]["code"] == code, (sent[:80], answer)
                assert answer["error"].get("data", {}).get("name") == name, (sent[:80], answer)
            # Too big, alone or in frames; binary: each closes that page only.
            # (A page cut off while it still sends may lose the close frame to
            # the reset its unread bytes cause: 1006.)
            for message, close_codes in (("x" * (65 * 1024), {1009, 1006}),
                                         (("y" * 16384 for _ in range(5)), {1009, 1006}),
                                         (b"\x00\x01", {1003})):
                async with connect(bridge) as doomed:
                    with pytest.raises(websockets.exceptions.ConnectionClosed):
                        await doomed.send(message)
                        while True:
                            await doomed.recv()
                    assert doomed.close_code in close_codes
            # Not HTTP at all.
            with socket.create_connection(("127.0.0.1", bridge.port), timeout=10) as s:
                s.sendall(b"\x16\x03\x01\x02\x00" + os.urandom(512) + b"\r\n\r\n")
                try:
                    assert s.recv(4096) == b""
                except ConnectionResetError:
                    pass
            answer = await call(bystander, "readItem", {"camera": CAMERA, "item": "roi"})
            assert answer["result"]["value"] == [100, 200, 640, 480]

    run(scenario())
    assert bridge.process.poll() is None
    assert bridge.stop() == 0


def test_a_crowd_is_limited_and_a_reader_that_vanishes_harms_no_one(bus, service):
    bridge = Bridge(bus, ORIGIN)

    async def scenario():
        crowd = await asyncio.gather(*(connect(bridge) for _ in range(50)),
                                     return_exceptions=True)
        pages = [c for c in crowd if not isinstance(c, Exception)]
        refused = [c for c in crowd if isinstance(c, Exception)]
        assert len(pages) == 16
        # Pages past 16 hear 503; sockets past 32 are closed at once.
        assert {getattr(e, "status_code", type(e)) for e in refused} <= {
            503, websockets.exceptions.InvalidMessage}, refused[:3]
        answers = await asyncio.gather(*(call(p, "status", {"camera": CAMERA}) for p in pages))
        assert all(a["result"]["state"] == "ready" for a in answers)
        # One page asks for the card and is gone before the answer.
        await pages[0].send(json.dumps({"jsonrpc": "2.0", "id": 9, "method": "readCard",
                                        "params": {"camera": CAMERA}}))
        pages[0].transport.abort()
        # Four calls at once from one page are the most it may have waiting.
        for i in range(5):
            await pages[1].send(json.dumps({"jsonrpc": "2.0", "id": i, "method": "readCard",
                                            "params": {"camera": CAMERA}}))
        answers = []
        while len(answers) < 5:
            message = json.loads(await pages[1].recv())
            answers += [message] if "id" in message else []
        errors = [a["error"]["data"]["name"] for a in answers if "error" in a]
        assert errors == ["org.freedesktop.DBus.Error.LimitsExceeded"], answers
        for p in pages[1:]:
            await p.close()
        async with connect(bridge) as late:
            card = (await call(late, "readCard", {"camera": CAMERA}))["result"]
            assert card["name"] == CARD_NAME and len(base64.b64decode(card["photo"])) == 1024

    run(scenario())
    wait_for_status(bus, "watchers", 0)
    log = bridge.log_text()
    assert "(0 pages)" in log and CARD_NAME not in log and "19900101" not in log
    assert bridge.stop() == 0


def test_card_events_reach_every_page_through_one_watch(bus, service):
    bridge = Bridge(bus, ORIGIN)

    async def scenario():
        async with connect(bridge) as first:
            placed = await notification(first, "cardPlaced")  # the card the simulator starts with
            assert placed["camera"] == CAMERA
            async with connect(bridge) as second:
                # A card that lies there already is told at once.
                assert await notification(second, "cardPlaced") == placed
                assert (status(bus)["watchers"], status(bus)["watches"]) == (1, 1)
                sim("remove-card")
                removed = [await notification(p, "cardRemoved") for p in (first, second)]
                assert removed[0] == removed[1] and removed[0]["sequence"] > placed["sequence"]
                sim("place-card")
                again = [await notification(p, "cardPlaced") for p in (first, second)]
                assert again[0]["sequence"] > removed[0]["sequence"]
                card = (await call(second, "readCard", {"camera": CAMERA}))["result"]
                assert card["name"] == CARD_NAME
                sim("unplug")
                gone = await notification(first, "stateChanged")
                assert gone["state"] == "gone"
                sim("replug")
                assert (await notification(first, "stateChanged"))["state"] == "ready"

    run(scenario())
    wait_for_status(bus, "watchers", 0)
    assert bridge.stop() == 0


def test_the_kiosk_page_shows_the_card_in_chromium_and_lets_it_go(bus, service):
    sys.path.insert(0, os.path.join(SOURCE, "scripts"))
    from headless_page import Page

    server = subprocess.Popen(
        ["/usr/bin/python3", "-u", "-m", "http.server", "--bind", "127.0.0.1", "--directory",
         os.path.join(SOURCE, "examples", "kiosk"), "0"],
        env=CLEAN_ENV, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    page_port = int(server.stdout.readline().split(" port ")[1].split()[0])
    bridge = Bridge(bus, "http://127.0.0.1:%d" % page_port)
    sim("remove-card")
    name = "document.getElementById('card-name').textContent"

    async def scenario():
        page = Page()
        try:
            await page.start("http://127.0.0.1:%d/index.html?ws=%s" % (page_port, bridge.url))
            assert await page.wait_for("document.getElementById('card').dataset.state == 'empty'")
            sim("place-card")
            assert await page.wait_for("%s == %s" % (name, json.dumps(CARD_NAME))), await page.text()
            assert '<p id="card-name">%s</p>' % CARD_NAME in await page.dom()
            assert "camera: ready" in await page.text()
            sim("remove-card")
            assert await page.wait_for("%s == ''" % name)
            assert CARD_NAME not in await page.dom()
            assert "Please place your identity card" in await page.text()
            assert await page.evaluate("localStorage.length + sessionStorage.length") == 0
            console = [e for e in page.events if e.get("method") == "Runtime.consoleAPICalled"]
            assert console == [] or CARD_NAME not in json.dumps(console, ensure_ascii=False)
        finally:
            await page.close()

    try:
        run(scenario())
    finally:
        server.terminate()
        server.wait(10)
    assert "connected from origin 'http://127.0.0.1:%d'" % page_port in bridge.log_text()
    assert bridge.stop() == 0
