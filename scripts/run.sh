#!/usr/bin/env bash
# The main job: install what is needed, build, and show every adapter and
# port of the simulated system (the embedded default fabric) through the
# plug-in, loaded the way an HBA API front library loads it.
# Arguments go to the command-line program, e.g. scripts/run.sh --json
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh >&2
scripts/build.sh >&2   # keep standard output for the answer (JSON stays parseable)
exec build/bin/mirvak-simhost run -- build/bin/mirvak-hba "$@"
