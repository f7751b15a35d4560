#!/bin/sh
# SPDX-License-Identifier: MIT
# Tests sennetctl by running it as a user does: sennetctl TOOLS EXAMPLES SOURCE, which are the folders
# of the tool, of the example programs and of the project. Run it under scripts/private-bus.
set -eu
PATH=$1:$2:$PATH
source=$3
work=$(mktemp -d)
services=
# Other processes that still run end with the bus.
# shellcheck disable=SC2086 # a list of processes
trap 'rm -rf "$work"; kill $services' EXIT

fail() { printf '%s\n' "$@" >&2; exit 1; }

# Starts a program in the background, with its output in $work/NAME and $work/NAME.errors:
# NAME PROGRAM... If $work/NAME is a pipe, the caller has opened the reading end already.
start() {
    name=$1
    shift
    : >"$work/$name" # so that await does not see the output of an earlier program
    : >"$work/$name.errors"
    "$@" >>"$work/$name" 2>>"$work/$name.errors" &
    process=$!
}

# Waits until a line of a file matches: FILE PATTERN.
await() {
    until grep -Eq -- "$2" "$work/$1"; do sleep 0.02; done
}

# Ends a process and fails if its exit code is not 0: SIGNAL PROCESS
stop() {
    kill "-$1" "$2"
    wait "$2" || fail "a process that $1 ended returned $?" "$(cat "$work"/*.errors)"
}

# Fails unless the command succeeds and its output matches: PATTERN COMMAND...
shows() {
    pattern=$1
    shift
    output=$("$@") || fail "failed: $*"
    printf '%s\n' "$output" | grep -Eq -- "$pattern" || fail "no \"$pattern\" in the output of: $*" "$output"
}

# Fails unless the command fails with that code and one error line that matches:
# CODE PATTERN COMMAND...
refuses() {
    expected=$1
    pattern=$2
    shift 2
    code=0
    "$@" >/dev/null 2>"$work/errors" || code=$?
    [ "$code" = "$expected" ] || fail "exit code $code instead of $expected: $*" "$(cat "$work/errors")"
    if [ "$(wc -l <"$work/errors")" != 1 ] || ! grep -Eq -- "^sennetctl.*$pattern" "$work/errors"; then
        fail "no single line \"$pattern\" from: $*" "$(cat "$work/errors")"
    fi
}

# These monitors run during the whole test.
start monitor sennetctl monitor
monitor=$process
await monitor.errors monitoring
start records sennetctl --json monitor
records=$process
await records.errors monitoring
start pages sennetctl monitor example.app.page
pages=$process
await pages.errors monitoring

start echo echo_service
echo=$process
start app application
services="$echo $process"
shows 'example.app.page is on the bus as :1' sennetctl wait example.app.page
shows '^\{"elapsed_us":[0-9]+,"owner":":1.*"service":"example.echo"\}$' sennetctl wait example.echo -j

shows "^example.echo +$echo +:1\.[0-9]+ +.*echo_service\$" sennetctl list
shows "^\{.*echo_service\",\"owner\":\":1.*\",\"pid\":$echo,\"service\":\"example.echo\"\}\$" \
    sennetctl list --json
shows '^example.app.page ' sennetctl list

printf 'seven: \007\003\n' >"$work/bytes"
shows '^  "a": \[$' sennetctl send example.echo '{"a": [1, "é"]}'
shows '^    "é"$' sennetctl send example.echo '{"a": [1, "é"]}'
shows '^code 7 type greeting$' sennetctl send example.echo hello -c 7 -t greeting
shows '^00000000  73 65 76 65 6e 3a 20 07  03 0a +\|seven: ...\|$' \
    sennetctl send example.echo --buffer "$work/bytes"
shows '"buffer":"736576656e3a2007030a","code":4294967295,.*"json":{"a":1},"text":"{\\"a\\":1}"' \
    sennetctl --json send example.echo '{"a": 1}' --code 4294967295 --buffer "$work/bytes"
shows '^hello$' sennetctl send example.echo hello -b "$work/bytes" --reply-buffer "$work/back"
cmp "$work/bytes" "$work/back" || fail "the returned buffer differs"
[ "$(printf 'two\nlines\n' | sennetctl send example.echo -)" = "$(printf 'two\nlines')" ] ||
    fail "the text from standard input was changed"
shows '^a\\x1b\[31mb$' sennetctl send example.echo "$(printf 'a\033[31mb')"
shows '^-5$' sennetctl send example.echo -- -5
shows '{"shown":true}' sennetctl send example.app.page 'a page' -j
sennetctl send --async example.echo 'no answer wanted'
await monitor '^    no answer wanted$'
# Nested deeper than a JSON parser accepts.
shows '^\[{1500}$' sennetctl send example.echo "$(printf '%01500d' 0 | tr 0 '[')"

# JSON of 40 kB nested 90 levels deep, and a long text.
brackets=$(printf '%090d' 0 | tr 0 '[')
{ echo "$brackets"; yes '0,' | head -n 20000; echo "0$brackets" | tr '[' ']'; } | tr -d '\n' >"$work/nested"
sennetctl send example.echo - <"$work/nested" >"$work/shown"
grep -q '^\.\.\. deeper levels are on one line$' "$work/shown" || fail "no line about deeper levels"
[ "$(wc -c <"$work/shown")" -lt 50000 ] || fail "the laid out JSON is too long"
head -c 100000 /dev/zero | tr '\0' x >"$work/long"
shows '^\.\.\. cut here; the text has 100000 bytes$' sennetctl send example.echo - <"$work/long"
shows '^code 7 type x{1024}\.\.\. 1976 more bytes$' \
    sennetctl send example.echo hi -c 7 -t "$(head -c 3000 "$work/long")"

shows '^example.echo: [0-9.]+ ms$' sennetctl ping example.echo
[ "$(sennetctl ping example.echo -n 3 --json | grep -c '"elapsed_us":')" = 3 ] || fail "not 3 pings"
shows '^20 +[0-9.]+ ms +[0-9.]+ ms +[0-9.]+ ms +[0-9.]+$' sennetctl bench example.echo hi -n 20
shows '"calls":20,"calls_per_second":[1-9].*"max_us":[1-9].*"p50_us":[1-9].*"p99_us":[1-9]' \
    sennetctl bench example.echo hi -n 20 -j

start anybody sennetctl listen tick
anybody=$process
start clock sennetctl listen my.clock tick tock
clock=$process
start option sennetctl listen -j --from sennetctl tick
option=$process
start any sennetctl listen --any tick tock
any=$process
for listener in anybody clock option any; do
    await $listener.errors listening
done
sennetctl emit tick '{"n":1}' --as my.clock
sennetctl emit tock second --as my.clock --code 3
echo third | sennetctl emit tick - --buffer "$work/bytes"
await anybody 'tick from sennetctl'
await clock 'tock from my.clock code 3$'
await option '"buffer":"736576656e3a2007030a","code":0,"from":"sennetctl","signal":"tick","text":"third"'
await any 'tick from sennetctl'
for process in $anybody $clock $option $any; do
    stop TERM "$process"
done
[ "$(grep -c ' from ' "$work/anybody")" = 2 ] || fail "wrong ticks of any service:" "$(cat "$work/anybody")"
[ "$(grep -c ' from ' "$work/clock")" = 2 ] || fail "wrong signals of my.clock:" "$(cat "$work/clock")"
[ "$(wc -l <"$work/option")" = 1 ] || fail "wrong ticks of sennetctl:" "$(cat "$work/option")"
[ "$(grep -c ' from ' "$work/any")" = 3 ] || fail "wrong signals of any service:" "$(cat "$work/any")"

# A stopped reader blocks neither the sender nor the bus.
for reader in slow stuck; do
    mkfifo "$work/$reader"
done
exec 8<>"$work/slow" 9<>"$work/stuck"
start slow env SENNET_LOG_LEVEL=info sennetctl -j listen flood
slow=$process
start stuck sennetctl -j monitor
stuck=$process
await slow.errors listening
await stuck.errors monitoring
head -c 1000000 /dev/zero | tr '\0' x >"$work/long"
for _ in 1 2 3 4 5 6 7 8; do
    sennetctl emit flood - <"$work/long"
done
until [ "$(grep -c '(suss)' "$work/slow.errors")" = 8 ]; do sleep 0.02; done
kill -TERM "$stuck"
grep -Eqm 1 '^\{"dropped":[1-4],"time":"[^"]*"\}$' <&8 || fail "nothing was dropped"
stop TERM "$slow"
wait "$stuck" && fail "a monitor succeeded although its output was not read"
grep -q 'sennetctl monitor: cannot write the output: the reader does not read it$' "$work/stuck.errors" ||
    fail "$(cat "$work/stuck.errors")"

refuses 1 'no service nobody on the bus' sennetctl send nobody hi
refuses 1 'no service nobody on the bus' sennetctl ping nobody
refuses 1 'the answer reports a failure: .*"errmsg":"no"' \
    sennetctl send example.echo '{"dbus_result":"fail","errmsg":"no"}'
refuses 1 'not valid UTF-8' sennetctl send example.echo "$(printf '\377')"
refuses 1 'JSON value 12; .* quote it as a JSON string' sennetctl send example.echo '12 apples'
refuses 1 'JSON value 0; ' sennetctl send example.echo -- '- item'
head -c 5000000 /dev/zero >"$work/huge"
refuses 1 ' example.echo: cannot send .* too large for the bus$' sennetctl send example.echo --buffer "$work/huge"
refuses 1 'nonexistent.*No such file' sennetctl send example.echo --buffer "$work/nonexistent"
refuses 1 'cannot write .*No such file' sennetctl send example.echo -r "$work/nonexistent/file"
refuses 1 'service example.echo is already running' sennetctl emit tick --as example.echo
refuses 3 'nobody: did not appear on the bus within 20 ms' sennetctl wait nobody --timeout 20
refuses 2 'not a valid service name' sennetctl send "$(printf '\377')"
while IFS='|' read -r pattern arguments; do
    # shellcheck disable=SC2086 # a list of arguments
    refuses 2 "$pattern.*see \"sennetctl.*--help\"" sennetctl $arguments
done <<'END'
missing command|
unknown command "frob"|frob
Unknown option --frob|--frob list
Unknown option --frob|list --frob
unexpected argument "more"|list more
missing argument: DEST|send --json
unexpected argument "more"|send a b more
"1st" is not a valid service name|send 1st hi
"a-" is not a valid signal name|listen a a-
"a-" is not a valid signal name|emit a-
not a valid service name|emit a --as a..b
cannot be used together|listen --any --from a b
--code must be from 0|send a b --code 4294967296
--code must be from 0|send a b --code -1
Cannot parse integer value|send a b --code x
--timeout must be at least 1|send a b --timeout 0
--timeout must be at least 1|wait a --timeout -1
--async does not wait|send a b --async --timeout 9
--count must be at least 1|bench a --count 0
--count must be at least 1|ping a --count 0
END

kill -STOP "$echo"
refuses 3 'example.echo: no answer within 50 ms' sennetctl send example.echo hi --timeout 50
refuses 3 'example.echo: no answer within 50 ms' sennetctl ping example.echo --timeout 50
kill -CONT "$echo"

await monitor ' signal my.clock tock code 3$'
await monitor ' call   sennetctl -> example.echo #[0-9]+ SendMessage code 7 type greeting$'
await monitor ' reply  example.echo -> sennetctl #[0-9]+ after [0-9.]+ ms code 7 type greeting$'
await monitor '^    00000000  73 65 76 65 6e 3a 20 07  03 0a '
await monitor ' error  org.freedesktop.DBus -> sennetctl #[0-9]+ org.*ServiceUnknown after '
await records '"buffer":"736576656e3a2007030a".*"kind":"call","method":"SendMessageWithBuffer"'
await records '"buffer":"736576656e3a2007030a".*"kind":"reply","latency_us":[1-9][0-9]*,'
await records '"from":"example.app",.*"kind":"signal".*"signal":"service_start_default"'
# A caller without the library sends a body of another type to the unique name.
owner=$(sennetctl list | awk '$1 == "example.echo" { print $3 }')
busctl --system call "$owner" /example/echo/message example.echo.message \
    SendMessageWithBuffer sussay foreign 0 '' hi 1 7 >/dev/null
await records "\"body_type\":\"\(sussay\)\",.*\"destination\":\"$owner\",.*\"to\":\"example.echo\""
stop INT "$monitor"
stop TERM "$records"
await pages '^    a page$'
! grep -E ' (call|reply|error|signal) ' "$work/pages" | grep -qv page || fail "messages of other services:" "$(cat "$work/pages")"
stop INT "$pages"

escape=$(printf '\033')
if script -qec true "$work/terminal" >/dev/null 2>&1; then # a terminal is available
    shows "$escape\[1mSERVICE" env -u NO_COLOR TERM=xterm script -qec 'sennetctl list' "$work/terminal"
    shows '^SERVICE' env NO_COLOR=1 TERM=xterm script -qec 'sennetctl list' "$work/terminal"
fi
refuses 1 'No space left' sh -c 'exec sennetctl list >/dev/full'
shows '^sennetctl [0-9]+\.[0-9]+\.[0-9]+$' sennetctl --version
shows '^  monitor \[SERVICE...\] +Show the messages' sennetctl --help
shows 'sennetctl wait .*SERVICE' sennetctl wait --help
complete() {
    # shellcheck disable=SC2016 # bash expands these
    bash -c '. "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _sennetctl; echo ${COMPREPLY[*]}' \
        "$source/tools/sennetctl/sennetctl.bash" "$@"
}
# The manual and the completion have every command and option.
sed 's/\\-/-/g' "$source/tools/sennetctl/sennetctl.1" >"$work/manual"
commands=$(sennetctl --help | sed -n '/^Commands:/,/^$/s/^  \([a-z]*\) .*/\1/p')
[ -n "$commands" ] || fail "no commands in sennetctl --help"
for command in $commands; do
    grep -q "^\.BI* $command" "$work/manual" || fail "not in the manual: $command"
    shows "(^| )$command( |\$)" complete sennetctl "$command"
    for option in $(sennetctl "$command" --help | grep -o -- '--[a-z][a-z-]*'); do
        grep -q -e "$option" "$work/manual" || fail "not in the manual: $command $option"
        shows "(^| )$option( |\$)" complete sennetctl "$command" "$option"
    done
done
shows '^monitor$' complete sennetctl --json m
shows '^example.echo$' complete sennetctl send example.e
shows '^--reply-buffer$' complete sennetctl send example.echo --r

for command in list 'send a' 'listen a' 'emit a' 'wait a' 'ping a' monitor 'bench a'; do
    # shellcheck disable=SC2086 # a list of arguments
    refuses 1 'cannot connect to the system bus' \
        env DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent sennetctl $command
done

# The bus ends.
for command in 'listen tick' monitor; do
    start bus timeout 20 dbus-daemon --config-file="$source/scripts/private-bus.conf" --nofork --print-address
    bus=$process
    await bus unix
    # shellcheck disable=SC2086 # a list of arguments
    start left env DBUS_SYSTEM_BUS_ADDRESS="$(cat "$work/bus")" sennetctl $command
    await left.errors 'ing$'
    kill "$bus"
    code=0
    wait "$process" || code=$?
    [ "$code" = 1 ] || fail "exit code $code after the end of the bus: $command"
    grep -q 'the bus has gone away' "$work/left.errors" || fail "$(cat "$work/left.errors")"
done
