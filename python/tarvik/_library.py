"""libTarvik.so.1 loaded once, with the records and prototypes of tarvik.h."""
from __future__ import annotations

import ctypes
import functools
import os
from ctypes import POINTER, c_char, c_char_p, c_int, c_size_t, c_uint, c_void_p
from ctypes import c_int32, c_uint8, c_uint16, c_uint32
from typing import Callable, List

LIBRARY_ENV = "TARVIK_LIBRARY"
LIBRARY_NAME = "libTarvik.so.1"


class CameraInfoRecord(ctypes.Structure):
    _fields_ = [
        ("bus", c_int),
        ("address", c_int),
        ("serial", c_char * 64),
        ("video_node", c_char * 32),
    ]


class OpenOptionsRecord(ctypes.Structure):
    _fields_ = [
        ("bus", c_int),
        ("address", c_int),
        ("video_node", c_char_p),
        ("serial", c_char_p),
        ("transport", c_int),
        ("flags", c_uint),
    ]


class EventRecord(ctypes.Structure):
    _fields_ = [
        ("type", c_int),
        ("result", c_int),
        ("sequence", ctypes.c_uint64),
        ("time_ns", ctypes.c_uint64),
    ]


class EyeExposureRecord(ctypes.Structure):
    _fields_ = [
        ("time", c_uint32),
        ("max", c_uint32),
        ("min", c_uint32),
        ("extra", c_uint16),
        ("flags", c_uint8 * 8),
    ]


class ExposureRecord(ctypes.Structure):
    _fields_ = [("left", EyeExposureRecord), ("right", EyeExposureRecord)]


class CardRecord(ctypes.Structure):
    _fields_ = [
        ("sam_result", c_int),
        ("name", c_char * 48),
        ("sex", c_char * 16),
        ("sex_code", c_char * 8),
        ("nation", c_char * 32),
        ("nation_code", c_char * 8),
        ("birth", c_char * 32),
        ("address", c_char * 112),
        ("id_number", c_char * 64),
        ("authority", c_char * 48),
        ("valid_from", c_char * 32),
        ("valid_to", c_char * 32),
        ("reserved", c_char * 64),
        ("photo", c_uint8 * 1024),
        ("third_block", c_uint8 * 1024),
        ("has_third_block", c_int),
    ]


class ItemInfoRecord(ctypes.Structure):
    _fields_ = [
        ("number", c_int),
        ("name", c_char_p),
        ("read_size", c_int),
        ("write_size", c_int),
    ]


LOG_HANDLER = ctypes.CFUNCTYPE(None, c_int, c_char_p, c_void_p)

_CAMERA = c_void_p  # tarvik_camera*, opaque
_I32x4 = c_int32 * 4

# name: (result type, argument types)
_PROTOTYPES = {
    "tarvik_list": (c_int, [POINTER(CameraInfoRecord), c_size_t]),
    "tarvik_default_options": (OpenOptionsRecord, []),
    "tarvik_open": (c_int, [POINTER(OpenOptionsRecord), POINTER(_CAMERA)]),
    "tarvik_close": (None, [_CAMERA]),
    "tarvik_describe": (c_int, [_CAMERA, POINTER(CameraInfoRecord), POINTER(c_int)]),
    "tarvik_read_product_type": (c_int, [_CAMERA, POINTER(c_int)]),
    "tarvik_read_version": (c_int, [_CAMERA, POINTER(c_uint8)]),
    "tarvik_read_mjpeg_qp": (c_int, [_CAMERA, _I32x4]),
    "tarvik_write_mjpeg_qp": (c_int, [_CAMERA, _I32x4]),
    "tarvik_read_roi": (c_int, [_CAMERA, _I32x4]),
    "tarvik_write_roi": (c_int, [_CAMERA, _I32x4]),
    "tarvik_read_roi_status": (c_int, [_CAMERA, POINTER(c_uint32)]),
    "tarvik_read_device_id": (c_int, [_CAMERA, POINTER(c_uint8)]),
    "tarvik_write_device_id": (c_int, [_CAMERA, POINTER(c_uint8)]),
    "tarvik_read_device_sn": (c_int, [_CAMERA, POINTER(c_uint8)]),
    "tarvik_write_device_sn": (c_int, [_CAMERA, POINTER(c_uint8)]),
    "tarvik_write_gpio": (c_int, [_CAMERA, c_int32, c_int32]),
    "tarvik_read_vcm": (c_int, [_CAMERA, c_int, POINTER(c_uint16)]),
    "tarvik_write_vcm": (c_int, [_CAMERA, c_int, c_uint16, c_uint8, c_uint8]),
    "tarvik_read_autofocus_state": (c_int, [_CAMERA, POINTER(c_uint8)]),
    "tarvik_read_stream_state": (c_int, [_CAMERA, POINTER(c_uint32)]),
    "tarvik_read_gyro": (c_int, [_CAMERA, POINTER(c_int32), POINTER(c_int32)]),
    "tarvik_read_exposure": (c_int, [_CAMERA, POINTER(ExposureRecord)]),
    "tarvik_write_exposure": (c_int, [_CAMERA, POINTER(ExposureRecord)]),
    "tarvik_item": (c_int, [c_int, POINTER(ItemInfoRecord)]),
    "tarvik_read_item": (c_int, [_CAMERA, c_int, c_void_p, c_void_p, c_size_t]),
    "tarvik_write_item": (c_int, [_CAMERA, c_int, c_void_p, c_size_t]),
    "tarvik_sam_command": (c_int, [_CAMERA, c_int, POINTER(c_int), POINTER(c_uint8)]),
    "tarvik_read_card": (c_int, [_CAMERA, POINTER(CardRecord), c_uint]),
    "tarvik_card_clear": (None, [POINTER(CardRecord)]),
    "tarvik_strerror": (c_char_p, [c_int]),
    "tarvik_result_name": (c_char_p, [c_int]),
    "tarvik_sam_strerror": (c_char_p, [c_int]),
    "tarvik_version": (c_char_p, []),
    "tarvik_set_log_handler": (None, [LOG_HANDLER, c_void_p]),
    "tarvik_set_log_level": (None, [c_int]),
    "tarvik_get_fd": (c_int, [_CAMERA]),
    "tarvik_set_poll_interval": (c_int, [_CAMERA, c_uint]),
    "tarvik_dispatch": (c_int, [_CAMERA]),
    "tarvik_next_event": (c_int, [_CAMERA, POINTER(EventRecord)]),
    "tarvik_wait_event": (c_int, [_CAMERA, POINTER(EventRecord), c_int]),
    "tarvik_cancel": (c_int, [_CAMERA]),
    "tarvik_event_name": (c_char_p, [c_int]),
}


# What the package does with the library once it is loaded (the log's route).
ON_LOAD: List[Callable[[ctypes.CDLL], None]] = []


class _Missing(OSError):
    """libTarvik.so.1 could not be loaded (raised as tarvik.LibraryMissing)."""


def _candidates() -> List[str]:
    """Where the library may be, in order: TARVIK_LIBRARY, the library installed
    beside this package (the same prefix), the loader's path."""
    named = os.environ.get(LIBRARY_ENV)
    if named:
        return [named]
    found = []
    try:
        from ._install import LIBRARY_DIR  # written when the package is installed

        beside = os.path.join(os.path.dirname(__file__), LIBRARY_DIR, LIBRARY_NAME)
        if os.path.exists(beside):
            found.append(os.path.normpath(beside))
    except ImportError:
        pass
    return found + [LIBRARY_NAME]


def _load() -> ctypes.CDLL:
    tried = []
    for candidate in _candidates():
        try:
            return ctypes.CDLL(candidate)
        except OSError as e:
            tried.append(str(e))
    raise _Missing(
        f"{LIBRARY_NAME} could not be loaded ({'; '.join(tried)}): install the libtarvik1 "
        f"package (or libTarvik with CMake), or set {LIBRARY_ENV} to the library's path")


@functools.lru_cache(maxsize=None)
def lib() -> ctypes.CDLL:
    """The library, loaded on first use, so that importing the package never fails.
    LibraryMissing (a TarvikError) says what to install when it is not there."""
    try:
        handle = _load()
    except _Missing as e:
        from .errors import LibraryMissing  # errors needs this module first

        raise LibraryMissing(str(e)) from None
    for name, (restype, argtypes) in _PROTOTYPES.items():
        function = getattr(handle, name)
        function.restype = restype
        function.argtypes = argtypes
    for hook in ON_LOAD:
        hook(handle)
    return handle
