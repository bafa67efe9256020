#!/bin/sh
# Installs the build and test dependencies on a Debian machine, if missing.
set -eu
need=""
for pkg in cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev libpcap-dev \
  jq tcpdump python3 time \
  python3-pybind11 pybind11-dev python3-pandas python3-pytest curl iproute2 \
  libseccomp-dev libjemalloc-dev help2man man-db logrotate systemd; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need="$need $pkg"
done
# IPFIX export is tested against nfdump's collector and read back by tshark.
for pkg in nfdump tshark; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need="$need $pkg"
done
# Live capture's test and scripts/live_rate.sh: a veth pair in a network
# namespace, captures replayed into it.
for pkg in iproute2 tcpreplay; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need="$need $pkg"
done
# scripts/attr_check.py (and its test) holds kest's attributes against tshark's.
dpkg -s tshark >/dev/null 2>&1 || need="$need tshark"
if [ -n "$need" ]; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -q
  # shellcheck disable=SC2086
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q $need
fi
