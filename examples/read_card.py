#!/usr/bin/env python3
"""Reads the camera's firmware version and an identity card.

    read_card.py [bus address]

Needs the tarvik package (installed with libTarvik, or PYTHONPATH=<source>/python)
and libTarvik.so.1 on the loader's path (or TARVIK_LIBRARY=<path>).
"""
import logging
import sys

import tarvik


def main() -> int:
    # The library's warnings and errors go to the "tarvik" logger, results to standard output.
    logging.basicConfig(level=logging.WARNING, format="%(name)s: %(levelname)s: %(message)s")
    where = {"bus": int(sys.argv[1]), "address": int(sys.argv[2])} if len(sys.argv) > 2 else {}
    try:
        with tarvik.Camera(**where) as cam:
            version = cam.version.split(b"\0")[0]
            card = cam.read_card()
    except tarvik.TarvikError as e:
        print(f"reading the card failed: {e}", file=sys.stderr)
        return 1
    text = "".join(chr(c) if 0x20 <= c < 0x7F else "." for c in version)
    print(f"version: {text}\nname: {card.name}\nsex: {card.sex}\nnation: {card.nation}")
    print(f"birth: {card.birth}\nid: {card.id_number}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
