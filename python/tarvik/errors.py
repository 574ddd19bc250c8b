"""The library's results as exceptions: one class per condition, each carrying its code."""
from __future__ import annotations

from typing import Dict, Optional, Type

from ._library import lib


class TarvikError(Exception):
    """A call failed. ``code`` is the C interface's result, ``name`` the code's
    name ("TARVIK_E_SAM", "LIBUSB_ERROR_ACCESS"; tarvik_result_name),
    ``message`` what it means (tarvik_strerror), ``detail`` what the binding
    adds, if anything."""

    def __init__(self, code: int, message: Optional[str] = None, detail: str = "") -> None:
        self.code = code
        self.name = result_name(code)
        self.message = message if message is not None else strerror(code)
        self.detail = detail
        super().__init__(code, self.message)

    def __str__(self) -> str:
        text = f"{self.message} ({self.name}, {self.code})"
        return f"{text}: {self.detail}" if self.detail else text


class InputOutputError(TarvikError):
    """Input/output error; on the USB path also a camera in use by another program."""


class InvalidArgument(TarvikError, ValueError):
    """A bad argument: nothing was sent to the camera."""


class AccessDenied(TarvikError, PermissionError):
    """No permission for the camera: install the udev rule, or join plugdev or video."""


class DeviceGone(TarvikError):
    """The camera was unplugged."""


class NotFound(TarvikError):
    """An entity the call needed was not found."""


class CameraBusy(TarvikError):
    """Another program holds the camera."""


class Timeout(TarvikError, TimeoutError):
    """The camera did not answer in time."""


class Overflow(TarvikError):
    """The camera sent more than asked."""


class Refused(TarvikError):
    """The camera refused the request (a stalled control transfer)."""


class Interrupted(TarvikError):
    """The call was interrupted."""


class NoMemory(TarvikError, MemoryError):
    """Out of memory."""


class NotSupported(TarvikError):
    """Not supported; on the kernel path the video driver refused the query."""


class NotOpen(TarvikError):
    """The camera is not open (or was closed)."""


class ShortTransfer(TarvikError):
    """The camera moved fewer bytes than asked."""


class NotHandled(TarvikError):
    """The item is not read (or written) that way."""


class InvalidSample(TarvikError):
    """The gyroscope answered an all-zero sample."""


class NotProvided(TarvikError):
    """Not provided by this camera's library."""


class NotManual(TarvikError):
    """An eye is not in manual exposure mode."""


class OutOfRange(TarvikError):
    """An exposure time is outside its eye's range."""


class ModesDiffer(TarvikError):
    """The two eyes' exposure modes differ."""


class NoCamera(TarvikError):
    """No camera found, or it could not be opened."""


class UnknownProduct(TarvikError):
    """The camera's product type is unknown."""


class SamError(TarvikError):
    """The SAM refused or failed (no card on the reader, say); ``sam_result`` is its own code."""

    def __init__(self, code: int, message: Optional[str] = None, sam_result: int = 0) -> None:
        super().__init__(code, message, f"SAM code {sam_result}")
        self.sam_result = sam_result


# Results of tarvik.h: libusb's codes as they are, then the TARVIK_E_ codes.
_CLASSES: Dict[int, Type[TarvikError]] = {
    -1: InputOutputError,
    -2: InvalidArgument,
    -3: AccessDenied,
    -4: DeviceGone,
    -5: NotFound,
    -6: CameraBusy,
    -7: Timeout,
    -8: Overflow,
    -9: Refused,
    -10: Interrupted,
    -11: NoMemory,
    -12: NotSupported,
    -1001: InvalidArgument,
    -1002: NotOpen,
    -1003: ShortTransfer,
    -1004: NotHandled,
    -1005: InvalidSample,
    -1006: NotProvided,
    -1007: NotManual,
    -1008: OutOfRange,
    -1009: ModesDiffer,
    -1010: NoCamera,
    -1011: UnknownProduct,
    -1012: SamError,
    -1013: NoMemory,
}

INVALID_ARGUMENT = -1001
NOT_OPEN = -1002
SAM = -1012


def strerror(code: int) -> str:
    """What a result means, in the library's words."""
    return lib().tarvik_strerror(code).decode("utf-8", "replace")


def result_name(code: int) -> str:
    """The name of a result's code; "UNKNOWN" for a code the library does not know."""
    return lib().tarvik_result_name(code).decode("ascii", "replace")


def error_for(code: int, sam_result: int = 0) -> TarvikError:
    """The exception for a failed result; codes the table lacks give the base class."""
    cls = _CLASSES.get(code, TarvikError)
    if cls is SamError:
        return SamError(code, sam_result=sam_result)
    return cls(code)


def check(code: int, sam_result: int = 0) -> None:
    """Raises the exception for ``code`` unless it is 0."""
    if code != 0:
        raise error_for(code, sam_result)
