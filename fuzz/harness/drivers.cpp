#include "drivers.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "damage.h"
#include "data/compression.h"
#include "foundation/byte_pack.h"
#include "foundation/endian.h"
#include "overlay_storage.h"
#include "record/attribute.h"
#include "record/layout.h"
#include "record/run_list.h"
#include "volume/ntfs_volume.h"

#ifndef NTFSKIT_FIXTURE_DIR
#define NTFSKIT_FIXTURE_DIR "."
#endif

namespace ntfs::fuzz {

namespace {

constexpr unsigned int kReadWriteShared = kAccessRead | kAccessWrite | kAccessShareMask;

// Bounds of one run's work: far above what the fixtures need where the data
// is sound, low enough that a run stays in milliseconds.
constexpr int kMaxDepth = 12;
constexpr int kMaxNames = 1000;
constexpr int kMaxFiles = 64;
constexpr int kMaxReadPerFile = 64 * 1024;
constexpr int kMaxOperations = 12;
// The first read is odd-sized so that the next ones cross cluster and unit
// edges; the later ones are large because every read call costs the
// library two compression-unit buffers.
constexpr int kFirstChunk = 7919;
constexpr int kChunk = 61440;

struct Fixture {
    std::string Name;
    std::vector<uint8_t> Image;
    ImageMap Map;
};

std::vector<uint8_t> ReadWholeFile(const std::string& path) {
    std::vector<uint8_t> bytes;
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        std::fprintf(stderr, "fuzz: cannot open fixture %s\n", path.c_str());
        std::abort();
    }
    uint8_t block[1 << 16];
    size_t got = 0;
    while ((got = std::fread(block, 1, sizeof(block), file)) > 0) bytes.insert(bytes.end(), block, block + got);
    std::fclose(file);
    return bytes;
}

std::string FixtureDirectory() {
    const char* fromEnvironment = std::getenv("NTFSKIT_FIXTURE_DIR");
    return fromEnvironment != nullptr ? fromEnvironment : NTFSKIT_FIXTURE_DIR;
}

// The volumes damage is applied to, loaded once per process: every cluster
// size, compressed and sparse files, attribute lists, a multi-level index.
const std::vector<Fixture>& Fixtures() {
    static const std::vector<Fixture>* fixtures = [] {
        auto* loaded = new std::vector<Fixture>;
        for (const char* name : {"c512", "c1k", "c4k", "c8k", "c64k", "big"}) {
            Fixture fixture{name, ReadWholeFile(FixtureDirectory() + "/" + name + ".img"), {}};
            fixture.Map = ImageMap::Scan(fixture.Image);
            loaded->push_back(std::move(fixture));
        }
        return loaded;
    }();
    return *fixtures;
}

const Fixture& FixtureNamed(const std::string& name) {
    for (const Fixture& fixture : Fixtures()) {
        if (fixture.Name == name) return fixture;
    }
    std::abort();
}

// Lists and reads what a mounted volume holds, within the bounds above.
class Walker {
public:
    explicit Walker(CNTFSVolume* volume) : Volume(volume), Buffer(kChunk) {}

    void Walk(const std::u16string& directory, int depth) {
        if (depth > kMaxDepth || Names >= kMaxNames) return;
        _FIND_FILE_DATA data{};
        void* find = Volume->FindFirstFileA((directory + u"\\*").c_str(), &data);
        if (find == nullptr) return;
        std::vector<std::pair<std::u16string, bool>> children;
        do {
            data.FileName[511] = 0;
            if (data.FileName[0] != 0)
                children.push_back({data.FileName, (data.FileAttributes & kFileAttributeDirectory) != 0});
        } while (++Names < kMaxNames && Volume->FindNextFileA(find, &data));
        Volume->CloseFindHandle(find);
        for (const auto& [name, isDirectory] : children) {
            const std::u16string path = directory + u"\\" + name;
            if (isDirectory) {
                Walk(path, depth + 1);
            } else if (Files++ < kMaxFiles) {
                Paths.push_back(path);
                Read(path);
            }
        }
    }

    void Read(const std::u16string& path) {
        void* file = Volume->CreateFileA(path.c_str(), 0, kOpenExisting, kAccessRead | kAccessShareMask);
        if (file == nullptr) return;
        int done = 0;
        for (int total = 0, chunk = kFirstChunk; total < kMaxReadPerFile; total += done, chunk = kChunk) {
            if (!Volume->ReadFile(file, Buffer.data(), chunk, &done) || done <= 0) break;
        }
        Volume->CloseFileHandle(file);
    }

    std::vector<std::u16string> Paths;  // the files met, in walk order

private:
    CNTFSVolume* Volume;
    std::vector<uint8_t> Buffer;
    int Names = 0;
    int Files = 0;
};

void MountAndWalk(OverlayStorage* storage, std::vector<std::u16string>* paths = nullptr) {
    CNTFSVolume volume(storage);
    if (!volume.Mount()) return;
    Walker walker(&volume);
    walker.Walk(u"", 0);
    volume.Umount();
    if (paths != nullptr) *paths = std::move(walker.Paths);
}

void MovePointer(CNTFSVolume* volume, void* file, int64_t offset, unsigned int method) {
    unsigned int low = static_cast<uint32_t>(offset);
    int high = static_cast<int32_t>(offset >> 32);
    volume->SetFilePointer(file, &low, &high, method);
}

// One write-side operation on the file at `path`, as the input says.
void Operate(CNTFSVolume* volume, const std::u16string& path, ByteReader* reader) {
    const uint8_t kind = reader->U8() % 5;
    const unsigned int disposition = kind == 2 ? kTruncateExisting : kOpenExisting;
    void* file = volume->CreateFileA(path.c_str(), 0, disposition, kReadWriteShared);
    if (file == nullptr) return;
    std::vector<uint8_t> bytes(reader->U16() % 20000 + 1, static_cast<uint8_t>(reader->U8()));
    int done = 0;
    switch (kind) {
        case 0:  // overwrite somewhere inside
            MovePointer(volume, file, reader->U32() % (1 << 20), kFileBegin);
            volume->WriteFile(file, bytes.data(), static_cast<int>(bytes.size()), &done);
            break;
        case 1:  // append
            MovePointer(volume, file, 0, kFileEnd);
            volume->WriteFile(file, bytes.data(), static_cast<int>(bytes.size()), &done);
            break;
        case 2:  // truncated on open, then written again
            volume->WriteFile(file, bytes.data(), static_cast<int>(bytes.size()), &done);
            break;
        case 3:  // a write of no bytes ends the file at the pointer
            MovePointer(volume, file, reader->U32() % (1 << 20), kFileBegin);
            volume->WriteFile(file, bytes.data(), 0, &done);
            break;
        default:
            MovePointer(volume, file, reader->U32() % (1 << 20), kFileBegin);
            volume->ReadFile(file, bytes.data(), static_cast<int>(bytes.size()), &done);
            break;
    }
    volume->CloseFileHandle(file);
}

// The runs of `bytes` decoded on their own, and through an attribute.
void DecodeRunList(const std::vector<uint8_t>& bytes) {
    _DATA_RUN run{};
    const int limit = static_cast<int>(bytes.size());
    for (int at = 0; at < limit && DecodeDataRun(bytes.data(), at, limit, &run) == 1;) at += run.Bytes;
    if (limit < 4) return;
    CAttribute attribute(kNonResidentHeaderSize + limit + 8, 0, nullptr);
    if (!attribute.Valid || !attribute.SetValue(bytes.data(), limit)) return;
    WriteLittleEndian(attribute.Header, kNonResidentHighestVcnOffset, ReadU32(bytes.data(), 0) % 100000, 8);
    int count = 0;
    std::free(attribute.GetRunList(&count));
}

// The files whose run lists and attribute lists the run-list target
// replaces: fragmented with extension records, sparse with many runs,
// compressed, attribute-listed with names in an extension record, plain.
struct RunListTarget {
    const char* Fixture;
    int64_t Record;
    const char16_t* Path;
};
constexpr RunListTarget kRunListTargets[] = {
    {"c512", 106, u"\\frag\\fragmented-A.txt"},   {"c512", 116, u"\\frag\\sparse-striped.bin"},
    {"c4k", 105, u"\\compressed\\text-300k.txt"}, {"c4k", 121, u"\\sparse\\islands.bin"},
    {"c4k", 98, u"\\links\\original.txt"},        {"c4k", 79, u"\\data\\large-random.bin"},
};

// Whether the FILE record image belongs to file `record`: the base record or
// one of its extension records.
bool BelongsTo(const std::vector<uint8_t>& bytes, int64_t record) {
    const uint64_t base = ReadU48(bytes.data(), kFileBaseReferenceOffset);
    const uint16_t flags = ReadU16(bytes.data(), kFileFlagsOffset);
    if ((flags & kFileRecordInUse) == 0) return false;
    return base == static_cast<uint64_t>(record) ||
           (base == 0 && ReadU32(bytes.data(), kFileRecordNumberLowOffset) == record);
}

// Puts `replacement` over the chosen run list or attribute list of the
// target's records; the rest of the area becomes zeros, which ends a list.
void ReplaceList(const Fixture& fixture, int64_t record, uint8_t choice, const std::vector<uint8_t>& replacement,
                 OverlayStorage* storage) {
    struct Area {
        int64_t RecordOffset;
        int Start;
        int End;
    };
    std::vector<Area> areas;
    for (const Structure& structure : fixture.Map.FileRecords) {
        std::vector<uint8_t> bytes(static_cast<size_t>(structure.Size));
        storage->ReadBytes(structure.Offset, bytes.data(), bytes.size());
        if (!RemoveFixups(&bytes) || !BelongsTo(bytes, record)) continue;
        for (const int at : AttributeOffsets(bytes)) {
            const int length = static_cast<int>(ReadU32(bytes.data(), at + kAttributeLengthOffset));
            if (length < 24 || at + length > structure.Size) break;
            if (bytes[at + kAttributeNonResidentOffset] != 0) {
                areas.push_back(
                    {structure.Offset, at + ReadU16(bytes.data(), at + kNonResidentRunListOffsetOffset), at + length});
            } else if (ReadU32(bytes.data(), at) == AttributeAttributeList) {
                const int value = at + ReadU16(bytes.data(), at + kResidentValueOffsetOffset);
                areas.push_back({structure.Offset, value,
                                 value + static_cast<int>(ReadU32(bytes.data(), at + kResidentValueLengthOffset))});
            }
        }
    }
    if (areas.empty()) return;
    const Area& area = areas[choice % areas.size()];
    std::vector<uint8_t> bytes(1024);
    storage->ReadBytes(area.RecordOffset, bytes.data(), bytes.size());
    RemoveFixups(&bytes);
    for (int at = area.Start, i = 0; at < area.End && at < static_cast<int>(bytes.size()); ++at, ++i) {
        bytes[at] = i < static_cast<int>(replacement.size()) ? replacement[i] : 0;
    }
    ApplyFixups(&bytes);
    storage->WriteBytes(area.RecordOffset, bytes.data(), bytes.size());
}

}  // namespace

void RunWalk(const uint8_t* data, size_t size) {
    ByteReader reader(data, size);
    const Fixture& fixture = Fixtures()[reader.U8() % Fixtures().size()];
    OverlayStorage storage(&fixture.Image);
    ApplyDamage(&reader, fixture.Map, &storage);
    MountAndWalk(&storage);
}

void RunWrite(const uint8_t* data, size_t size) {
    ByteReader reader(data, size);
    // The big volume's walk alone costs more than all the others.
    const Fixture& fixture = Fixtures()[reader.U8() % (Fixtures().size() - 1)];
    OverlayStorage storage(&fixture.Image);
    if (reader.U8() % 4 != 0) ApplyDamage(&reader, fixture.Map, &storage);
    std::vector<std::u16string> paths;
    MountAndWalk(&storage, &paths);
    if (paths.empty()) return;
    {
        CNTFSVolume volume(&storage);
        if (!volume.Mount()) return;
        const int operations = 1 + reader.U8() % kMaxOperations;
        for (int i = 0; i < operations && !reader.AtEnd(); ++i) {
            Operate(&volume, paths[reader.U16() % paths.size()], &reader);
        }
        volume.Umount();
    }
    MountAndWalk(&storage);
}

void RunRunLists(const uint8_t* data, size_t size) {
    ByteReader reader(data, size);
    const RunListTarget& target = kRunListTargets[reader.U8() % (sizeof(kRunListTargets) / sizeof(kRunListTargets[0]))];
    const uint8_t choice = reader.U8();
    const uint16_t listBytes = reader.U16() % 1024;
    const std::vector<uint8_t> replacement = reader.Take(listBytes);
    DecodeRunList(replacement);

    const Fixture& fixture = FixtureNamed(target.Fixture);
    OverlayStorage storage(&fixture.Image);
    ReplaceList(fixture, target.Record, choice, replacement, &storage);
    CNTFSVolume volume(&storage);
    if (!volume.Mount()) return;
    Walker walker(&volume);
    walker.Read(target.Path);
    for (int i = 0; i < 3 && !reader.AtEnd(); ++i) Operate(&volume, target.Path, &reader);
    volume.Umount();
}

void RunDecompress(const uint8_t* data, size_t size) {
    static std::vector<uint8_t> output(1 << 17);
    const auto inputLength = static_cast<int32_t>(size);
    int32_t finalSize = 0;
    for (uint32_t outputLength : {4096u, 65536u, 1u << 17, 1u, 0u}) {
        DecompressBuffer(output.data(), outputLength, data, inputLength, &finalSize);
    }
    uint32_t produced = 0;
    for (size_t room : {4096u, 100u}) {
        DecompressChunk(output.data(), output.data() + room, data, data + size, &produced);
    }
    PackRoundTrip(data, size);
}

void PackRoundTrip(const uint8_t* data, size_t size) {
    // Parked index records are packed without a check: every input must
    // come back exactly, and unpacking any bytes must stay in bounds.
    static _BYTE_PACK_WORKSPACE workspace{};
    static std::vector<uint8_t> packed(1 << 17);
    static std::vector<uint8_t> back(1 << 17);
    size = std::min<size_t>(size, 65536);
    const size_t length = PackBytes(data, size, packed.data(), packed.size(), &workspace);
    if (length == 0 || UnpackBytes(packed.data(), length, back.data(), size) != static_cast<int64_t>(size) ||
        std::memcmp(back.data(), data, size) != 0) {
        std::abort();
    }
    UnpackBytes(data, size, back.data(), 4096);
}

}  // namespace ntfs::fuzz
