#!/usr/bin/env bash
# Replays recorded sessions against the real service and compares what the service sent on the
# bus with the session's expected output.
#
#   scripts/regress.sh [--update] [--build DIR] [SESSION_DIR...]
#
# Default: every folder under tests/sessions/. A session folder holds session.bus (a
# `pm-bus record` file cut to the recorder's side), session.conf and expected.txt. --update
# rewrites expected.txt instead of comparing. Exit 0 when every session matched.
set -uo pipefail

SRC=$(cd "$(dirname "$0")/.." && pwd)
BUILD_DIR="$SRC/build"
UPDATE=0
sessions=()
while [ $# -gt 0 ]; do
  case "$1" in
    --update) UPDATE=1 ;;
    --build) BUILD_DIR=$2; shift ;;
    -h|--help) sed -n '2,9p' "$0"; exit 0 ;;
    *) sessions+=("$1") ;;
  esac
  shift
done
[ ${#sessions[@]} -gt 0 ] || sessions=("$SRC"/tests/sessions/*/)
BIN=$(cd "$BUILD_DIR" && pwd)/bin
PY=/usr/bin/python3

# Waits up to 10 s for a line matching $2 in file $1.
wait_for() {
  local i
  for ((i = 0; i < 200; i++)); do
    grep -qE "$2" "$1" 2>/dev/null && return 0
    sleep 0.05
  done
  echo "regress: timed out waiting for '$2' in $1" >&2
  return 1
}

# session.conf: "scenario FILE" (the recorder root and its ttys; relative to the source tree),
# "from LIST" (the senders that the replay plays), "ignore LIST" (ids left out of the
# comparison), "companion CMD ARGS..." (run beside the service; @ROOT@ is the root, @SESSION@
# the session's folder, @BIN@ the build's bin/; a CMD without a slash is a program of bin/),
# "ready PATTERN" (the service starts once the companions' output has a line matching it).
conf() { sed -n "s/^$1[[:space:]]\+//p" "$2/session.conf"; }

# The normal form of what the service sent: see docs/tools.md, "Record, replay and regress".
normalize() {
  "$PY" - "$@" <<'PYEOF'
import sys
actual, session, senders, ignored = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4]
ours = {int(s, 0) for s in senders.split(",") if s}
skip = {int(s, 0) for s in ignored.split(",") if s} | {0x00FFFF01}
def messages(path):
    for line in open(path):
        w = line.split(" | ", 1)
        head = w[0].split()
        if line.startswith("#") or len(head) != 7:
            continue
        yield (int(head[1], 0), head[2], int(head[3][5:]), int(head[4][4:]), head[5],
               head[6], w[1].strip() if len(w) > 1 else "")
recorded = {(m[0], m[6]) for m in messages(session) if m[4] == "answer"}
requester, groups = {}, {}
for m in messages(actual):
    ident, name, sender, seq, flags, length, payload = m
    if flags == "request":
        requester[(ident | 0x8000, seq)] = sender
    if sender in ours or ident in skip:
        continue
    # The replay's answers to the service's requests are the recording's, not the service's.
    if flags == "answer" and requester.get((ident, seq)) not in ours and (ident, payload) in recorded:
        continue
    line = "0x%08x %s from=%d %s %s | %s" % (ident, name, sender, flags, length, payload)
    seen = groups.setdefault(ident, [])
    if line not in seen:
        seen.append(line)
for ident in sorted(groups):
    print("\n".join(groups[ident]))
PYEOF
}

# Runs one session in $2 (a scratch folder); the service's bus traffic ends up in $2/actual.bus.
run_session() {
  local dir=$1 tmp=$2 scenario from pid
  # Whatever way the session ends, nothing it started outlives it: a program left behind
  # would hold the caller's output open (and a test runner waiting on it).
  pids=()
  trap 'for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null; done; wait' EXIT
  scenario="$SRC/$(conf scenario "$dir")"
  from=$(conf from "$dir")
  export RECORDER_BUS="$tmp/bus" PM_LOG_LEVEL=${PM_LOG_LEVEL:-1}
  # The root's ttys come from a simulator on a bus of its own: on the session's bus the
  # recorder is the replay.
  RECORDER_BUS="$tmp/tty-bus" "$BIN/pm-recorder" -q --make-root "$tmp/root" "$scenario" \
    </dev/null >/dev/null 2>"$tmp/recorder.log" &
  pids+=($!)
  "$BIN/pm-bus" broker 2>"$tmp/broker.log" &
  pids+=($!)
  wait_for "$tmp/recorder.log" "running" && wait_for "$tmp/broker.log" "broker running" || return 1
  while read -r cmd; do
    [ -n "$cmd" ] || continue
    cmd=${cmd//@ROOT@/$tmp/root}
    cmd=${cmd//@SESSION@/$(cd "$dir" && pwd)}
    eval "set -- ${cmd//@BIN@/$BIN}"
    case "$1" in */*) ;; *) set -- "$BIN/$1" "${@:2}" ;; esac
    "$@" </dev/null >>"$tmp/companions.log" 2>&1 &
    pids+=($!)
  done < <(conf companion "$dir")
  # A companion that drives a device must have it open, and watch the bus, before the service
  # looks for it.
  local ready
  ready=$(conf ready "$dir")
  if [ -n "$ready" ]; then wait_for "$tmp/companions.log" "$ready" || return 1; fi
  "$BIN/pm-bus" record "$tmp/actual.bus" 2>"$tmp/record.log" &
  local record=$!
  pids+=($record)
  wait_for "$tmp/record.log" "recording" || return 1
  # --sync: the recording meets the service where it began, however slowly it starts.
  "$BIN/pm-bus" replay "$dir/session.bus" --from "$from" --sync 2>"$tmp/replay.log" &
  local replay=$!
  pids+=($replay)
  wait_for "$tmp/replay.log" "replaying" || return 1
  RECORDER_ROOT="$tmp/root" PM_LOG_FILE="$tmp/service.log" "$BIN/pm-host" \
    >/dev/null 2>"$tmp/host.log" &
  local host=$!
  pids+=($host)
  wait "$replay" || { echo "regress: the replay failed: $(cat "$tmp/replay.log")" >&2; return 1; }
  kill -TERM "$host" && wait "$host"
  kill -TERM "$record" && wait "$record"
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null && wait "$pid"; done
  return 0
}

failed=0
for dir in "${sessions[@]}"; do
  dir=${dir%/}
  name=$(basename "$dir")
  tmp=$(mktemp -d "${TMPDIR:-/tmp}/pm-regress.XXXXXX")
  started=$(date +%s.%N)
  if ! (run_session "$dir" "$tmp"); then
    echo "FAIL  $name (could not run; files kept in $tmp)"
    failed=1
    continue
  fi
  normalize "$tmp/actual.bus" "$dir/session.bus" "$(conf from "$dir")" "$(conf ignore "$dir")" \
    >"$tmp/actual.txt"
  took=$(printf '%.1f' "$(echo "$(date +%s.%N) - $started" | bc)")
  if [ "$UPDATE" = 1 ]; then
    cp "$tmp/actual.txt" "$dir/expected.txt"
    echo "wrote $name/expected.txt ($(wc -l <"$dir/expected.txt") lines, ${took} s)"
  elif diff -u --label "$name/expected.txt" --label "$name/actual" "$dir/expected.txt" \
      "$tmp/actual.txt"; then
    echo "ok    $name (${took} s)"
  else
    echo "FAIL  $name (${took} s; files kept in $tmp)"
    failed=1
    continue
  fi
  [ "${KEEP:-0}" = 1 ] || rm -rf "$tmp"
done
exit $failed
