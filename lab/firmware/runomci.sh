#!/bin/sh
# Starts the GPON management daemon.
Z=/run/zqlab
[ -n "$ZQLAB_NOJOURNAL" ] || { read -r t _ </proc/uptime; echo "$t runomci.sh${*:+ $*}" >>$Z/journal; }
/bin/omci_app
