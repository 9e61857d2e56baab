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
out=$("$tool" 2>&1); expect "no command" $? 2 "$out" 'a command is needed'
out=$("$tool" list --bogus 2>&1); expect "unknown option" $? 2 "$out" "unexpected argument for 'list': --bogus"
out=$("$tool" list --json --csv 2>&1); expect "list takes one format" $? 2 "$out" '--json excludes --csv'
out=$("$tool" list version 2>&1); expect "one command at a time" $? 2 "$out" "unexpected argument for 'list': version"
out=$("$tool" --log 6 list 2>&1); expect "--log out of range" $? 2 "$out" '--log: Value 6 not in range 0 to 5'
out=$("$tool" program --bogus app.bin 2>&1); expect "program: unknown option" $? 2 "$out" "unexpected argument for 'program': --bogus"
out=$("$tool" program --id 3 --serial X app.bin 2>&1); expect "program: one device choice" $? 2 "$out" 'excludes'
out=$("$tool" program --id three app.bin 2>&1); expect "program: bad id" $? 2 "$out" '--id: three is not a device id'
out=$("$tool" program 2>&1); expect "program needs a file" $? 2 "$out" 'FILE is required'
out=$("$tool" program /nonexistent/app.bin 2>&1); expect "program: missing file" $? 1 "$out" 'could not open /nonexistent/app.bin'

# Every command answers --help on stdout with its usage.
for command in "" list watch plugins traits version program image "image info" "image convert"; do
    # shellcheck disable=SC2086 # the command is split on purpose
    out=$("$tool" $command --help 2>/dev/null)
    expect "halyx $command --help" $? 0 "$out" "^Usage: halyx ${command:+$command }\\[OPTIONS\\]"
done

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
