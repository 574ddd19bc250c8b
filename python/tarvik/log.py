"""The library's log lines, handed to a Python callable."""
from __future__ import annotations

import sys
import threading
import traceback
from typing import Callable, Optional

from ._library import LOG_HANDLER, lib

LogHandler = Callable[[str], None]

_handler: Optional[LogHandler] = None
_lock = threading.Lock()


def _dispatch(line: bytes, user: object) -> None:
    handler = _handler
    if handler is None:
        return
    try:
        handler(line.decode("utf-8", "replace"))
    except Exception:  # the library is mid-call: report it, never unwind into C
        traceback.print_exc(file=sys.stderr)


# One callback for the life of the process: the library may be calling it from
# another thread at the very moment the handler changes, so it is never freed.
_callback = LOG_HANDLER(_dispatch)


def set_log_handler(handler: Optional[LogHandler]) -> None:
    """Hands each log line of the library to ``handler(line)``, or, with None,
    sends lines back where TARVIK_LOG says (standard output by default).

    A line comes without its leading carriage return and trailing line feed,
    on the thread that logs it, while the library holds its log lock: the
    handler must be quick and must not call the library. An exception it
    raises is printed to standard error and goes no further.
    """
    global _handler
    with _lock:
        _handler = handler
        lib().tarvik_set_log_handler(_callback if handler is not None else LOG_HANDLER(), None)
