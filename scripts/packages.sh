# Sourced by the other scripts: sees to it that Debian packages are there.

# need PACKAGE...: installs those that are missing, as root or through sudo.
need() {
    local missing=() package
    for package in "$@"; do
        if [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
            missing+=("$package")
        fi
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    local as_root=()
    if [ "$(id -u)" != 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "These Debian packages are missing: ${missing[*]}" >&2
            echo "Install them, or run this as root or with sudo installed." >&2
            exit 1
        fi
        as_root=(sudo)
    fi
    echo "Installing ${missing[*]}"
    local log
    log=$(mktemp)
    if ! { "${as_root[@]}" apt-get update &&
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -y --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
        cat "$log" >&2
        echo "Installing ${missing[*]} failed." >&2
        exit 1
    fi
    rm -f "$log"
}

build_packages=(g++ make cmake libc-ares-dev libiniparser-dev libsodium-dev libssl-dev
    libxxhash-dev node-llhttp robin-map-dev zlib1g-dev)
# shellcheck disable=SC2034 # for the scripts that source this
test_packages=("${build_packages[@]}" libgtest-dev curl faketime openssl)
# What the benchmarks measure beside the library.
# shellcheck disable=SC2034
bench_packages=("${build_packages[@]}" libasio-dev libuv1-dev libevent-dev libev-dev libspdlog-dev
    libgoogle-glog-dev liburing-dev redis-server redis-tools nginx-light wrk openssl)
