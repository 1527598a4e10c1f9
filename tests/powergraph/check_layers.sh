#!/usr/bin/env bash
# The graph library stands on its own: none of its files includes a header of
# the simulation or of the programs above it; the simulation includes none of
# the programs'; the service includes nothing of the simulation. Prints each offending include; exit 1 when any.
set -uo pipefail
source_dir=$1
headers_of() {
  find "$source_dir/$1" -name '*.h' -printf '%f\n'
}
status=0
check() {
  local layer=$1
  shift
  for above in "$@"; do
    for header in $(headers_of "$above"); do
      if grep -n "#include \"$header\"" "$source_dir/$layer"/*.h "$source_dir/$layer"/*.cpp; then
        echo "$layer includes $above/$header"
        status=1
      fi
    done
  done
}
check lib/powergraph lib/powersim tools/cli tools/vela-power
check lib/powersim tools/cli tools/vela-power
# The service runs on hardware: no simulation, no vela-power.
check service lib/powersim tools/vela-power
[ $status -eq 0 ] && echo "layers check passed"
exit $status
