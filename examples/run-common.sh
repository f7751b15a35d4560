# shellcheck shell=sh
# SPDX-License-Identifier: MIT
# Read by the run scripts of the examples. Each gets the folder of the programs and a private bus.
set -eu
programs=$1

# Starts a service and waits until its name is on the bus: PROGRAM NAME [ARGUMENT...]
start() {
    program=$1
    name=$2
    shift 2
    "$programs/$program" "$@" &
    service=$!
    gdbus wait --system --timeout 20 "$name"
}

# Ends the service, and fails if it failed.
stop() {
    kill "$service"
    wait "$service"
}

# Calls a service without the library: NAME JSON.
call() {
    gdbus call --system --dest "$1.message" --object-path "/$(echo "$1.message" | tr . /)" \
        --method "$1.message.SendMessage" foreign 0 '' "$2"
}

expect() {
    [ "$1" = "$2" ] || { printf 'expected: %s\nbut got:  %s\n' "$2" "$1" >&2; exit 1; }
}
