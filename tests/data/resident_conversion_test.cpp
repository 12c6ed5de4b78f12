// Resident values leaving their record, and bitmap attributes growing, on
// real volumes; the result is read back by sleuthkit after unmount.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "data/bitmap_data.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "ntfskit.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"
#include "support/tools.h"

namespace ntfs {
namespace {

using test::ManifestEntry;
using test::MountedVolume;

const ManifestEntry* Find(const std::vector<ManifestEntry>& manifest, const std::string& path) {
    for (const ManifestEntry& entry : manifest) {
        if (entry.path_utf8 == path) return &entry;
    }
    return nullptr;
}

std::string Icat(const std::string& image, const std::string& address) {
    return test::RunTool("icat -f ntfs " + test::ShellQuote(image) + " " + address + " 2>/dev/null").output;
}

TEST(ResidentConversion, ValueLeavesItsRecordIntact) {
    for (const char* name : {"c512", "c4k"}) {
        SCOPED_TRACE(name);
        const std::vector<ManifestEntry> manifest = test::LoadManifest(name);
        const ManifestEntry* readme = Find(manifest, "\\readme.txt");
        const ManifestEntry* empty = Find(manifest, "\\Empty.dat");
        ASSERT_TRUE(readme && empty);
        MountedVolume mounted(name);
        ASSERT_EQ(mounted.Mount(), 1);
        CNTFSVolume* volume = mounted.Volume();
        const std::string before = Icat(test::FixturePath(name), std::to_string(readme->record));
        for (const ManifestEntry* entry : {readme, empty}) {
            CFullFileRecord* record = nullptr;
            ASSERT_EQ(volume->ReferenceFileRecord(entry->record, &record), ERROR_SUCCESS);
            record->LockExclusive();
            CAttribute* data = record->FindAttribute(AttributeData, nullptr, 0, 0);
            ASSERT_TRUE(data != nullptr && data->IsResident());
            ASSERT_EQ(data->Record->MakeNonResident(data), ERROR_SUCCESS);
            data = record->FindAttribute(AttributeData, nullptr, 0, 0);
            EXPECT_FALSE(data->IsResident());
            EXPECT_EQ(data->Record->MakeNonResident(data), ERROR_INVALID_PARAMETER);
            // An empty value still gets one cluster; its size reads 1.
            EXPECT_EQ(data->GetDataSize(), entry->size > 0 ? static_cast<int64_t>(entry->size) : 1);
            int64_t changed = 0;
            EXPECT_EQ(volume->UpdateFileRecord(record, nullptr, nullptr, &changed), 1);
            record->UnlockExclusive();
            record->Release();
        }
        const std::string saved = mounted.UnmountToFile();
        EXPECT_TRUE(Icat(saved, std::to_string(readme->record)) == before);
        const test::ToolResult istat =
            test::RunTool("istat -f ntfs " + test::ShellQuote(saved) + " " + std::to_string(readme->record));
        EXPECT_NE(istat.output.find("Non-Resident"), std::string::npos) << istat.output;
        if (volume->GetClusterSize() <= 4096) {
            EXPECT_EQ(test::RunTool("ntfsfix -n " + test::ShellQuote(saved)).status, 0);
        }
    }
}

// A compressed resident file whose growth cannot be written (the device
// fails at the first write of the conversion) keeps its data: the failed
// conversion puts the resident value back, so the file reads as before, in
// this mount and after it.
TEST(ResidentConversion, AFailedCompressedConversionKeepsTheData) {
    const std::vector<ManifestEntry> manifest = test::LoadManifest("c4k");
    const ManifestEntry* tiny = Find(manifest, "\\compressed\\tiny.txt");
    ASSERT_NE(tiny, nullptr);
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    const char16_t* path = u"\\compressed\\tiny.txt";
    void* file = volume->CreateFileA(path, 0, kOpenExisting, kAccessRead | kAccessWrite | kAccessShareMask);
    ASSERT_NE(file, nullptr);
    unsigned int low = 0;
    ASSERT_EQ(volume->SetFilePointer(file, &low, nullptr, kFileEnd), ERROR_SUCCESS);
    const std::vector<uint8_t> growth(4000, 'x');
    int done = 0;
    mounted.Faults().FailNthWrite(mounted.Faults().Writes() + 1, ERROR_IO_DEVICE);
    EXPECT_EQ(volume->WriteFile(file, growth.data(), static_cast<int>(growth.size()), &done), 0);
    EXPECT_EQ(done, 0);
    mounted.Faults().Heal();
    EXPECT_EQ(volume->CloseFileHandle(file), 1);

    file = volume->CreateFileA(path, 0, kOpenExisting, kAccessRead | kAccessShareMask);
    ASSERT_NE(file, nullptr);
    std::vector<uint8_t> content(tiny->size + 100);
    ASSERT_EQ(volume->ReadFile(file, content.data(), static_cast<int>(content.size()), &done), 1);
    EXPECT_EQ(test::Sha256Hex(content.data(), static_cast<size_t>(done)), tiny->sha256);
    EXPECT_EQ(volume->CloseFileHandle(file), 1);
    const std::string saved = mounted.UnmountToFile();
    const std::string onDisk = Icat(saved, std::to_string(tiny->record));
    EXPECT_EQ(test::Sha256Hex(onDisk.data(), onDisk.size()), tiny->sha256);
}

TEST(BitmapResize, GrowsInPlaceAndNeverShrinks) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    // $MFT's own record bitmap: asking for fewer items than it covers is a no-op.
    CFileRecordBitmap* records = volume->GetMftBitmap();
    CAttribute* bitmap = records->Mft->FindAttribute(AttributeBitmap, nullptr, 0, 0);
    ASSERT_NE(bitmap, nullptr);
    const int64_t size = bitmap->GetDataSize();
    EXPECT_EQ(records->Resize(8), ERROR_SUCCESS);
    EXPECT_EQ(records->Mft->FindAttribute(AttributeBitmap, nullptr, 0, 0)->GetDataSize(), size);
    // Growing past the allocation takes zeroed clusters.
    const uint32_t items = static_cast<uint32_t>((size + 5000) * 8);
    ASSERT_EQ(records->Resize(items), ERROR_SUCCESS);
    bitmap = records->Mft->FindAttribute(AttributeBitmap, nullptr, 0, 0);
    EXPECT_GE(bitmap->GetDataSize(), (items + 7) / 8);
    std::vector<uint8_t> grown(static_cast<size_t>(bitmap->GetDataSize()));
    int64_t offset = 0;
    uint32_t read = 0;
    ASSERT_EQ(records->Mft->ReadAttribute(AttributeBitmap, nullptr, 0, &offset, static_cast<uint32_t>(grown.size()),
                                          grown.data(), &read),
              ERROR_SUCCESS);
    for (size_t i = static_cast<size_t>(size); i < grown.size(); ++i) ASSERT_EQ(grown[i], 0) << i;
}

}  // namespace
}  // namespace ntfs
