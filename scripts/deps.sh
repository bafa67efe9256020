#!/bin/sh
# Installs the build and test dependencies on a Debian machine, if missing.
set -eu
need=""
for pkg in cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev libpcap-dev \
  jq tcpdump python3 time; do
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
