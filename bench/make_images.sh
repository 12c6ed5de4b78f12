#!/usr/bin/env bash
# Makes the volumes the comparison benchmark (bench/compare.sh) reads, in a
# scratch directory (default /tmp/ntfskit-bench; nothing here is committed):
#
#   dir10k.img    one directory /big of 10,000 empty files
#   dir100k.img   one directory /big of 100,000 empty files
#   dir3k64k.img  one directory /big of 3,000 empty files, 64 KiB clusters
#   info1g.img    an empty 1 GiB volume
#   empty256.img  an empty 256 MiB volume, and files10k/ on the host: 10,000
#                 files of 4 KiB, for the put row
#   file256.img   one contiguous file /big.bin of 256 MiB (host copy file256.bin)
#   tree20k.img   a tree /tree of 100 directories of 200 files of 1-8 KiB
#                 (host copy tree20k/)
#   tree10k.img   a tree /tree of 50 directories of 200 files of 1-8 KiB
#                 (host copy tree10k/), for bench/mount_compare.sh
#
#   sudo bench/make_images.sh [DIR] [NAME...]
#
# Each volume is formatted with mkntfs and filled through an ntfs-3g mount.
# An image that exists already is kept. Needs root, /dev/fuse, mkntfs,
# ntfs-3g and perl.
set -euo pipefail
export LC_ALL=C.UTF-8

DIR=${1:-/tmp/ntfskit-bench}
shift || true
MNT=$DIR/mnt
NTFS3G_PID=
mkdir -p "$DIR" "$MNT"

die() { echo "make_images: $*" >&2; exit 1; }
log() { echo "== $*" >&2; }
cleanup() {
    if mountpoint -q "$MNT"; then umount "$MNT" || true; fi
    if [[ -n $NTFS3G_PID ]]; then wait "$NTFS3G_PID" 2>/dev/null || true; fi
}
trap cleanup EXIT

[[ $(id -u) -eq 0 ]] || die "must run as root (ntfs-3g mounts)"
for tool in mkntfs ntfs-3g perl truncate; do command -v "$tool" >/dev/null || die "missing tool: $tool"; done
[[ -e /dev/fuse ]] || die "/dev/fuse is missing"

# new_volume NAME CLUSTER SIZE_MIB: formats DIR/NAME.img.tmp and mounts it.
new_volume() {
    local img=$DIR/$1.img.tmp
    rm -f "$img"
    truncate -s "$3M" "$img"
    mkntfs -q -F -f -c "$2" -s 512 -p 0 -H 0 -S 0 -L "$1" "$img" > "$DIR/$1.mkntfs.log" 2>&1 ||
        { cat "$DIR/$1.mkntfs.log" >&2; die "$1: mkntfs failed"; }
    ntfs-3g -o no_detach "$img" "$MNT" > "$DIR/$1.ntfs-3g.log" 2>&1 &
    NTFS3G_PID=$!
    for _ in $(seq 100); do
        mountpoint -q "$MNT" && return 0
        sleep 0.1
    done
    cat "$DIR/$1.ntfs-3g.log" >&2
    die "$1: ntfs-3g mount failed"
}

# finish NAME: unmounts, waits for ntfs-3g, and puts the image in place.
finish() {
    umount "$MNT"
    wait "$NTFS3G_PID" || die "$1: ntfs-3g exited with an error"
    NTFS3G_PID=
    mv "$DIR/$1.img.tmp" "$DIR/$1.img"
}

# empty_files DIRECTORY COUNT: COUNT empty files with names of 12 to 20 units.
empty_files() {
    mkdir -p "$1"
    perl -e 'my ($d, $n) = @ARGV; srand(20);
             for my $i (1 .. $n) {
                 my $name = sprintf("%s/f%06d_%s.dat", $d, $i, join("", map { chr(97 + int(rand(26))) } 1 .. int(rand(9))));
                 open(my $f, ">", $name) or die "$name: $!"; close($f);
             }' "$1" "$2"
}

want() {
    [[ -e $DIR/$1.img ]] && { log "$1: kept"; return 1; }
    [[ ${#NAMES[@]} -eq 0 ]] && return 0
    local n
    for n in "${NAMES[@]}"; do [[ $n == "$1" ]] && return 0; done
    return 1
}
NAMES=("$@")

if want dir10k; then
    log "dir10k"; new_volume dir10k 4096 256; empty_files "$MNT/big" 10000; finish dir10k
fi
if want dir100k; then
    log "dir100k (takes a few minutes)"; new_volume dir100k 4096 1024; empty_files "$MNT/big" 100000; finish dir100k
fi
if want dir3k64k; then
    log "dir3k64k"; new_volume dir3k64k 65536 512; empty_files "$MNT/big" 3000; finish dir3k64k
fi
if want info1g; then
    log "info1g"; new_volume info1g 4096 1024; finish info1g
fi
if want empty256; then
    log "empty256"
    rm -rf "${DIR:?}/files10k"
    mkdir -p "$DIR/files10k"
    perl -e 'my $root = shift; srand(4096);
             for my $i (1 .. 10000) {
                 open(my $h, ">", sprintf("%s/f%05d.bin", $root, $i)) or die; binmode $h;
                 print $h pack("C*", map { int(rand(256)) } 1 .. 4096); close($h);
             }' "$DIR/files10k"
    new_volume empty256 4096 256; finish empty256
fi
if want file256; then
    log "file256"
    perl -e 'srand(256); my $block = join("", map { chr(int(rand(256))) } 1 .. 65536);
             for my $i (1 .. 4096) { print substr($block, ($i * 977) % 65536) . substr($block, 0, ($i * 977) % 65536) }' \
        > "$DIR/file256.bin"
    new_volume file256 4096 512
    dd if="$DIR/file256.bin" of="$MNT/big.bin" bs=4M status=none
    finish file256
fi
# small_tree NAME DIRECTORIES: DIR/NAME/ of DIRECTORIES x 200 random files
# of 1-8 KiB, and the volume NAME.img with it as /tree.
small_tree() {
    log "$1"
    rm -rf "${DIR:?}/$1"
    perl -e 'my ($root, $dirs) = @ARGV; srand(2020); mkdir $root;
             for my $d (1 .. $dirs) {
                 my $dir = sprintf("%s/d%03d", $root, $d); mkdir $dir or die "$dir: $!";
                 for my $f (1 .. 200) {
                     my $size = 1024 + int(rand(7 * 1024));
                     open(my $h, ">", sprintf("%s/f%03d.bin", $dir, $f)) or die; binmode $h;
                     print $h pack("C*", map { int(rand(256)) } 1 .. $size); close($h);
                 }
             }' "$DIR/$1" "$2"
    new_volume "$1" 4096 512
    cp -r "$DIR/$1" "$MNT/tree"
    finish "$1"
}
if want tree20k; then small_tree tree20k 100; fi
if want tree10k; then small_tree tree10k 50; fi
log "images in $DIR"
