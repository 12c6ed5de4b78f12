// The work of each fuzz target, as plain functions: the libFuzzer entry
// points in fuzz/targets call them, and the regression suite replays the
// committed findings through them with any compiler.
//
// Every driver takes any input, never fails, and bounds its own work (names
// listed, bytes read, operations), so that a run that does not end is the
// library's fault. The library's trace lines go to standard output; the fuzz
// entry points send them to /dev/null.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ntfs::fuzz {

// Damages a fixture volume, mounts it, lists every directory, opens and reads
// every file, unmounts.
void RunWalk(const uint8_t* data, size_t size);

// Damages a fixture volume, mounts it, then overwrites, appends to, shortens
// and reads files as the rest of the input says; unmounts, mounts the result
// again and walks it.
void RunWrite(const uint8_t* data, size_t size);

// Replaces the run list of a non-resident attribute or the value of an
// $ATTRIBUTE_LIST in a file of a fixture volume (fragmented, sparse,
// compressed, attribute-listed files) with the input, decodes the bytes on
// their own, then reads, overwrites, appends to and shortens the file.
void RunRunLists(const uint8_t* data, size_t size);

// Expands the input as LZNT1 data: whole buffers into outputs of several
// sizes and single chunk bodies; then packs it in memory and unpacks it
// (PackRoundTrip).
void RunDecompress(const uint8_t* data, size_t size);

// Packs the input with PackBytes and aborts unless it unpacks to the same
// bytes; also unpacks the raw input as if it were packed.
void PackRoundTrip(const uint8_t* data, size_t size);

}  // namespace ntfs::fuzz
