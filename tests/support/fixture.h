// Access to the NTFS fixture volumes built by tests/fixtures/make_fixtures.sh.
//
// The build unpacks every committed NAME.img.zst into the fixture directory
// as NAME.img, next to NAME.manifest.tsv, which lists every file and
// directory below the volume root as ntfs-3g saw it.  Tests open an image,
// walk it with ntfskit and compare what they find with the manifest.
//
// The fixture directory is the compile-time macro NTFSKIT_FIXTURE_DIR; the
// environment variable of the same name overrides it at run time.
// Every loader throws std::runtime_error on a missing or malformed file.
#ifndef NTFSKIT_TESTS_SUPPORT_FIXTURE_H_
#define NTFSKIT_TESTS_SUPPORT_FIXTURE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ntfs::test {

// One line of a manifest.
struct ManifestEntry {
    int64_t record = 0;     // MFT record number (base record).
    std::u16string path;    // From the root, backslash-separated: u"\\dir\\a.txt".
    std::string path_utf8;  // The same path as written in the manifest.
    bool is_dir = false;
    uint64_t size = 0;        // Bytes of the unnamed data stream; 0 for directories.
    std::string sha256;       // Lower-case hex of the content; empty for directories.
    int links = 0;            // Hard link count of the record.
    bool compressed = false;  // Files: unnamed $DATA is compressed.
                              // Directories: new children get compressed.
    bool sparse = false;      // Unnamed $DATA carries the sparse flag.
    bool attrlist = false;    // The record has an $ATTRIBUTE_LIST.
};

// Directory holding the unpacked images and manifests.
std::string FixtureDir();

// Names (without extension) of all NAME.img in the fixture directory, sorted.
std::vector<std::string> FixtureNames();

// Path of the unpacked image NAME.img.
std::string FixturePath(const std::string& name);

// Parses NAME.manifest.tsv.  Entries keep the manifest's order (sorted by
// the UTF-8 bytes of the path).  A file with several hard links appears once
// per name, each time with the same record number.
std::vector<ManifestEntry> LoadManifest(const std::string& name);

// The whole image NAME.img, read into memory.
std::vector<uint8_t> LoadImage(const std::string& name);

// SHA-256 of a buffer as 64 lower-case hex digits.
std::string Sha256Hex(const void* data, size_t size);

// Strict UTF-8 to UTF-16 conversion (characters above U+FFFF become
// surrogate pairs).  Throws std::runtime_error on malformed input.
std::u16string Utf8ToUtf16(const std::string& utf8);

}  // namespace ntfs::test

#endif  // NTFSKIT_TESTS_SUPPORT_FIXTURE_H_
