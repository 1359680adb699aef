#!/usr/bin/python3
"""check_records_json.py SOURCE_DIR ZQDIAG [LAUNCHER...]: `zqdiag records --json` in a fresh lab per scenario
against cli/schema/zqdiag-records.schema.json, and what the schema cannot say: a verdict is null exactly when
the diagnosis did not give it, and a text the gateway's tools print with a line ending comes without it."""
import json
import os
import subprocess
import sys

import jsonschema

SRC, ZQDIAG, LAUNCHER = sys.argv[1], sys.argv[2], sys.argv[3:]
validator = jsonschema.Draft202012Validator(json.load(open(os.path.join(SRC, "cli/schema/zqdiag-records.schema.json"))))
BUILD = os.path.dirname(os.path.dirname(os.path.abspath(ZQDIAG)))
# The later verdicts and the step that gives each.
LATER = {"dns_state": "dns_status", "params_state": "wan_params", "route_state": "route_status",
         "pppoe_state": "pppoe_status", "dhcp_state": "dhcp_status"}
failures = 0


def check(ok, what):
    global failures
    if not ok:
        print("FAILED  " + what)
        failures += 1


def fields(doc, record_type):
    return [r["fields"] for r in doc["records"] if r["type"] == record_type]


for scenario, args in [("healthy-gpon", ()), ("healthy-gpon", ("--mode", "3")), ("wan-dual-stack", ()),
                       ("pppoe-chap-failure", ()), ("dhcp-server-off", ()), ("bridge-wan", ()),
                       ("pon-unregistered", ())]:
    name = "%s %s" % (scenario, " ".join(args))
    r = subprocess.run([os.path.join(SRC, "lab", "run"), "--scenario", scenario, "--keep", BUILD, "--", *LAUNCHER,
                        ZQDIAG, "records", "--json", *args], capture_output=True, text=True, timeout=300)
    check(r.returncode == 0, "%s: exit %d\n%s" % (name, r.returncode, r.stderr[-2000:]))
    doc = json.loads(r.stdout)  # not JSON: the script fails with the parser's words
    errors = sorted(validator.iter_errors(doc), key=str)
    check(not errors, name + ": " + "; ".join(e.message for e in errors[:5]))
    for wan in fields(doc, "WAN_DIAG_DATA"):
        for field, step in LATER.items():
            if step not in doc["steps"]:
                check(wan[field] is None, "%s: %s is %r though %s did not run" % (name, field, wan[field], step))
        for family in ("v4", "v6"):
            state = wan[family + "_conn_state"]
            check((state is None) == (family not in wan["protocol"]),
                  "%s: %s_conn_state %r for protocol %r" % (name, family, state, wan["protocol"]))
    if (scenario, args) == ("healthy-gpon", ()):
        # A healthy whole diagnosis judges its Internet WAN; the PON's texts come without diagM's line ending.
        wan = fields(doc, "WAN_DIAG_DATA")[0]
        check(wan["dns_state"] == 0 and wan["route_state"] == 0 and wan["params_state"] == 0,
              "healthy-gpon: the Internet WAN's verdicts %r" % {k: wan[k] for k in LATER})
        pon = fields(doc, "PON_DIAG_DATA")[0]
        check(pon["pon_mode"] == "GPON" and pon["pon_state"] == "NORMAL", "healthy-gpon: PON texts %r" % pon)

print("%d failed" % failures)
sys.exit(1 if failures else 0)
