"""The cameras through tarvikd, the camera service on D-Bus.

    import tarvik

    with tarvik.Service() as service:      # the system bus; "session" for tests and demos
        cam = service.camera()             # the first camera, or camera(serial="...")
        cam.roi = (10, 20, 320, 240)
        print(cam.read_card().name, cam.state, cam.status()["watchers"])

A program needs no access to the camera's nodes then, and shares the camera
with every other client; polkit decides what it may do (members of the group
tarvik may do everything). A ServiceCamera has the properties and methods of
Camera that the service offers, with the same values, the same Card and the
same exceptions for the same results; ``events()`` gives the same Event
objects, from the service's signals.

The bus is spoken with dbus-next (Debian: python3-dbus-next), imported only
when a Service is made: it is pure Python and runs on asyncio, so a program
gets no GLib main loop (as with python3-gi) and needs no compiled binding.
``Service`` runs its own asyncio loop in a thread for ordinary scripts;
``await Service.connect()`` gives the same as coroutines on the caller's loop
(AsyncService, AsyncServiceCamera).
"""
from __future__ import annotations

import asyncio
import ctypes
import queue
import re
import threading
import time
import weakref
from typing import (TYPE_CHECKING, Any, AsyncIterator, Awaitable, Callable, Dict, Iterator, List,
                    Optional, Sequence, Tuple, TypeVar, Union)

from ._library import ExposureRecord, ItemInfoRecord, lib
from .camera import _INT32, _UINT32, Event, Exposure, EyeExposure, Quad, _fixed, _int, _quad
from .card import Card, date_or_text
from .errors import (INVALID_ARGUMENT, UNKNOWN, CameraBusy, DeviceGone, InvalidArgument,
                     NoCamera, NotHandled, ServiceAccessDenied, ServiceUnavailable, TarvikError,
                     Timeout, error_named)

if TYPE_CHECKING:
    from dbus_next.aio import MessageBus
    from dbus_next.message import Message

T = TypeVar("T")

BUS_NAME = "org.tarvik.Tarvik1"
MANAGER_PATH = "/org/tarvik/Tarvik1"
MANAGER = "org.tarvik.Tarvik1.Manager"
CAMERA = "org.tarvik.Tarvik1.Camera"
ERROR_PREFIX = "org.tarvik.Tarvik1.Error."
_DBUS = "org.freedesktop.DBus"
_PROPERTIES = "org.freedesktop.DBus.Properties"
# Broadcast signals of the service's cameras (the bus checks the sender), and
# the service coming back after a restart, when the watches must be made again.
_MATCHES = (f"type='signal',sender='{BUS_NAME}',interface='{CAMERA}'",
            f"type='signal',sender='{_DBUS}',member='NameOwnerChanged',arg0='{BUS_NAME}'")
_NO_DEVICE, _BUSY, _TIMEOUT = -4, -6, -7  # LIBUSB_ERROR_NO_DEVICE, _BUSY, _TIMEOUT
_NOT_HANDLED, _NO_CAMERA = -1004, -1010  # TARVIK_E_NOT_HANDLED, TARVIK_E_NO_CAMERA
_SAM_ITEM, _DATA_BLOCK_ITEM, _VCM_ITEM = 12, 10, 18
_BLOCK_DATA = 48
_ID_SIZE = 20


def _error_of(error_name: str, text: str, where: str) -> TarvikError:
    """The exception for a D-Bus error the service (or the bus) answered."""
    if error_name.startswith(ERROR_PREFIX):
        sam = re.search(r"SAM answered (-?\d+)", text)
        return error_named(error_name[len(ERROR_PREFIX):], text, int(sam.group(1)) if sam else 0)
    short = error_name[len(_DBUS) + len(".Error."):] if error_name.startswith(_DBUS) else ""
    if short == "AccessDenied":
        return ServiceAccessDenied(text)
    if short == "LimitsExceeded":
        return CameraBusy(_BUSY, detail=text)
    if short == "UnknownObject":
        return DeviceGone(_NO_DEVICE, detail="the service offers this camera no longer")
    if short in ("ServiceUnknown", "NameHasNoOwner"):
        return ServiceUnavailable(f"tarvikd is not running on the {where} ({BUS_NAME} has no "
                                  "owner): start it (systemctl start tarvikd; for tests and "
                                  "demos, tarvikd --session)")
    if short in ("NoReply", "Disconnected", "NoServer"):
        return ServiceUnavailable(f"{text} ({error_name})")
    return TarvikError(UNKNOWN, detail=f"{error_name}: {text}")


def _variant(value: object) -> Any:
    from dbus_next import Variant  # pylint: disable=import-outside-toplevel

    if isinstance(value, bool):
        return Variant("b", value)
    if isinstance(value, int):
        return Variant("x", value)
    if isinstance(value, str):
        return Variant("s", value)
    if isinstance(value, (bytes, bytearray)):
        return Variant("ay", bytes(value))
    return Variant("ax", list(value))  # type: ignore[call-overload]


def _plain(values: Dict[str, Any]) -> Dict[str, Any]:
    return {key: variant.value for key, variant in values.items()}


def _quad_of(values: Dict[str, Any]) -> Quad:
    a, b, c, d = values["value"]
    return a, b, c, d


def _exposure_of(values: Dict[str, Any]) -> Exposure:
    r = ExposureRecord.from_buffer_copy(values["record"])
    return Exposure(EyeExposure._of(r.left), EyeExposure._of(r.right))


def _exposure_record(value: Exposure) -> Dict[str, object]:
    return {"record": bytes(ExposureRecord(value.left._record(), value.right._record()))}


# The settings: their item, how its values read, and how a value is written
# (checked as Camera checks it; None: not written).
_Decode = Callable[[Dict[str, Any]], Any]
_Encode = Optional[Callable[[Any], Dict[str, object]]]
_SETTINGS: Dict[str, Tuple[str, _Decode, _Encode]] = {
    "version": ("version", lambda v: v["record"], None),
    "mjpeg_qp": ("mjpeg-qp", _quad_of, lambda q: {"value": list(_quad(q, "mjpeg_qp"))}),
    "roi": ("roi", _quad_of, lambda q: {"value": list(_quad(q, "roi"))}),
    "roi_status": ("roi-status", lambda v: v["value"], None),
    "device_id": ("device-id", lambda v: v["record"],
                  lambda t: {"record": _fixed(t, _ID_SIZE, "device_id")}),
    "device_sn": ("device-sn", lambda v: v["record"],
                  lambda t: {"record": _fixed(t, _ID_SIZE, "device_sn")}),
    "gyro": ("gyro", lambda v: (v["pitch"], v["roll"]), None),
    "exposure": ("et", _exposure_of, _exposure_record),
}
_PROPERTY_NAMES = {"state": "State", "card_present": "CardPresent"}

_CARD_TEXT = ("name", "sex", "nation", "address", "id_number", "authority", "reserved", "sex_code",
              "nation_code")


def _card_of(v: Dict[str, Any]) -> Card:
    third = v.get("third_block")
    return Card(**{k: v[k] for k in _CARD_TEXT},
                birth=date_or_text(v["birth"]), valid_from=date_or_text(v["valid_from"]),
                valid_to=date_or_text(v["valid_to"]), photo=bytes(v["photo"]),
                third_block=None if third is None else bytes(third), sam_result=v["sam_result"])


def _item(number: int, write: bool) -> Tuple[str, int]:
    """The item's name and record size, refused as the library refuses it
    before any call."""
    info = ItemInfoRecord()
    if lib().tarvik_item(_int(number, "item"), ctypes.byref(info)) != 0:
        raise InvalidArgument(INVALID_ARGUMENT, detail=f"no item {number}")
    size = info.write_size if write else info.read_size
    if size < 0:
        if number == _SAM_ITEM:
            raise InvalidArgument(INVALID_ARGUMENT, detail="item 12 is the SAM's")
        raise NotHandled(_NOT_HANDLED)
    return info.name.decode(), size


class AsyncServiceCamera:
    """One of the service's cameras, for asyncio: what ServiceCamera offers,
    as coroutines. Settings are ``await cam.get("roi")`` and ``await
    cam.set("roi", value)``, by the property names of ServiceCamera (``state``
    and ``card_present`` too)."""

    def __init__(self, service: "AsyncService", object_path: str, serial: str, path: str) -> None:
        self._service = service
        self.object_path = object_path
        self.serial = serial  #: the USB serial ("" when the camera has none)
        self.path = path  #: "usb" or "kernel": the path its requests take
        self._watching = False
        # Where its events go: an asyncio.Queue, or a queue.Queue for ServiceCamera.
        self._box: Any = asyncio.Queue()

    def __repr__(self) -> str:
        return f"<tarvik.AsyncServiceCamera serial={self.serial!r} path={self.path}>"

    async def _call(self, member: str, signature: str = "", *body: object) -> List[Any]:
        return await self._service._call(self.object_path, CAMERA, member, signature, body)

    async def _read(self, item: str, given: Optional[Dict[str, object]] = None) -> Dict[str, Any]:
        if given is None:
            (values,) = await self._call("ReadItem", "s", item)
        else:
            inputs = {k: _variant(v) for k, v in given.items()}
            (values,) = await self._call("ReadItemWith", "sa{sv}", item, inputs)
        return _plain(values)

    async def _write(self, item: str, values: Dict[str, object]) -> None:
        await self._call("WriteItem", "sa{sv}", item, {k: _variant(v) for k, v in values.items()})

    async def get(self, name: str) -> Any:
        """A setting (``"roi"``, ``"exposure"``, ...) or ``"state"``, ``"card_present"``."""
        if name in _PROPERTY_NAMES:
            (value,) = await self._service._call(self.object_path, _PROPERTIES, "Get", "ss",
                                                 (CAMERA, _PROPERTY_NAMES[name]))
            return value.value
        item, decode, _ = _SETTINGS[name]
        return decode(await self._read(item))

    async def set(self, name: str, value: Any) -> None:
        """Writes a setting, checked as Camera checks it."""
        item, _, encode = _SETTINGS[name]
        if encode is None:
            raise AttributeError(f"{name} is not written")
        await self._write(item, encode(value))

    async def set_exposure_times(self, left: int, right: int) -> None:
        """Both eyes' exposure times, checked by the library against each eye's
        range (OutOfRange) and manual mode (NotManual); nothing is written unless both pass."""
        await self._write("et", {"left_time": _int(left, "left time", _UINT32),
                                 "right_time": _int(right, "right time", _UINT32)})

    async def set_exposure_mode(self, left: int, right: int) -> None:
        """Both eyes' exposure mode (1: manual); ModesDiffer when they differ."""
        await self._write("et", {"left_mode": _int(left, "left mode", _INT32),
                                 "right_mode": _int(right, "right mode", _INT32)})

    async def set_gpio(self, gpio0: int, gpio1: int) -> None:
        await self._write("gpio", {"value": [_int(gpio0, "gpio0"), _int(gpio1, "gpio1")]})

    async def read_vcm(self, mode: int = 0) -> int:
        return (await self._read("vcm", {"mode": _int(mode, "mode")}))["value"]

    async def write_vcm(self, value: int, mode: int = 0, ctrl0: int = 0, ctrl1: int = 0) -> None:
        await self._write("vcm", {"value": _int(value, "value", (0, 0xFFFF)),
                                  "mode": _int(mode, "mode"), "ctrl0": _int(ctrl0, "ctrl0", (0, 0xFF)),
                                  "ctrl1": _int(ctrl1, "ctrl1", (0, 0xFF))})

    async def read_item(self, item: int, request: Optional[bytes] = None, size: int = 64) -> bytes:
        """As Camera.read_item: the item's record at the start of ``size``
        bytes, the rest as ``request`` left them (zeros after it). The service
        reads item 16 (the gyroscope) as pitch and roll only: use ``gyro``."""
        _int(size, "size", (0, 2**20))
        data = bytes(request or b"")
        if len(data) > size:
            raise InvalidArgument(INVALID_ARGUMENT, detail="request longer than size")
        name, least = _item(item, write=False)
        if size < least:
            raise InvalidArgument(INVALID_ARGUMENT, detail=f"item {item} takes {least} bytes")
        given: Optional[Dict[str, object]] = None
        if item == _VCM_ITEM:
            if request is None:
                raise InvalidArgument(INVALID_ARGUMENT, detail="item 18 takes the mode as request")
            given = {"mode": int.from_bytes(data[:4].ljust(4, b"\0"), "little", signed=True)}
        elif item == _DATA_BLOCK_ITEM:  # the request is the block's record itself
            block = data[:4].ljust(4, b"\0")
            given = {"target": block[0], "length": min(block[1], _BLOCK_DATA),
                     "offset": int.from_bytes(block[2:4], "little")}
        values = await self._read(name, given)
        if "record" not in values:
            raise NotHandled(_NOT_HANDLED, detail=f"the service reads item {item} without its record")
        record: bytes = values["record"]
        return record + data.ljust(size, b"\0")[len(record):]

    async def write_item(self, item: int, data: bytes) -> None:
        """As Camera.write_item: the item's record, exactly its size."""
        await self._write(_item(item, write=True)[0], {"record": bytes(data)})

    async def sam_command(self, command: int) -> Tuple[int, Optional[bytes]]:
        """As Camera.sam_command: (the SAM's code, None). The number bytes of
        command 2 do not come through the service."""
        (code,) = await self._call("SamCommand", "y", _int(command, "command", (0, 0xFF)))
        return code, None

    async def read_card(self, third_block: bool = False) -> Card:
        """As Camera.read_card. The service wipes its copy; the values here
        are Python's and cannot be (see Card)."""
        (values,) = await self._call("ReadCard", "a{sv}",
                                     {"third_block": _variant(bool(third_block))})
        return _card_of(_plain(values))

    async def status(self) -> Dict[str, Any]:
        """What the service knows of the camera: state, serial, path,
        card_present, watchers, watches, pending and the counters."""
        (values,) = await self._call("GetStatus")
        return _plain(values)

    async def watch(self) -> None:
        """Asks the service to poll the card for this client (events() does it
        when needed); held until unwatch() or the Service is closed."""
        if self._watching:
            return
        while not self._box.empty():  # ends left by unwatch() or cancel() before
            self._box.get_nowait()
        await self._service._subscribe()
        self._watching = True  # before the call: its first signal may come before its reply
        try:
            await self._call("Watch")
        except BaseException:
            self._watching = False
            raise

    async def unwatch(self) -> None:
        """Drops the watch; an iteration of events() ends."""
        if not self._watching:
            return
        self._watching = False
        self._box.put_nowait(None)
        await self._call("Unwatch")

    @property
    def watching(self) -> bool:
        return self._watching

    def _deliver(self, event: Optional[Event]) -> None:
        if self._watching or event is None:
            self._box.put_nowait(event)

    def cancel(self) -> None:
        """Ends an iteration of events() (or the next one)."""
        self._box.put_nowait(None)

    async def events(self, timeout: Optional[float] = None) -> AsyncIterator[Event]:
        """As Camera.events: the camera's events as they come, until none came
        within ``timeout`` seconds, cancel(), unwatch() or close(). It watches
        the camera first. ``time_ns`` is when the signal arrived (CLOCK_MONOTONIC);
        ``result`` is 0. A restarted service is watched again; its numbers
        start again from 1."""
        await self.watch()
        while True:
            try:
                event = await asyncio.wait_for(self._box.get(), timeout)
            except asyncio.TimeoutError:
                return
            if event is None:
                return
            yield event


class AsyncService:
    """The service for asyncio: ``service = await Service.connect()`` (or
    ``async with await Service.connect() as service``)."""

    def __init__(self, bus: "MessageBus", where: str, timeout: Optional[float]) -> None:
        self._bus = bus
        self._where = where
        self._timeout = timeout
        self._cameras: Dict[str, AsyncServiceCamera] = {}
        self._subscribed = False
        self._closed = False
        self._ending = asyncio.ensure_future(self._end_when_disconnected())

    @classmethod
    async def connect(cls, bus: str = "system", timeout: Optional[float] = 60.0) -> "AsyncService":
        """Connects to the service on ``bus``: "system", "session" or a bus
        address. Each call waits at most ``timeout`` seconds (None: for ever)
        and raises Timeout then. ServiceUnavailable when the service is not
        running or the bus not there."""
        try:
            from dbus_next import BusType  # pylint: disable=import-outside-toplevel
            from dbus_next.aio import MessageBus  # pylint: disable=import-outside-toplevel
        except ImportError as e:
            raise ServiceUnavailable("dbus-next is not installed: install python3-dbus-next "
                                     "(or pip install dbus-next)") from e
        types = {"system": BusType.SYSTEM, "session": BusType.SESSION}
        where = f"{bus} bus" if bus in types else f"bus at {bus}"
        try:  # the socket is connected as the bus object is made
            made = MessageBus(bus_type=types[bus]) if bus in types else MessageBus(bus_address=bus)
            connection = await asyncio.wait_for(made.connect(), timeout)
        except Exception as e:  # no bus, no socket, refused: dbus-next raises what it met
            raise ServiceUnavailable(f"cannot connect to the {where}: {e}") from e
        service = cls(connection, where, timeout)
        try:  # the service is there (on the system bus, started by the bus if it is not)
            await service._call(MANAGER_PATH, "org.freedesktop.DBus.Peer", "Ping", "", ())
        except BaseException:
            await service.close()
            raise
        return service

    async def __aenter__(self) -> "AsyncService":
        return self

    async def __aexit__(self, *exc: object) -> None:
        await self.close()

    async def close(self) -> None:
        """Drops this client's watches and disconnects; closing twice does nothing."""
        if self._closed:
            return
        for camera in self._cameras.values():
            if camera.watching and self._bus.connected:
                try:  # at once: the service also drops them when the client leaves, but later
                    await camera.unwatch()
                except TarvikError:
                    pass
            camera._deliver(None)
        self._closed = True
        self._bus.disconnect()
        try:
            await self._bus.wait_for_disconnect()
        except Exception:  # pylint: disable=broad-except  (how it ended does not matter now)
            pass
        await self._ending

    @property
    def closed(self) -> bool:
        return self._closed

    async def _end_when_disconnected(self) -> None:
        try:
            await self._bus.wait_for_disconnect()
        except Exception:  # pylint: disable=broad-except
            pass
        for camera in self._cameras.values():
            camera._deliver(None)

    async def _call(self, path: str, interface: str, member: str, signature: str,
                    body: Sequence[object], destination: str = BUS_NAME) -> List[Any]:
        from dbus_next import Message, MessageType  # pylint: disable=import-outside-toplevel

        if self._closed or not self._bus.connected:
            raise ServiceUnavailable("the connection to the service is closed")
        message = Message(destination=destination, path=path, interface=interface, member=member,
                          signature=signature, body=list(body))
        try:
            reply = await asyncio.wait_for(self._bus.call(message), self._timeout)
        except asyncio.TimeoutError:
            raise Timeout(_TIMEOUT, detail=f"no answer from the service within {self._timeout} s"
                          ) from None
        except (EOFError, OSError) as e:
            raise ServiceUnavailable(f"the connection to the {self._where} broke: {e}") from e
        if reply.message_type == MessageType.ERROR:
            raise _error_of(reply.error_name, reply.body[0] if reply.body else "", self._where)
        return reply.body

    async def _subscribe(self) -> None:
        if self._subscribed:
            return
        self._subscribed = True
        self._bus.add_message_handler(self._on_signal)
        for rule in _MATCHES:
            await self._call("/org/freedesktop/DBus", _DBUS, "AddMatch", "s", (rule,),
                             destination=_DBUS)

    def _on_signal(self, message: "Message") -> None:
        from dbus_next import MessageType  # pylint: disable=import-outside-toplevel

        # Only broadcasts: those the bus routed by the rules above, from their
        # sender; a signal sent to this client alone could come from anyone.
        if message.message_type != MessageType.SIGNAL or message.destination:
            return
        if message.member == "NameOwnerChanged" and message.interface == _DBUS:
            if message.body[0] == BUS_NAME and message.body[2]:
                asyncio.ensure_future(self._watch_again())
            return
        camera = self._cameras.get(message.path)
        if camera is None or message.interface != CAMERA:
            return
        if message.member == "StateChanged" and message.signature == "st":
            state, sequence = message.body
            kind = "camera-back" if state == "ready" else "camera-gone"
        elif message.member in ("CardPlaced", "CardRemoved") and message.signature == "t":
            (sequence,) = message.body
            kind = "card-placed" if message.member == "CardPlaced" else "card-removed"
        else:
            return
        camera._deliver(Event(kind, sequence, time.monotonic_ns()))

    async def _watch_again(self) -> None:
        """The service came back (restarted): it knows none of our watches."""
        for camera in self._cameras.values():
            if camera.watching:
                try:
                    await camera._call("Watch")
                except TarvikError:
                    pass

    async def cameras(self) -> List[AsyncServiceCamera]:
        """Every camera the service offers, ready or gone (unplugged for now)."""
        (paths,) = await self._call(MANAGER_PATH, MANAGER, "GetCameras", "", ())
        found = []
        for object_path in paths:
            if object_path not in self._cameras:
                (values,) = await self._call(object_path, _PROPERTIES, "GetAll", "s", (CAMERA,))
                v = _plain(values)
                self._cameras[object_path] = AsyncServiceCamera(self, object_path, v["Serial"],
                                                                v["Path"])
            found.append(self._cameras[object_path])
        return found

    async def camera(self, serial: Optional[str] = None) -> AsyncServiceCamera:
        """The camera with ``serial``, or the first; NoCamera when there is none."""
        for camera in await self.cameras():
            if serial is None or camera.serial == serial:
                return camera
        raise NoCamera(_NO_CAMERA, detail="the service offers no camera" +
                       ("" if serial is None else f" with serial {serial}"))

    async def metrics(self) -> str:
        """The service's counters in Prometheus' text format."""
        (text,) = await self._call(MANAGER_PATH, MANAGER, "GetMetrics", "", ())
        return text


def _shut(loop: asyncio.AbstractEventLoop, thread: threading.Thread,
          service: List[Optional[AsyncService]]) -> None:
    """Ends a Service: its connection, then its loop and thread."""
    if service[0] is not None and thread.is_alive():
        try:
            asyncio.run_coroutine_threadsafe(service[0].close(), loop).result(10)
        except Exception:  # pylint: disable=broad-except  (it goes in any case)
            pass
    loop.call_soon_threadsafe(loop.stop)
    thread.join(10)
    if not thread.is_alive():
        loop.close()


class Service:
    """tarvikd's cameras from an ordinary (threaded or not) program: a
    connection to ``bus`` ("system", "session" for tests and demos, or a bus
    address) with its own asyncio loop in a thread, until ``close()`` (or the
    end of a ``with`` block). Each call waits at most ``timeout`` seconds
    (None: for ever). ServiceUnavailable when the service cannot be reached.
    ``await Service.connect()`` is the asyncio form."""

    def __init__(self, bus: str = "system", timeout: Optional[float] = 60.0) -> None:
        self._loop = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self._loop.run_forever, name="tarvik.Service",
                                        daemon=True)
        self._thread.start()
        holder: List[Optional[AsyncService]] = [None]
        self._finalizer = weakref.finalize(self, _shut, self._loop, self._thread, holder)
        self._cameras: Dict[str, ServiceCamera] = {}
        try:
            holder[0] = self._async = self._run(AsyncService.connect(bus, timeout))
        except BaseException:
            self._finalizer()
            raise

    connect = staticmethod(AsyncService.connect)

    def _run(self, coroutine: Awaitable[T]) -> T:
        if not self._finalizer.alive:
            coroutine.close()  # type: ignore[attr-defined]
            raise ServiceUnavailable("the Service is closed")
        if threading.current_thread() is self._thread:
            coroutine.close()  # type: ignore[attr-defined]
            raise RuntimeError("a Service's calls cannot be made from its own loop")
        return asyncio.run_coroutine_threadsafe(coroutine, self._loop).result()  # type: ignore[arg-type]

    def close(self) -> None:
        """Drops this client's watches, disconnects and ends the thread; twice does nothing."""
        self._finalizer()

    @property
    def closed(self) -> bool:
        return not self._finalizer.alive

    def __enter__(self) -> "Service":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<tarvik.Service {self._async._where}{' closed' if self.closed else ''}>"

    def cameras(self) -> List["ServiceCamera"]:
        """Every camera the service offers, ready or gone (unplugged for now)."""
        return [self._wrap(c) for c in self._run(self._async.cameras())]

    def camera(self, serial: Optional[str] = None) -> "ServiceCamera":
        """The camera with ``serial``, or the first; NoCamera when there is none."""
        return self._wrap(self._run(self._async.camera(serial)))

    def metrics(self) -> str:
        """The service's counters in Prometheus' text format."""
        return self._run(self._async.metrics())

    def _wrap(self, core: AsyncServiceCamera) -> "ServiceCamera":
        if core.object_path not in self._cameras:
            self._cameras[core.object_path] = ServiceCamera(self, core)
        return self._cameras[core.object_path]


class ServiceCamera:
    """One of the service's cameras: Camera's settings and methods where the
    service offers them (not product_type, autofocus_state, streaming, the
    descriptor and dispatch), plus ``serial``, ``path``, ``state``,
    ``card_present``, ``status()`` and ``watch()``. A camera unplugged for now
    (``state`` "gone") raises DeviceGone at once, as Camera does."""

    def __init__(self, service: Service, core: AsyncServiceCamera) -> None:
        self._service = service
        self._core = core
        core._box = queue.Queue()  # events are taken from another thread

    def __repr__(self) -> str:
        return f"<tarvik.ServiceCamera serial={self.serial!r} path={self.path}>"

    def _run(self, coroutine: Awaitable[T]) -> T:
        return self._service._run(coroutine)

    @property
    def serial(self) -> str:
        """The USB serial ("" when the camera has none)."""
        return self._core.serial

    @property
    def path(self) -> str:
        """"usb" or "kernel": the path the service's requests take."""
        return self._core.path

    @property
    def object_path(self) -> str:
        """The camera's object on the bus."""
        return self._core.object_path

    @property
    def state(self) -> str:
        """"ready", or "gone" while unplugged."""
        return self._run(self._core.get("state"))

    @property
    def card_present(self) -> bool:
        """Whether a card lies on the reader, known only while someone watches."""
        return self._run(self._core.get("card_present"))

    def status(self) -> Dict[str, Any]:
        """What the service knows of the camera: state, serial, path,
        card_present, watchers, watches, pending and the counters."""
        return self._run(self._core.status())

    # --- settings, as Camera's ---
    @property
    def version(self) -> bytes:
        """The firmware version: 56 raw bytes."""
        return self._run(self._core.get("version"))

    @property
    def mjpeg_qp(self) -> Quad:
        """MJPEG quantisation: four numbers."""
        return self._run(self._core.get("mjpeg_qp"))

    @mjpeg_qp.setter
    def mjpeg_qp(self, qp: Sequence[int]) -> None:
        self._run(self._core.set("mjpeg_qp", qp))

    @property
    def roi(self) -> Quad:
        """The region of interest: four numbers."""
        return self._run(self._core.get("roi"))

    @roi.setter
    def roi(self, roi: Sequence[int]) -> None:
        self._run(self._core.set("roi", roi))

    @property
    def roi_status(self) -> int:
        """The region-of-interest status word."""
        return self._run(self._core.get("roi_status"))

    @property
    def device_id(self) -> bytes:
        """The device id: 20 bytes; set from bytes or ASCII text of at most 20."""
        return self._run(self._core.get("device_id"))

    @device_id.setter
    def device_id(self, value: Union[bytes, str]) -> None:
        self._run(self._core.set("device_id", value))

    @property
    def device_sn(self) -> bytes:
        """The serial number: 20 bytes, set like ``device_id``."""
        return self._run(self._core.get("device_sn"))

    @device_sn.setter
    def device_sn(self, value: Union[bytes, str]) -> None:
        self._run(self._core.set("device_sn", value))

    @property
    def gyro(self) -> Tuple[int, int]:
        """Tilt as (pitch, roll), whole degrees."""
        return self._run(self._core.get("gyro"))

    @property
    def exposure(self) -> Exposure:
        """Both eyes' exposure block; set it whole."""
        return self._run(self._core.get("exposure"))

    @exposure.setter
    def exposure(self, value: Exposure) -> None:
        self._run(self._core.set("exposure", value))

    def set_exposure_times(self, left: int, right: int) -> None:
        """Both eyes' exposure times, each checked against its eye's range
        (OutOfRange) and manual mode (NotManual); nothing is written unless both pass."""
        self._run(self._core.set_exposure_times(left, right))

    def set_exposure_mode(self, left: int, right: int) -> None:
        """Both eyes' exposure mode (1: manual); ModesDiffer when they differ."""
        self._run(self._core.set_exposure_mode(left, right))

    # --- write-only and parameterised operations, as Camera's ---
    def set_gpio(self, gpio0: int, gpio1: int) -> None:
        self._run(self._core.set_gpio(gpio0, gpio1))

    def read_vcm(self, mode: int = 0) -> int:
        return self._run(self._core.read_vcm(mode))

    def write_vcm(self, value: int, mode: int = 0, ctrl0: int = 0, ctrl1: int = 0) -> None:
        self._run(self._core.write_vcm(value, mode, ctrl0, ctrl1))

    def read_item(self, item: int, request: Optional[bytes] = None, size: int = 64) -> bytes:
        """As Camera.read_item (item 16, the gyroscope, is read as ``gyro`` only)."""
        return self._run(self._core.read_item(item, request, size))

    def write_item(self, item: int, data: bytes) -> None:
        """As Camera.write_item."""
        self._run(self._core.write_item(item, data))

    def sam_command(self, command: int) -> Tuple[int, Optional[bytes]]:
        """As Camera.sam_command: (the SAM's code, None); command 2's number
        bytes do not come through the service."""
        return self._run(self._core.sam_command(command))

    def read_card(self, third_block: bool = False) -> Card:
        """As Camera.read_card; SamError when the SAM refused (no card, say)."""
        return self._run(self._core.read_card(third_block))

    # --- events ---
    def watch(self) -> None:
        """Asks the service to poll the card for this client (events() does it
        when needed); held until unwatch() or close()."""
        self._run(self._core.watch())

    def unwatch(self) -> None:
        """Drops the watch; an iteration of events() ends."""
        self._run(self._core.unwatch())

    def cancel(self) -> None:
        """Ends an iteration of events() (or the next one); any thread may call it."""
        self._core._box.put(None)

    def events(self, timeout: Optional[float] = None) -> Iterator[Event]:
        """As Camera.events: the camera's events as they come (card placed and
        removed, camera gone and back), until none came within ``timeout``
        seconds, cancel(), unwatch() or close(). It watches the camera first.
        ``time_ns`` is when the signal arrived (CLOCK_MONOTONIC); ``result`` is 0.
        A restarted service is watched again; its numbers start again from 1."""
        self.watch()
        box: "queue.Queue[Optional[Event]]" = self._core._box
        while True:
            try:
                event = box.get(timeout=timeout)
            except queue.Empty:
                return
            if event is None:
                return
            yield event
