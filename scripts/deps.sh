#!/bin/sh
# Installs the build and test dependencies on a Debian machine, if missing.
set -eu
need=""
for pkg in cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev libpcap-dev \
  jq tcpdump python3 time libseccomp-dev help2man man-db logrotate systemd iproute2; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need="$need $pkg"
done
if [ -n "$need" ]; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -q
  # shellcheck disable=SC2086
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q $need
fi
