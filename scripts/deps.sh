# The Debian packages that the tree needs, listed once; sourced by the other scripts.
# shellcheck shell=bash disable=SC2034

buildPackages=(git cmake ninja-build g++ pkg-config python3 python3-yaml
    libsnmp-dev libssl-dev libpugixml-dev libyaml-dev libcli11-dev libspdlog-dev
    libvirt-dev libsystemd-dev libgtest-dev libgmock-dev libbenchmark-dev)
runPackages=(snmpd snmp iproute2 util-linux)
testPackages=(python3-pytest python3-pytest-xdist python3-pysnmp4
    binutils libvirt-clients openssl valgrind)
# Of scripts/lint --quick, and what the whole of it and scripts/test --all need more. Other versions of clang have other
# opinions.
quickLintPackages=(clang-format-14 shellcheck flake8 smitools mandoc)
lintPackages=(clang-14 clang-tidy-14 clang)
# Of scripts/package.
packagePackages=(debhelper dpkg-dev lintian)
# Of the packages' own test and of scripts/test-release, which install into bare roots.
bareRootPackages=(mmdebstrap)
# The tests with live guests are skipped without these.
livePackages=(libvirt-daemon-system qemu-system-x86)

# Debian 12 has a Boost that is too old beside one that is not; later systems have only newer ones.
if [[ "$(. /etc/os-release && echo "${ID:-}-${VERSION_ID:-}")" == debian-12 ]]; then
    buildPackages+=(libboost1.81-dev)
else
    buildPackages+=(libboost-dev)
fi

# Installs those of the packages named that are missing; needs no network when none is.
ensure_packages() {
    local package missing=()
    for package in "$@"; do
        [[ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" == installed ]] || missing+=("$package")
    done
    ((${#missing[@]})) || return 0
    echo "Installing ${missing[*]}" >&2
    local asRoot=()
    if ((EUID != 0)); then
        asRoot=(sudo -n)
        if ! command -v sudo >/dev/null || ! sudo -n true 2>/dev/null; then
            echo "These packages are missing and only root can install them: apt-get install ${missing[*]}" >&2
            return 1
        fi
    fi
    local quiet=(env DEBIAN_FRONTEND=noninteractive apt-get -qq -o Dpkg::Use-Pty=0)
    # Errors come on the other stream.
    "${asRoot[@]}" "${quiet[@]}" update </dev/null >/dev/null &&
        "${asRoot[@]}" "${quiet[@]}" -y --no-install-recommends install "${missing[@]}" </dev/null >/dev/null
}
