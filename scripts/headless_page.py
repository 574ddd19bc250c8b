#!/usr/bin/python3
"""A page in headless Chromium, driven over the DevTools protocol: open it,
wait until something holds in it, read its DOM, take a screenshot.

chromium --dump-dom dumps a page at its load event, before any WebSocket
message has arrived (a virtual time budget does not wait for them), so a page
that shows what a WebSocket brings is watched this way instead.

    headless_page.py URL --wait-for-text TEXT [--timeout S] [--grep WORD]
                         [--screenshot FILE --size W,H]

prints the lines of the DOM that hold WORD (default: TEXT) once TEXT is in
the page's text; exit status 1 when it never is. Needs python3-websockets
(Debian's /usr/bin/python3) and chromium. Chromium runs with --no-sandbox when
run as root (containers).
"""
import argparse
import asyncio
import base64
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

import websockets


class Page:
    """One headless Chromium with one page."""

    def __init__(self, width=1024, height=640):
        self.profile = tempfile.mkdtemp(prefix="tarvik-chromium-")
        command = ["chromium", "--headless=new", "--disable-gpu", "--no-first-run",
                   "--no-default-browser-check", "--user-data-dir=" + self.profile,
                   "--remote-debugging-port=0", "--window-size=%d,%d" % (width, height),
                   "about:blank"]
        if os.geteuid() == 0:
            command.insert(1, "--no-sandbox")
        # Not on the program's buses, not under a preload the program runs under.
        env = {k: v for k, v in os.environ.items()
               if k not in ("LD_PRELOAD", "DBUS_SESSION_BUS_ADDRESS", "DBUS_SYSTEM_BUS_ADDRESS")}
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                        env=env)
        self.size = (width, height)
        self.socket = None
        self.session = None
        self.next_id = 0
        self.events = []  # what the page reported on its own (console calls, ...)

    async def start(self, url):
        browser = None
        while browser is None:
            line = await asyncio.get_running_loop().run_in_executor(
                None, self.process.stderr.readline)
            if not line:
                raise RuntimeError("chromium ended before it listened")
            found = re.search(rb"DevTools listening on (ws://\S+)", line)
            if found:
                browser = found.group(1).decode()
        self.process.stderr.close()
        self.socket = await websockets.connect(browser, max_size=64 << 20)
        target = (await self.call("Target.createTarget", {"url": "about:blank"}))["targetId"]
        self.session = (await self.call("Target.attachToTarget",
                                        {"targetId": target, "flatten": True}))["sessionId"]
        await self.call("Runtime.enable")
        await self.call("Emulation.setDeviceMetricsOverride",
                        {"width": self.size[0], "height": self.size[1], "deviceScaleFactor": 1,
                         "mobile": False})
        await self.call("Page.navigate", {"url": url})

    async def call(self, method, params=None):
        self.next_id += 1
        message = {"id": self.next_id, "method": method, "params": params or {}}
        if self.session is not None:
            message["sessionId"] = self.session
        await self.socket.send(json.dumps(message))
        while True:
            answer = json.loads(await self.socket.recv())
            if "method" in answer:
                self.events.append(answer)
            elif answer.get("id") == self.next_id:
                if "error" in answer:
                    raise RuntimeError("%s: %s" % (method, answer["error"]))
                return answer["result"]

    async def evaluate(self, expression):
        result = await self.call("Runtime.evaluate",
                                 {"expression": expression, "returnByValue": True})
        return result["result"].get("value")

    async def wait_for(self, expression, timeout=10.0):
        """Until the expression is true in the page; False when it never is."""
        end = asyncio.get_running_loop().time() + timeout
        while asyncio.get_running_loop().time() < end:
            if await self.evaluate(expression):
                return True
            await asyncio.sleep(0.02)
        return False

    async def text(self):
        return await self.evaluate("document.body ? document.body.innerText : ''")

    async def dom(self):
        return await self.evaluate("document.documentElement.outerHTML")

    async def screenshot(self, path):
        data = (await self.call("Page.captureScreenshot", {"format": "png"}))["data"]
        with open(path, "wb") as f:
            f.write(base64.b64decode(data))

    async def close(self):
        if self.socket is not None:
            await self.socket.close()
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        shutil.rmtree(self.profile, ignore_errors=True)


async def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("url")
    parser.add_argument("--wait-for-text", required=True)
    parser.add_argument("--grep")
    parser.add_argument("--timeout", type=float, default=10.0)
    parser.add_argument("--screenshot")
    parser.add_argument("--size", default="1024,640")
    args = parser.parse_args()
    width, height = (int(n) for n in args.size.split(","))
    page = Page(width, height)
    try:
        await page.start(args.url)
        shown = await page.wait_for("document.body && document.body.innerText.includes(%s)"
                                    % json.dumps(args.wait_for_text), args.timeout)
        word = args.grep or args.wait_for_text
        for line in (await page.dom()).splitlines():
            if word in line:
                print(line.strip())
        if args.screenshot:
            await page.screenshot(args.screenshot)
        return 0 if shown else 1
    finally:
        await page.close()


if __name__ == "__main__":
    sys.exit(asyncio.run(main()))
