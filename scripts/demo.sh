#!/usr/bin/env bash
# The main job of ntfskit on a bundled sample volume: builds the ntfskit
# command (installing what it needs on a fresh machine), copies the sample
# into a temporary folder and shows info, a recursive listing, a file read,
# a write that grows a small file out of its MFT record, and the listing
# again; then puts a host tree on the volume, makes a directory, renames a
# file and removes what it made.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${NTFSKIT_BUILD_ROOT:-$root/build}/demo
"$root/scripts/install_deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNTFSKIT_TESTS=OFF -DNTFSKIT_BENCH=OFF >/dev/null
cmake --build "$build" -j "${NTFSKIT_JOBS:-2}" --target ntfskit_cli >/dev/null
ntfskit="$build/tools/ntfskit"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
image="$work/sample.img"
zstd -d -q -f "$root/tests/fixtures/c4k.img.zst" -o "$image"

step() { printf '\n$ %s\n' "$*"; "$@"; }

step "$ntfskit" info "$image"
step "$ntfskit" ls -l -R "$image" /docs
step "$ntfskit" cat "$image" /readme.txt
step "$ntfskit" ls -l "$image" /readme.txt
# 20,000 bytes no longer fit in the file's record: the data moves to clusters.
head -c 20000 /dev/zero | tr '\0' 'n' > "$work/growth.txt"
step "$ntfskit" write -a "$image" /readme.txt "$work/growth.txt"
step "$ntfskit" ls -l "$image" /readme.txt
mkdir -p "$work/notes/drafts"
printf 'a note\n' > "$work/notes/first note.txt"
printf 'a draft\n' > "$work/notes/drafts/draft.txt"
step "$ntfskit" put -R "$image" "$work/notes" /
step "$ntfskit" mkdir -p "$image" /archive/2026
step "$ntfskit" mv "$image" "/notes/first note.txt" kept.txt
step "$ntfskit" ls -l -R "$image" /notes
step "$ntfskit" rm -r "$image" /notes
step "$ntfskit" rmdir "$image" /archive/2026 /archive
printf '\nThe image stays readable by ntfs-3g:\n'
step ntfsls -l -p / "$image"
step ntfsfix -n "$image"
