#!/bin/sh
# Records multicast DNS service discovery between two avahi daemons joined by
# a veth pair in two private network namespaces, and writes it as a classic
# pcap file (tests/golden/captures/mdns-questions.pcap by default). Avahi
# puts the questions it has to ask at one moment into one message: its
# probes of a host's names (the host, its IPv4 and IPv6 reverse names) and a
# browse of many service types at once carry several questions each.
#
# Each daemon runs with a private D-Bus bus (for avahi-browse and
# avahi-resolve) and its own /run/avahi-daemon, so that nothing of the
# machine's own is touched. Needs root, avahi-daemon, avahi-utils,
# dbus-daemon and tcpdump.
#
# Usage: scripts/make_mdns_capture.sh [OUTPUT.pcap] [NAMESPACE]
set -eu

here=$(cd "$(dirname "$0")" && pwd)
out=${1:-$here/../tests/golden/captures/mdns-questions.pcap}
ns=${2:-wt-dnsquic}
peer=$ns-b
work=$(mktemp -d)
chmod 755 "$work"

cleanup() {
  set +e
  for f in "$work"/*.pid; do
    kill "$(cat "$f")" 2>/dev/null
  done
  ip netns del "$ns" 2>/dev/null
  ip netns del "$peer" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

ip netns add "$ns"
ip netns add "$peer"
ip link add mdnsa type veth peer name mdnsb
ip link set mdnsa netns "$ns"
ip link set mdnsb netns "$peer"
ip -n "$ns" addr add 10.53.0.1/24 dev mdnsa
ip -n "$peer" addr add 10.53.0.2/24 dev mdnsb
ip -n "$ns" link set mdnsa up
ip -n "$peer" link set mdnsb up

# One daemon in the current namespace (run under `ip netns exec`, which
# gives it a mount namespace of its own): name, interface.
cat >"$work/daemon.sh" <<'EOF'
#!/bin/sh
set -eu
dir=$WORK/$1
mkdir -p "$dir" /run/avahi-daemon
mount -t tmpfs none /run/avahi-daemon
cat >"$dir/avahi.conf" <<C
[server]
host-name=$1
domain-name=local
use-ipv4=yes
use-ipv6=no
allow-interfaces=$2
enable-dbus=yes
[publish]
publish-workstation=yes
C
cat >"$dir/bus.conf" <<C
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>unix:path=$dir/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*"/>
<allow receive_sender="*"/></policy></busconfig>
C
dbus-daemon --config-file="$dir/bus.conf" --fork --print-pid >"$WORK/$1-bus.pid"
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$dir/bus"
avahi-daemon --no-chroot --no-drop-root --no-rlimits -f "$dir/avahi.conf" &
echo $! >"$WORK/$1-avahi.pid"
sleep 3
EOF
chmod +x "$work/daemon.sh"
export WORK="$work"

ip netns exec "$ns" tcpdump -i mdnsa -U -w "$work/out.pcap" udp port 5353 2>/dev/null &
echo $! >"$work/tcpdump.pid"
sleep 1
ip netns exec "$peer" "$work/daemon.sh" beta mdnsb
ip netns exec "$ns" sh -c "
  '$work/daemon.sh' alpha mdnsa
  export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/alpha/bus
  avahi-browse -a -t -r -p >/dev/null
  for t in _http._tcp _ssh._tcp _ipp._tcp _printer._tcp _smb._tcp _workstation._tcp \
           _sftp-ssh._tcp _device-info._tcp; do
    timeout 3 avahi-browse -p -t \$t >/dev/null 2>&1 &
  done
  sleep 1
  avahi-resolve -n beta.local >/dev/null
  avahi-resolve -a 10.53.0.2 >/dev/null
  sleep 3
"
kill "$(cat "$work/tcpdump.pid")"
sleep 1
cp "$work/out.pcap" "$out"
echo "wrote $out ($(wc -c <"$out") bytes)"
