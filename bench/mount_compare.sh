#!/usr/bin/env bash
# Copies through a FUSE mount: `ntfskit mount` of one copy of an image beside
# an ntfs-3g mount of another copy, interleaved (A, B, A, B, ... N times
# each), and prints the medians and the ratio ntfskit / ntfs-3g per row:
#
#   out256   cp of a contiguous 256 MiB file out of the mount
#   in256    cp of the same bytes over that file (open with O_TRUNC, write)
#   outTree  cp -r of a tree of 10,000 files of 1-8 KiB out of the mount
#   inTree   cp -r of that tree into the mount (needs file creation)
#
# Each measurement mounts afresh (not timed), copies, and unmounts (timed:
# both file systems write back at unmount), so no run reads another's page
# cache.
#
#   sudo bench/mount_compare.sh [-n RUNS] [IMAGE_DIR]
#
# NTFSKIT names the binary (default build/rel/tools/ntfskit of this tree,
# a Release build). IMAGE_DIR holds the images of bench/make_images.sh
# (file256, tree10k; made there first when missing). Needs root, /dev/fuse,
# fusermount3 and ntfs-3g.
set -euo pipefail
export LC_ALL=C

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
RUNS=5
while getopts "n:" option; do
    case $option in
        n) RUNS=$OPTARG ;;
        *) exit 2 ;;
    esac
done
shift $((OPTIND - 1))
DIR=${1:-/tmp/ntfskit-bench}
NTFSKIT=${NTFSKIT:-$HERE/../build/rel/tools/ntfskit}
[[ -x $NTFSKIT ]] || { echo "mount_compare: no ntfskit binary at $NTFSKIT (build Release first)" >&2; exit 1; }
for tool in ntfs-3g fusermount3 mountpoint; do
    command -v "$tool" >/dev/null || { echo "mount_compare: missing $tool" >&2; exit 1; }
done
for image in file256 tree10k; do
    [[ -e $DIR/$image.img ]] || "$HERE/make_images.sh" "$DIR" "$image"
done

SCRATCH=$(mktemp -d /tmp/ntfskit-mount-compare.XXXXXX)
MNT=$SCRATCH/mnt
OUT=$SCRATCH/out
if [[ -d /dev/shm && -w /dev/shm ]]; then OUT=/dev/shm/ntfskit-mount-compare-out.$$; fi
SERVER=
cleanup() {
    if mountpoint -q "$MNT" 2>/dev/null; then fusermount3 -u "$MNT" || true; fi
    if [[ -n $SERVER ]]; then wait "$SERVER" 2>/dev/null || true; fi
    rm -rf "$SCRATCH" "$OUT"
}
trap cleanup EXIT
mkdir -p "$MNT"

# serve SIDE IMAGE: mounts IMAGE at MNT with ntfskit or ntfs-3g, in the
# foreground of a background job, and waits until it serves.
serve() {
    if [[ $1 == ntfskit ]]; then
        "$NTFSKIT" mount -f "$2" "$MNT" 2> "$SCRATCH/serve.log" &
    else
        ntfs-3g -o no_detach "$2" "$MNT" 2> "$SCRATCH/serve.log" &
    fi
    SERVER=$!
    for _ in $(seq 200); do
        mountpoint -q "$MNT" && return 0
        sleep 0.025
    done
    cat "$SCRATCH/serve.log" >&2
    echo "mount_compare: $1 did not mount $2" >&2
    exit 1
}

# unserve: unmounts and waits until the server has written back and ended.
unserve() {
    fusermount3 -u "$MNT"
    wait "$SERVER" || { cat "$SCRATCH/serve.log" >&2; echo "mount_compare: the server failed" >&2; exit 1; }
    SERVER=
}

# measure SIDE NAME IMAGE COMMAND: fresh copy of IMAGE, mount, time COMMAND
# and the unmount, append the seconds to SCRATCH/NAME.SIDE.
measure() {
    local side=$1 name=$2 image=$3 command=$4 start end
    cp "$image" "$SCRATCH/work.img"
    rm -rf "$OUT"
    mkdir -p "$OUT"
    sync
    serve "$side" "$SCRATCH/work.img"
    start=$EPOCHREALTIME
    bash -c "$command"
    unserve
    end=$EPOCHREALTIME
    awk -v a="$start" -v b="$end" 'BEGIN { printf "%.6f\n", b - a }' >> "$SCRATCH/$name.$side"
}

median() {
    sort -g "$1" | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# creates: whether the ntfskit mount can create files yet.
creates() {
    cp "$DIR/tree10k.img" "$SCRATCH/work.img"
    serve ntfskit "$SCRATCH/work.img"
    local made=0
    if mkdir "$MNT/probe" 2>/dev/null; then made=1; fi
    unserve
    [[ $made -eq 1 ]]
}

printf '%-34s %10s %10s %7s\n' row ntfskit ntfs-3g ratio
row() {
    local name=$1 label=$2 image=$3 command=$4
    for ((i = 0; i < RUNS; ++i)); do
        measure ntfskit "$name" "$image" "$command"
        measure ntfs-3g "$name" "$image" "$command"
    done
    local a b
    a=$(median "$SCRATCH/$name.ntfskit")
    b=$(median "$SCRATCH/$name.ntfs-3g")
    printf '%-34s %8.0fms %8.0fms %6.2fx\n' "$label" "$(awk -v t="$a" 'BEGIN { print t * 1000 }')" \
        "$(awk -v t="$b" 'BEGIN { print t * 1000 }')" "$(awk -v a="$a" -v b="$b" 'BEGIN { print a / b }')"
}

row out256 "256 MiB file out of the mount" "$DIR/file256.img" "cp $MNT/big.bin $OUT/big.bin"
row in256 "256 MiB file over a file in it" "$DIR/file256.img" "cp $DIR/file256.bin $MNT/big.bin"
row outTree "10,000 files out of the mount" "$DIR/tree10k.img" "cp -r $MNT/tree $OUT/tree"
if creates; then
    row inTree "10,000 files into the mount" "$DIR/tree10k.img" "cp -r $DIR/tree10k $MNT/new"
else
    printf '%-34s %s\n' "10,000 files into the mount" "n/a: the library cannot create files yet"
fi
