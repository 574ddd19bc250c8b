"""tarvikd's unit and polkit files, checked without systemd or polkitd running.

  check_service_files.py unit|polkit PACKAGING_DIR SERVICE_SOURCE_DIR

unit:   the unit's exposure (systemd-analyze security) is 1.0 or below, and
        systemd knows every key in it.
polkit: the actions file parses and declares every action the service asks
        about, and the rule grants the group tarvik exactly those.
The bus policy and the rule's effect are tried on a private bus with polkitd
by test_service.py.
"""
import os
import re
import subprocess
import sys
import xml.etree.ElementTree as ET

ACTION = re.compile(r'"(org\.tarvik\.tarvik1\.[a-z-]+)"')


def unit(packaging, _service):
    path = os.path.join(packaging, "tarvikd.service")
    run = subprocess.run(["systemd-analyze", "security", "--offline=true", "--threshold=10", path],
                         capture_output=True, text=True)
    print(run.stdout.strip().splitlines()[-1])
    assert run.returncode == 0, "exposure above 1.0"
    assert path not in run.stderr, run.stderr


def polkit(packaging, service):
    root = ET.parse(os.path.join(packaging, "org.tarvik.tarvik1.policy")).getroot()
    declared = {a.get("id") for a in root.iter("action")}
    for action in root.iter("action"):
        assert action.findtext("message") and action.find("defaults") is not None, action.get("id")
    asked = set()
    for name in os.listdir(service):
        if name.endswith((".cpp", ".h")):
            with open(os.path.join(service, name)) as f:
                asked |= set(ACTION.findall(f.read()))
    assert asked and asked <= declared, f"the service asks {asked}, the actions are {declared}"
    with open(os.path.join(packaging, "50-tarvik.rules")) as f:
        rule = f.read()
    granted = set(ACTION.findall(rule))
    assert granted == declared, f"the rule grants {granted}, the actions are {declared}"
    assert 'subject.isInGroup("tarvik")' in rule and "polkit.Result.YES" in rule


if __name__ == "__main__":
    {"unit": unit, "polkit": polkit}[sys.argv[1]](sys.argv[2], sys.argv[3])
    print("ok")
