#!/usr/bin/env python3
"""The kiosk loop with asyncio: wait until a card lies on the camera, read it
once, wait until it is lifted; when the camera drops off the bus, carry on when
it is back. The camera's descriptor joins the event loop; nothing blocks it but
the card read, which runs in a worker thread. Ends on Ctrl-C or SIGTERM.
"""
import asyncio
import logging
import signal

import tarvik


async def kiosk(cam: tarvik.Camera) -> None:
    loop = asyncio.get_running_loop()
    events: "asyncio.Queue[tarvik.Event]" = asyncio.Queue()

    def ready() -> None:  # the descriptor is readable: do what is due, queue what came
        cam.dispatch()
        while (event := cam.next_event()) is not None:
            events.put_nowait(event)

    loop.add_reader(cam.fileno(), ready)
    try:
        while True:
            event = await events.get()
            print(f"#{event.sequence} {event.kind}", flush=True)
            if event.kind == "card-placed":
                try:
                    card = await loop.run_in_executor(None, cam.read_card)
                    print(f"card: {card.name}, born {card.birth}", flush=True)
                except tarvik.TarvikError as e:
                    print(f"the card could not be read: {e}", flush=True)
    finally:
        loop.remove_reader(cam.fileno())


async def main() -> None:
    logging.basicConfig(level=logging.WARNING)
    with tarvik.Camera(reapply=True) as cam:
        cam.roi = (0, 0, 640, 480)  # written again after an unplug
        task = asyncio.create_task(kiosk(cam))
        for sig in (signal.SIGINT, signal.SIGTERM):
            asyncio.get_running_loop().add_signal_handler(sig, task.cancel)
        try:
            await task
        except asyncio.CancelledError:
            pass


if __name__ == "__main__":
    asyncio.run(main())
