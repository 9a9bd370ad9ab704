#!/usr/bin/env bash
# Installs every Debian package the project needs, and any further packages named as arguments
# (the peer comparison's tools). Safe to run again: packages already present are left alone, and
# nothing is asked on the terminal.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config clang-format
    libgtest-dev libgmock-dev libbenchmark-dev
    libx11-dev libxtst-dev libcairo2-dev libfontconfig-dev fonts-vlgothic fonts-dejavu-core
    fonts-dejavu-extra xvfb xauth
    libsndfile1-dev libmpg123-dev libcli11-dev libpulse-dev pulseaudio pulseaudio-utils
    libglib2.0-dev dbus
    dpkg-dev lintian desktop-file-utils
    dpf-plugins-vst clang-14 libclang-rt-14-dev
    "$@"
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
echo "bootstrap: installing ${missing[*]}" >&2
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
