#!/usr/bin/env bash
# Writes the seed corpus of fuzz_requests (fuzz/corpus/fuzz_requests/): the
# situations of the shipped example and of the handler tests, spelled as the
# fuzzer's input, one byte per decision in the order a run makes them:
#   log level; modules (count, then per module: no revoke path?, no
#   post-revoke path?); power manager unregistered?; resources (count, then
#   per resource: default time-out? [else time-out], no enable write?, no
#   disable write?, enable path unserved?, disable path unserved?, per
#   module: starting claim? + action);
#   targets (count, per target: claims? [+ per module]); edges (count, then
#   from + to per edge); per target and resource: 0 none / 1 enables /
#   2 disables, then reachable list? [+ per target]; number of wishes; then
#   each wish (target?: which / resource: which, module, action) with the
#   platform's answers to the calls it causes (0 at once, 1 later, 2 error,
#   3 twice, 4 never), whether an answered caller or nextTargetChanged makes
#   a nested wish, and what happens before the next wish (0 nothing,
#   1 events once, 2 settle). Past the end every decision is 0.
# Decision bytes that fall elsewhere than intended still make a valid run;
# VELA_FUZZ_TRACE=1 build-fuzz/fuzz/fuzz_requests <seed> shows what a seed does.
set -euo pipefail
cd "$(dirname "$0")"
out=corpus/fuzz_requests
mkdir -p "$out"

seed() {
  local name=$1
  shift
  local bytes=""
  for byte in "$@"; do
    bytes+="\\x$byte"
  done
  printf "$bytes" >"$out/$name"
}

# One module uses the only resource; the only target switches it off; the
# revoke message is never answered until the run is quiet.
seed revoke-never-answered \
  00  00 00 00 00  00  00 00 00 00 00 00 02 01  01 00  02 00  00  02 00  00 04  00  00

# A resource write that is never answered times out; the answer comes late;
# then the module releases the resource, answered from the event loop.
seed write-times-out \
  00  00 00 00 00  00  00 0a 00 00 00 00 00  00  01  00 00 00 01 04  02  00  00 00 00 02 01  00  00

# The module holds the resource the target would switch off: the target is
# unreachable and its caller gets an error.
seed unreachable-target \
  00  00 00 00 00  00  00 00 00 00 00 00 02 00  01 00  02 00  00  02 00 00  00

# Refusals: empty records, an unknown target, an unknown resource, a module
# nobody registered.
seed refusals \
  00  00 00 00 00  00  00 00 00 00 00 00 00  01 00  01 00  04  02 02 00 00  02 01 00 00  00 02 00 00 \
  00 01 00 00 00 00  00 00 02 01 00 00

# The power manager's own module is not registered: target wishes are refused.
seed no-power-manager-module \
  00  00 00 00 0f  00  00 00 00 00 00 00 00  01 00  01 00  01  02 00 00  00  00 00 00 01 00 00

# Nested wishes: each answer makes the next wish from inside the caller's
# continuation, and nextTargetChanged makes one too.
seed nested-wishes \
  00  01 00 00 00 00  00  01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00  02 00 00  00  01 00 01 00 01 00  0f \
  02 00 03  00 00 00 00 00 03  00 01 00 01 00 03 00 01 00 00 00 03

# Answers later, with errors and twice, every record logged.
seed mixed-answers-logged \
  07  01 00 00 00 00 00  02 00 05 00 00 00 00 00 00  00 05 00 00 00 00 00 00  00 05 00 00 00 00 00 00  01 00 \
  02 00 00 01 00  01 01 01 00  05  02 00 00 01 02 03 00 02  00 00 01 01 00 00  00 02 00 02 00 01 \
  02 00 00 00  00 01 00 00 04 02  00 00 01 02 00 00

# The shipped example: three modules, six resources (display requires the
# backlight), four targets with their reachable lists, and its requests.
seed handheld \
  00  02 00 00 00 00 00 00  00 \
  05  00 0a 00 00 00 00 00 00 00  00 0a 00 00 00 00 00 00 00  00 0a 00 00 00 00 00 02 02 00  00 0a 00 00 00 00 00 00 00 \
  00 0a 00 00 00 00 00 00 02 02  00 03 00 00 00 00 00 00 00 \
  04 00 00 00 00 \
  01 00 00 \
  02 02 02 02 02 02 01 00 00 00 00 \
  02 02 02 02 02 02 01 00 00 00 01 \
  02 00 02 02 02 02 01 00 01 00 01 \
  01 00 00 01 00 00 01 01 00 01 00 \
  07 \
  02 03 00 00 00 00 00 00 00 00 00 00 02 \
  00 02 01 01 00 00 00 \
  00 04 02 01 01 00 00 \
  00 05 00 01 04 02 \
  02 01 00 01 00 00 00 00 00 00 00 02 \
  02 02 00 00 00 00 00 00 00 00 02 \
  02 03 00 00 00 00 00 00 00 00 02 \
  00 04 02 01 00 00
