"""libTarvik from Python: the dual-eye camera's settings and identity cards.

    import tarvik

    with tarvik.Camera() as cam:
        cam.roi = (10, 20, 320, 240)
        card = cam.read_card()
        print(card.name, card.birth)

The package calls the C interface of libTarvik.so.1 through ctypes: it loads
the file that TARVIK_LIBRARY names, else the library installed beside the
package (the same prefix), else libTarvik.so.1 from the loader's path; when
there is none, LibraryMissing says what to install. Failures raise
TarvikError subclasses that carry the library's result code. The library's
log lines go to the logging logger "tarvik".

``tarvik.Service()`` reaches the cameras through tarvikd, the camera service
on D-Bus, instead (see tarvik.service); it needs python3-dbus-next, imported
only then.
"""
from __future__ import annotations

from ._library import lib as _lib
from .camera import Camera, CameraInfo, Event, Exposure, EyeExposure, list_cameras
from .card import Card
from .errors import (
    AccessDenied,
    CameraBusy,
    DeviceGone,
    InputOutputError,
    Interrupted,
    InvalidArgument,
    InvalidSample,
    LibraryMissing,
    ModesDiffer,
    NoCamera,
    NoMemory,
    NotFound,
    NotHandled,
    NotManual,
    NotOpen,
    NotProvided,
    NotSupported,
    OutOfRange,
    Overflow,
    Refused,
    SamError,
    ServiceAccessDenied,
    ServiceUnavailable,
    ShortTransfer,
    TarvikError,
    Timeout,
    UnknownProduct,
    result_name,
    strerror,
)
from .log import set_log_handler, set_log_level
from .service import AsyncService, AsyncServiceCamera, Service, ServiceCamera

__version__ = "1.0.0"  # the library's version too: tarvik.version()

__all__ = [
    "AccessDenied",
    "AsyncService",
    "AsyncServiceCamera",
    "Camera",
    "CameraBusy",
    "CameraInfo",
    "Card",
    "DeviceGone",
    "Event",
    "Exposure",
    "EyeExposure",
    "InputOutputError",
    "Interrupted",
    "InvalidArgument",
    "InvalidSample",
    "LibraryMissing",
    "ModesDiffer",
    "NoCamera",
    "NoMemory",
    "NotFound",
    "NotHandled",
    "NotManual",
    "NotOpen",
    "NotProvided",
    "NotSupported",
    "OutOfRange",
    "Overflow",
    "Refused",
    "SamError",
    "Service",
    "ServiceAccessDenied",
    "ServiceCamera",
    "ServiceUnavailable",
    "ShortTransfer",
    "TarvikError",
    "Timeout",
    "UnknownProduct",
    "list_cameras",
    "result_name",
    "set_log_handler",
    "set_log_level",
    "strerror",
    "version",
]


def version() -> str:
    """The library's version, e.g. "1.0.0"."""
    return _lib().tarvik_version().decode()
