#!/usr/bin/env bash
# Checks the configured systemd units: `systemd-analyze verify` accepts the
# system and per-user units, and the system service's exposure
# (`systemd-analyze security --offline=yes`) is at most 3.0.
# Usage: units.sh BUILD_DIR. Exit 77 (skipped) without systemd-analyze.
set -euo pipefail
build=$(cd "$1" && pwd)
if ! command -v systemd-analyze >/dev/null; then
  echo "SKIPPED: systemd-analyze is not installed (Debian package systemd)"
  exit 77
fi
work=$(mktemp -d /tmp/tvd-units-XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# verify insists that ExecStart names an executable: point the units at the
# built daemon instead of the not yet installed one.
installed=$(sed -n 's|^ExecStart=||p' "$build/systemd/system/tvd.service")
for scope in system user; do
  mkdir -p "$work/$scope"
  for unit in tvd.socket tvd.service; do
    sed "s|^ExecStart=$installed|ExecStart=$build/tvd|" "$build/systemd/$scope/$unit" >"$work/$scope/$unit"
  done
done
# verify exits 0 on mere warnings (an unknown key is ignored with one), so
# any output fails too. A user manager needs a runtime directory, which a CI
# shell may lack.
mkdir -m 0700 "$work/xdg"
for scope in system user; do
  out=$(cd "$work/$scope" && XDG_RUNTIME_DIR=$work/xdg systemd-analyze "--$scope" verify --man=no \
          ./tvd.socket ./tvd.service 2>&1) || fail "verify: $scope units: $out"
  [ -z "$out" ] || fail "verify: $scope units: $out"
done

report=$(cd "$work/system" && systemd-analyze security --offline=yes ./tvd.service)
exposure=$(sed -n 's/.*Overall exposure level for tvd.service: \([0-9.]*\).*/\1/p' <<<"$report")
[ -n "$exposure" ] || fail "no exposure figure in: $report"
echo "system tvd.service exposure: $exposure"
awk -v e="$exposure" 'BEGIN { exit !(e <= 3.0) }' || { grep '✗' <<<"$report"; fail "exposure $exposure is above 3.0"; }
