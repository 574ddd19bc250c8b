"""The library's results as exceptions: one class per condition, each carrying its code."""
from __future__ import annotations

import functools
from typing import Dict, Optional, Tuple, Type

from ._library import lib


class TarvikError(Exception):
    """A call failed. ``code`` is the C interface's result, ``name`` the code's
    name ("TARVIK_E_SAM", "LIBUSB_ERROR_ACCESS"; tarvik_result_name),
    ``message`` what it means (tarvik_strerror), ``detail`` what the binding
    adds, if anything. A subclass stands for the result names in ``results``."""

    results: Tuple[str, ...] = ()

    def __init__(self, code: int, message: Optional[str] = None, detail: str = "") -> None:
        self.code = code
        self.name = result_name(code)
        self.message = message if message is not None else strerror(code)
        self.detail = detail
        super().__init__(code, self.message)

    def __str__(self) -> str:
        text = f"{self.message} ({self.name}, {self.code})"
        return f"{text}: {self.detail}" if self.detail else text


class LibraryMissing(TarvikError, OSError):
    """libTarvik.so.1 is not installed, or not where the package looks for it;
    the message says what to install. ``code`` is NOT_OPEN: nothing can be."""

    def __init__(self, detail: str) -> None:  # pylint: disable=super-init-not-called
        self.code = NOT_OPEN
        self.name = "LIBRARY_MISSING"
        self.message = "the library could not be loaded"
        self.detail = detail
        Exception.__init__(self, self.code, detail)


class InputOutputError(TarvikError):
    """Input/output error; on the USB path also a camera in use by another program."""

    results = ("LIBUSB_ERROR_IO",)


class InvalidArgument(TarvikError, ValueError):
    """A bad argument: nothing was sent to the camera."""

    results = ("TARVIK_E_INVALID_ARGUMENT", "LIBUSB_ERROR_INVALID_PARAM")


class AccessDenied(TarvikError, PermissionError):
    """No permission for the camera: install the udev rule, or join plugdev or video."""

    results = ("LIBUSB_ERROR_ACCESS",)


class DeviceGone(TarvikError):
    """The camera was unplugged."""

    results = ("LIBUSB_ERROR_NO_DEVICE",)


class NotFound(TarvikError):
    """An entity the call needed was not found."""

    results = ("LIBUSB_ERROR_NOT_FOUND",)


class CameraBusy(TarvikError):
    """Another program holds the camera."""

    results = ("LIBUSB_ERROR_BUSY",)


class Timeout(TarvikError, TimeoutError):
    """The camera did not answer in time."""

    results = ("LIBUSB_ERROR_TIMEOUT",)


class Overflow(TarvikError):
    """The camera sent more than asked."""

    results = ("LIBUSB_ERROR_OVERFLOW",)


class Refused(TarvikError):
    """The camera refused the request (a stalled control transfer)."""

    results = ("LIBUSB_ERROR_PIPE",)


class Interrupted(TarvikError):
    """The call was interrupted."""

    results = ("LIBUSB_ERROR_INTERRUPTED",)


class NoMemory(TarvikError, MemoryError):
    """Out of memory."""

    results = ("TARVIK_E_NO_MEMORY", "LIBUSB_ERROR_NO_MEM")


class NotSupported(TarvikError):
    """Not supported; on the kernel path the video driver refused the query."""

    results = ("LIBUSB_ERROR_NOT_SUPPORTED",)


class NotOpen(TarvikError):
    """The camera is not open (or was closed)."""

    results = ("TARVIK_E_NOT_OPEN",)


class ShortTransfer(TarvikError):
    """The camera moved fewer bytes than asked."""

    results = ("TARVIK_E_SHORT_TRANSFER",)


class NotHandled(TarvikError):
    """The item is not read (or written) that way."""

    results = ("TARVIK_E_NOT_HANDLED",)


class InvalidSample(TarvikError):
    """The gyroscope answered an all-zero sample."""

    results = ("TARVIK_E_INVALID_SAMPLE",)


class NotProvided(TarvikError):
    """Not provided by this camera's library."""

    results = ("TARVIK_E_NOT_PROVIDED",)


class NotManual(TarvikError):
    """An eye is not in manual exposure mode."""

    results = ("TARVIK_E_NOT_MANUAL",)


class OutOfRange(TarvikError):
    """An exposure time is outside its eye's range."""

    results = ("TARVIK_E_OUT_OF_RANGE",)


class ModesDiffer(TarvikError):
    """The two eyes' exposure modes differ."""

    results = ("TARVIK_E_MODES_DIFFER",)


class NoCamera(TarvikError):
    """No camera found, or it could not be opened."""

    results = ("TARVIK_E_NO_CAMERA",)


class UnknownProduct(TarvikError):
    """The camera's product type is unknown."""

    results = ("TARVIK_E_UNKNOWN_PRODUCT",)


class SamError(TarvikError):
    """The SAM refused or failed (no card on the reader, say); ``sam_result`` is its own code."""

    results = ("TARVIK_E_SAM",)

    def __init__(self, code: int, message: Optional[str] = None, sam_result: int = 0) -> None:
        meaning = lib().tarvik_sam_strerror(sam_result).decode("utf-8", "replace")
        super().__init__(code, message, f"SAM code {sam_result}: {meaning}")
        self.sam_result = sam_result


class ServiceUnavailable(TarvikError, ConnectionError):
    """tarvikd cannot be reached: it is not running, the bus is not there, the
    connection broke or was closed, or python3-dbus-next is not installed; the
    message says which. ``code`` is NOT_OPEN: no camera can be used."""

    def __init__(self, detail: str) -> None:  # pylint: disable=super-init-not-called
        self.code = NOT_OPEN
        self.name = "SERVICE_UNAVAILABLE"
        self.message = "the camera service cannot be reached"
        self.detail = detail
        Exception.__init__(self, self.code, detail)


class ServiceAccessDenied(AccessDenied):
    """tarvikd (polkit) refused the call: join the group tarvik, or ask an
    administrator. Caught as AccessDenied and PermissionError too."""

    results = ()  # LIBUSB_ERROR_ACCESS from the library itself stays AccessDenied's

    def __init__(self, detail: str = "") -> None:
        super().__init__(ACCESS, "the camera service refused the call: join the group tarvik, "
                         "or ask an administrator", detail)


# What the binding refuses itself, before any call, carries these codes of tarvik.h.
INVALID_ARGUMENT = -1001  # TARVIK_E_INVALID_ARGUMENT
NOT_OPEN = -1002  # TARVIK_E_NOT_OPEN
UNKNOWN = -1014  # TARVIK_E_UNKNOWN: a condition the library does not know
ACCESS = -3  # LIBUSB_ERROR_ACCESS


def _by_name() -> Dict[str, Type[TarvikError]]:
    """Every exception class by the result names it stands for."""
    found: Dict[str, Type[TarvikError]] = {}
    pending = list(TarvikError.__subclasses__())
    while pending:
        cls = pending.pop()
        found.update({name: cls for name in cls.results})
        pending.extend(cls.__subclasses__())
    return found


def strerror(code: int) -> str:
    """What a result means, in the library's words."""
    return lib().tarvik_strerror(code).decode("utf-8", "replace")


def result_name(code: int) -> str:
    """The name of a result's code; "UNKNOWN" for a code the library does not know."""
    return lib().tarvik_result_name(code).decode("ascii", "replace")


def error_for(code: int, sam_result: int = 0) -> TarvikError:
    """The exception for a failed result, by the name the library gives its code;
    a code without a class of its own gives the base class."""
    cls = _by_name().get(result_name(code), TarvikError)
    if cls is SamError:
        return SamError(code, sam_result=sam_result)
    return cls(code)


@functools.lru_cache(maxsize=None)
def _codes() -> Dict[str, int]:
    """Every result's code by its name. libusb's codes lie in -1..-99, the
    library's own from -1001 on (tarvik.h)."""
    named = {result_name(code): code for code in range(-1100, 1)}
    named.pop("UNKNOWN", None)
    return named


def error_named(name: str, detail: str = "", sam_result: int = 0) -> TarvikError:
    """The exception for a result given by its name, as tarvikd names them; a
    name this library does not know gives the base class, with that name."""
    code = _codes().get(name, UNKNOWN)
    cls = _by_name().get(name, TarvikError)
    if cls is SamError:
        error: TarvikError = SamError(code, sam_result=sam_result)
    else:
        error = cls(code, detail="" if detail == strerror(code) else detail)
    error.name = name
    return error


def check(code: int, sam_result: int = 0) -> None:
    """Raises the exception for ``code`` unless it is 0."""
    if code != 0:
        raise error_for(code, sam_result)
