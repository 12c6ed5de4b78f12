// FileStorage: a volume in an image file or on a block device, reached with
// pread and pwrite.
//
// An optional byte offset places the volume inside a larger device (a
// partition). In read-only mode the file is opened for reading and every
// write fails with ERROR_WRITE_PROTECT. A read past the end of the file is
// short (done < count, result 0); an operating-system failure gives
// ERROR_IO_DEVICE. The storage owns its file descriptor.
// Thread safety: pread/pwrite carry their own offsets, so concurrent
// transfers are safe.
#pragma once

#include <cstdint>
#include <string>

#include "volume/storage.h"

namespace ntfs {

class FileStorage : public CStorage {
public:
    static constexpr int kSectorBytes = 512;

    FileStorage() = default;
    ~FileStorage() override;
    FileStorage(const FileStorage&) = delete;
    FileStorage& operator=(const FileStorage&) = delete;

    // Opens `path`; 0, or ERROR_FILE_NOT_FOUND / ERROR_ACCESS_DENIED /
    // ERROR_IO_DEVICE with a description in LastErrorText().
    unsigned int Open(const std::string& path, bool readOnly, int64_t byteOffset = 0);
    void Close();

    unsigned int ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                             _STORAGE_NOTIFICATION_BLOCK* block) override;
    unsigned int WriteSectors(void* buffer, int64_t* sector, int count, int* done,
                              _STORAGE_NOTIFICATION_BLOCK* block) override;

    // Whole sectors from the offset to the end of the file or device.
    int64_t SectorCount() const;
    bool IsReadOnly() const { return ReadOnly; }
    const std::string& LastErrorText() const { return ErrorText; }

private:
    int Descriptor = -1;
    bool ReadOnly = true;
    int64_t Offset = 0;
    std::string ErrorText;
};

}  // namespace ntfs
