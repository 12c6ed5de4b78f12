#!/usr/bin/env bash
# Runs each benchmark row of ntfskit against its peer on the same image,
# interleaved (A, B, A, B, ... N times each), and prints medians of wall
# time, peak memory (maximum resident set, /usr/bin/time %M) and the ratio
# ntfskit / peer against the row's goal.
#
#   bench/compare.sh [-n RUNS] [-b BEFORE] [-r ROWS] [IMAGE_DIR]
#
#   -n RUNS    runs per side (default 11)
#   -b BEFORE  a second ntfskit binary (an older build) measured in the same
#              interleaving, for a before/after table
#   -r ROWS    comma-separated row names to run (default: all)
#   IMAGE_DIR  the images of bench/make_images.sh (default /tmp/ntfskit-bench;
#              made there first when missing, which needs root)
#
# NTFSKIT names the binary under test (default build/rel/tools/ntfskit of
# this tree, a Release build). Needs ntfs-3g's ntfsls, ntfscat and ntfsinfo.
set -euo pipefail
export LC_ALL=C

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
RUNS=11
BEFORE=
ROWS=
while getopts "n:b:r:" option; do
    case $option in
        n) RUNS=$OPTARG ;;
        b) BEFORE=$OPTARG ;;
        r) ROWS=$OPTARG ;;
        *) exit 2 ;;
    esac
done
shift $((OPTIND - 1))
DIR=${1:-/tmp/ntfskit-bench}
NTFSKIT=${NTFSKIT:-$HERE/../build/rel/tools/ntfskit}
[[ -x $NTFSKIT ]] || { echo "compare: no ntfskit binary at $NTFSKIT (build Release first)" >&2; exit 1; }
for tool in ntfsls ntfscat ntfsinfo /usr/bin/time; do
    command -v "$tool" >/dev/null || { echo "compare: missing $tool (Debian: ntfs-3g, time)" >&2; exit 1; }
done
for image in dir10k dir100k dir3k64k info1g file256 tree20k empty256; do
    [[ -e $DIR/$image.img ]] || { "$HERE/make_images.sh" "$DIR"; break; }
done
SCRATCH=$(mktemp -d /tmp/ntfskit-compare.XXXXXX)
trap 'rm -rf "$SCRATCH" "${OUT:-}"' EXIT

# measure NAME COMMAND: runs COMMAND once (output to /dev/null unless the
# command redirects itself), appends "seconds kib" to SCRATCH/NAME.
measure() {
    local name=$1
    shift
    local start end
    start=$EPOCHREALTIME
    /usr/bin/time -f %M -o "$SCRATCH/mem" bash -c "$*" > /dev/null
    end=$EPOCHREALTIME
    echo "$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.6f", b - a }') $(cat "$SCRATCH/mem")" >> "$SCRATCH/$name"
}

median() {  # FILE COLUMN
    awk -v c="$2" '{ print $c }' "$1" | sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

printf '%-28s %10s %9s %-22s %10s %9s %7s %6s %s\n' row ntfskit MiB peer peer-time MiB ratio goal ""
# row NAME GOAL LABEL PEER_LABEL PREPARE NTFSKIT_COMMAND PEER_COMMAND
# (%N stands for the ntfskit binary in NTFSKIT_COMMAND.)
row() {
    local name=$1 goal=$2 label=$3 peerLabel=$4 prepare=$5 mine=$6 peer=$7
    if [[ -n $ROWS && ,$ROWS, != *,$name,* ]]; then return; fi
    rm -f "$SCRATCH/a" "$SCRATCH/b" "$SCRATCH/c"
    # One warm-up of each side: the image in the page cache for all.
    eval "$prepare"; bash -c "${mine//%N/$NTFSKIT}" > /dev/null 2>&1 || true
    eval "$prepare"; bash -c "$peer" > /dev/null 2>&1 || true
    for ((i = 0; i < RUNS; ++i)); do
        eval "$prepare"; measure a "${mine//%N/$NTFSKIT}"
        eval "$prepare"; measure b "$peer"
        if [[ -n $BEFORE ]]; then eval "$prepare"; measure c "${mine//%N/$BEFORE}"; fi
    done
    local ta tb ma mb ratio verdict
    ta=$(median "$SCRATCH/a" 1); tb=$(median "$SCRATCH/b" 1)
    ma=$(median "$SCRATCH/a" 2); mb=$(median "$SCRATCH/b" 2)
    ratio=$(awk -v a="$ta" -v b="$tb" 'BEGIN { printf "%.2f", a / b }')
    verdict=$(awk -v r="$ratio" -v g="$goal" 'BEGIN { print (r <= g) ? "ok" : "MISS" }')
    printf '%-28s %9.1fms %9.1f %-22s %8.1fms %9.1f %6sx %5sx %s\n' "$label" "$(awk -v t="$ta" 'BEGIN{print t*1000}')" \
        "$(awk -v m="$ma" 'BEGIN{print m/1024}')" "$peerLabel" "$(awk -v t="$tb" 'BEGIN{print t*1000}')" \
        "$(awk -v m="$mb" 'BEGIN{print m/1024}')" "$ratio" "$goal" "$verdict"
    if [[ -n $BEFORE ]]; then
        local tc mc
        tc=$(median "$SCRATCH/c" 1); mc=$(median "$SCRATCH/c" 2)
        printf '%-28s %9.1fms %9.1f %-22s %8s   %9s %6sx\n' "  (before)" "$(awk -v t="$tc" 'BEGIN{print t*1000}')" \
            "$(awk -v m="$mc" 'BEGIN{print m/1024}')" "" "" "" "$(awk -v a="$tc" -v b="$tb" 'BEGIN { printf "%.2f", a / b }')"
    fi
}

D=$DIR
# Copies go to memory (tmpfs) where there is one: creating 20,000 files on
# a disk file system measures the file system, for both sides alike.
OUT=$SCRATCH/out
if [[ -d /dev/shm && -w /dev/shm ]]; then OUT=/dev/shm/ntfskit-compare-out.$$; fi
row ls10k 0.5 "ls -l, 10,000 entries" "ntfsls -l" ":" "%N ls -l $D/dir10k.img /big" "ntfsls -l -p /big $D/dir10k.img"
row ls100k 0.5 "ls -l, 100,000 entries" "ntfsls -l" ":" "%N ls -l $D/dir100k.img /big" "ntfsls -l -p /big $D/dir100k.img"
row ls3k64k 0.7 "ls -l, 3,000, 64K clusters" "ntfsls -l" ":" "%N ls -l $D/dir3k64k.img /big" "ntfsls -l -p /big $D/dir3k64k.img"
row info 2.0 "info, 1 GiB volume" "ntfsinfo -m" ":" "%N info $D/info1g.img" "ntfsinfo -m $D/info1g.img"
row cat 0.6 "cat, 256 MiB contiguous" "ntfscat" ":" "%N cat $D/file256.img /big.bin" "ntfscat $D/file256.img /big.bin"
row cathost 2.0 "cat, 256 MiB contiguous" "cat (host file)" ":" "%N cat $D/file256.img /big.bin" "cat $D/file256.bin"
row getR 1.3 "get -R, 20,000 files" "cp -r (host tree)" "rm -rf $OUT" "%N get -R $D/tree20k.img /tree $OUT" "cp -r $D/tree20k $OUT"
# Both sides start from a fresh copy of the empty volume and include their
# mount and unmount: put mounts the image itself.
mkdir -p "$SCRATCH/mnt"
row put10k 0.5 "put -R, 10,000 files of 4 KiB" "cp -r, ntfs-3g mount" \
    "cp $D/empty256.img $SCRATCH/mine.img; cp $D/empty256.img $SCRATCH/peer.img" \
    "%N put -R $SCRATCH/mine.img $D/files10k /" \
    "ntfs-3g $SCRATCH/peer.img $SCRATCH/mnt && cp -r $D/files10k $SCRATCH/mnt/ && umount $SCRATCH/mnt"
