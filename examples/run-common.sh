# For the run scripts of the examples, which get the folder of the programs and a bus of their own.
set -eu
programs=$1

# Starts a service, and waits until its name is on the bus.
start() {
    "$programs/$1" &
    service=$!
    gdbus wait --system --timeout 20 "$2"
}

# Ends it, and fails if it did not end well.
stop() {
    kill "$service"
    wait "$service"
}

# Calls a service as a foreign client: NAME JSON.
call() {
    gdbus call --system --dest "$1.message" --object-path "/$(echo "$1.message" | tr . /)" \
        --method "$1.message.SendMessage" foreign 0 '' "$2"
}

expect() {
    [ "$1" = "$2" ] || { printf 'expected: %s\nbut got:  %s\n' "$2" "$1" >&2; exit 1; }
}
