#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fails when a 32-bit program or library imports a file call of the narrow
# off_t, ino_t or rlim_t family (stat, readdir, lseek, mmap, ...) rather than
# its 64-bit twin (stat64, readdir64, ...): a sign that some file was built
# without _FILE_OFFSET_BITS=64, and would fail with EOVERFLOW on large files
# or on file systems with large inode numbers.
#   tools/check-file-offsets.sh NM FILE...
set -euo pipefail
nm=$1
shift
narrow=(
  open openat creat fopen freopen tmpfile mkstemp mkostemp mkstemps mkostemps
  stat fstat lstat fstatat statvfs fstatvfs statfs fstatfs
  readdir readdir_r scandir scandirat alphasort versionsort getdirentries
  lseek mmap pread pwrite preadv pwritev truncate ftruncate
  fseeko ftello fgetpos fsetpos fallocate posix_fallocate posix_fadvise
  lockf sendfile glob globfree ftw nftw getrlimit setrlimit prlimit fcntl
)
pattern="^($(IFS='|'; echo "${narrow[*]}"))(@.*)?$"
status=0
for file in "$@"; do
  imported=$("$nm" -D --undefined-only "$file" | awk '{print $NF}')
  [ -n "$imported" ] || { echo "check-file-offsets: $file imports nothing" >&2; status=1; continue; }
  bad=$(grep -E "$pattern" <<<"$imported" || true)
  if [ -n "$bad" ]; then
    echo "check-file-offsets: $file imports narrow file calls:" $bad >&2
    status=1
  fi
done
exit $status
