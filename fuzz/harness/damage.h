// Format-aware damage for the fuzz targets.
//
// A fuzz input is read as a small program: which structure of a fixture
// volume to hit (the boot sector, a FILE record, an INDX record), which field
// of it (a header field, a field of one attribute or index entry, a byte of a
// run list or value, or any byte), and how to change it (a value from the
// input, a small delta, a boundary value, a flipped bit). Each edit either
// keeps the record's update sequence consistent, so the damage reaches past
// the record check, or changes the bytes as stored.
//
// The program never fails: past the end of the input every read answers 0,
// and a field that does not exist in a damaged structure falls back to a raw
// byte, so any input is a valid program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "overlay_storage.h"

namespace ntfs::fuzz {

// Reads the input as little-endian integers; zeros past its end.
class ByteReader {
public:
    ByteReader(const uint8_t* data, size_t size) : Data(data), Size(size) {}
    uint8_t U8();
    uint16_t U16();
    uint32_t U32();
    // `bytes` (at most 8) little-endian bytes.
    uint64_t Bytes(int bytes);
    size_t Remaining() const { return Size - Position; }
    bool AtEnd() const { return Position >= Size; }
    // Takes up to `bytes` of the input as they stand.
    std::vector<uint8_t> Take(size_t bytes);

private:
    const uint8_t* Data;
    size_t Size;
    size_t Position = 0;
};

enum class StructureKind { BootSector, FileRecord, IndexRecord };

struct Structure {
    StructureKind Kind;
    int64_t Offset;  // byte offset in the image
    int Size;        // bytes
};

// The structures of one image, found once by their signatures.
struct ImageMap {
    std::vector<Structure> BootSectors;   // the boot sector and its backup
    std::vector<Structure> FileRecords;   // every "FILE" record, $MFTMirr's too
    std::vector<Structure> IndexRecords;  // every "INDX" record

    static ImageMap Scan(const std::vector<uint8_t>& image);
};

// Undoes and redoes the update sequence of a FILE or INDX record image:
// each 512-byte stretch ends with the sequence number on disk and its real
// last word in the array. Both do nothing and answer false when the array's
// offset and count do not fit the image.
bool RemoveFixups(std::vector<uint8_t>* record);
bool ApplyFixups(std::vector<uint8_t>* record);

// Offsets of the attributes of a FILE record image (update sequence
// removed), walked by their length fields as far as they stay inside it.
std::vector<int> AttributeOffsets(const std::vector<uint8_t>& record);

// Applies 1 to 4 edits read from `reader` to `storage`.
void ApplyDamage(ByteReader* reader, const ImageMap& map, OverlayStorage* storage);

// The most edits one program makes.
constexpr int kMaxEdits = 4;

}  // namespace ntfs::fuzz
