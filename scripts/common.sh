# For the scripts beside this file: `. "$(dirname "$0")/common.sh"`.
set -eu
cd "$(dirname "$(readlink -f "$0")")/.."

say() { printf '== %s\n' "$*"; }

# Installs the Debian packages that are missing.
need() {
    missing=
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
            missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    say "Installing$missing"
    as_root=
    if [ "$(id -u)" != 0 ]; then
        command -v sudo >/dev/null || { say "Install these as root first"; return 1; }
        as_root=sudo
    fi
    $as_root apt-get update -q
    # shellcheck disable=SC2086 # a list of words each
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends $missing
}

# Configures one preset of CMakePresets.json in build/PRESET.
configure() {
    need g++ cmake ninja-build pkg-config libglib2.0-dev libjsoncpp-dev libgtest-dev \
        dbus-daemon systemd libglib2.0-bin dpkg-dev file
    configured=$(cmake --preset "$1" 2>&1) || { echo "$configured"; return 1; }
}

# The same, and builds it, with further arguments for the build.
build() {
    preset=$1
    shift
    say "Building preset \"$preset\" in build/$preset"
    configure "$preset"
    cmake --build --preset "$preset" "$@"
}
