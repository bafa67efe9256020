#!/bin/sh
# The golden test: kestcap --json on a fixed selection of the shared captures
# (every decoded protocol, IPv6, VLAN, Linux SLL, tunnels, fragments,
# reordering, split headers), compared line by line with the expected output
# in tests/golden/ (and on the small captures made for it in
# tests/golden/captures/, by scripts/risk_pcap.py). A changed line is a
# change of behaviour to review: the expected files are edited by hand with
# the change that explains them.
# With --write, files missing from tests/golden/ are made (for a capture new
# to the list), never rewritten.
# Arguments: kestcap, the plug-in folder, the shared captures' folder, the
# golden folder [--write].
set -u
kestcap="$1"; plugins="$2"; shared="$3"; golden="$4"; mode="${5:-}"
# Without the captures nothing is compared: exit 77, which CTest reports as
# skipped (SKIP_RETURN_CODE), never as passed.
if [ ! -d "$shared" ]; then
  echo "no shared captures at $shared: skipped"
  exit 77
fi
attrs="--attr dns.qtype --attr dns.rcode --attr dns.answers --attr tls.alpn --attr tls.version
  --attr tls.client_fingerprint --attr quic.version --attr ssh.client_banner
  --attr ssh.server_banner --attr smtp.helo --attr smtp.mail_from --attr ftp.user
  --attr sip.request.method --attr rtsp.request.method --attr ssdp.request.method
  --attr snmp.version --attr snmp.pdu --attr syslog.facility --attr syslog.app
  --attr kerberos.msg_type --attr kerberos.cname --attr telnet.options --attr vnc.security
  --attr irc.nick --attr smb.version --attr smb.dialect --attr smb.file --attr ntlm.user
  --attr bittorrent.info_hash --attr bittorrent.client
  --attr coap.method --attr coap.uri_path --attr modbus.function --attr modbus.unit
  --attr dnp3.function --attr wireguard.sender_index --attr openvpn.opcode --attr ike.version
  --attr ike.exchange
  --attr stun.method --attr stun.software --attr stun.username
  --attr mqtt.version --attr mqtt.client_id --attr mqtt.topic
  --attr mysql.server_version --attr mysql.user --attr pgsql.user --attr pgsql.database
  --attr pgsql.application --attr tds.version --attr tds.user --attr tds.app
  --attr tls.subject --attr tls.issuer --attr tls.not_before --attr tls.not_after --attr tls.san"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
failures=0
while read -r cap; do
  case "$cap" in '' | '#'*) continue ;; esac
  # A small capture made for a golden lies in the golden folder's captures/.
  src="$shared/$cap"
  [ -f "$golden/captures/$cap" ] && src="$golden/captures/$cap"
  [ -f "$src" ] || { echo "FAIL: $cap is not among the shared captures"; failures=$((failures + 1)); continue; }
  # shellcheck disable=SC2086
  "$kestcap" --plugins "$plugins" --json $attrs "$src" >"$work/out" 2>/dev/null
  expected="$golden/$cap.jsonl"
  if [ ! -f "$expected" ]; then
    if [ "$mode" = "--write" ]; then
      cp "$work/out" "$expected"
      echo "made $expected"
      continue
    fi
    echo "FAIL: $cap: no expected output $expected"
    failures=$((failures + 1))
    continue
  fi
  if ! cmp -s "$work/out" "$expected"; then
    echo "FAIL: $cap differs from $expected:"
    diff "$expected" "$work/out" | head -20
    failures=$((failures + 1))
  fi
done <"$golden/captures.txt"
[ "$failures" -eq 0 ] && echo "golden: all captures as expected"
[ "$failures" -eq 0 ]
