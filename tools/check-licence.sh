#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fails on a tracked source file without an SPDX-License-Identifier line in
# its first lines. Data files (the sample widget, images) are not sources.
set -euo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$source_dir"
status=0
while IFS= read -r file; do
  case "$file" in tools/sample-widget/*) continue ;; esac
  if ! head -n 5 "$file" | grep -q 'SPDX-License-Identifier: Apache-2.0'; then
    echo "check-licence: $file has no SPDX-License-Identifier line" >&2
    status=1
  fi
done < <(git ls-files '*.cpp' '*.h' '*.c' '*.sh' '*.cmake' '*.in' '*.map' '*.rng' \
           '*.dict' '*.1' '*.bash-completion' 'CMakeLists.txt' 'Makefile' '.ci/run' \
           'packaging/postinst.in')
exit $status
