"""The library's log lines, as records of the ``logging`` logger "tarvik".

Each line has a level (debug: progress; warning: failures that the result
reports too, retries, slow calls; error: a camera that could not be opened).
By default lines go to ``logging.getLogger("tarvik")`` at their level, and the
library formats only what that logger's level lets through when the package is
imported; ``set_log_level`` changes both. ``set_log_handler`` hands the records
to a callable instead. No line carries card data.
"""
from __future__ import annotations

import logging
import sys
import threading
import traceback
from typing import Callable, Optional

import ctypes

from ._library import LOG_HANDLER, ON_LOAD, lib

LogHandler = Callable[[logging.LogRecord], None]

logger = logging.getLogger("tarvik")

# The library's levels (syslog's priorities) and logging's.
_TO_LOGGING = {3: logging.ERROR, 4: logging.WARNING, 7: logging.DEBUG}

_handler: Optional[LogHandler] = None
_lock = threading.Lock()


def _record(level: int, line: str) -> logging.LogRecord:
    return logger.makeRecord(logger.name, _TO_LOGGING.get(level, logging.WARNING), "libTarvik", 0,
                             line, None, None)


def _dispatch(level: int, line: bytes, user: object) -> None:
    try:
        record = _record(level, line.decode("utf-8", "replace"))
        handler = _handler
        if handler is not None:
            handler(record)
        elif logger.isEnabledFor(record.levelno):
            logger.handle(record)
    except Exception:  # the library is mid-call: report it, never unwind into C
        traceback.print_exc(file=sys.stderr)


# One callback for the life of the process: the library may be calling it from
# another thread at the very moment the handler changes, so it is never freed.
_callback = LOG_HANDLER(_dispatch)


def _library_level(level: int) -> int:
    if level <= logging.DEBUG:
        return 7
    return 4 if level <= logging.WARNING else 3


def set_log_level(level: int) -> None:
    """Lines less severe than ``level`` (a ``logging`` level) are not even
    formatted by the library; the "tarvik" logger gets the same level."""
    if not isinstance(level, int) or isinstance(level, bool):
        raise TypeError(f"a logging level is an int, not {type(level).__name__}")
    logger.setLevel(level)
    lib().tarvik_set_log_level(_library_level(level))


def set_log_handler(handler: Optional[LogHandler]) -> None:
    """Hands each kept line, as a ``logging.LogRecord``, to ``handler(record)``;
    None gives them back to the "tarvik" logger.

    The handler runs on the thread that logs, while the library holds its log
    lock: it must be quick and must not call the library. An exception it
    raises is printed to standard error and goes no further.
    """
    global _handler
    if handler is not None and not callable(handler):
        raise TypeError(f"a log handler is a callable taking a record, not {handler!r}")
    with _lock:
        _handler = handler


def _install(library: ctypes.CDLL) -> None:
    library.tarvik_set_log_handler(_callback, None)
    library.tarvik_set_log_level(_library_level(logger.getEffectiveLevel()))


ON_LOAD.append(_install)
