#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the engine's whole story on the bundled sample widget with widgetctl:
# packs tools/sample-widget/ into BUILD/demo/sample-clock.wgt, installs it
# from its file:// URL into a fresh sandbox under BUILD/demo/, then lists,
# describes, maps, recognises, reinstalls and removes it. Before that,
# "widgetctl check" shows the configuration record parsed from its config.xml.
# Last, widget-browser installs it again and shows it to a French and a
# German reader, with a screenshot of each under BUILD/demo/.
#
# Usage: bash tools/demo.sh BUILD   (BUILD is the build tree, "build" by
# default; `make build` must have made BUILD/widgetctl).
set -euo pipefail

source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-build}
case "$build" in
  /*) ;;
  *) build="$source_dir/$build" ;;
esac
widgetctl="$build/widgetctl"
if [ ! -x "$widgetctl" ]; then
  echo "demo: $widgetctl is missing; run \"make build\" first" >&2
  exit 1
fi

demo="$build/demo"
package="$demo/sample-clock.wgt"
url="file://$package"

# A sandbox of its own: nothing left from an earlier run, nothing outside.
rm -rf "$demo"
mkdir -p "$demo/widgets/tmp" "$demo/conf"
export WIDGET_PATH="$demo/widgets/"
export YRA_DATA_PATH="$demo/conf/"

python3 - "$source_dir/tools/sample-widget" "$package" <<'EOF'
import os, sys, zipfile
source, package = sys.argv[1], sys.argv[2]
with zipfile.ZipFile(package, "w", zipfile.ZIP_DEFLATED) as archive:
    for folder, folders, files in os.walk(source):
        folders.sort()
        for name in sorted(files):
            path = os.path.join(folder, name)
            archive.write(path, os.path.relpath(path, source))
EOF

step() {
  printf '\n==== %s ====\n' "$*"
}

launch="file://${WIDGET_PATH}widget_sample-clock/index.html"

step "Package: $package"
python3 -c 'import sys, zipfile; [print("  " + n) for n in zipfile.ZipFile(sys.argv[1]).namelist()]' "$package"

step "Check the package as its author would (nothing is installed)"
"$widgetctl" check "$package"

step "Install the sample widget from $url"
"$widgetctl" install "$url"

step "List the installed widgets"
"$widgetctl" list

step "Describe sample-clock in French"
"$widgetctl" info sample-clock --lang fr

step "Describe sample-clock in German"
"$widgetctl" info sample-clock --lang de

step "Map its start page for a French reader"
"$widgetctl" map "$launch" --lang fr-CA

step "Map its start page for a German reader"
"$widgetctl" map "$launch" --lang de

step "Is $launch a widget?"
"$widgetctl" is-widget "$launch"

step "Install the same URL again (already installed)"
"$widgetctl" install "$url"

step "Remove sample-clock"
"$widgetctl" remove sample-clock

browser="$build/widget-browser"
if [ -x "$browser" ]; then
  # A machine without a display gets a virtual one.
  run_browser=("$browser")
  if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
    run_browser=(xvfb-run -a -n 611 -s "-screen 0 1280x1024x24 -noreset" "$browser")
  fi
  shot_fr="$demo/sample-clock-fr.png"
  shot_de="$demo/sample-clock-de.png"

  step "Open $url in widget-browser for a French reader (installs it)"
  "${run_browser[@]}" --lang fr-FR,fr --size 640x400 --screenshot "$shot_fr" "$url"

  step "Open $launch in widget-browser for a German reader"
  "${run_browser[@]}" --lang de --size 640x400 --screenshot "$shot_de" "$launch"

  step "Screenshots"
  echo "$shot_fr"
  echo "$shot_de"
else
  step "widget-browser was not built (no WebKitGTK 4.1): no screenshots"
fi

step "Done: the sandbox is $demo"
