#!/usr/bin/env bash
# Regenerates the pictures under docs/ that the README shows, from the
# shipped example graph. Each picture is made by its own function.
#   bash scripts/make-docs.sh
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${BUILD_DIR:-build}
example=examples/graphs/handheld.json
program="$build_dir/tools/vela-power"

build_program() {
  cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" >/dev/null
  cmake --build "$build_dir" -j "$(nproc 2>/dev/null || echo 2)" --target vela-power >/dev/null
}

# The example's graph as `vela-power dot` draws it (Graphviz).
make_graph_picture() {
  "$program" dot -o docs/example-graph.svg "$example"
  echo "docs/example-graph.svg: $(wc -c < docs/example-graph.svg) bytes"
}

# The chart of the example's run (simulated time, so the same on every run).
make_run_chart() {
  "$program" run --plot docs/example-chart.svg "$example" >/dev/null
  echo "docs/example-chart.svg: $(wc -c < docs/example-chart.svg) bytes"
}

build_program
mkdir -p docs
make_graph_picture
make_run_chart
