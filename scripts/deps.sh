#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, when
# any is missing. Source it: it defines need_packages.
KOLV_PACKAGES=(build-essential cmake pkg-config ccache libjsoncpp-dev libgit2-dev libssl-dev libpq-dev
    postgresql libgtest-dev libbenchmark-dev git media-types lighttpd curl time help2man)

need_packages() {
    local missing=() pkg
    for pkg in "${KOLV_PACKAGES[@]}" "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" = 0 ] || sudo=sudo
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
