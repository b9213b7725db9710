#!/usr/bin/env bash
# A small internet in network namespaces, for reaching a host from outside: two homes, each
# behind its own address-translating router, that cannot reach each other, and a public
# namespace that both reach (where a relay or a coordinator runs). Needs root.
#
#   nat-network.sh up NAME       make NAME-public, NAME-host, NAME-hostnat, NAME-client, NAME-clientnat
#   nat-network.sh remap NAME    give the client's router another port block: new mappings
#   nat-network.sh down NAME     end what runs inside and remove them
#
# Addresses: the public namespace answers at 100.64.0.1; the host's home is 10.1.0.2 behind
# 100.64.1.2, the client's 10.2.0.2 behind 100.64.2.2. Run a program in one with
# `ip netns exec NAME-host PROGRAM`. Nothing leaves the namespaces made here.
set -euo pipefail

readonly public_address=100.64.0.1

in_ns() { ip netns exec "$1" "${@:2}"; }

make_namespace() {
  ip netns add "$1"
  ip -n "$1" link set lo up
  # Sysctls come from the machine's namespace: nothing forwards unless it is a router, and
  # replies may come back on any interface.
  in_ns "$1" sysctl -qw net.ipv4.ip_forward="${2:-0}" net.ipv4.conf.all.rp_filter=0 \
    net.ipv4.conf.default.rp_filter=0
}

# A cable between two namespaces, each end with its address, up.
cable() {
  local a=$1 a_if=$2 a_address=$3 b=$4 b_if=$5 b_address=$6
  ip -n "$a" link add "$a_if" type veth peer name "$b_if" netns "$b"
  ip -n "$a" address add "$a_address" dev "$a_if"
  ip -n "$b" address add "$b_address" dev "$b_if"
  ip -n "$a" link set "$a_if" up
  ip -n "$b" link set "$b_if" up
}

# The router's translation: outgoing traffic takes the outside address and a port of `ports`
# (Linux would otherwise keep the inside port, and no mapping would ever change), and only
# replies come in.
translate() {
  local router=$1 ports=$2
  in_ns "$router" nft -f - <<EOF
flush ruleset
table ip nat {
  chain postrouting {
    type nat hook postrouting priority srcnat;
    oifname "wan" meta l4proto { tcp, udp } masquerade to :$ports
    oifname "wan" masquerade
  }
}
table ip filter {
  chain forwarding {
    type filter hook forward priority filter; policy accept;
    iifname "wan" ct state established,related accept
    iifname "wan" drop
  }
}
EOF
  in_ns "$router" conntrack -F >/dev/null 2>&1 || true
}

# A home (NAME-SIDE) behind its router (NAME-SIDEnat), number `n` in the addresses.
home() {
  local name=$1 side=$2 n=$3 ports=$4
  local router=$name-${side}nat inside=$name-$side
  make_namespace "$router" 1
  make_namespace "$inside"
  cable "$name-public" "to$side" "100.64.$n.1/24" "$router" wan "100.64.$n.2/24"
  cable "$router" lan "10.$n.0.1/24" "$inside" eth0 "10.$n.0.2/24"
  ip -n "$router" route add default via "100.64.$n.1"
  # Answers from the public side leave from its one public address, whatever the socket bound.
  ip -n "$name-public" route replace "100.64.$n.0/24" dev "to$side" src "$public_address"
  ip -n "$inside" route add default via "10.$n.0.1"
  translate "$router" "$ports"
}

up() {
  make_namespace "$1-public"
  ip -n "$1-public" address add "$public_address/32" dev lo
  home "$1" host 1 20000-24999
  home "$1" client 2 25000-29999
}

remap() {
  local router=$1-clientnat
  if in_ns "$router" nft list ruleset | grep -q 25000-29999; then
    translate "$router" 30000-34999
  else
    translate "$router" 25000-29999
  fi
}

down() {
  local ns
  for ns in "$1-host" "$1-client" "$1-hostnat" "$1-clientnat" "$1-public"; do
    ip netns pids "$ns" 2>/dev/null | xargs -r kill -9 2>/dev/null || true
    ip netns del "$ns" 2>/dev/null || true
  done
}

case "${1:-}" in
  up | remap | down) [[ -n "${2:-}" ]] || { echo "usage: $0 up|remap|down NAME" >&2; exit 2; } ;;
  *) echo "usage: $0 up|remap|down NAME" >&2; exit 2 ;;
esac
if [[ $1 == up ]]; then
  down "$2"
  up "$2" || { down "$2"; exit 1; }
else
  "$1" "$2"
fi
