#!/usr/bin/python3
"""zqdiag records --json against its published schema, in the lab.

    check_records_json.py SOURCE_DIR ZQDIAG [LAUNCHER...]

For a set of scenarios and modes, runs `zqdiag records --json` in a fresh
simulated gateway and validates the output with cli/schema/
zqdiag-records.schema.json; then checks what the schema cannot say: a
verdict is null exactly when the diagnosis did not give it, and a text value
that the gateway's tools print with a line ending comes without it.
"""
import json
import os
import subprocess
import sys

import jsonschema

SRC, ZQDIAG = sys.argv[1], sys.argv[2]
LAUNCHER = sys.argv[3:]
SCHEMA = json.load(open(os.path.join(SRC, "cli", "schema", "zqdiag-records.schema.json")))
validator = jsonschema.Draft202012Validator(SCHEMA)
failures = 0


def check(ok, what):
    global failures
    if not ok:
        print("FAILED  " + what)
        failures += 1


def records(scenario, *args):
    build = os.path.dirname(os.path.dirname(os.path.abspath(ZQDIAG)))
    r = subprocess.run([os.path.join(SRC, "lab", "run"), "--scenario", scenario, "--keep", build, "--", *LAUNCHER, ZQDIAG,
                        "records", "--json", *args], capture_output=True, text=True, timeout=300)
    check(r.returncode == 0, "%s %s: exit %d\n%s" % (scenario, args, r.returncode, r.stderr[-2000:]))
    try:
        return json.loads(r.stdout)
    except ValueError as e:
        check(False, "%s %s: not JSON (%s)" % (scenario, args, e))
        return None


def wans(doc):
    return [r["fields"] for r in doc["records"] if r["type"] == "WAN_DIAG_DATA"]


# The later verdicts and the step that gives each.
LATER = {"dns_state": "dns_status", "params_state": "wan_params", "route_state": "route_status",
         "pppoe_state": "pppoe_status", "dhcp_state": "dhcp_status"}

runs = [("healthy-gpon", ()), ("healthy-gpon", ("--mode", "3")), ("wan-dual-stack", ()),
        ("pppoe-chap-failure", ()), ("dhcp-server-off", ()), ("bridge-wan", ()), ("pon-unregistered", ())]
for scenario, args in runs:
    doc = records(scenario, *args)
    if doc is None:
        continue
    name = "%s %s" % (scenario, " ".join(args))
    errors = sorted(validator.iter_errors(doc), key=str)
    check(not errors, name + ": " + "; ".join(e.message for e in errors[:5]))
    for wan in wans(doc):
        for field, step in LATER.items():
            if step not in doc["steps"]:
                check(wan[field] is None, "%s: %s is %r though %s did not run" % (name, field, wan[field], step))
        check((wan["v4_conn_state"] is None) == ("v4" not in wan["protocol"]),
              "%s: v4_conn_state %r for protocol %r" % (name, wan["v4_conn_state"], wan["protocol"]))
        check((wan["v6_conn_state"] is None) == ("v6" not in wan["protocol"]),
              "%s: v6_conn_state %r for protocol %r" % (name, wan["v6_conn_state"], wan["protocol"]))

# A healthy whole diagnosis judges its Internet WAN; the PON's texts, which
# diagM prints with a line ending, come without one.
doc = records("healthy-gpon")
if doc:
    wan = wans(doc)[0]
    check(wan["dns_state"] == 0 and wan["route_state"] == 0 and wan["params_state"] == 0,
          "healthy-gpon: the Internet WAN's verdicts %r" % {k: wan[k] for k in LATER})
    pon = [r["fields"] for r in doc["records"] if r["type"] == "PON_DIAG_DATA"][0]
    check(pon["pon_mode"] == "GPON" and pon["pon_state"] == "NORMAL", "healthy-gpon: PON texts %r" % pon)

print("%d failed" % failures)
sys.exit(1 if failures else 0)
