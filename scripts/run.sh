#!/usr/bin/env bash
# The main job: install what is needed, build, and show the whole simulated
# system (the embedded default fabric) as the plug-in's snapshot gives it, as
# a tree: adapters, ports, remote ports, virtual ports and LUNs, one line
# each. Arguments go to the command-line program after the subcommand, e.g.
#   scripts/run.sh --json          (the snapshot as JSON)
#   scripts/run.sh --fields        (every field of every record)
# Another subcommand instead of the snapshot: scripts/run.sh --do adapters
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh >&2
scripts/build.sh >&2   # keep standard output for the answer (JSON stays parseable)
if [ "${1:-}" = "--do" ]; then
  shift
  exec build/bin/mirvak-simhost run -- build/bin/mirvak-hba "$@"
fi
exec build/bin/mirvak-simhost run -- build/bin/mirvak-hba snapshot "$@"
