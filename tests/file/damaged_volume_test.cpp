// Damaged volumes through the file interface: one field of a real fixture is
// damaged (FILE records in their unprotected form, so that fields behind the
// first sector keep consistent fix-ups), then the volume is listed, read and
// written. Every case gets its failure code and leaves the volume as it was:
// no access outside a record, no overflow, no bits of other clusters freed,
// no write to another record's place, and no operation that never returns.
// Cases that could hang run under a watchdog that ends the program.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "data/bitmap_data.h"
#include "file/file_handle.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/index_test_util.h"
#include "record/file_record.h"
#include "record/layout.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"

namespace ntfs {
namespace {

using test::MountedVolume;
using Image = std::vector<uint8_t>;

constexpr unsigned int kReadShared = kAccessRead | kAccessShareMask;
constexpr unsigned int kReadWriteShared = kAccessRead | kAccessWrite | kAccessShareMask;

// Records of "c4k" used below (see its manifest).
constexpr int64_t kReadme = 64;        // \readme.txt, 180 resident bytes
constexpr int64_t kEmptyDir = 66;      // \EmptyDir, its root holds the end entry alone
constexpr int64_t kLargeRandom = 79;   // \data\large-random.bin, one run
constexpr int64_t kExactCluster = 81;  // \data\exact-cluster.bin, one cluster
constexpr int64_t kSmall600 = 84;      // \data\small-600.bin, resident, record nearly full
constexpr int64_t kMixed = 85;         // \MiXeD: CaSe, lower, end entry, in its root
constexpr int64_t kLower = 88;         // \MiXeD\lower: UPPER.BIN, end entry
constexpr int64_t kUpper = 89;         // \MiXeD\lower\UPPER.BIN
constexpr int64_t kExactUnit = 109;    // \compressed\exact-unit.txt, one compression unit

// Where FILE record `number` lies in `image`; the records damaged here lie in
// the first run of $MFT.
uint8_t* RecordBytes(Image* image, int64_t number) {
    const int64_t cluster = int64_t{(*image)[kBootSectorsPerClusterOffset]} * kSectorSize;
    return image->data() + ReadI64(image->data(), kBootMftLcnOffset) * cluster + number * kFileRecordSize;
}

// Applies `change` to record `number` in its unprotected form, then protects
// it again.
void EditRecord(Image* image, int64_t number, const std::function<void(uint8_t*)>& change) {
    uint8_t* record = RecordBytes(image, number);
    ASSERT_EQ(ReadU32(record, kFileMagicOffset), kFileRecordMagic) << number;
    ASSERT_EQ(ApplyUpdateSequence(record, kFileRecordSize), 1) << number;
    change(record);
    ProtectUpdateSequence(record, kFileRecordSize);
}

// Offset of the first attribute of `type` in an unprotected record.
size_t AttributeAt(const uint8_t* record, uint32_t type) {
    size_t at = ReadU16(record, kFileFirstAttributeOffset);
    while (at + 8 <= kFileRecordSize && ReadU32(record, at) != kAttributeEndMarker) {
        if (ReadU32(record, at) == type) return at;
        at += ReadU32(record, at + kAttributeLengthOffset);
    }
    ADD_FAILURE() << "no attribute " << type;
    return 0;
}

// Offsets in an unprotected directory record: the index root's value, and
// the entry at `index` of its node.
size_t RootValueAt(const uint8_t* record) {
    const size_t root = AttributeAt(record, AttributeIndexRoot);
    return root + ReadU16(record, root + kResidentValueOffsetOffset);
}
size_t RootEntryAt(const uint8_t* record, int index) {
    size_t at = RootValueAt(record) + kRootEntriesOffset;
    for (int i = 0; i < index; ++i) at += ReadU16(record, at + kEntryLengthOffset);
    return at;
}

// Cuts the end entry off a leaf root: the bytes in use end behind the last
// real entry.
void DropRootEndEntry(uint8_t* record) {
    const size_t inUse = RootValueAt(record) + kRootBytesInUseOffset;
    WriteU32(record, inUse, ReadU32(record, inUse) - kEntryHeaderSize);
}

Image DamagedC4k(int64_t number, const std::function<void(uint8_t*)>& change) {
    Image image = test::LoadImage("c4k");
    EditRecord(&image, number, change);
    return image;
}

// Runs `body`; a body that has not come back within a minute hangs, which no
// later check could report, so the program ends there.
void EndsInAMinute(const std::string& what, const std::function<void()>& body) {
    std::atomic<bool> done{false};
    std::thread watchdog([&] {
        for (int tenth = 0; tenth < 600 && !done; ++tenth) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (!done) {
            std::fprintf(stderr, "%s does not come back\n", what.c_str());
            std::_Exit(1);
        }
    });
    body();
    done = true;
    watchdog.join();
}

void* Open(MountedVolume* mounted, const char16_t* path, unsigned int access) {
    void* handle = mounted->Volume()->CreateFileA(path, 0, kOpenExisting, access);
    EXPECT_NE(handle, nullptr) << mounted->Volume()->GetLastError();
    return handle;
}

void SeekToEnd(CNTFSVolume* volume, void* handle) {
    unsigned int low = 0;
    int high = 0;
    ASSERT_EQ(volume->SetFilePointer(handle, &low, &high, kFileEnd), ERROR_SUCCESS);
}

// Lists `pattern` as a host does; a walk that repeats itself is cut off after
// ten names. Returns the code that ended it.
unsigned int Walk(CNTFSVolume* volume, const char16_t* pattern, std::vector<std::u16string>* names) {
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(pattern, &data);
    if (find == nullptr) return volume->GetLastError();
    names->push_back(data.FileName);
    while (names->size() < 10 && volume->FindNextFileA(find, &data)) names->push_back(data.FileName);
    const unsigned int code = volume->GetLastError();
    // After a failure while skipping entries the handle is gone already.
    volume->CloseFindHandle(find);
    return code;
}

// ---------------------------------------------------------------- records

// A resident value whose length passes its attribute, and a record header
// that claims more room than the record has, end a write with 1392 before
// any byte is copied: the copies would land outside the record.
TEST(DamagedFileRecord, ResidentWritesStayInsideTheRecord) {
    struct Case {
        const char* what;
        int64_t record;
        const char16_t* path;
        std::function<void(uint8_t*)> change;
        bool atEnd;
        int bytes;
    };
    const std::vector<Case> cases = {
        {"value length past the attribute", kReadme, u"\\readme.txt",
         [](uint8_t* r) { WriteU32(r, AttributeAt(r, AttributeData) + kResidentValueLengthOffset, 0x2000); }, false,
         1000},
        {"allocated size past the record", kSmall600, u"\\data\\small-600.bin",
         [](uint8_t* r) { WriteU32(r, kFileAllocatedSizeOffset, 0xFFFF); }, true, 200},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        MountedVolume mounted(DamagedC4k(c.record, c.change));
        ASSERT_EQ(mounted.Mount(), 1);
        CNTFSVolume* volume = mounted.Volume();
        void* handle = Open(&mounted, c.path, kReadWriteShared);
        ASSERT_NE(handle, nullptr);
        if (c.atEnd) SeekToEnd(volume, handle);
        unsigned int sizeBefore = 0;
        ASSERT_EQ(volume->GetFileSize(handle, &sizeBefore, nullptr), 1);
        const Image before = mounted.Memory().Bytes();
        const std::vector<uint8_t> data(static_cast<size_t>(c.bytes), 0x5A);
        int done = -1;
        EXPECT_EQ(volume->WriteFile(handle, data.data(), c.bytes, &done), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_FILE_CORRUPT);
        EXPECT_EQ(done, 0);
        unsigned int sizeAfter = 0;
        ASSERT_EQ(volume->GetFileSize(handle, &sizeAfter, nullptr), 1);
        EXPECT_EQ(sizeAfter, sizeBefore);
        EXPECT_TRUE(mounted.Memory().Bytes() == before);
        volume->CloseFileHandle(handle);
        volume->Umount();
    }
}

// The close of a read-only handle stamps the times and sizes into
// $FILE_NAME: a value that its header places partly behind the attribute's
// end must not carry those stores into the attributes behind it.
TEST(DamagedFileRecord, TimeStampsStayInsideTheirAttribute) {
    size_t neighbour = 0;
    Image image = DamagedC4k(kReadme, [&](uint8_t* r) {
        const size_t name = AttributeAt(r, AttributeFileName);
        // The value starts 8 bytes before the attribute's end.
        WriteU16(r, name + kResidentValueOffsetOffset,
                 static_cast<uint16_t>(ReadU32(r, name + kAttributeLengthOffset) - 8));
        WriteU32(r, name + kResidentValueLengthOffset, 0x100);
        neighbour = name + ReadU32(r, name + kAttributeLengthOffset);
    });
    MountedVolume mounted(std::move(image));
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    void* handle = Open(&mounted, u"\\readme.txt", kReadShared);
    ASSERT_NE(handle, nullptr);
    volume->CloseFileHandle(handle);
    Image after = mounted.Memory().Bytes();
    const uint8_t* record = RecordBytes(&after, kReadme);
    Image unprotected(record, record + kFileRecordSize);
    ASSERT_EQ(ApplyUpdateSequence(unprotected.data(), kFileRecordSize), 1);
    Image original = test::LoadImage("c4k");
    uint8_t* clean = RecordBytes(&original, kReadme);
    ASSERT_EQ(ApplyUpdateSequence(clean, kFileRecordSize), 1);
    // The attributes behind $FILE_NAME, up to the end marker.
    EXPECT_TRUE(std::equal(unprotected.begin() + static_cast<std::ptrdiff_t>(neighbour),
                           unprotected.begin() + ReadU32(clean, kFileBytesInUseOffset) - 8, clean + neighbour));
    volume->Umount();
}

// A user file whose directory entry names record 1 opens $MFTMirr's record,
// as \$MFTMirr itself does; closing such a handle writes that record while
// holding its lock, and must not wait for that lock a second time. A header
// that claims record 1 changes nothing: records are written where they were
// read.
TEST(DamagedFileRecord, RecordOneThroughAHandleIsClosed) {
    {
        MountedVolume mounted("c4k");
        ASSERT_EQ(mounted.Mount(), 1);
        void* handle = Open(&mounted, u"\\$MFTMirr", kReadShared);
        ASSERT_NE(handle, nullptr);
        EndsInAMinute("closing \\$MFTMirr", [&] { EXPECT_EQ(mounted.Volume()->CloseFileHandle(handle), 1); });
        mounted.Volume()->Umount();
    }
    {
        MountedVolume mounted(
            DamagedC4k(kLower, [](uint8_t* r) { WriteU48(r, RootEntryAt(r, 0) + kEntryRecordNumberOffset, 1); }));
        ASSERT_EQ(mounted.Mount(), 1);
        void* handle = Open(&mounted, u"\\MiXeD\\lower\\UPPER.BIN", kReadShared);
        ASSERT_NE(handle, nullptr);
        // The record's name is not in this directory: the entry refresh ends
        // with 2 after the record was written.
        EndsInAMinute("closing a file that is record 1", [&] {
            EXPECT_EQ(mounted.Volume()->CloseFileHandle(handle), 0);
            EXPECT_EQ(mounted.Volume()->GetLastError(), ERROR_FILE_NOT_FOUND);
        });
        mounted.Volume()->Umount();
    }
    {
        MountedVolume mounted(DamagedC4k(kUpper, [](uint8_t* r) {
            WriteU16(r, kFileRecordNumberHighOffset, 0);
            WriteU32(r, kFileRecordNumberLowOffset, 1);
        }));
        ASSERT_EQ(mounted.Mount(), 1);
        Image& bytes = mounted.Memory().Bytes();
        const Image mirror(RecordBytes(&bytes, 1), RecordBytes(&bytes, 1) + kFileRecordSize);
        void* handle = Open(&mounted, u"\\MiXeD\\lower\\UPPER.BIN", kReadShared);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(mounted.Volume()->CloseFileHandle(handle), 1);
        EXPECT_TRUE(std::equal(mirror.begin(), mirror.end(), RecordBytes(&bytes, 1)));
        mounted.Volume()->Umount();
    }
}

// ---------------------------------------------------------------- data runs

// Truncation gives a file's clusters back. A run list whose run starts before
// the first cluster would clear the bits of clusters it does not own (and the
// negative item has no bit at all): it is refused with 1392 before any bit
// changes.
TEST(DamagedRunList, TruncationFreesNothingOutsideTheVolume) {
    MountedVolume mounted(DamagedC4k(kLargeRandom, [](uint8_t* r) {
        const size_t data = AttributeAt(r, AttributeData);
        const size_t runs = data + ReadU16(r, data + kNonResidentRunListOffsetOffset);
        // Sixteen clusters from LCN -3.
        const uint8_t list[] = {0x11, 0x10, 0xFD, 0x00};
        std::copy(std::begin(list), std::end(list), r + runs);
    }));
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    const Image before = mounted.Memory().Bytes();
    EXPECT_EQ(volume->CreateFileA(u"\\data\\large-random.bin", 0, kTruncateExisting, kReadWriteShared), nullptr);
    EXPECT_EQ(volume->GetLastError(), ERROR_FILE_CORRUPT);
    // Whoever asks, clusters outside the volume are not freed.
    int64_t start = -3;
    EXPECT_EQ(volume->FreeClusters(&start, 16), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(volume->GetClusterBitmap()->FreeUnits(&start, 16), ERROR_INVALID_PARAMETER);
    start = volume->GetClusterBitmap()->GetItemCount() - 1;
    EXPECT_EQ(volume->FreeClusters(&start, 2), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(mounted.Memory().Bytes() == before);
    volume->Umount();
}

// Run deltas that reach an LCN whose sector number passes 64 bits (only a
// damaged list has them; "c64k" has 128 sectors a cluster): reads and writes
// there end with 1392 instead of computing a sector.
TEST(DamagedRunList, LcnBeyondSixtyFourBitSectorsIsCorrupt) {
    Image image = test::LoadImage("c64k");
    EditRecord(&image, kLargeRandom, [](uint8_t* r) {
        const size_t data = AttributeAt(r, AttributeData);
        const size_t runs = data + ReadU16(r, data + kNonResidentRunListOffsetOffset);
        // Two runs of seven-byte deltas, 2^55 - 1 each: one cluster, then
        // four; the last cluster lies at 2^56 + 1, sector 2^63 + 128.
        const uint8_t list[] = {0x71, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x71,
                                0x04, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x00};
        // The attribute grows by 16 bytes to hold them; the end marker follows.
        const uint32_t length = ReadU32(r, data + kAttributeLengthOffset) + 16;
        WriteU32(r, data + kAttributeLengthOffset, length);
        std::fill(r + runs, r + data + length, 0);
        std::copy(std::begin(list), std::end(list), r + runs);
        WriteU32(r, data + length, kAttributeEndMarker);
        WriteU32(r, data + length + 4, 0);
        WriteU32(r, kFileBytesInUseOffset, static_cast<uint32_t>(data + length + 8));
    });
    MountedVolume mounted(std::move(image));
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    void* handle = Open(&mounted, u"\\data\\large-random.bin", kReadWriteShared);
    ASSERT_NE(handle, nullptr);
    unsigned int low = 4 * 65536;
    int high = 0;
    ASSERT_EQ(volume->SetFilePointer(handle, &low, &high, kFileBegin), ERROR_SUCCESS);
    std::vector<uint8_t> buffer(512, 0x11);
    int done = -1;
    EXPECT_EQ(volume->ReadFile(handle, buffer.data(), 512, &done), 0);
    EXPECT_EQ(volume->GetLastError(), ERROR_FILE_CORRUPT);
    const Image before = mounted.Memory().Bytes();
    // A write reports through the last error alone.
    EXPECT_EQ(volume->WriteFile(handle, buffer.data(), 512, &done), 1);
    EXPECT_EQ(volume->GetLastError(), ERROR_FILE_CORRUPT);
    EXPECT_EQ(done, 0);
    EXPECT_TRUE(mounted.Memory().Bytes() == before);
    volume->CloseFileHandle(handle);
    volume->Umount();
}

// Growth at the end of a file: sizes and VCNs that only damage produces must
// not overflow the arithmetic of the growth. Each write fails before it takes
// a cluster or writes a byte.
TEST(DamagedRunList, GrowthArithmeticDoesNotOverflow) {
    struct Case {
        const char* what;
        int64_t record;
        const char16_t* path;
        std::function<void(uint8_t*, size_t)> change;  // record, $DATA offset
        unsigned int code;
    };
    const std::vector<Case> cases = {
        {"data size next to the largest size", kLargeRandom, u"\\data\\large-random.bin",
         [](uint8_t* r, size_t data) { WriteU64(r, data + kNonResidentDataSizeOffset, INT64_MAX - 100); },
         ERROR_INVALID_PARAMETER},
        {"lowest VCN whose byte offset passes 64 bits", kExactCluster, u"\\data\\exact-cluster.bin",
         [](uint8_t* r, size_t data) { WriteU64(r, data + kNonResidentLowestVcnOffset, uint64_t{1} << 62); },
         ERROR_FILE_CORRUPT},
        {"compression unit of 2^200 clusters", kExactUnit, u"\\compressed\\exact-unit.txt",
         [](uint8_t* r, size_t data) { WriteU8(r, data + kNonResidentCompressionUnitOffset, 200); },
         ERROR_FILE_CORRUPT},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        MountedVolume mounted(DamagedC4k(c.record, [&](uint8_t* r) { c.change(r, AttributeAt(r, AttributeData)); }));
        ASSERT_EQ(mounted.Mount(), 1);
        CNTFSVolume* volume = mounted.Volume();
        void* handle = Open(&mounted, c.path, kReadWriteShared);
        ASSERT_NE(handle, nullptr);
        SeekToEnd(volume, handle);
        const Image before = mounted.Memory().Bytes();
        const std::vector<uint8_t> data(4096, 0x77);
        int done = -1;
        EXPECT_EQ(volume->WriteFile(handle, data.data(), 4096, &done), 0);
        EXPECT_EQ(volume->GetLastError(), c.code);
        EXPECT_EQ(done, 0);
        EXPECT_TRUE(mounted.Memory().Bytes() == before);
        volume->CloseFileHandle(handle);
        volume->Umount();
    }
}

// ---------------------------------------------------------------- indexes

// An entry is read no further than its length: a name length byte that
// claims more units than the entry holds (the last entry of \MiXeD, near its
// record's end) is cut to the entry, and enumeration delivers both names and
// ends normally; an end entry that lost its flag cannot hold a key, and is
// damage (before, it was taken for a file of record 0 and skipped for ever).
TEST(DamagedIndexEntry, EntriesAreReadInsideTheirLength) {
    {
        MountedVolume mounted(
            DamagedC4k(kMixed, [](uint8_t* r) { WriteU8(r, RootEntryAt(r, 1) + kEntryNameLengthOffset, 255); }));
        ASSERT_EQ(mounted.Mount(), 1);
        std::vector<std::u16string> names;
        EXPECT_EQ(Walk(mounted.Volume(), u"\\MiXeD\\*", &names), ERROR_FILE_NOT_FOUND);
        EXPECT_EQ(names, (std::vector<std::u16string>{u"CaSe", u"lower"}));
        mounted.Volume()->Umount();
    }
    {
        MountedVolume mounted(
            DamagedC4k(kEmptyDir, [](uint8_t* r) { WriteU16(r, RootEntryAt(r, 0) + kEntryFlagsOffset, 0); }));
        ASSERT_EQ(mounted.Mount(), 1);
        std::vector<std::u16string> names;
        EndsInAMinute("listing \\EmptyDir",
                      [&] { EXPECT_EQ(Walk(mounted.Volume(), u"\\EmptyDir\\*", &names), ERROR_FILE_CORRUPT); });
        EXPECT_TRUE(names.empty());
        mounted.Volume()->Umount();
    }
}

// A node that lost its end entry: the step past its last entry would stand on
// that entry again, for ever: a POSIX name comes out again and again, and the
// loops that skip entries (records already delivered, the volume's own files
// below record 12) never end. Each walk ends with 1392 there.
TEST(DamagedIndexEntry, NodeWithoutEndEntryEndsTheWalk) {
    // The root of `directory` without its end entry, and its entry `index`
    // changed at `offset` to `value` (`width` bytes) unless `width` is 0.
    auto withoutEnd = [](int64_t directory, int index, int offset, uint64_t value, int width) {
        return DamagedC4k(directory, [=](uint8_t* r) {
            DropRootEndEntry(r);
            const size_t at = RootEntryAt(r, index) + static_cast<size_t>(offset);
            if (width == 1) WriteU8(r, at, static_cast<uint8_t>(value));
            if (width == 6) WriteU48(r, at, value);
        });
    };
    struct Case {
        const char* what;
        Image image;
        const char16_t* pattern;
        std::vector<std::u16string> delivered;  // before the failure
    };
    std::vector<Case> cases;
    cases.push_back({"POSIX name delivered again", withoutEnd(kMixed, 1, 0, 0, 0), u"\\MiXeD\\*", {u"CaSe", u"lower"}});
    cases.push_back({"Win32 name skipped as delivered",
                     withoutEnd(kMixed, 1, kEntryNameSpaceOffset, 1, 1),
                     u"\\MiXeD\\*",
                     {u"CaSe", u"lower"}});
    cases.push_back({"system record skipped by FindNextFileA",
                     withoutEnd(kMixed, 1, kEntryRecordNumberOffset, 11, 6),
                     u"\\MiXeD\\*",
                     {u"CaSe"}});
    cases.push_back({"system record skipped by FindFirstFileA",
                     withoutEnd(kLower, 0, kEntryRecordNumberOffset, 11, 6),
                     u"\\MiXeD\\lower\\*",
                     {}});
    for (Case& c : cases) {
        SCOPED_TRACE(c.what);
        MountedVolume mounted(std::move(c.image));
        ASSERT_EQ(mounted.Mount(), 1);
        std::vector<std::u16string> names;
        EndsInAMinute(c.what, [&] { EXPECT_EQ(Walk(mounted.Volume(), c.pattern, &names), ERROR_FILE_CORRUPT); });
        EXPECT_EQ(names, c.delivered);
        mounted.Volume()->Umount();
    }
}

// The close of a read-only handle writes the index record that holds the
// file's entry, at the VCN in that record's header. A header that names
// another record's place, or a place whose byte offset passes 64 bits, is a
// bad record: 11, and the other record stays as it was.
TEST(DamagedIndexRecord, CloseWritesNoOtherRecord) {
    auto directories = test::NamesByDirectory(test::LoadManifest("big"));
    std::vector<std::u16string> names;
    for (const auto& [name, records] : directories[u"\\many"].names) names.push_back(name);
    const std::u16string smallest = *std::min_element(names.begin(), names.end(), test::IndexLess);
    for (int damage = 0; damage < 2; ++damage) {
        SCOPED_TRACE(damage == 0 ? "header names the record above" : "header VCN of 2^61");
        MountedVolume mounted("big");
        ASSERT_EQ(mounted.Mount(), 1);
        CNTFSVolume* volume = mounted.Volume();
        Image& bytes = mounted.Memory().Bytes();
        // The records of the first entries down to the leaf with the smallest
        // names, followed in the image so that none of them is read yet.
        CDirectory* directory = nullptr;
        ASSERT_EQ(volume->ReferenceDirectory(64, u"\\many", &directory), ERROR_SUCCESS);
        directory->LockShared();
        std::vector<int64_t> path = {
            EntrySubNodeVcn(static_cast<CIndexEntry*>(directory->GetIndexRoot()->GetItem(0))->GetEntry())};
        std::vector<int64_t> at = {test::IndexRecordImageOffset(directory, path.back())};
        while (at.back() > 0 && (ReadU32(bytes.data() + at.back(), kIndexFlagsOffset) & kIndexNodeHasSubNodes) != 0) {
            const uint8_t* first = bytes.data() + at.back() + kIndexNodeHeaderOffset +
                                   ReadU32(bytes.data() + at.back(), kIndexFirstEntryOffset);
            path.push_back(EntrySubNodeVcn(first));
            at.push_back(test::IndexRecordImageOffset(directory, path.back()));
        }
        // Where the write would land: the first record of the path, or
        // offset 0 (the wrapped product), which is the leaf itself here.
        const int64_t victimAt = damage == 0 ? at.front() : test::IndexRecordImageOffset(directory, 0);
        directory->UnlockShared();
        directory->Release();
        ASSERT_GE(path.size(), 2u);
        ASSERT_GT(at.back(), 0);
        ASSERT_GT(victimAt, 0);
        WriteU64(bytes.data() + at.back(), kIndexVcnOffset,
                 damage == 0 ? static_cast<uint64_t>(path.front()) : uint64_t{1} << 61);
        const Image victim(bytes.begin() + victimAt, bytes.begin() + victimAt + kIndexRecordSize);

        void* handle = Open(&mounted, (u"\\many\\" + smallest).c_str(), kReadShared);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(volume->CloseFileHandle(handle), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_BAD_FORMAT);
        EXPECT_TRUE(std::equal(victim.begin(), victim.end(), bytes.begin() + victimAt));
        volume->Umount();
    }
}

}  // namespace
}  // namespace ntfs
