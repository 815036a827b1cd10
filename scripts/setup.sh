#!/usr/bin/env bash
# Installs what building, testing and the demo need (Debian 12, as root).
set -euo pipefail
packages=(build-essential cmake pkg-config
  libboost-program-options-dev libboost-filesystem-dev libboost-system-dev
  libjsoncpp-dev libarchive-dev libcurl4-openssl-dev libssl-dev
  libzstd-dev liblz4-dev libacl1-dev
  libgtest-dev libgmock-dev python3 zstd zlib1g-dev clang nginx-light
  man-db groff-base systemd dpkg-dev binutils
  debootstrap systemd-container lintian)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=; [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
