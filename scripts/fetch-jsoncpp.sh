#!/usr/bin/env bash
# Fetches Debian's jsoncpp source package (the same release as libjsoncpp-dev)
# into DIR and prints the path of its source tree, for
# -DQUOR_JSONCPP_SOURCE=<that path>: the build then links jsoncpp and the C++
# runtime statically, and the tool loads no C++ shared object at start-up.
# apt works on a private copy of its state in DIR: the machine's sources and
# lists are left as they are. Needs dpkg-dev (dpkg-source) and network.
#
#   scripts/fetch-jsoncpp.sh [DIR]     (default: build-deps)
set -euo pipefail
dir=$(realpath -m "${1:-build-deps}")
version=$(dpkg-query -W -f='${Version}' libjsoncpp-dev)
upstream=${version%-*}
tree="$dir/libjsoncpp-$upstream"
if [ -f "$tree/src/lib_json/json_value.cpp" ]; then
  echo "$tree"
  exit 0
fi
mkdir -p "$dir/apt/lists/partial" "$dir/apt/cache/archives/partial"
codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
# The mirror the machine installs its packages from, else Debian's own.
mirror=$(apt-cache policy | awk -v suite="$codename/main" '$3 == suite && /Packages$/ {print $2; exit}')
echo "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg]" \
  "${mirror:-http://deb.debian.org/debian} $codename main" > "$dir/apt/sources.list"
apt_private=(-o Dir::Etc::sourcelist="$dir/apt/sources.list" -o Dir::Etc::sourceparts=/nonexistent
  -o Dir::State::Lists="$dir/apt/lists" -o Dir::Cache="$dir/apt/cache"
  -o APT::Sandbox::User=root)
apt-get "${apt_private[@]}" -qq update >&2
(cd "$dir" && apt-get "${apt_private[@]}" -qq source "libjsoncpp=$version" >&2)
[ -f "$tree/src/lib_json/json_value.cpp" ] || { echo "no jsoncpp source in $tree" >&2; exit 1; }
echo "$tree"
