# shellcheck shell=bash
# Sourced by the scripts here, after steps.sh: Debian packages that the work at hand needs.

# What configuring and building takes, but for what one preset needs beyond it.
packages_to_build() {
    echo cmake ninja-build g++ googletest python3 pkg-config libcli11-dev nlohmann-json3-dev libssl-dev libpcap-dev \
        libboost-url1.81-dev libpugixml-dev
}

# The packages that building and testing a preset takes.
packages_of_preset() {
    packages_to_build
    echo dpkg-dev file # for the Debian packages
    # Whom the tests let the programs talk to, and who judges what they say.
    echo openssl curl tshark nginx haproxy apache2-bin \
        python3-requests python3-requests-toolbelt python3-zeep \
        default-jdk-headless libsaaj-ri-java libaxis-java
    case $1 in
        i386) echo g++-multilib ;;
        clang) echo clang-14 ;;
        fuzz) echo clang-14 libclang-rt-14-dev ;;
        bench) echo libbenchmark-dev ;;
    esac
}

is_installed() {
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

install_packages() {
    as_root apt-get -o DPkg::Lock::Timeout=300 update &&
        as_root env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 \
            install -y --no-install-recommends "$@"
}

# need_packages NAME...: installs those that are missing; stops with the reason where it can't.
need_packages() {
    local name missing=()
    if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
        fail "$(. /etc/os-release 2>/dev/null && echo "${PRETTY_NAME:-this system}") has no apt-get;" \
            "these scripts run on Debian 12. Elsewhere install cmake 3.25, ninja, g++ 12, python3 and" \
            "GoogleTest's sources and see CONTRIBUTING.md."
    fi
    for name; do
        is_installed "$name" || missing+=("$name")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
        fail "these Debian packages are missing, and installing them takes root or sudo: ${missing[*]}"
    fi
    step "install ${missing[*]}" install_packages "${missing[@]}"
}

# unpack_i386 NAME...: these packages for 32-bit Linux, in build/packages-i386. Installed they would
# have to be of this machine's own versions, which a mirror that is being filled does not have.
unpack_i386() {
    local folder=$PWD/build/packages-i386 name
    rm -rf "$folder"
    mkdir -p "$folder"/apt/{lists,cache/archives}/partial
    local apt=(apt-get -o APT::Architecture=i386 -o APT::Architectures=i386 -o APT::Sandbox::User=
        -o Dir::State::Lists="$folder/apt/lists" -o Dir::Cache="$folder/apt/cache")
    cd "$folder"
    "${apt[@]}" update || true # where a list is missing, the packages may be in the others
    "${apt[@]}" download "$@"
    mkdir DEBIAN # what dpkg-shlibdeps looks for beside a library
    for name; do
        dpkg-deb -x "$name"_*_i386.deb .
        dpkg-deb -I "$name"_*_i386.deb symbols >>DEBIAN/symbols || true # who has libraries tells
    done
    rm -r apt -- *.deb
}

# prepare_preset PRESET: installs what is missing of its packages.
prepare_preset() {
    # shellcheck disable=SC2046  # one word a package
    need_packages $(packages_of_preset "$1")
    if [ "$1" = i386 ] && [ ! -e build/packages-i386/complete ]; then
        step 'unpack packages of i386' unpack_i386 libssl3 libssl-dev \
            libpugixml1v5 libpugixml-dev
        touch build/packages-i386/complete
    fi
}
