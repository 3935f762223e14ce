# Installs the Debian packages named in the array `packages` that are missing. As root it runs
# apt-get; otherwise through sudo when sudo works; otherwise it names the missing packages and
# the one command that installs them, and stops.
# Source it from a script after setting `packages=(...)`.

tandra_install_packages() {
    local missing=() package
    for package in "${packages[@]}"; do
        if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$package")
        fi
    done
    if ((${#missing[@]} == 0)); then
        return 0
    fi
    local install="apt-get install -y --no-install-recommends ${missing[*]}"
    local runner=()
    if [[ "$(id -u)" -ne 0 ]]; then
        local can_sudo=no
        if command -v sudo >/dev/null 2>&1; then
            # A password prompt is fine on a terminal; without one, sudo must work unasked.
            if [[ -t 0 ]] || sudo -n true 2>/dev/null; then
                can_sudo=yes
            fi
        fi
        if [[ "$can_sudo" == no ]]; then
            echo "These Debian packages are missing: ${missing[*]}" >&2
            echo "Install them as root (this user cannot), then run this again:" >&2
            echo "    su -c 'apt-get update && ${install}'" >&2
            exit 3
        fi
        runner=(sudo)
    fi
    echo "Installing missing packages: ${missing[*]}"
    "${runner[@]}" apt-get update
    "${runner[@]}" env DEBIAN_FRONTEND=noninteractive ${install}
}

# What the build, the tests and the demo use.
tandra_build_packages=(cmake ninja-build g++ pkg-config libjsoncpp-dev libgtest-dev libgmock-dev
    libasio-dev libssl-dev openssl libavahi-client-dev libcli11-dev libsystemd-dev libturbojpeg0-dev
    iproute2 procps)
