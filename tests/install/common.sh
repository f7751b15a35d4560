# shellcheck shell=sh disable=SC2034 # the variables are for those scripts
# SPDX-License-Identifier: MIT
# Read by the scripts next to this file. Each gets the build folder and the compiler.
set -eu
build=$1
export CXX="$2"
here=$(dirname "$(readlink -f "$0")")
root=$(readlink -f "$here/../..")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() { echo "FAILED: $*" >&2; exit 1; }

# Runs a command, and prints its output only if it fails.
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; fail "$*"; }; }

# Configures a project: FOLDER BUILD-FOLDER [OPTION...]
configure() {
    from=$1 to=$2
    shift 2
    quietly cmake -G Ninja -S "$from" -B "$to" -DCMAKE_BUILD_TYPE=Debug "$@"
}
