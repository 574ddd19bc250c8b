"""Cameras: listing them, opening one, and its operations."""
from __future__ import annotations

import ctypes
import threading
import weakref
from ctypes import byref, c_int, c_int32, c_uint8, c_uint16, c_uint32, c_void_p
from dataclasses import dataclass
from typing import Callable, Iterator, List, Optional, Sequence, Tuple, TypeVar, Union

from ._library import (
    CameraInfoRecord,
    CardRecord,
    EventRecord,
    EyeExposureRecord,
    ExposureRecord,
    lib,
)
from .card import Card, card_from_record
from .errors import INVALID_ARGUMENT, NOT_OPEN, InvalidArgument, NotOpen, TarvikError, check

T = TypeVar("T")
Quad = Tuple[int, int, int, int]

_TRANSPORTS = {"auto": 0, "usb": 1, "kernel": 2}
_TRANSPORT_NAMES = {number: name for name, number in _TRANSPORTS.items()}
_ID_SIZE = 20
_CARD_THIRD_BLOCK = 1
_OPEN_REAPPLY = 1
_NO_EVENT, _CANCELLED = -1015, -1016  # tarvik.h's TARVIK_E_NO_EVENT, TARVIK_E_CANCELLED


@dataclass(frozen=True)
class Event:
    """Something that happened to a camera: ``kind`` is "card-placed",
    "card-removed", "camera-gone", "camera-back" or "overflow" (events after
    the one before it were lost); ``sequence`` counts the camera's events from
    1, so a gap shows a loss; ``time_ns`` is CLOCK_MONOTONIC. For camera-back,
    ``result`` is that of writing the settings again (0: none failed)."""

    kind: str
    sequence: int
    time_ns: int
    result: int = 0


def _event_of(r: EventRecord) -> Event:
    return Event(lib().tarvik_event_name(r.type).decode(), r.sequence, r.time_ns, r.result)


@dataclass(frozen=True)
class CameraInfo:
    """A camera on the bus; ``serial`` and ``video_node`` are None when it has none."""

    bus: int
    address: int
    serial: Optional[str]
    video_node: Optional[str]


def _info_of(r: CameraInfoRecord) -> CameraInfo:
    return CameraInfo(r.bus, r.address, r.serial.decode() or None, r.video_node.decode() or None)


def list_cameras() -> List[CameraInfo]:
    """The cameras connected now."""
    records = (CameraInfoRecord * 0)()
    while True:
        count = lib().tarvik_list(records, len(records))
        check(min(count, 0))
        if count <= len(records):
            break
        records = (CameraInfoRecord * count)()  # one came in between: ask again
    return [_info_of(r) for r in records[:count]]


@dataclass(frozen=True)
class EyeExposure:
    """One eye's exposure: ``flags`` are the 8 raw flag bytes (``flags[2]``:
    what a write sets, 0 the time, 1 the mode; ``flags[4]``: the mode)."""

    time: int
    max: int
    min: int
    extra: int
    flags: bytes

    @property
    def manual(self) -> bool:
        """Whether the eye is in manual exposure mode."""
        return self.flags[4] == 1

    @classmethod
    def _of(cls, r: EyeExposureRecord) -> "EyeExposure":
        return cls(r.time, r.max, r.min, r.extra, bytes(r.flags))

    def _record(self) -> EyeExposureRecord:
        flags = _fixed(self.flags, 8, "exposure flags", pad=False)
        time, high, low = (_int(v, f"exposure {w}", _UINT32) for v, w in
                           ((self.time, "time"), (self.max, "max"), (self.min, "min")))
        extra = _int(self.extra, "exposure extra", (0, 0xFFFF))
        return EyeExposureRecord(time, high, low, extra, (c_uint8 * 8)(*flags))


@dataclass(frozen=True)
class Exposure:
    """Both eyes' exposure block, left first."""

    left: EyeExposure
    right: EyeExposure


def _fixed(data: Union[bytes, str], size: int, what: str, pad: bool = True) -> bytes:
    """``data`` as exactly ``size`` bytes: str as ASCII, zero-padded when ``pad``."""
    if isinstance(data, str):
        if not data.isascii():
            raise InvalidArgument(INVALID_ARGUMENT, detail=f"{what} must be ASCII")
        data = data.encode("ascii")
    data = bytes(data)
    if len(data) > size or (not pad and len(data) != size):
        raise InvalidArgument(INVALID_ARGUMENT, detail=f"{what} takes {size} bytes, not {len(data)}")
    return data.ljust(size, b"\0")


_INT32 = (-(2**31), 2**31 - 1)
_UINT32 = (0, 2**32 - 1)


def _int(value: object, what: str, bounds: Tuple[int, int] = _INT32) -> int:
    """``value`` when it is an int within ``bounds``: ctypes would cut it short silently."""
    if isinstance(value, bool) or not isinstance(value, int):
        raise TypeError(f"{what} is an int, not {type(value).__name__}")
    low, high = bounds
    if not low <= value <= high:
        raise InvalidArgument(INVALID_ARGUMENT, detail=f"{what} is {value}, outside {low}..{high}")
    return value


def _quad(values: Sequence[int], what: str) -> "ctypes.Array[c_int32]":
    if len(values) != 4:
        raise InvalidArgument(INVALID_ARGUMENT, detail=f"{what} takes 4 numbers")
    return (c_int32 * 4)(*(_int(v, what) for v in values))


def _checked_fd(fd: int) -> int:
    check(min(fd, 0))
    return fd


def _quad_of(values: "ctypes.Array[c_int32]") -> Quad:
    return values[0], values[1], values[2], values[3]


class Camera:
    """One camera, open from construction until ``close()`` (or the end of a
    ``with`` block).

    Choose it by ``bus`` and ``address`` (both), by its capture node
    ``video_node`` (kernel path) or by its USB ``serial``; with none, the first
    camera. ``transport`` is "auto", "usb" (the video driver is detached while
    the camera is open) or "kernel" (video keeps streaming); ``describe()``
    says which camera and path it got.

    Failures raise TarvikError subclasses. Closing twice is harmless; any
    operation after ``close()`` raises NotOpen until ``open()`` opens it again.
    A camera may be used from several threads.

    The camera is known by its serial: unplugged, its calls raise DeviceGone;
    plugged in again, it is opened again on the same path (and, with
    ``reapply``, what this object last wrote of the settings a power cycle
    resets is written again). ``events()``, or ``fileno()`` with
    ``dispatch()`` and ``next_event()`` (for asyncio's ``add_reader``), say
    when a card is placed or removed and when the camera goes and comes back.
    """

    def __init__(
        self,
        bus: Optional[int] = None,
        address: Optional[int] = None,
        video_node: Optional[str] = None,
        serial: Optional[str] = None,
        transport: str = "auto",
        reapply: bool = False,
    ) -> None:
        if (bus is None) != (address is None):
            raise InvalidArgument(INVALID_ARGUMENT, detail="give bus and address together")
        if bus is not None:
            _int(bus, "bus", (0, 255))
            _int(address, "address", (0, 255))
        if transport not in _TRANSPORTS:
            raise InvalidArgument(INVALID_ARGUMENT, detail=f"unknown transport {transport!r}")
        self._options = lib().tarvik_default_options()
        self._options.bus = -1 if bus is None else bus
        self._options.address = -1 if address is None else address
        self._options.video_node = video_node.encode() if video_node is not None else None
        self._options.serial = serial.encode() if serial is not None else None
        self._options.transport = _TRANSPORTS[transport]
        self._options.flags = _OPEN_REAPPLY if reapply else 0
        self._lock = threading.RLock()
        self._waiters = threading.Condition(self._lock)
        self._waiting = 0
        self._handle: Optional[int] = None
        self._finalizer: Optional[weakref.finalize] = None
        self.open()

    def open(self) -> None:
        """Opens the camera again after ``close()``; nothing when it is open."""
        with self._lock:
            if self._handle is not None:
                return
            handle = c_void_p()
            check(lib().tarvik_open(byref(self._options), byref(handle)))
            self._handle = handle.value
            # Closed at the latest when garbage-collected or at exit, so that
            # the video driver is given back.
            self._finalizer = weakref.finalize(self, lib().tarvik_close, handle.value)

    def close(self) -> None:
        """Closes the camera; closing a closed camera does nothing. A thread
        waiting in ``events()`` is woken first, and its iteration ends."""
        with self._lock:
            while self._waiting and self._handle is not None:
                lib().tarvik_cancel(self._handle)
                self._waiters.wait(0.1)
            if self._finalizer is not None:
                self._finalizer()
            self._handle = None
            self._finalizer = None

    @property
    def closed(self) -> bool:
        """Whether the camera is closed."""
        return self._handle is None

    def __enter__(self) -> "Camera":
        self.open()
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def _call(self, use: Callable[[int], T]) -> T:
        with self._lock:
            if self._handle is None:
                raise NotOpen(NOT_OPEN)
            return use(self._handle)

    def _run(self, function: str, *args: object) -> None:
        self._call(lambda h: check(getattr(lib(), function)(h, *args)))

    def _read(self, function: str, out: T) -> T:
        self._run(function, out)
        return out

    def __repr__(self) -> str:
        if self.closed:
            return "<tarvik.Camera closed>"
        try:
            info, path = self.describe()
        except TarvikError as e:
            return f"<tarvik.Camera ({e.name})>"
        return (f"<tarvik.Camera bus={info.bus} address={info.address} serial={info.serial!r} "
                f"path={path}>")

    def describe(self) -> Tuple[CameraInfo, str]:
        """Where the open camera is (serial and capture node as far as known)
        and the path its requests take: "usb" or "kernel"."""
        info, transport = CameraInfoRecord(), c_int()
        self._run("tarvik_describe", byref(info), byref(transport))
        return _info_of(info), _TRANSPORT_NAMES[transport.value]

    # --- events ---
    def fileno(self) -> int:
        """The descriptor to wait on: readable when ``dispatch()`` has work.
        Asking for it starts the card polls."""
        return self._call(lambda h: _checked_fd(lib().tarvik_get_fd(h)))

    def set_poll_interval(self, milliseconds: int) -> None:
        """The time between card polls: at least 50 ms (250 by default)."""
        self._run("tarvik_set_poll_interval", _int(milliseconds, "interval", (50, 2**31 - 1)))

    def dispatch(self) -> None:
        """Does what is due without waiting (a card poll, a camera leaving or back)."""
        self._run("tarvik_dispatch")

    def next_event(self) -> Optional[Event]:
        """The oldest event, or None."""
        record = EventRecord()
        r = self._call(lambda h: lib().tarvik_next_event(h, byref(record)))
        if r == _NO_EVENT:
            return None
        check(r)
        return _event_of(record)

    def events(self, timeout: Optional[float] = None) -> Iterator[Event]:
        """The camera's events as they come; the iteration ends when none came
        within ``timeout`` seconds (None: it waits for ever) or on ``cancel()``.
        The camera's lock is not held while it waits."""
        ms = -1 if timeout is None else max(0, int(timeout * 1000))
        while True:
            with self._lock:  # counted as waiting, so that close() wakes it first
                handle = self._call(lambda h: h)
                self._waiting += 1
            try:
                record = EventRecord()
                r = lib().tarvik_wait_event(handle, byref(record), ms)  # no lock held
            finally:
                with self._lock:
                    self._waiting -= 1
                    self._waiters.notify_all()
            if r in (_NO_EVENT, _CANCELLED):
                return
            check(r)
            yield _event_of(record)

    def cancel(self) -> None:
        """Wakes whoever waits in ``events()``, which then ends; any thread may call it."""
        self._run("tarvik_cancel")

    # --- settings ---
    @property
    def product_type(self) -> int:
        """The camera's product type."""
        return self._read("tarvik_read_product_type", c_int()).value

    @property
    def version(self) -> bytes:
        """The firmware version: 56 raw bytes."""
        return bytes(self._read("tarvik_read_version", (c_uint8 * 56)()))

    @property
    def mjpeg_qp(self) -> Quad:
        """MJPEG quantisation: four numbers."""
        return _quad_of(self._read("tarvik_read_mjpeg_qp", (c_int32 * 4)()))

    @mjpeg_qp.setter
    def mjpeg_qp(self, qp: Sequence[int]) -> None:
        self._run("tarvik_write_mjpeg_qp", _quad(qp, "mjpeg_qp"))

    @property
    def roi(self) -> Quad:
        """The region of interest: four numbers."""
        return _quad_of(self._read("tarvik_read_roi", (c_int32 * 4)()))

    @roi.setter
    def roi(self, roi: Sequence[int]) -> None:
        self._run("tarvik_write_roi", _quad(roi, "roi"))

    @property
    def roi_status(self) -> int:
        """The region-of-interest status word."""
        return self._read("tarvik_read_roi_status", c_uint32()).value

    @property
    def device_id(self) -> bytes:
        """The device id: 20 bytes. Set it from bytes or ASCII text of at most
        20, padded with zeros."""
        return bytes(self._read("tarvik_read_device_id", (c_uint8 * _ID_SIZE)()))

    @device_id.setter
    def device_id(self, value: Union[bytes, str]) -> None:
        data = _fixed(value, _ID_SIZE, "device_id")
        self._run("tarvik_write_device_id", (c_uint8 * _ID_SIZE)(*data))

    @property
    def device_sn(self) -> bytes:
        """The serial number: 20 bytes, set like ``device_id``."""
        return bytes(self._read("tarvik_read_device_sn", (c_uint8 * _ID_SIZE)()))

    @device_sn.setter
    def device_sn(self, value: Union[bytes, str]) -> None:
        data = _fixed(value, _ID_SIZE, "device_sn")
        self._run("tarvik_write_device_sn", (c_uint8 * _ID_SIZE)(*data))

    @property
    def autofocus_state(self) -> int:
        """The autofocus state byte."""
        return self._read("tarvik_read_autofocus_state", c_uint8()).value

    @property
    def streaming(self) -> bool:
        """Whether the camera streams now."""
        return self._read("tarvik_read_stream_state", c_uint32()).value != 0

    @property
    def gyro(self) -> Tuple[int, int]:
        """Tilt as (pitch, roll), whole degrees between -90 and 90."""
        pitch, roll = c_int32(), c_int32()
        self._run("tarvik_read_gyro", byref(pitch), byref(roll))
        return pitch.value, roll.value

    @property
    def exposure(self) -> Exposure:
        """Both eyes' exposure block; set it whole."""
        r = self._read("tarvik_read_exposure", ExposureRecord())
        return Exposure(EyeExposure._of(r.left), EyeExposure._of(r.right))

    @exposure.setter
    def exposure(self, value: Exposure) -> None:
        record = ExposureRecord(value.left._record(), value.right._record())
        self._run("tarvik_write_exposure", byref(record))

    # --- write-only and parameterised operations ---
    def set_gpio(self, gpio0: int, gpio1: int) -> None:
        """Sets the two GPIO values."""
        self._run("tarvik_write_gpio", _int(gpio0, "gpio0"), _int(gpio1, "gpio1"))

    def read_vcm(self, mode: int = 0) -> int:
        """The lens motor's value that ``mode`` chooses."""
        value = c_uint16()
        self._run("tarvik_read_vcm", _int(mode, "mode"), byref(value))
        return value.value

    def write_vcm(self, value: int, mode: int = 0, ctrl0: int = 0, ctrl1: int = 0) -> None:
        """Sets the lens motor's value for ``mode``, with its two control bytes."""
        self._run("tarvik_write_vcm", _int(mode, "mode"), _int(value, "value", (0, 0xFFFF)),
                  _int(ctrl0, "ctrl0", (0, 0xFF)), _int(ctrl1, "ctrl1", (0, 0xFF)))

    def read_item(self, item: int, request: Optional[bytes] = None, size: int = 64) -> bytes:
        """Reads extension item ``item`` into the library's record of it, which
        starts the ``size`` bytes returned. ``request`` is the item's input
        (item 18: the mode) and, for item 10, the data block record itself."""
        _int(item, "item")
        _int(size, "size", (0, 2**20))
        data = bytes(request or b"")
        if len(data) > size:
            raise InvalidArgument(INVALID_ARGUMENT, detail="request longer than size")
        output = ctypes.create_string_buffer(data, size)
        given = ctypes.create_string_buffer(data, len(data)) if request is not None else None
        self._run("tarvik_read_item", item, given, output, size)
        return output.raw

    def write_item(self, item: int, data: bytes) -> None:
        """Writes extension item ``item`` from the library's record of it."""
        record = ctypes.create_string_buffer(bytes(data), len(data))
        self._run("tarvik_write_item", _int(item, "item"), record, len(data))

    def sam_command(self, command: int) -> Tuple[int, bytes]:
        """Sends SAM command ``command`` (0-4, 6, 7): (the SAM's code, the 16
        number bytes that command 2 fills). A failing SAM raises SamError."""
        _int(command, "command", (0, 0xFF))
        sam, number = c_int(), (c_uint8 * 16)()

        def send(handle: int) -> None:
            r = lib().tarvik_sam_command(handle, command, byref(sam), number)
            check(r, sam.value)

        self._call(send)
        return sam.value, bytes(number)

    def read_card(self, third_block: bool = False) -> Card:
        """Reads the card on the reader (and its third block when asked).

        SamError when the SAM answers with a failure (no card, say). The C
        record is wiped before this returns; the Card's Python values cannot
        be (see Card).
        """
        record = CardRecord()

        def read(handle: int) -> Card:
            try:
                flags = _CARD_THIRD_BLOCK if third_block else 0
                r = lib().tarvik_read_card(handle, byref(record), flags)
                check(r, record.sam_result)
                return card_from_record(record)
            finally:
                lib().tarvik_card_clear(byref(record))

        return self._call(read)
