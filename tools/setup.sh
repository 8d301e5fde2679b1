#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that building, testing, benchmarking and the
# demo need, and only those that are missing. Safe to run again.
# Packages named as arguments are installed too (tools/setup-cross.sh).
set -euo pipefail

packages=(
  g++ make cmake pkg-config
  libcurl4-openssl-dev libzip-dev zlib1g-dev libxml2-dev libsqlite3-dev
  libxmlsec1-dev libssl-dev xmlsec1 openssl
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  python3 zip unzip curl libarchive-tools binutils sqlite3 libxml2-utils
  clang libfuzzer-14-dev libclang-rt-14-dev
  libwebkit2gtk-4.1-dev libgdk-pixbuf-2.0-dev xvfb xauth
  nlohmann-json3-dev bash-completion
  dpkg-dev fakeroot lintian file time abigail-tools devscripts
  "$@"
)

# Installed for this machine's architecture: a foreign -dev package of the
# same name (multiarch) would not build anything here.
native=$(dpkg --print-architecture)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Architecture} ${db:Status-Status}\n' "$p" 2>/dev/null |
    grep -qE "^($native|all) installed$" || missing+=("$p")
done

[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
