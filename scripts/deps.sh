#!/bin/sh
# Installs the build and test dependencies on a Debian machine, if missing.
set -eu
need=""
for pkg in cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev libpcap-dev \
  jq tcpdump python3 time; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need="$need $pkg"
done
# Live capture's test and scripts/live_rate.sh: a veth pair in a network
# namespace, captures replayed into it.
for pkg in iproute2 tcpreplay; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need="$need $pkg"
done
if [ -n "$need" ]; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -q
  # shellcheck disable=SC2086
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q $need
fi
