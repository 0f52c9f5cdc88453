#!/usr/bin/env bash
# The exposure systemd gives a unit file offline (systemd-analyze security
# --offline=yes) must be at most LIMIT. Usage: unit_exposure_test.sh UNIT LIMIT
set -euo pipefail
unit=$1 limit=$2
command -v systemd-analyze >/dev/null || { echo "FAIL systemd-analyze is missing (package systemd)"; exit 1; }
# It reads the unit's folder for drop-ins; a copy of its own keeps it to the file.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$unit" "$work/"
out=$(cd "$work" && systemd-analyze security --offline=yes --no-pager "$work/$(basename "$unit")" 2>&1) || true
score=$(sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p' <<<"$out")
if [ -z "$score" ]; then
  echo "$out"
  echo "FAIL no exposure level in systemd-analyze's answer"
  exit 1
fi
if awk -v s="$score" -v l="$limit" 'BEGIN { exit !(s <= l) }'; then
  echo "ok   $(basename "$unit"): exposure $score (at most $limit)"
else
  grep '✗' <<<"$out" || true
  echo "FAIL $(basename "$unit"): exposure $score, above $limit"
  exit 1
fi
