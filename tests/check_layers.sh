#!/usr/bin/env bash
# Layers point one way: the platform, the base layer, the engines and the
# compatibility layer never include from the plug-in above them, and no
# part of the plug-in includes from the reference host. Prints each include
# that breaks this and fails when there is one.
set -uo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}
cd "$root" || exit 2
bad=0
check() {  # check FOLDERS... -- FORBIDDEN-PREFIX...
  local dirs=() forbidden=()
  while [ "$1" != "--" ]; do dirs+=("$1"); shift; done
  shift
  forbidden=("$@")
  for f in "${forbidden[@]}"; do
    if grep -rnE "#include \"$f" "${dirs[@]}" --include=*.h --include=*.cpp; then bad=1; fi
  done
}
check platform -- linux/ Schedule/ compat/ writer/ host/
check linux Schedule compat -- writer/ host/
check linux -- Schedule/ compat/
check writer -- host/
[ $bad -eq 0 ] && echo "layers: every include points down" || echo "layers: the includes above point up"
exit $bad
