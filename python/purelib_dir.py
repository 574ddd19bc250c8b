"""Prints where pure-Python packages go under PREFIX, relative to it.

    python3 purelib_dir.py PREFIX

The interpreter's own answers come first when they lie under PREFIX (on
Debian: /usr/lib/python3/dist-packages, /usr/local/lib/python3.X/dist-packages);
any other prefix gets its lib/python3.X/site-packages.
"""
import os
import sys
import sysconfig


def purelib_dir(prefix: str) -> str:
    prefix = os.path.abspath(prefix)
    schemes = sysconfig.get_scheme_names()
    candidates = [sysconfig.get_path("purelib", "deb_system")] if "deb_system" in schemes else []
    candidates.append(sysconfig.get_path("purelib"))
    for path in candidates:
        relative = os.path.relpath(path, prefix)
        if relative.split(os.sep)[0] == "lib":
            return relative
    return os.path.relpath(sysconfig.get_path("purelib", "posix_prefix", vars={"base": prefix}), prefix)


if __name__ == "__main__":
    print(purelib_dir(sys.argv[1]))
