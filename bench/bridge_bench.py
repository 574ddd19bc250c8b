#!/usr/bin/python3
"""tarvik-bridge and the example kiosk page, timed, on one simulated camera:

1. a card laid down (tarvik-sim ctl place-card returns) to its name in the
   page in headless Chromium (a MutationObserver notes Date.now()), against the
   bound of one poll interval + one card read + 20 ms; the card read alone,
   through the bridge and straight on the bus (dbus-next), alternating;
2. the bridge's memory (VmRSS, VmHWM) idle, with 16 pages, and after 1000
   card reads; its CPU idle for 10 s without pages and with one page
   connected (the camera watched), and per card read.

Run it under the simulator, from the source tree, with a build tree holding
tarvikd, tarvik-bridge and tarvik-sim:

    BUILD=build/bench-bridge build/bench-bridge/sim/tarvik-sim run --no-card -- \\
        /usr/bin/python3 bench/bridge_bench.py
"""
import asyncio
import json
import os
import random
import statistics
import subprocess
import sys
import tempfile
import time

import websockets

SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
BUILD = os.path.abspath(os.environ.get("BUILD", os.path.join(SOURCE, "build", "bench-bridge")))
sys.path.insert(0, os.path.join(SOURCE, "scripts"))
from headless_page import Page  # noqa: E402

CAMERA = "SN2024SIMCAMERA00042"
POLL_MS = 250  # tarvikd's default
CLEAN = {k: v for k, v in os.environ.items() if k != "LD_PRELOAD"}
TICK = os.sysconf("SC_CLK_TCK")


def sim(*args):
    subprocess.run([os.path.join(BUILD, "sim", "tarvik-sim"), "ctl"] + list(args), check=True,
                   capture_output=True, env=CLEAN)


def cpu_seconds(pid):
    fields = open("/proc/%d/stat" % pid).read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def memory(pid):
    status = dict(line.split(":", 1) for line in open("/proc/%d/status" % pid))
    return {k: int(status[k].split()[0]) for k in ("VmRSS", "VmHWM")}


async def read_card(url, origin, n):
    async with websockets.connect(url, origin=origin, max_size=1 << 20) as ws:
        times = []
        for i in range(n):
            start = time.perf_counter()
            await ws.send(json.dumps({"jsonrpc": "2.0", "id": i, "method": "readCard",
                                      "params": {"camera": CAMERA}}))
            while "id" not in json.loads(await ws.recv()):
                pass
            times.append((time.perf_counter() - start) * 1000)
        return times


async def bus_card_ms(address, n):
    """ReadCard straight on the bus, from one connection (dbus-next)."""
    from dbus_next import BusType, Message
    from dbus_next.aio import MessageBus
    bus = await MessageBus(bus_address=address, bus_type=BusType.SESSION).connect()
    times = []
    for _ in range(n):
        start = time.perf_counter()
        reply = await bus.call(Message(destination="org.tarvik.Tarvik1",
                                       path="/org/tarvik/Tarvik1/camera/" + CAMERA,
                                       interface="org.tarvik.Tarvik1.Camera", member="ReadCard",
                                       signature="a{sv}", body=[{}]))
        assert reply.error_name is None, reply.error_name
        times.append((time.perf_counter() - start) * 1000)
    bus.disconnect()
    return times


async def placed_to_name(page_url, url, origin, repetitions):
    """(laid down to the name in the page, laid down to cardPlaced at another
    page of the bridge, that cardPlaced to the name), in ms."""
    page = Page()
    await page.start(page_url)
    await page.wait_for("document.getElementById('card').dataset.state == 'empty'", 20)
    await page.evaluate("""
        window.shownAt = 0;
        new MutationObserver(() => {
          if (document.getElementById('card-name').textContent) window.shownAt = Date.now();
        }).observe(document.getElementById('card-name'), {childList: true, characterData: true,
                                                         subtree: true});""")
    heard = []

    async def listen(ws):
        async for message in ws:
            if json.loads(message).get("method") == "cardPlaced":
                heard.append(time.time() * 1000)

    async with websockets.connect(url, origin=origin) as ws:
        listener = asyncio.create_task(listen(ws))
        totals, to_event, to_name = [], [], []
        for _ in range(repetitions):
            await page.evaluate("window.shownAt = 0")
            await asyncio.sleep(random.uniform(0, POLL_MS / 1000))  # anywhere in a poll interval
            heard.clear()
            sim("place-card")
            placed = time.time() * 1000
            assert await page.wait_for("window.shownAt > 0", 10)
            shown = await page.evaluate("window.shownAt")
            totals.append(shown - placed)
            if heard:
                to_event.append(heard[0] - placed)
                to_name.append(shown - heard[0])
            sim("remove-card")
            assert await page.wait_for(
                "document.getElementById('card').dataset.state == 'empty'", 10)
        listener.cancel()
    await page.close()
    return totals, to_event, to_name


def summary(values):
    values = sorted(values)
    return "median %.1f, mean %.1f, max %.1f ms (n=%d)" % (
        statistics.median(values), statistics.mean(values), values[-1], len(values))


def main():
    work = tempfile.mkdtemp(prefix="tarvik-bridge-bench-")
    env = dict(CLEAN, DBUS_SESSION_BUS_ADDRESS="unix:path=%s/bus" % work)
    procs = []
    try:
        procs.append(subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--nopidfile",
                                       "--address=" + env["DBUS_SESSION_BUS_ADDRESS"],
                                       "--print-address"], env=env, stdout=subprocess.PIPE,
                                      stderr=subprocess.DEVNULL))
        procs[-1].stdout.readline()
        service_env = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=env["DBUS_SESSION_BUS_ADDRESS"])
        procs.append(subprocess.Popen([os.path.join(BUILD, "service", "tarvikd"), "--session",
                                       "--log-level", "warning"], env=service_env))
        while subprocess.run(["busctl", "--user", "status", "org.tarvik.Tarvik1"], env=env,
                             capture_output=True).returncode != 0:
            time.sleep(0.05)
        procs.append(subprocess.Popen(
            ["/usr/bin/python3", "-u", "-m", "http.server", "--bind", "127.0.0.1", "--directory",
             os.path.join(SOURCE, "examples", "kiosk"), "0"], env=CLEAN, stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL, text=True))
        page_port = int(procs[-1].stdout.readline().split(" port ")[1].split()[0])
        origin = "http://127.0.0.1:%d" % page_port
        bridge = subprocess.Popen([os.path.join(BUILD, "bridge", "tarvik-bridge"), "--session",
                                   "--listen", "127.0.0.1:0", "--allow-origin", origin,
                                   "--log-level", "warning"], env=env, stdout=subprocess.PIPE,
                                  text=True)
        procs.append(bridge)
        url = "ws://" + bridge.stdout.readline().split()[-1]

        print("machine: %s, %d cores; %s" % (os.uname().release, os.cpu_count(),
                                            open("/proc/loadavg").read().split()[0] + " load"))
        idle_memory = memory(bridge.pid)
        start = cpu_seconds(bridge.pid)
        time.sleep(10)
        idle_cpu = cpu_seconds(bridge.pid) - start

        sim("place-card")
        bridge_reads, bus_reads = [], []
        for _ in range(5):  # alternating, so that the machine's load falls on both alike
            bridge_reads += asyncio.run(read_card(url, origin, 20))
            bus_reads += asyncio.run(bus_card_ms(env["DBUS_SESSION_BUS_ADDRESS"], 20))
        sim("remove-card")
        latencies, to_event, to_name = asyncio.run(placed_to_name(
            "%s/index.html?ws=%s" % (origin, url), url, origin, 40))

        async def watched_idle():
            async with websockets.connect(url, origin=origin) as ws:
                await asyncio.sleep(1)
                before = cpu_seconds(bridge.pid)
                await asyncio.sleep(10)
                return cpu_seconds(bridge.pid) - before, ws

        watched_cpu, _ = asyncio.run(watched_idle())

        async def crowd():
            pages = [await websockets.connect(url, origin=origin) for _ in range(16)]
            await asyncio.sleep(0.5)
            mem = memory(bridge.pid)
            for p in pages:
                await p.close()
            return mem

        crowd_memory = asyncio.run(crowd())
        sim("place-card")
        before = cpu_seconds(bridge.pid)
        many = asyncio.run(read_card(url, origin, 1000))
        per_read_cpu = (cpu_seconds(bridge.pid) - before) / 1000 * 1e6
        after_memory = memory(bridge.pid)

        bound = POLL_MS + statistics.median(bridge_reads) + 20
        print("card read through the bridge: %s" % summary(bridge_reads))
        print("card read on the bus (dbus-next, one connection): %s" % summary(bus_reads))
        print("  bridge / bus (medians): %.2f" % (statistics.median(bridge_reads)
                                                 / statistics.median(bus_reads)))
        print("card laid down to its name in the page: %s" % summary(latencies))
        print("  laid down to cardPlaced at a page: %s" % summary(to_event))
        print("  cardPlaced to the name in the page: %s" % summary(to_name))
        print("  (slowest five: %s ms)" % ", ".join("%.0f" % v for v in sorted(to_name)[-5:]))
        print("bound (poll %d ms + median read + 20 ms): %.1f ms; over it: %d of %d" % (
            POLL_MS, bound, sum(v > bound for v in latencies), len(latencies)))
        print("bridge CPU idle, no page: %.3f s in 10 s; one page, camera watched: %.3f s in 10 s"
              % (idle_cpu, watched_cpu))
        print("bridge CPU per card read (1000 reads, %s): %.0f µs" % (summary(many), per_read_cpu))
        print("bridge memory kB idle %s; 16 pages %s; after 1000 reads %s" % (
            idle_memory, crowd_memory, after_memory))
    finally:
        for p in reversed(procs):
            p.terminate()
            p.wait(10)


if __name__ == "__main__":
    main()
