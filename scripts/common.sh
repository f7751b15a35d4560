# shellcheck shell=sh
# SPDX-License-Identifier: MIT
# Shared by the scripts in this folder, which read it and then run in the root of the project:
# `. "$(dirname "$(readlink -f "$0")")/common.sh"`
set -eu
cd "$(dirname "$(readlink -f "$0")")/.."

say() { printf '== %s\n' "$*"; }

# Lists the files of the project that git tracks or would add: project_files [PATTERN...]
project_files() {
    git -c safe.directory="$PWD" ls-files --cached --others --exclude-standard -- "$@"
}

# Lists the shell scripts among them: those with a "#!" line, and those that others read.
shell_scripts() {
    project_files '*' | while IFS= read -r file; do
        case $file in
        *.sh | *.bash) echo "$file" ;;
        *) head -n 1 "$file" | grep -aq '^#!.*sh$' && echo "$file" ;;
        esac
    done || true # the last file may be no script
}

# Configures a preset of CMakePresets.json in build/PRESET: configure PRESET [OPTION...]
# SENNET_WERROR=ON turns the warnings of the compiler into errors.
configure() {
    configured=$(cmake --preset "$@" \
        -DCMAKE_COMPILE_WARNING_AS_ERROR="${SENNET_WERROR:-OFF}" 2>&1) ||
        { echo "$configured"; return 1; }
}

# Configures a preset and builds it: build PRESET [OPTION OF THE BUILD...]
build() {
    preset=$1
    shift
    say "Building preset \"$preset\" in build/$preset"
    configure "$preset"
    cmake --build --preset "$preset" "$@"
}
