#!/usr/bin/env bash
# The command-line tool against a context with no device attached: output
# shapes, exit codes and the error line of a failing call.
set -u
tool="$1"
passed=0
failed=0

expect() { # description, command status, expected status, output, pattern
    local what="$1" status="$2" want="$3" output="$4" pattern="$5"
    if [ "$status" -eq "$want" ] && grep -qE -- "$pattern" <<<"$output"; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        printf 'FAIL: %s (status %s, wanted %s)\n%s\n' "$what" "$status" "$want" "$output"
    fi
}

out=$("$tool" plugins 2>&1); expect "plugins is a JSON array" $? 0 "$out" '^\[.*\]$'
out=$("$tool" traits 2>&1); expect "traits is a JSON array" $? 0 "$out" '^\[.*\]$'
out=$("$tool" version 2>&1); expect "version names the library" $? 0 "$out" '"moduleName": "halyx"'
out=$("$tool" list --json 2>&1); expect "list --json has devices" $? 0 "$out" '"devices"'
out=$("$tool" list --csv 2>&1); expect "list --csv starts with the header" $? 0 "$(head -n1 <<<"$out")" '^serialnumber;serialports$'
out=$("$tool" list --filter jlink 2>&1); expect "list prints a table" $? 0 "$out" '^ID +SERIAL NUMBER'
out=$("$tool" --log 1 list 2>&1); expect "--log shows library lines" $? 0 "$out" 'DeviceLister::enumerate: done'
out=$(timeout --preserve-status -s INT 1 "$tool" watch 2>&1); expect "watch with nothing attached prints nothing and ends on Ctrl-C" $? 0 "$out" '^$'
out=$("$tool" frobnicate 2>&1); expect "unknown command" $? 2 "$out" 'unknown command: frobnicate'
out=$("$tool" list --bogus 2>&1); expect "unknown option" $? 2 "$out" "unexpected argument for 'list': --bogus"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
