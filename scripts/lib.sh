# shellcheck shell=sh
# Shared by the commands in scripts/ and .ci/. Source it from a script one directory below the project's root:
#   . "$(dirname "$0")/lib.sh"
set -eu

KOVA_ROOT=$(cd "$(dirname "$0")/.." && pwd)
# Where the build trees are made, one directory per preset.
KOVA_BUILD_ROOT=${KOVA_BUILD_ROOT:-$KOVA_ROOT/build}

say() { printf '== %s\n' "$*"; }

die() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# usage: prints the comment at the head of the calling script.
usage() { sed -n '2,/^$/ s/^# \{0,1\}//p' "$0"; }

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        die "needs root or sudo for: $*"
    fi
}

apt() { as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=300 "$@"; }

# missing_packages PKG...: those of the packages that are not installed, one per line.
missing_packages() (
    for package in "$@"; do
        status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) || :
        [ "$status" = installed ] || echo "$package"
    done
)

# ensure_packages PKG...: installs the Debian packages that are missing. Silent when all are there.
ensure_packages() (
    if ! command -v dpkg-query >/dev/null; then
        say "not a Debian machine; expecting what these packages hold: $*"
        return 0
    fi
    missing=$(missing_packages "$@")
    [ -n "$missing" ] || return 0
    # The package names are words on purpose.
    # shellcheck disable=SC2086
    set -- $missing
    say "installing $*"
    if ! apt-cache show "$@" >/dev/null 2>&1; then
        apt update
        apt install -y --no-install-recommends "$@"
    else
        apt install -y --no-install-recommends "$@" || {
            say "the package lists may be old; trying again with new ones"
            apt update
            apt install -y --no-install-recommends "$@"
        }
    fi
)

# configure_and_build PRESET [CMAKE-ARGUMENT...]: leaves the built tree in $KOVA_BUILD_ROOT/PRESET.
configure_and_build() (
    preset=$1
    shift
    if command -v ccache >/dev/null; then
        export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
    fi
    say "building $preset in $KOVA_BUILD_ROOT/$preset"
    cmake -S "$KOVA_ROOT" --preset "$preset" -B "$KOVA_BUILD_ROOT/$preset" "$@" >/dev/null &&
        cmake --build "$KOVA_BUILD_ROOT/$preset" --parallel "$(nproc)" -- --quiet
)

# source_files [PATTERN...]: the project's own files with these names (all without a pattern), zero-terminated,
# relative to the root. Works in a plain copy of the tree as well as in a repository.
source_files() (
    cd "$KOVA_ROOT"
    [ $# -gt 0 ] || set -- '*'
    for pattern in "$@"; do
        find . \( -path ./.git -o -path ./build -o -name .cache -o -name __pycache__ \) -prune \
            -o -type f -name "$pattern" -print0
    done
)
