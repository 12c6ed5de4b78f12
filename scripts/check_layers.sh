#!/usr/bin/env bash
# Layering check: a folder of src/ includes only folders before it in the
# order foundation, volume, record, data, index, file, apart from the upward
# uses the design allows (listed below with their reasons); tools/, host/ and
# the host example include only the public headers that the package
# installs. Prints each offending include and exits 1 when there is one.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

order=(foundation volume record data index file)

# Upward includes the design allows: "including file:included header  reason".
allowed=(
    # The volume reaches everything: CNTFSVolume's volume-level bodies (mount,
    # references by number) use records, bitmaps and directories.
    "src/volume/*.cpp:*"
    # $MFT is an ordinary full record whose records are read through the
    # attribute layer: the record layer walks runs and takes MFT bitmap bits.
    "src/record/full_file_record.h:data/run_cursor.h"
    "src/record/*.cpp:data/bitmap_data.h"
    "src/record/*.cpp:data/run_cursor.h"
)

# The headers a host may include: ntfskit.h and what it pulls in, and the
# ready storages of host/.
public=(ntfskit.h foundation/chain_element.h foundation/log.h foundation/platform.h
        volume/find_data.h volume/ntfs_volume.h volume/storage.h volume/volume.h
        file_layout.h file_storage.h mapped_storage.h memory_storage.h recording_storage.h)

rank() {
    local i
    for i in "${!order[@]}"; do
        [ "${order[$i]}" = "$1" ] && { echo "$i"; return; }
    done
    echo -1
}

is_allowed() {
    local file=$1 header=$2 rule pattern target
    for rule in "${allowed[@]}"; do
        pattern=${rule%%:*}
        target=${rule#*:}
        # shellcheck disable=SC2053
        [[ $file == $pattern && $header == $target ]] && return 0
    done
    return 1
}

failures=0
while IFS= read -r file; do
    folder=$(cut -d/ -f2 <<<"$file")
    own=$(rank "$folder")
    while IFS= read -r header; do
        used=$(rank "${header%%/*}")
        if [ "$used" -gt "$own" ] && ! is_allowed "$file" "$header"; then
            echo "layering: $file includes $header (${header%%/*} is above $folder)"
            failures=$((failures + 1))
        fi
    done < <(sed -n 's/^#include "\([a-z_]*\/[a-z_]*\.h\)".*/\1/p' "$file")
done < <(git ls-files 'src/*/*.h' 'src/*/*.cpp')

while IFS= read -r file; do
    while IFS= read -r header; do
        # A program's own headers sit beside it, or below tools/ (the mount's
        # folder includes them as mount/NAME.h, and cli.h).
        [ -e "$(dirname "$file")/$header" ] && continue
        [[ $file == tools/* && -e "tools/$header" ]] && continue
        if ! printf '%s\n' "${public[@]}" | grep -qx "$header"; then
            echo "layering: $file includes $header, which is not a public header"
            failures=$((failures + 1))
        fi
    done < <(sed -n 's/^#include "\([^"]*\)".*/\1/p' "$file")
done < <(git ls-files 'tools/*.cpp' 'tools/*.h' 'host/*.cpp' 'host/*.h' 'tests/install/*.cpp')

if [ "$failures" -gt 0 ]; then
    echo "layering: $failures include(s) break the layers"
    exit 1
fi
echo "layering: clean"
