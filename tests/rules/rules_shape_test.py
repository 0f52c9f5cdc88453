#!/usr/bin/python3
"""The shipped Prometheus rules keep their shape:
   rules_shape_test.py ALERTS_FILE RECORDING_FILE UNIT_TEST_FILE

Every alert is named MirvakHba<Something>, carries labels.severity (warning
or critical) and annotations summary and description; every recording rule
is named level:metric:operation on the instance level; and the unit test
file has, for every alert, a case where it fires and one where it stays
quiet. Prints one line a problem and exits 1; prints nothing and exits 0
otherwise."""
import re
import sys

import yaml


def rules_of(path):
    with open(path, encoding="utf-8") as f:
        doc = yaml.safe_load(f)
    return [r for g in doc["groups"] for r in g["rules"]]


def main(alerts_file, recording_file, test_file):
    problems = []
    alerts = rules_of(alerts_file)
    names = []
    for r in alerts:
        name = r.get("alert")
        if name is None:
            problems.append(f"{alerts_file}: a rule that is no alert: {r.get('record')}")
            continue
        names.append(name)
        if not re.fullmatch(r"MirvakHba[A-Z][A-Za-z]+", name):
            problems.append(f"{name}: not named MirvakHba<Something>")
        if (r.get("labels") or {}).get("severity") not in ("warning", "critical"):
            problems.append(f"{name}: labels.severity is not warning or critical")
        for key in ("summary", "description"):
            if not (r.get("annotations") or {}).get(key):
                problems.append(f"{name}: no annotations.{key}")
    if len(set(names)) != len(names):
        problems.append(f"{alerts_file}: an alert name given twice")
    for r in rules_of(recording_file):
        record = r.get("record")
        if record is None or not re.fullmatch(r"instance:mirvak_[a-z_]+:[a-z_]+", record):
            problems.append(f"{recording_file}: recording rule {record or r.get('alert')} not named instance:mirvak_...:op")

    with open(test_file, encoding="utf-8") as f:
        tests = yaml.safe_load(f)["tests"]
    fires, quiet = set(), set()
    for t in tests:
        for case in t.get("alert_rule_test", []):
            (fires if case.get("exp_alerts") else quiet).add(case["alertname"])
    for name in names:
        if name not in fires:
            problems.append(f"{name}: no unit test where it fires")
        if name not in quiet:
            problems.append(f"{name}: no unit test where it stays quiet")
    for p in problems:
        print(p)
    return 1 if problems else 0


if __name__ == "__main__":
    if len(sys.argv) != 4:
        print(__doc__.splitlines()[1].strip())
        sys.exit(2)
    sys.exit(main(*sys.argv[1:]))
