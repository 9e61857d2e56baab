#!/usr/bin/env bash
# The simulator programs' command lines: --help, refused options, and
# halyx-sim-smp naming its terminal and printing a JSON summary when stopped.
set -u
smp="$1"
sim="${2:-}"
failed=0
fail() { echo "FAIL: $*"; failed=1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

out=$("$smp" --help) || fail "halyx-sim-smp --help exited with $?"
grep -q -- "--profile" <<<"$out" || fail "halyx-sim-smp --help does not list --profile"
err=$("$smp" --write-block 0 2>&1 >/dev/null) && fail "--write-block 0 was accepted"
grep -q -- "--write-block" <<<"$err" || fail "nothing said about --write-block: $err"
err=$("$smp" --bogus 2>&1 >/dev/null) && fail "an unknown option was accepted"
grep -q -- "--bogus" <<<"$err" || fail "nothing said about --bogus: $err"
"$smp" --frame-max 127 >/dev/null 2>&1 && fail "--frame-max without --pack-max was accepted"

"$smp" --profile permissive --image-out "$work/image.bin" >"$work/out" &
pid=$!
for _ in $(seq 200); do [ -s "$work/out" ] && break; sleep 0.05; done
port=$(head -1 "$work/out")
[ -c "$port" ] || fail "no terminal named: '$port'"
kill -INT "$pid"
wait "$pid" || fail "halyx-sim-smp exited with $? when interrupted"
/usr/bin/python3 - "$work/out" <<'PY' || fail "summary: $(tail -1 "$work/out")"
import json, sys
summary = json.loads(open(sys.argv[1]).read().splitlines()[-1])
sys.exit(0 if summary["uploads"] == 0 and summary["image_bytes"] == 0 and summary["reboots"] == 0 else 1)
PY
[ -f "$work/image.bin" ] || fail "no image file written"

if [ -n "$sim" ]; then
    "$sim" --help | grep -q "mcuboot-align8" || fail "halyx-sim --help does not list mcuboot-align8"
    err=$("$sim" --kit nope -- true 2>&1 >/dev/null) && fail "halyx-sim took an unknown kit"
    grep -q "unknown kit: nope" <<<"$err" || fail "nothing said about the unknown kit: $err"
    err=$("$sim" --image-out x -- true 2>&1 >/dev/null) && fail "halyx-sim took --image-out without a kit"
fi
[ "$failed" -eq 0 ] && echo "simulator command lines as expected"
exit "$failed"
