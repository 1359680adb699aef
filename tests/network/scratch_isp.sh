#!/bin/sh
# scratch_isp.sh IFACE KIND [ARGS...]
# A stand-in ISP for one WAN interface of the lab's gateway: IFACE is
# created as one end of a veth pair whose other end ("isp-IFACE") goes into
# a network namespace of its own, where KIND runs:
#   pppoe ARGS  the lab's access concentrator (pppoe server ... ARGS)
#   dhcp ARGS   dnsmasq as DHCP server (ARGS added to its command line)
#   none        nothing answers
# The namespace lives as long as the lab.
set -e
ifc=$1 kind=$2
shift 2
L=$(cat /run/zqlab/cachedir)/layer/libexec
ip link add name "$ifc" type veth peer name unused >/dev/null
peer=$(ip -o link show "$ifc" | sed -n 's/^[0-9]*: [^@]*@\([^:]*\):.*/\1/p')
isp=isp-$ifc
ip link set "$peer" name "$isp"
ip link set "$ifc" up
unshare -n sh -c 'while :; do sleep 3600; done' </dev/null >/dev/null 2>&1 &
ns=$!
while [ "$(readlink /proc/$ns/ns/net)" = "$(readlink /proc/self/ns/net)" ]; do usleep 1000; done
ip link set "$isp" netns $ns
in_ns() { nsenter -t $ns -n "$@"; }
in_ns ip link set lo up
in_ns ip link set "$isp" up
case $kind in
pppoe)
    in_ns $L/pppoe server "$isp" "$@" </dev/null >/dev/null 2>/run/zqlab/ac-$ifc.log &
    ;;
dhcp)
    in_ns ip addr add 198.51.100.1/24 dev "$isp"
    in_ns /usr/sbin/dnsmasq --port=0 --bind-interfaces --interface="$isp" --dhcp-range=198.51.100.10,198.51.100.50,1h \
        --no-resolv --no-hosts --no-ping --dhcp-leasefile=/run/zqlab/leases-$ifc --pid-file=/run/zqlab/dnsmasq-$ifc.pid \
        --log-facility=/run/zqlab/dnsmasq-$ifc.log "$@" </dev/null >/dev/null 2>&1
    ;;
esac
# The link is up on both ends once the gateway's side has its carrier.
n=0
while [ $n -lt 500 ] && ! ip link show "$ifc" | grep -q LOWER_UP; do usleep 1000; n=$((n + 1)); done
