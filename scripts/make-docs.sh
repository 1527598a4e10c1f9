#!/usr/bin/env bash
# Regenerates the pictures the README shows, under docs/, from the shipped
# example. One function per picture; run after building vela-power.
#
#   scripts/make-docs.sh [BUILD_DIR]      (default: build)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
program=$build/tools/vela-power
example=$root/examples/graphs/handheld.json
docs=$root/docs

# The example's graph as `vela-power dot` draws it (Graphviz).
example_graph() {
    "$program" dot -o "$docs/example-graph.svg" "$example"
    echo "docs/example-graph.svg: $(wc -c <"$docs/example-graph.svg") bytes"
}

# The chart of the example's run (on simulated time: the same on every run).
example_chart() {
    "$program" run --plot "$docs/example-chart.svg" "$example" >/dev/null
    echo "docs/example-chart.svg: $(wc -c <"$docs/example-chart.svg") bytes"
}

main() {
    if [[ ! -x $program ]]; then
        echo "make-docs: $program not found; build the vela-power target first" >&2
        exit 2
    fi
    mkdir -p "$docs"
    example_graph
    example_chart
}

main
