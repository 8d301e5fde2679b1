#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fails on a relative link of a tracked Markdown file that leads nowhere:
# every [text](path) and [text](path#anchor) must name a file or folder of
# the tree, every source place a page names must exist, and so must every
# symbol it names in backquotes (below).
set -euo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$source_dir"
status=0

# Every word of the tree outside the pages themselves, and the names of its
# files (a program is named after its source): a symbol a page names must be
# one of them. A constant or variable may also be named by its end after a
# prefix the page has already given (`PEAK_MEMORY` of
# WIDGET_BROWSER_PEAK_MEMORY).
declare -A known=() known_end=()
while IFS= read -r word; do
  [ -n "$word" ] || continue
  known[$word]=1
  case "$word" in *[a-z]*) continue ;; esac
  while [[ $word == *_* ]]; do
    word=${word#*_}
    [ -n "$word" ] && known_end[$word]=1
  done
done < <({
  git ls-files -z | grep -zv '\.md$' | xargs -0 grep -ohIE '[A-Za-z_][A-Za-z0-9_]*'
  git ls-files | sed 's#.*/##; s#\..*##'
} | sort -u)

# Names in backquotes that look like symbols and are not: the example names
# of the pages.
allowed=" my_clock widgetswidget_clock "

# The symbols a page names in backquotes: `Class`, `Class::method`,
# `function()`, `lowerCamel`, `snake_case`, `UPPER_CASE` and
# `Suite.TestName` each name a word of the source; a plain lower-case word,
# a name with a dot after a lower-case start (JavaScript: `window.open`),
# with a leading underscore (a suffix: `_BUSY`) or with a single colon (a
# scheme: `about:blank`) is ordinary prose.
symbols_of() {
  grep -oE '`[A-Za-z_][A-Za-z0-9_:.]*(\(\))?`' "$1" | tr -d '`' | sed 's/()$//' |
    grep -vE '^_|(^|[^:]):([^:]|$)|^[a-z][a-z0-9]*(\.|$)|^[a-z][A-Za-z0-9_]*\.|\.(h|cpp|c|xml|json|wgt|png|db|so|pc|[0-9])$|^[A-Z][A-Z0-9]*$' |
    sort -u
}
while IFS= read -r page; do
  dir=$(dirname "$page")
  while IFS= read -r target; do
    case "$target" in http://*|https://*|mailto:*|\#*) continue ;; esac
    path=${target%%#*}
    if [ ! -e "$dir/$path" ]; then
      echo "check-links: $page links to $target, which does not exist" >&2
      status=1
    fi
  done < <(grep -o '\]([^)]*)' "$page" | sed 's/^](//; s/)$//')
  # A source place the page names in backquotes (`install/Extractor.cpp`,
  # or a class pair as `base/TreeRemover`) must still be there; a name in
  # capitals (`cmake/toolchains/ARCH.cmake`) stands for any.
  while IFS= read -r place; do
    case "$place" in *[A-Z][A-Z]*) continue ;; esac
    if [ ! -e "$place" ] && [ ! -e "$place.h" ] && [ ! -e "$place.cpp" ]; then
      echo "check-links: $page names $place, which does not exist" >&2
      status=1
    fi
  done < <(grep -o '`\(base\|engine\|registry\|install\|config\|query\|signature\|update\|host\|tools\|bench\|fuzz\|testing\|docs\|packaging\|cmake\)/[A-Za-z0-9_./-]*`' "$page" |
           tr -d '`' | sort -u)
  while IFS= read -r symbol; do
    case "$allowed" in *" $symbol "*) continue ;; esac
    missing=
    for word in ${symbol//[:.]/ }; do
      [ -n "${known[$word]:-}" ] || [ -n "${known_end[$word]:-}" ] || missing=$word
    done
    # A member, `Class::member`, must be the member of that class: written
    # so where it is defined, or named in the class's own files.
    case "$symbol" in *::*)
      if [ -z "$missing" ]; then
        owner=${symbol%%::*}
        member=${symbol##*::}
        scope=${symbol%::*}
        scope=${scope##*::}
        if ! git grep -qw -e "$scope::$member" -- ':!*.md' &&
           ! git ls-files -z | grep -zE "(^|/)$owner\.(h|cpp)$" |
               xargs -0 -r grep -qw -- "$member"; then
          missing=$symbol
        fi
      fi ;;
    esac
    if [ -n "$missing" ]; then
      echo "check-links: $page names \`$symbol\`, which the source does not have" >&2
      status=1
    fi
  done < <(symbols_of "$page")
done < <(git ls-files '*.md')
exit $status
