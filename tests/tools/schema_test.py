#!/usr/bin/python3
"""Every subcommand's --json answer on the default fabric against the JSON
Schema of mirvak-hba (view/schema/mirvak-hba.schema.json), and the same
record under the same keys whichever subcommand prints it.

Usage: schema_test.py SCHEMA SIMHOST MIRVAK_HBA DEFAULT_FABRIC
"""
import concurrent.futures
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import jsonschema

SCHEMA, SIMHOST, PROGRAM, FABRIC = sys.argv[1:5]
del sys.argv[1:5]

# Every subcommand with --json, with arguments that answer on the default
# fabric. The NPIV pair and decode run separately (they need files).
SUBCOMMANDS = {
    "default": [],
    "adapters": ["adapters"],
    "adapter-info": ["adapter-info"],
    "adapter-stats": ["adapter-stats", "0"],
    "ports": ["ports", "0"],
    "port": ["port", "0", "--port", "0"],
    "port-stats": ["port-stats", "0", "--port", "0"],
    "rports": ["rports", "0", "--port", "0"],
    "rport-stats": ["rport-stats", "0", "--port", "0", "--rport", "0"],
    "luns": ["luns", "0", "--port", "0", "--rport", "0"],
    "vports": ["vports", "0", "--port", "1"],
    "vport-stats": ["vport-stats", "0", "--port", "1", "--vport", "0"],
    "vport-rports": ["vport-rports", "0", "--port", "1", "--vport", "1"],
    "vport-rport-stats": ["vport-rport-stats", "0", "--vport-wwpn", "2802001b9ea10001", "--rport-wwpn",
                          "5006016000a10301"],
    "vport-luns": ["vport-luns", "0", "--port", "1", "--vport", "1", "--rport", "0"],
    "mapping": ["mapping"],
    "scsi-inquiry": ["scsi", "inquiry", "0", "--target", "500a098000a10001", "--lun", "2"],
    "scsi-vpd": ["scsi", "inquiry", "0", "--target", "500a098000a10001", "--lun", "2", "--page", "0x83"],
    "scsi-report-luns": ["scsi", "report-luns", "0", "--target", "500a098000a10001"],
    "scsi-read-capacity": ["scsi", "read-capacity", "0", "--target", "500a098000a10001", "--lun", "2"],
    "snapshot": ["snapshot"],
    "topology": ["topology"],
}


# Under the sanitizers the preloaded redirector (built without them) comes
# before their runtime, which they must be told is fine.
ENV = dict(os.environ)
ENV["ASAN_OPTIONS"] = ":".join(filter(None, [ENV.get("ASAN_OPTIONS", ""), "verify_asan_link_order=0"]))


def run(args, fabric=None):
    argv = [SIMHOST, "run"] + (["--fabric", fabric] if fabric else []) + ["--", PROGRAM, "--quiet", "--json"] + args
    done = subprocess.run(argv, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60, env=ENV)
    if done.returncode != 0:
        raise AssertionError("%s exited %d: %s" % (" ".join(args), done.returncode, done.stderr))
    return json.loads(done.stdout)


class Answers:
    """Each answer once, gathered two at a time (a failure once, too)."""
    loaded = None
    failure = None

    @classmethod
    def get(cls):
        if cls.loaded is None and cls.failure is None:
            try:
                with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
                    futures = {name: pool.submit(run, args) for name, args in SUBCOMMANDS.items()}
                    cls.loaded = {name: f.result() for name, f in futures.items()}
            except Exception as e:  # reported by every test that needs the answers
                cls.failure = e
        if cls.failure is not None:
            raise AssertionError("the answers could not be gathered: %s" % cls.failure)
        return cls.loaded


with open(SCHEMA) as f:
    schema = json.load(f)
validator = jsonschema.Draft202012Validator(schema)


def errors(answer):
    return ["%s: %s" % ("/".join(map(str, e.absolute_path)), e.message) for e in validator.iter_errors(answer)]


class Schema(unittest.TestCase):
    def test_the_schema_is_a_valid_json_schema(self):
        jsonschema.Draft202012Validator.check_schema(schema)

    def test_every_subcommand_answer_validates(self):
        for name, answer in Answers.get().items():
            with self.subTest(subcommand=name):
                self.assertEqual(errors(answer), [])

    def test_npiv_and_decode_validate(self):
        with tempfile.TemporaryDirectory() as tmp:
            fabric = os.path.join(tmp, "fabric.json")
            shutil.copyfile(FABRIC, fabric)
            created = run(["npiv", "create", "0", "--port", "0", "--wwpn", "2803001b9ea10000", "--wwnn",
                           "2903001b9ea10000"], fabric)
            deleted = run(["npiv", "delete", "0", "--wwpn", "2803001b9ea10000"], fabric)
            raw = os.path.join(tmp, "snapshot.bin")
            taken = run(["snapshot", "--raw", raw])
            done = subprocess.run([PROGRAM, "--json", "decode", raw], capture_output=True, text=True, timeout=60,
                                  env=ENV)
            self.assertEqual(done.returncode, 0, done.stderr)
            decoded = json.loads(done.stdout)
        for name, answer in (("npiv create", created), ("npiv delete", deleted), ("snapshot --raw", taken),
                             ("decode", decoded)):
            with self.subTest(subcommand=name):
                self.assertEqual(errors(answer), [])

    def test_a_key_the_schema_does_not_know_is_refused(self):
        answer = json.loads(json.dumps(Answers.get()["ports"]))
        answer["ports"][0]["port_type"] = answer["ports"][0]["type"]
        self.assertNotEqual(errors(answer), [])
        answer = json.loads(json.dumps(Answers.get()["luns"]))
        answer["luns"][0]["size_sectors"] = 1
        self.assertNotEqual(errors(answer), [])


# Keys a record gets from where it stands in a snapshot (its offset, its
# children) or from how a subcommand asked for it; the rest must agree.
PLACE = {"offset", "index", "remote_count", "vport_count", "lun_count", "parent_index", "remote_ports",
         "virtual_ports", "virtual_ports_listed", "luns", "statistics", "port_count", "repeat", "ports_present",
         "ports", "status", "status_name", "fcoe_status", "fcoe_status_name", "statistics_status",
         "statistics_status_name", "error"}


class SameKeys(unittest.TestCase):
    def setUp(self):
        self.a = Answers.get()
        self.tree = self.a["snapshot"]["snapshot"]

    def same(self, record, other, what, values=()):
        keys = set(record) - PLACE
        self.assertEqual(keys - set(other), set(), what + ": keys the snapshot's record lacks")
        for k in values:
            self.assertEqual(record[k], other[k], "%s: %s" % (what, k))

    def test_the_default_is_the_snapshot(self):
        self.assertEqual(self.a["default"]["snapshot"], self.tree)

    def test_adapters(self):
        snap = self.tree["adapters"][0]
        info = self.a["adapter-info"]["adapters"][0]
        self.same(info, snap, "adapter-info", ["name", "model", "serial_number", "node_wwn", "hardware"])
        self.assertEqual(set(info) - PLACE, set(snap) - PLACE)
        self.same(self.a["adapter-stats"]["adapter"], snap, "adapter-stats", ["name", "hardware"])
        std = self.a["adapters"]["adapters"][0]
        self.same(std, snap, "adapters", ["name", "model", "firmware_version", "number_of_ports"])

    def test_ports(self):
        snap = self.tree["adapters"][0]["ports"][0]
        # The requests answer the same port with their own values (the
        # facade's port listing reports states of its own): its keys and
        # its WWNs agree.
        for name, rec in (("ports", self.a["ports"]["ports"][0]), ("port", self.a["port"]["ports"][0]),
                          ("adapters", self.a["adapters"]["adapters"][0]["ports"][0])):
            self.same(rec, snap, name, ["port_wwn", "node_wwn"])
        self.assertEqual(set(self.a["ports"]["ports"][0]) - PLACE, set(snap) - PLACE)
        self.assertEqual(self.a["port-stats"]["statistics"], snap["statistics"])
        self.assertEqual(self.a["adapters"]["adapters"][0]["ports"][0]["statistics"], snap["statistics"])

    def test_virtual_ports(self):
        snap = self.tree["adapters"][0]["ports"][1]["virtual_ports"][0]
        rec = self.a["vports"]["virtual_ports"][0]
        self.same(rec, snap, "vports", ["port_wwn", "node_wwn", "state_name"])
        self.assertEqual(set(self.a["vport-stats"]["statistics"]), set(snap["statistics"]))

    def test_remote_ports_and_luns(self):
        snap_port = self.tree["adapters"][0]["ports"][0]
        snap = snap_port["remote_ports"][0]
        rec = next(r for r in self.a["rports"]["remote_ports"] if r["port_wwn"] == snap["port_wwn"])
        self.same(rec, snap, "rports", ["port_wwn", "node_wwn", "state", "state_name", "role"])
        self.assertEqual(set(rec) - PLACE, set(snap) - PLACE)
        self.assertEqual(set(self.a["rport-stats"]["statistics"]), set(snap["statistics"]))
        vsnap = self.tree["adapters"][0]["ports"][1]["virtual_ports"][1]["remote_ports"][0]
        self.same(self.a["vport-rports"]["remote_ports"][0], vsnap, "vport-rports", ["port_wwn", "role"])
        luns = {l["device"]: l for l in snap["luns"]}
        for lun in self.a["luns"]["luns"]:
            self.same(lun, luns[lun["device"]], "luns " + lun["device"], ["hctl", "vendor", "size", "size_name"])
            self.assertEqual(set(lun) - PLACE, set(luns[lun["device"]]) - PLACE)
        vluns = {l["device"]: l for l in vsnap["luns"]}
        for lun in self.a["vport-luns"]["luns"]:
            self.same(lun, vluns[lun["device"]], "vport-luns " + lun["device"], ["hctl", "vendor"])

    def test_mapping_and_scsi_name_adapter_and_port_alike(self):
        m = self.a["mapping"]["adapters"][0]
        s = self.a["scsi-inquiry"]
        self.assertEqual(m["adapter_name"], s["adapter_name"])
        self.assertEqual(m["ports"][0]["port_num"], s["port_num"])
        self.assertEqual(m["ports"][0]["port_wwn"], s["port_wwn"])
        self.assertEqual(self.a["ports"]["adapter_name"], s["adapter_name"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
