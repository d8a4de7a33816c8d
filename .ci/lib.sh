# Shared by ./run, ./test, .ci/run and bench/cost: what they install, how they build. Sourced with the project's root
# as the working directory.

kCompile=(g++ cmake ninja-build libsystemd-dev)
kTools=(libcli11-dev libreadline-dev dbus)
kTests=(libgtest-dev libgmock-dev dbus-broker)

say() { printf '== %s\n' "$*"; }

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

may_install() { [ "$(id -u)" -eq 0 ] || command -v sudo >/dev/null; }

as_root() {
    may_install || die "needs root or sudo: $*"
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# apt_get ARGS: no questions, patient with another apt that holds the lock.
apt_get() { as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=600 "$@"; }

# need PACKAGE...: installs those that are missing. The package lists are fetched only when the first try finds them
# absent or too old.
need() {
    local missing=() package log
    for package in "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | head -n 1)" = installed ] ||
            missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    may_install || die "missing: ${missing[*]}; to install packages, be root or have sudo"
    say "installing ${missing[*]}"
    if ! log=$(apt_get install --no-install-recommends "${missing[@]}" 2>&1); then
        say "fetching the package lists"
        log=$(apt_get update 2>&1) || { printf '%s\n' "$log" >&2; die "apt-get update failed"; }
        log=$(apt_get install --no-install-recommends "${missing[@]}" 2>&1) ||
            { printf '%s\n' "$log" >&2; die "could not install ${missing[*]}"; }
    fi
}

# configure PRESET [-DOPTION=VALUE...]: silent unless it fails.
configure() {
    local log
    say "configuring $*"
    log=$(CMAKE_GENERATOR=${CMAKE_GENERATOR:-Ninja} cmake --preset "$@" 2>&1) ||
        { printf '%s\n' "$log" >&2; die "configuring $1 failed"; }
}

# build PRESET [TARGET...]: everything, or the named targets.
build() {
    local preset=$1 quiet=()
    shift
    if [ ! -t 1 ] && [ -e "build/$preset/build.ninja" ]; then
        quiet=(-- --quiet)
    fi
    say "building ${*:-everything} in build/$preset"
    cmake --build "build/$preset" -j "$(nproc)" ${1:+--target "$@"} "${quiet[@]}"
}

# suite PRESET [CTEST ARGUMENT...]: runs ctest, several tests to a core since they mostly wait; its summary is the last
# line and stays in build/PRESET/summary.
suite() {
    local preset=$1 log=build/$1/ctest.log status=0
    shift
    say "testing build/$preset"
    ctest --preset "$preset" --no-tests=error -j "$((4 * $(nproc)))" "$@" 2>&1 | tee "$log" || status=$?
    grep -E '^[0-9]+% tests passed' "$log" | tail -n 1 >"build/$preset/summary" || true
    cat "build/$preset/summary"
    return "$status"
}
