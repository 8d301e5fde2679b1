#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Measures what the device build (WIDGETENGINE_DEVICE=ON) costs a device:
# the stripped library's size, the libraries it names (NEEDED) with their
# sizes and the size of everything they pull in, and, for this machine's
# architecture, the resident memory of a host at start and after it has
# installed 1,000 widgets. Builds into build-footprint/ARCH.
#   tools/footprint.sh [ARCH]    (arm64, armhf, s390x; none: this machine)
set -euo pipefail
arch=${1:-}
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
native=$(dpkg --print-architecture)
[ "$arch" = "$native" ] && arch=
build="$source_dir/build-footprint/${arch:-$native}"
multiarch=$(dpkg-architecture -a"${arch:-$native}" -qDEB_HOST_MULTIARCH 2>/dev/null)

flags=(-DWIDGETENGINE_DEVICE=ON)
root=
tool_prefix=
if [ -n "$arch" ]; then
  bash "$source_dir/tools/setup-cross.sh" "$arch" >/dev/null
  root="$source_dir/build-cross/sysroot-$arch"
  bash "$source_dir/tools/cross-sysroot.sh" "$arch" "$root"
  flags+=(-DCMAKE_TOOLCHAIN_FILE="$source_dir/cmake/toolchains/$arch.cmake"
          -DCMAKE_SYSROOT="$root")
  tool_prefix="$multiarch-"
else
  # The host below installs widgets: the schema from the source tree.
  flags+=(-DWIDGETENGINE_SCHEMA_PATH="$source_dir/config/WidgetConfig.rng")
fi
cmake -S "$source_dir" -B "$build" "${flags[@]}" >/dev/null
cmake --build "$build" --target widgetengine -j "${JOBS:-2}" >/dev/null
library=$(readlink -f "$build/libwidgetengine.so")

kib() { echo $(( ($1 + 1023) / 1024 )); }
"${tool_prefix}strip" --strip-unneeded -o "$build/stripped.so" "$library"
echo "architecture: ${arch:-$native}"
echo "libwidgetengine.so.1 stripped: $(kib "$(stat -c %s "$build/stripped.so")") KiB"

needed() { "${tool_prefix}readelf" -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }
locate() {
  local dir
  for dir in "$root/lib/$multiarch" "$root/usr/lib/$multiarch"; do
    [ -e "$dir/$1" ] && { readlink -f "$dir/$1"; return; }
  done
  return 1
}
# Everything a library pulls in, itself included, each file once.
closure() {
  local -A seen=()
  local queue=("$1") name file
  while [ ${#queue[@]} -gt 0 ]; do
    name=${queue[0]}
    queue=("${queue[@]:1}")
    [ -n "${seen[$name]:-}" ] && continue
    seen[$name]=1
    file=$(locate "$name") || continue
    echo "$file"
    for name in $(needed "$file"); do queue+=("$name"); done
  done
}
echo "NEEDED (KiB of the library itself; KiB with all it pulls in):"
for name in $(needed "$library"); do
  file=$(locate "$name")
  total=0
  for f in $(closure "$name"); do total=$((total + $(stat -c %s "$f"))); done
  echo "  $name $(kib "$(stat -c %s "$file")") $(kib "$total")"
done
all=0
for f in $( (for name in $(needed "$library"); do closure "$name"; done) | sort -u); do
  all=$((all + $(stat -c %s "$f")))
done
echo "  all of them, each once: $(kib "$all") KiB"

[ -z "$arch" ] || exit 0

# A host that installs 1,000 small widgets from local packages.
work=$(mktemp -d /tmp/widgetengine-footprint-XXXXXX)
trap 'rm -rf "$work"' EXIT
cat >"$work/host.cpp" <<'HOST'
#include <widgetengine/WidgetEngineDelegate.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

static long residentKiB() {
  FILE* status = std::fopen("/proc/self/status", "r");
  char line[256];
  long kib = -1;
  while (status && std::fgets(line, sizeof line, status)) {
    if (std::strncmp(line, "VmRSS:", 6) == 0) kib = std::atol(line + 6);
  }
  if (status) std::fclose(status);
  return kib;
}

int main(int argc, char** argv) {
  const int count = std::atoi(argv[2]);
  std::printf("resident at start: %ld KiB\n", residentKiB());
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  std::printf("resident with the engine made: %ld KiB\n", residentKiB());
  for (int i = 0; i < count; ++i) {
    const std::string url = std::string("file://") + argv[1] + "/w" + std::to_string(i) + ".wgt";
    char* launch = engine->receiveWidget(url.c_str(), nullptr);
    if (!launch) return 1;
    std::free(launch);
  }
  std::printf("resident after %d installed widgets: %ld KiB\n", count, residentKiB());
  for (WidgetsData* widget : engine->getAll(nullptr)) delete widget;
  std::printf("resident after listing them: %ld KiB\n", residentKiB());
  return 0;
}
HOST
g++ -std=c++17 -O2 -I"$build/include" "$work/host.cpp" -o "$work/host" \
  -L"$build" -lwidgetengine -Wl,-rpath,"$build"
python3 - "$work/packages" 1000 <<'PY'
import os, sys, zipfile
folder, count = sys.argv[1], int(sys.argv[2])
os.makedirs(folder)
for i in range(count):
    with zipfile.ZipFile(os.path.join(folder, "w%d.wgt" % i), "w", zipfile.ZIP_DEFLATED) as z:
        z.writestr("config.xml", '<widget xmlns="http://www.w3.org/ns/widgets" version="1.0">'
                   "<name>Widget %d</name><description>A widget of the footprint run.</description>"
                   '<icon src="icon.png"/></widget>' % i)
        z.writestr("index.html", "<html><body>widget %d</body></html>" % i)
        z.writestr("icon.png", b"\x89PNG\r\n\x1a\n" + bytes(64))
        z.writestr("locales/fr/index.html", "<html lang=fr><body>%d</body></html>" % i)
PY
mkdir -p "$work/widgets/tmp" "$work/conf"
WIDGET_PATH="$work/widgets/" YRA_DATA_PATH="$work/conf/" "$work/host" "$work/packages" 1000 >"$work/out" || {
  echo "footprint: the host failed:" >&2; tail -5 "$work/out" >&2; exit 1; }
grep '^resident' "$work/out"
echo "registry after 1,000 widgets: $(kib "$(stat -c %s "$work/conf/widget.db")") KiB"
