// `ntfskit info IMAGE`: geometry, version, and free clusters and records.
#include "cli.h"
#include "data/bitmap_data.h"
#include "foundation/log.h"

namespace ntfs::cli {

namespace {

int64_t CountFreeItems(CBitmapData* bitmap) {
    int64_t free = 0;
    for (int64_t item = 0; item < bitmap->GetItemCount(); ++item) {
        bool used = true;
        if (bitmap->IsItemInUse(item, &used) != ERROR_SUCCESS) break;
        free += used ? 0 : 1;
    }
    return free;
}

}  // namespace

int CommandInfo(const Options& options) {
    if (options.arguments.size() != 1) return FailText("usage: ntfskit info IMAGE");
    MountedImage image;
    if (image.Open(options.arguments[0], false) != ERROR_SUCCESS) return 1;
    CNTFSVolume* volume = image.Volume();
    int64_t sectors = 0;
    volume->GetVolumeSectorNumber(&sectors);
    CClusterBitmap* clusters = volume->GetClusterBitmap();
    CFileRecordBitmap* records = volume->GetMftBitmap();
    std::FILE* out = Out();
    std::fprintf(out, "NTFS version:        %d.%d\n", volume->GetVersionMajor(), volume->GetVersionMinor());
    std::fprintf(out, "sector size:         %d\n", volume->GetSectorSize());
    std::fprintf(out, "cluster size:        %d\n", volume->GetClusterSize());
    std::fprintf(out, "file record size:    %d\n", volume->GetFileRecordSize());
    std::fprintf(out, "index record size:   %d\n", volume->GetIndexRecordSize());
    std::fprintf(out, "sectors:             %lld\n", static_cast<long long>(sectors));
    std::fprintf(out, "clusters:            %lld\n", static_cast<long long>(clusters->GetItemCount()));
    std::fprintf(out, "free clusters:       %lld\n", static_cast<long long>(CountFreeItems(clusters)));
    std::fprintf(out, "file records:        %lld\n", static_cast<long long>(records->GetItemCount()));
    std::fprintf(out, "free file records:   %lld\n", static_cast<long long>(records->FreeRecords));
    return 0;
}

}  // namespace ntfs::cli
