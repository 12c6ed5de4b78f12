// Mounts the volume image named on the command line read-only through the
// installed headers alone and prints the names of its root directory.
#include <cstdio>

#include "file_storage.h"
#include "ntfskit.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    ntfs::FileStorage storage;
    if (storage.Open(argv[1], /*readOnly=*/true) != 0) return 1;
    ntfs::CVolume* volume = nullptr;
    if (!ntfs::CreateFileSystemObject(&storage, &volume)) return 1;
    if (!volume->Mount()) {
        std::fprintf(stderr, "mount failed: %u\n", volume->GetLastError());
        delete volume;
        return 1;
    }
    ntfs::_FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(u"\\*", &data);
    int names = 0;
    if (find != nullptr) {
        do {
            ++names;
            std::fprintf(stderr, "name:");
            for (const char16_t* unit = data.FileName; *unit != 0; ++unit) std::fputc(static_cast<char>(*unit), stderr);
            std::fputc('\n', stderr);
        } while (volume->FindNextFileA(find, &data));
        volume->CloseFindHandle(find);
    }
    volume->Umount();
    delete volume;
    std::fprintf(stderr, "root names: %d\n", names);
    return names > 0 ? 0 : 1;
}
