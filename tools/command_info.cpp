// `ntfskit info IMAGE`: geometry, version, and free clusters and records.
#include "cli.h"
#include "ntfskit.h"

namespace ntfs::cli {

int CommandInfo(const GlobalOptions&, const InfoOptions& options) {
    MountedImage image;
    if (image.Open(options.image, false) != ERROR_SUCCESS) return kExitFailed;
    CNTFSVolume* volume = image.Volume();
    int64_t sectors = 0;
    volume->GetVolumeSectorNumber(&sectors);
    _VOLUME_SPACE space{};
    const unsigned int code = volume->GetVolumeSpace(&space);
    // GetVolumeSpace counts the free clusters in one pass over the cluster
    // bitmap, a unit at a time.
    if (code != ERROR_SUCCESS) return Fail(options.image + ": cluster bitmap", code);
    std::FILE* out = Out();
    std::fprintf(out, "NTFS version:        %d.%d\n", volume->GetVersionMajor(), volume->GetVersionMinor());
    std::fprintf(out, "sector size:         %d\n", volume->GetSectorSize());
    std::fprintf(out, "cluster size:        %d\n", volume->GetClusterSize());
    std::fprintf(out, "file record size:    %d\n", volume->GetFileRecordSize());
    std::fprintf(out, "index record size:   %d\n", volume->GetIndexRecordSize());
    std::fprintf(out, "sectors:             %lld\n", static_cast<long long>(sectors));
    std::fprintf(out, "clusters:            %lld\n", static_cast<long long>(space.Clusters));
    std::fprintf(out, "free clusters:       %lld\n", static_cast<long long>(space.FreeClusters));
    std::fprintf(out, "file records:        %lld\n", static_cast<long long>(space.Records));
    std::fprintf(out, "free file records:   %lld\n", static_cast<long long>(space.FreeRecords));
    std::fflush(out);
    return image.Close() == ERROR_SUCCESS ? kExitSuccess : kExitFailed;
}

}  // namespace ntfs::cli
