#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Tests the Debian packages in BUILD/ as a packager and an integrator would:
# lintian finds no error; every program and library is hardened; each
# package depends on what it needs and no more; the debug symbols match the
# stripped files; the README's host example builds against the unpacked
# packages with pkg-config and with find_package; `make uninstall` keeps to
# DESTDIR; installed for real (as root), the example installs a widget,
# installing the packages again over a registry that holds two widgets keeps
# both, and purging removes the registry and its directory.
#
# Usage: tools/package-test.sh BUILD
set -euo pipefail
build=$(cd "${1:-build-package}" && pwd)
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
work=$(mktemp -d /tmp/widgetengine-package-test-XXXXXX)
trap 'rm -rf "$work"' EXIT
debs=("$build"/libwidgetengine1_*.deb "$build"/libwidgetengine-dev_*.deb
      "$build"/widgetctl_*.deb "$build"/widget-browser_*.deb)
ddebs=("$build"/libwidgetengine1-dbgsym_*.ddeb "$build"/widgetctl-dbgsym_*.ddeb
       "$build"/widget-browser-dbgsym_*.ddeb)

echo "== lintian"
lintian --fail-on error --suppress-tags initial-upload-closes-no-bugs "${debs[@]}" "${ddebs[@]}"

# Packages for another architecture (make package ARCH=...) are linted and
# their control data checked; building against them and installing them
# is for a machine of theirs.
native=$(dpkg --print-architecture)
target=$(dpkg-deb -f "${debs[0]}" Architecture)
if [ "$target" != "$native" ]; then
  echo "== $target packages"
  for deb in "${debs[@]}"; do
    test "$(dpkg-deb -f "$deb" Architecture)" = "$target"
  done
  # The library's dependencies come from dpkg-shlibdeps, read in the target's
  # libraries: libc6, and the packages of libcurl, libzip, libxml2, SQLite,
  # libxmlsec1 and OpenSSL.
  depends=$(dpkg-deb -f "$build"/libwidgetengine1_*.deb Depends)
  for library in libc6 libcurl libzip libxml2 libsqlite3 libxmlsec1 libssl; do
    grep -q "\b$library" <<<"$depends" || { echo "package-test: libwidgetengine1 does not depend on $library: $depends" >&2; exit 1; }
  done
  echo "== the $target packages pass (installing them is for a $target machine)"
  exit 0
fi

echo "== unpacked into $work/root"
for deb in "${debs[@]}" "${ddebs[@]}"; do dpkg -x "$deb" "$work/root"; done
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
libdir="$work/root/usr/lib/$multiarch"

echo "== hardening"
# What Debian's flags give: PIE, stack protector, fortified functions, RELRO
# and immediate binding (control-flow protection is not among them on this
# release). The web-process module's one fortifiable call is a memcpy into a
# buffer whose size the compiler cannot know, which has no checked form.
programs=("$libdir"/libwidgetengine.so.1.* "$work/root/usr/bin/widgetctl"
          "$work/root/usr/bin/widget-browser")
modules=("$libdir"/widget-browser/*.so)
hardening-check --nocfprotection "${programs[@]}"
hardening-check --nocfprotection --nofortify "${modules[@]}"
binaries=("${programs[@]}" "${modules[@]}")

echo "== dependencies"
depends() { dpkg-deb -f "$1" Depends; }
# The tool alone is headless: no browser engine, toolkit or graphics.
if depends "$build"/widgetctl_*.deb | grep -E 'webkit|gtk|cairo|javascriptcore|soup'; then
  echo "package-test: widgetctl depends on the browser's libraries" >&2
  exit 1
fi
depends "$build"/widget-browser_*.deb | grep -q 'libwebkit2gtk-4.1'
test "$(depends "$build"/libwidgetengine-dev_*.deb)" = "libwidgetengine1 (= $(dpkg-deb -f "$build"/libwidgetengine1_*.deb Version))"
# widgetctl runs the shared library, not an engine of its own.
readelf -d "$work/root/usr/bin/widgetctl" | grep -q 'NEEDED.*\[libwidgetengine.so.1\]'
dpkg-deb --ctrl-tarfile "$build"/libwidgetengine1_*.deb | tar -tf - | grep -qx './symbols'

echo "== debug symbols"
for binary in "${binaries[@]}"; do
  id=$(LC_ALL=C readelf -n "$binary" | sed -n 's/^ *Build ID: //p')
  test -s "$work/root/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug"
  if readelf -S "$binary" | grep -q '\.debug_info'; then
    echo "package-test: $binary is not stripped" >&2
    exit 1
  fi
done

echo "== make uninstall keeps to DESTDIR"
DESTDIR="$work/destdir" cmake --install "$build" >/dev/null
test -x "$work/destdir/usr/bin/widgetctl"
installed=$(wc -l <"$build/install_manifest.txt")
DESTDIR="$work/destdir" cmake --build "$build" --target uninstall >/dev/null
test -z "$(find "$work/destdir" -type f -o -type l)"
rm -f "$build/install_manifest.txt"
echo "removed all $installed files"

# The README's example, between its marker and the end of its code block.
awk '/This example is compiled and run/ {found=1; next}
     found && /^```cpp/ {inside=1; next}
     inside && /^```/ {exit}
     inside {print}' "$source_dir/README.md" >"$work/host.cpp"
test -s "$work/host.cpp"

echo "== pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
test "$(pkg-config --variable=schemapath widgetengine)" = /Customer/.yra/Resources/Widget/Validation/WidgetConfig.rng
test "$(pkg-config --variable=databasedir widgetengine)" = /Customer/.yra/conf/
test "$(pkg-config --variable=widgetroot widgetengine)" = /tmp/widgetEngine/
# shellcheck disable=SC2046
g++ -std=c++17 -o "$work/host-pc" "$work/host.cpp" $(pkg-config --cflags --libs widgetengine)

echo "== find_package"
mkdir -p "$work/cmake-host"
cp "$work/host.cpp" "$work/cmake-host/host.cpp"
cat >"$work/cmake-host/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.13)
project(host CXX)
find_package(widgetengine 1.0 REQUIRED)
if(NOT WIDGETENGINE_SCHEMA_PATH STREQUAL "/Customer/.yra/Resources/Widget/Validation/WidgetConfig.rng")
  message(FATAL_ERROR "WIDGETENGINE_SCHEMA_PATH is ${WIDGETENGINE_SCHEMA_PATH}")
endif()
add_executable(host host.cpp)
set_target_properties(host PROPERTIES CXX_STANDARD 17)
target_link_libraries(host widgetengine::widgetengine)
CMAKE
cmake -S "$work/cmake-host" -B "$work/cmake-host/build" -DCMAKE_PREFIX_PATH="$work/root/usr" >/dev/null
cmake --build "$work/cmake-host/build" >/dev/null

# A package to install, made of the bundled sample widget.
(cd "$source_dir/tools/sample-widget" && zip -qr "$work/clock.wgt" .)
cp "$work/clock.wgt" "$work/calendar.wgt"

if [ "$(id -u)" -ne 0 ]; then
  echo "== skipped: installing the packages needs root"
  exit 0
fi

echo "== dpkg -i"
# A registry the machine had before is put back after the purge below.
if [ -e /Customer/.yra/conf/widget.db ]; then
  cp -p /Customer/.yra/conf/widget.db "$work/machine-widget.db"
  machine_mode=$(stat -c %a /Customer/.yra/conf)
fi
dpkg -i "${debs[@]}" >/dev/null
widget-browser --help | grep -q -- --screenshot
test -s /usr/share/man/man1/widget-browser.1.gz
export WIDGET_PATH="$work/widgets/" YRA_DATA_PATH="$work/conf/"
mkdir -p "$WIDGET_PATH/tmp" "$YRA_DATA_PATH"
for host in "$work/host-pc" "$work/cmake-host/build/host"; do
  LD_LIBRARY_PATH="$libdir" "$host" "file://$work/clock.wgt" | tail -3
  widgetctl remove clock >/dev/null
done
test "$(stat -c %a /Customer/.yra/conf)" = 755

echo "== reinstalled over a registry with two widgets"
# The registry at its packaged place, unless one is there already.
unset YRA_DATA_PATH
registry=/Customer/.yra/conf/widget.db
if [ -e "$registry" ]; then
  export YRA_DATA_PATH="$work/conf/"
  registry="$work/conf/widget.db"
else
  trap 'rm -f /Customer/.yra/conf/widget.db; rm -rf "$work"' EXIT
fi
widgetctl install "$work/clock.wgt" >/dev/null
widgetctl install "$work/calendar.wgt" >/dev/null
dpkg -i "${debs[@]}" >/dev/null
widgetctl is-widget "file://${WIDGET_PATH}widget_clock/index.html" 2>/dev/null
widgetctl is-widget "file://${WIDGET_PATH}widget_calendar/index.html" 2>/dev/null
test "$(widgetctl list 2>/dev/null | wc -l)" = 2
test -s "$registry"
widgetctl remove clock >/dev/null
widgetctl remove calendar >/dev/null

echo "== purged"
test -s /Customer/.yra/conf/widget.db
dpkg --purge widget-browser widgetctl libwidgetengine-dev libwidgetengine1 >/dev/null
test ! -e /Customer/.yra/conf
# The machine is left as it was found.
if [ -e "$work/machine-widget.db" ]; then
  mkdir -p /Customer/.yra/conf
  chmod "$machine_mode" /Customer/.yra/conf
  cp -p "$work/machine-widget.db" /Customer/.yra/conf/widget.db
fi
echo "== the packages pass"
