// Creating and deleting files and directories: every disposition of
// CreateFileA on absent and existing names, CreateDirectoryA, delete at
// close (also of a file another handle holds, and through either of a long
// and a short name), RemoveDirectoryA with its refusals, invalid names and
// paths with their codes, and a thousand files created, written, read back
// and deleted across remounts. After each phase the image is remounted and
// the independent readers (ntfsls -R, fls -r -p, ntfscat, icat, ntfsfix -n)
// must agree with what the test made; deletes give every cluster and record
// back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_test_util.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "support/cluster_audit.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"
#include "support/tools.h"
#include "volume/ntfs_volume.h"

namespace ntfs {
namespace {

using test::MountedVolume;
using test::Narrow;

constexpr unsigned int kShared = kAccessShareRead | kAccessShareWrite;
constexpr unsigned int kReadWrite = kAccessRead | kAccessWrite | kShared;
constexpr unsigned int kDelete = kAccessRead | kAccessDeleteOnClose | kShared;

// The fixtures whose clusters the readers handle (4 KiB or less).
const char* const kSmallClusterFixtures[] = {"c512", "c1k", "c4k"};

std::u16string Wide(const std::string& text) {
    return std::u16string(text.begin(), text.end());
}

std::string Slashes(const std::u16string& path) {
    std::string out = Narrow(path);
    std::replace(out.begin(), out.end(), '\\', '/');
    return out;
}

// What a test expects below its work directory: path (with backslashes,
// from the root) to contents; directories map to nullopt-like "/dir".
struct Model {
    std::map<std::u16string, std::string> Files;
    std::set<std::u16string> Directories;
};

std::vector<uint8_t> ReadWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string Content(int seed, int size) {
    std::string text(static_cast<size_t>(size), '\0');
    uint32_t state = 2654435761u * static_cast<uint32_t>(seed + 1);
    for (char& c : text) {
        state = state * 1103515245u + 12345u;
        c = static_cast<char>('a' + (state >> 16) % 26);
    }
    return text;
}

// A fixture copy that can be remounted from what it wrote.
class Session {
public:
    explicit Session(const std::string& fixture) : fixture_(fixture), mounted_(new MountedVolume(fixture)) {
        ready_ = mounted_->Mount() == 1;
        if (ready_) ready_ = Volume()->GetVolumeSpace(&start_) == ERROR_SUCCESS;
    }
    bool Ready() const { return ready_; }
    CNTFSVolume* Volume() { return mounted_->Volume(); }
    const _VOLUME_SPACE& Start() const { return start_; }

    // Unmounts, runs the readers over the image, mounts it again.
    // `readers` lists what they saw below `top` (paths with backslashes).
    void Remount(const std::u16string& top, Model* seen, std::string* outside, int* fixStatus,
                 const Model* contents = nullptr) {
        const std::string image = mounted_->UnmountToFile();
        const std::string quoted = test::ShellQuote(image);
        if (!top.empty()) {
            ReadListings(quoted, top, seen, outside);
            *fixStatus = test::RunTool("ntfsfix -n " + quoted).status;
        }
        const std::vector<uint8_t> bytes = ReadWholeFile(image);
        std::unique_ptr<MountedVolume> next(new MountedVolume(bytes));
        ready_ = next->Mount() == 1;
        // The numbers for icat come from the new mount; the old one keeps
        // the image file until it goes.
        std::swap(mounted_, next);
        if (contents != nullptr && ready_) CheckContents(image, *contents);
    }

private:
    // ntfsls -R gives "/dir:" headers and names; fls -r -p gives
    // "r/r N-T-I:<tab>path" lines. Both must list exactly the same below
    // `top`; what lies outside goes into `outside`, for comparison with the
    // untouched fixture.
    static void ReadListings(const std::string& quoted, const std::u16string& top, Model* seen,
                             std::string* outside) {
        const std::string prefix = Slashes(top).substr(1) + "/";
        const std::string ls = test::RunTool("ntfsls -R -p / " + quoted).output;
        std::set<std::string> lsPaths;
        std::string directory;
        size_t at = 0;
        while (at < ls.size()) {
            size_t end = ls.find('\n', at);
            if (end == std::string::npos) end = ls.size();
            const std::string line = ls.substr(at, end - at);
            at = end + 1;
            if (line.empty() || line == "." || line == "..") continue;
            if (line[0] == '/' && line.back() == ':') {
                directory = line.substr(1, line.size() - 2);
                continue;
            }
            lsPaths.insert(directory.empty() ? line : directory + "/" + line);
        }
        const std::string fls = test::RunTool("fls -r -p -f ntfs " + quoted).output;
        std::set<std::string> flsPaths;
        std::set<std::string> flsDirectories;
        at = 0;
        while (at < fls.size()) {
            size_t end = fls.find('\n', at);
            if (end == std::string::npos) end = fls.size();
            const std::string line = fls.substr(at, end - at);
            at = end + 1;
            const size_t tab = line.find('\t');
            // Deleted names fls still finds in the slack of the index are marked.
            // fls also reports names it finds in the slack of index nodes:
            // marked deleted, or with a '-' in the type field.
            if (tab == std::string::npos || line.find(" * ") != std::string::npos ||
                line.substr(0, 3).find('-') != std::string::npos) {
                continue;
            }
            const std::string path = line.substr(tab + 1);
            if (path.find(':') != std::string::npos || path[0] == '$') continue;
            flsPaths.insert(path);
            if (line.compare(0, 3, "d/d") == 0) flsDirectories.insert(path);
        }
        seen->Files.clear();
        seen->Directories.clear();
        outside->clear();
        for (const std::string& path : lsPaths) {
            if (path + "/" == prefix) continue;
            if (path.compare(0, prefix.size(), prefix) != 0) {
                *outside += path + "\n";
                continue;
            }
            std::u16string wide = u"\\" + Wide(path);
            std::replace(wide.begin(), wide.end(), u'/', u'\\');
            if (flsDirectories.count(path) != 0) {
                seen->Directories.insert(wide);
            } else {
                seen->Files[wide] = "";
            }
            EXPECT_EQ(flsPaths.count(path), 1u) << "ntfsls lists what fls does not: " << path;
        }
        for (const std::string& path : flsPaths) {
            if (path.compare(0, prefix.size(), prefix) == 0) {
                EXPECT_EQ(lsPaths.count(path), 1u) << "fls lists what ntfsls does not: " << path << "\n" << fls;
            }
        }
    }

    // ntfscat by path and icat by record number give each file's contents.
    void CheckContents(const std::string& image, const Model& contents) {
        const std::string quoted = test::ShellQuote(image);
        for (const auto& [path, text] : contents.Files) {
            const test::ToolResult cat = test::RunTool("ntfscat " + quoted + " " + test::ShellQuote(Slashes(path)));
            EXPECT_EQ(cat.status, 0) << Narrow(path);
            EXPECT_TRUE(cat.output == text) << "ntfscat differs: " << Narrow(path);
            _FIND_FILE_DATA data{};
            void* find = Volume()->FindFirstFileA(path.c_str(), &data);
            ASSERT_NE(find, nullptr) << Narrow(path);
            Volume()->CloseFindHandle(find);
            const test::ToolResult icat =
                test::RunTool("icat -f ntfs " + quoted + " " + std::to_string(data.FileRecordNumber));
            EXPECT_TRUE(icat.output == text) << "icat differs: " << Narrow(path);
        }
    }

    std::string fixture_;
    std::unique_ptr<MountedVolume> mounted_;
    bool ready_ = false;
    _VOLUME_SPACE start_{};
};

// The fixture's listing outside the work directory, as the readers see it
// on the untouched image.
std::string UntouchedOutside(const std::string& fixture, const std::u16string& top) {
    Session session(fixture);
    Model seen;
    std::string outside;
    int status = -1;
    session.Remount(top, &seen, &outside, &status);
    return outside;
}

// After a remount (a released record counts as free from the next mount on)
// the volume has as many free clusters and records in use as at the start.
void ExpectStartingSpace(Session* session) {
    Model seen;
    std::string outside;
    int status = -1;
    session->Remount(u"", &seen, &outside, &status);
    ASSERT_TRUE(session->Ready());
    _VOLUME_SPACE space{};
    ASSERT_EQ(session->Volume()->GetVolumeSpace(&space), ERROR_SUCCESS);
    EXPECT_EQ(space.FreeClusters, session->Start().FreeClusters);
    EXPECT_EQ(space.Records - space.FreeRecords, session->Start().Records - session->Start().FreeRecords);
    const test::ClusterAudit audit = test::AuditClusters(session->Volume());
    EXPECT_TRUE(audit.Clean()) << audit.First;
}

// Remounts and checks readers, library and allocation against `model`.
void RemountAndCheck(Session* session, const std::u16string& top, const Model& model, const std::string& outside,
                     bool contents, const Model* sample = nullptr) {
    Model seen;
    std::string nowOutside;
    int status = -1;
    session->Remount(top, &seen, &nowOutside, &status, sample != nullptr ? sample : contents ? &model : nullptr);
    ASSERT_TRUE(session->Ready());
    EXPECT_EQ(status, 0) << "ntfsfix -n";
    EXPECT_EQ(nowOutside, outside);
    std::set<std::u16string> expectedFiles;
    for (const auto& item : model.Files) expectedFiles.insert(item.first);
    std::set<std::u16string> seenFiles;
    for (const auto& item : seen.Files) seenFiles.insert(item.first);
    std::set<std::u16string> expectedDirectories = model.Directories;
    expectedDirectories.erase(top);
    EXPECT_EQ(seenFiles.size(), expectedFiles.size());
    for (const std::u16string& path : expectedFiles) EXPECT_EQ(seenFiles.count(path), 1u) << Narrow(path);
    for (const std::u16string& path : seenFiles) EXPECT_EQ(expectedFiles.count(path), 1u) << Narrow(path);
    EXPECT_EQ(seen.Directories, expectedDirectories);
    const test::ClusterAudit audit = test::AuditClusters(session->Volume());
    EXPECT_TRUE(audit.Clean()) << audit.First;
}

void* Create(CNTFSVolume* volume, const std::u16string& path, unsigned int disposition,
             unsigned int access = kReadWrite) {
    return volume->CreateFileA(path.c_str(), 0, disposition, access);
}

bool WriteAll(CNTFSVolume* volume, void* handle, const std::string& text) {
    int done = 0;
    return volume->WriteFile(handle, text.data(), static_cast<int>(text.size()), &done) == 1 &&
           done == static_cast<int>(text.size());
}

std::string ReadAll(CNTFSVolume* volume, const std::u16string& path) {
    void* handle = Create(volume, path, kOpenExisting, kAccessRead | kShared);
    if (handle == nullptr) return "<open failed " + std::to_string(volume->GetLastError()) + ">";
    std::string text;
    char buffer[8192];
    for (;;) {
        int done = 0;
        if (volume->ReadFile(handle, buffer, sizeof buffer, &done) != 1 || done == 0) break;
        text.append(buffer, static_cast<size_t>(done));
    }
    volume->CloseFileHandle(handle);
    return text;
}

bool Exists(CNTFSVolume* volume, const std::u16string& path, _FIND_FILE_DATA* found = nullptr) {
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(path.c_str(), &data);
    if (find == nullptr) return false;
    volume->CloseFindHandle(find);
    if (found != nullptr) *found = data;
    return true;
}

bool DeleteByClose(CNTFSVolume* volume, const std::u16string& path) {
    void* handle = Create(volume, path, kOpenExisting, kDelete);
    return handle != nullptr && volume->CloseFileHandle(handle) == 1;
}

// The names a record holds: (name, namespace).
std::set<std::pair<std::u16string, int>> RecordNames(CNTFSVolume* volume, int64_t number) {
    std::set<std::pair<std::u16string, int>> names;
    CFullFileRecord* record = nullptr;
    if (volume->ReferenceFileRecord(number, &record) != ERROR_SUCCESS) return names;
    for (unsigned int i = 0; CAttribute* held = record->FindAttribute(AttributeFileName, nullptr, 0, i); ++i) {
        const uint8_t* value = held->GetValue();
        std::u16string text(ReadU8(value, kFileNameLengthOffset), u'\0');
        for (size_t k = 0; k < text.size(); ++k) text[k] = ReadU16(value, kFileNameUnitsOffset + 2 * k);
        names.emplace(text, ReadU8(value, kFileNameNamespaceOffset));
    }
    record->Release();
    return names;
}

// The start of most cases: the readers' view of the untouched fixture
// outside `top`, and a mounted copy in which `top` is a new directory.
struct WorkVolume {
    WorkVolume(const std::string& fixture, const std::u16string& work)
        : top(work), outside(UntouchedOutside(fixture, work)), session(fixture) {
        ready = session.Ready() && session.Volume()->CreateDirectoryA(top.c_str(), 0) == 1;
        model.Directories.insert(top);
    }
    std::u16string top;
    std::string outside;
    Session session;
    Model model;
    bool ready = false;
};

TEST(CreateDelete, EveryDispositionOnAbsentAndExistingNames) {
    for (const char* fixture : kSmallClusterFixtures) {
        WorkVolume work(fixture, u"\\work");
        auto& [top, outside, session, model, ready] = work;
        ASSERT_TRUE(ready) << fixture;
        CNTFSVolume* volume = session.Volume();

        // Absent names: 1, 2 and 4 create, 3 and 5 answer 2.
        const unsigned int creating[] = {kCreateNew, kCreateAlways, kOpenAlways};
        for (unsigned int disposition : creating) {
            const std::u16string path = top + u"\\made-by-" + Wide(std::to_string(disposition)) + u".txt";
            void* handle = Create(volume, path, disposition);
            ASSERT_NE(handle, nullptr) << disposition << " " << volume->GetLastError();
            EXPECT_EQ(volume->GetLastError(), ERROR_SUCCESS);
            unsigned int high = 0;
            unsigned int low = 1;
            EXPECT_EQ(volume->GetFileSize(handle, &low, &high), 1);
            EXPECT_EQ(low, 0u);
            const std::string text = Content(static_cast<int>(disposition), 700 * static_cast<int>(disposition));
            EXPECT_TRUE(WriteAll(volume, handle, text));
            EXPECT_EQ(volume->CloseFileHandle(handle), 1);
            model.Files[path] = text;
        }
        for (unsigned int disposition : {kOpenExisting, kTruncateExisting}) {
            EXPECT_EQ(Create(volume, top + u"\\absent.txt", disposition), nullptr);
            EXPECT_EQ(volume->GetLastError(), ERROR_FILE_NOT_FOUND);
        }
        EXPECT_FALSE(Exists(volume, top + u"\\absent.txt"));

        // Existing names: 1 answers 80, 2 and 5 truncate, 3 and 4 open.
        const std::u16string existing = top + u"\\made-by-2.txt";
        EXPECT_EQ(Create(volume, existing, kCreateNew), nullptr);
        EXPECT_EQ(volume->GetLastError(), ERROR_FILE_EXISTS);
        for (unsigned int disposition : {kOpenExisting, kOpenAlways}) {
            void* handle = Create(volume, existing, disposition);
            ASSERT_NE(handle, nullptr);
            unsigned int low = 0;
            EXPECT_EQ(volume->GetFileSize(handle, &low, nullptr), 1);
            EXPECT_EQ(low, model.Files[existing].size());
            EXPECT_EQ(volume->CloseFileHandle(handle), 1);
        }
        for (unsigned int disposition : {kCreateAlways, kTruncateExisting}) {
            const std::u16string path = top + u"\\made-by-" + Wide(std::to_string(disposition == kCreateAlways ? 1 : 4)) +
                                        u".txt";
            void* handle = Create(volume, path, disposition);
            ASSERT_NE(handle, nullptr) << volume->GetLastError();
            unsigned int low = 1;
            EXPECT_EQ(volume->GetFileSize(handle, &low, nullptr), 1);
            EXPECT_EQ(low, 0u);
            const std::string text = Content(10 + static_cast<int>(disposition), 50);
            EXPECT_TRUE(WriteAll(volume, handle, text));
            EXPECT_EQ(volume->CloseFileHandle(handle), 1);
            model.Files[path] = text;
        }

        // Directories: made, refused when the name exists (as a file too),
        // and not opened as files.
        ASSERT_EQ(volume->CreateDirectoryA((top + u"\\sub").c_str(), 0x20), 1);
        model.Directories.insert(top + u"\\sub");
        EXPECT_EQ(volume->CreateDirectoryA((top + u"\\sub").c_str(), 0), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_FILE_EXISTS);
        EXPECT_EQ(volume->CreateDirectoryA(existing.c_str(), 0), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_FILE_EXISTS);
        for (unsigned int disposition : {kCreateNew, kCreateAlways, kOpenExisting, kOpenAlways, kTruncateExisting}) {
            EXPECT_EQ(Create(volume, top + u"\\sub", disposition), nullptr);
            EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_PARAMETER);
        }
        _FIND_FILE_DATA data{};
        ASSERT_TRUE(Exists(volume, top + u"\\sub", &data));
        EXPECT_EQ(data.FileAttributes & kFileAttributeDirectory, kFileAttributeDirectory);
        {
            // The directory flag of the names, not of the standard attribute.
            CFullFileRecord* record = nullptr;
            ASSERT_EQ(volume->ReferenceFileRecord(data.FileRecordNumber, &record), ERROR_SUCCESS);
            CAttribute* standard = record->FindAttribute(AttributeStandardInformation, nullptr, 0, 0);
            CAttribute* name = record->FindAttribute(AttributeFileName, nullptr, 0, 0);
            ASSERT_NE(standard, nullptr);
            ASSERT_NE(name, nullptr);
            EXPECT_EQ(ReadU32(standard->GetValue(), 0x20), 0x20u);
            EXPECT_EQ(ReadU32(name->GetValue(), kFileNameFlagsOffset), 0x20u | kFileNameIsDirectory);
            EXPECT_EQ(ReadU16(record->Image, kFileFlagsOffset), kFileRecordInUse | kFileRecordIsDirectory);
            record->Release();
        }
        void* inside = Create(volume, top + u"\\sub\\inner.bin", kCreateNew);
        ASSERT_NE(inside, nullptr);
        EXPECT_EQ(volume->CloseFileHandle(inside), 1);
        model.Files[top + u"\\sub\\inner.bin"] = "";

        // Names: trailing dots stay, dots alone, forbidden units and 255
        // units are refused, 254 units work.
        const std::u16string dotted = top + u"\\abc.";
        void* handle = Create(volume, dotted, kCreateNew);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(volume->CloseFileHandle(handle), 1);
        model.Files[dotted] = "";
        ASSERT_TRUE(Exists(volume, dotted, &data));
        EXPECT_EQ(std::u16string(data.FileName), u"abc.");
        EXPECT_NE(std::u16string(data.AlternateFileName), u"");
        const std::u16string longest = top + u"\\" + std::u16string(250, u'n') + u".txt";
        handle = Create(volume, longest, kCreateNew);
        ASSERT_NE(handle, nullptr) << volume->GetLastError();
        EXPECT_EQ(volume->CloseFileHandle(handle), 1);
        model.Files[longest] = "";
        const std::u16string refused[] = {top + u"\\...",     top + u"\\a:b",     top + u"\\a<b", top + u"\\a>b",
                                          top + u"\\a|b",     top + u"\\a\"b",    top + u"\\a/b",
                                          top + u"\\" + std::u16string(251, u'n') + u".txt"};
        for (const std::u16string& path : refused) {
            EXPECT_EQ(Create(volume, path, kCreateNew), nullptr) << Narrow(path);
            EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_PARAMETER) << Narrow(path);
            EXPECT_EQ(volume->CreateDirectoryA(path.c_str(), 0), 0) << Narrow(path);
            EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_PARAMETER) << Narrow(path);
        }
        // Paths: wildcards, no leading backslash, a trailing one, the root,
        // an absent parent, and the directory bit asked of CreateFileA.
        const std::pair<std::u16string, unsigned int> paths[] = {
            {top + u"\\a*b", ERROR_INVALID_PARAMETER}, {top + u"\\a?b", ERROR_INVALID_PARAMETER},
            {u"work\\x", ERROR_INVALID_PARAMETER},     {top + u"\\x\\", ERROR_INVALID_PARAMETER},
            {u"\\", ERROR_INVALID_PARAMETER},          {top + u"\\absent\\x", ERROR_FILE_NOT_FOUND}};
        for (const auto& [path, code] : paths) {
            EXPECT_EQ(Create(volume, path, kCreateNew), nullptr) << Narrow(path);
            EXPECT_EQ(volume->GetLastError(), code) << Narrow(path);
            EXPECT_EQ(volume->CreateDirectoryA(path.c_str(), 0), 0) << Narrow(path);
            EXPECT_EQ(volume->GetLastError(), code) << Narrow(path);
        }
        EXPECT_EQ(volume->CreateFileA((top + u"\\flagged").c_str(), kFileAttributeDirectory, kCreateNew, kReadWrite),
                  nullptr);
        EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_PARAMETER);

        for (const auto& [path, text] : model.Files) EXPECT_TRUE(ReadAll(volume, path) == text) << Narrow(path);
        RemountAndCheck(&session, top, model, outside, true);
        for (const auto& [path, text] : model.Files) EXPECT_TRUE(ReadAll(session.Volume(), path) == text);
    }
}


TEST(CreateDelete, DeleteOfAFileAnotherHandleHolds) {
    for (const char* fixture : kSmallClusterFixtures) {
        WorkVolume work(fixture, u"\\work");
        auto& [top, outside, session, model, ready] = work;
        ASSERT_TRUE(ready) << fixture;
        CNTFSVolume* volume = session.Volume();
        const std::u16string path = top + u"\\shared.bin";
        void* writer = Create(volume, path, kCreateNew);
        ASSERT_NE(writer, nullptr);
        ASSERT_TRUE(WriteAll(volume, writer, Content(1, 20000)));
        ASSERT_EQ(volume->CloseFileHandle(writer), 1);
        _FIND_FILE_DATA data{};
        ASSERT_TRUE(Exists(volume, path, &data));
        const int64_t number = data.FileRecordNumber;

        // A reader holds the file while a sharing handle deletes it.
        void* reader = Create(volume, path, kOpenExisting, kAccessRead | kShared);
        ASSERT_NE(reader, nullptr);
        void* second = Create(volume, path, kOpenExisting, kDelete);
        ASSERT_NE(second, nullptr);
        void* deleter = Create(volume, path, kOpenExisting, kDelete);
        ASSERT_NE(deleter, nullptr);
        EXPECT_EQ(volume->CloseFileHandle(deleter), 1) << volume->GetLastError();
        EXPECT_FALSE(Exists(volume, path));
        // The second delete finds no name.
        EXPECT_EQ(volume->CloseFileHandle(second), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_BAD_FORMAT);
        // A new file may take the record at once; the reader still open on
        // the old one must neither read nor write it.
        const std::u16string next = top + u"\\next.bin";
        void* made = Create(volume, next, kCreateNew);
        ASSERT_NE(made, nullptr);
        const std::string text = Content(2, 9000);
        EXPECT_TRUE(WriteAll(volume, made, text));
        EXPECT_EQ(volume->CloseFileHandle(made), 1);
        model.Files[next] = text;
        char buffer[16];
        int done = 0;
        EXPECT_EQ(volume->ReadFile(reader, buffer, sizeof buffer, &done), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_ACCESS_DENIED);
        // Its close writes nothing and succeeds as a close of a file with
        // no name left would.
        EXPECT_EQ(volume->CloseFileHandle(reader), 1);
        EXPECT_EQ(volume->GetLastError(), ERROR_SUCCESS);
        EXPECT_TRUE(ReadAll(volume, next) == text);
        ASSERT_TRUE(Exists(volume, next, &data));
        if (data.FileRecordNumber != number) {
            CFullFileRecord* record = nullptr;
            ASSERT_EQ(volume->ReferenceFileRecord(number, &record), ERROR_SUCCESS);
            EXPECT_EQ(ReadU16(record->Image, kFileFlagsOffset) & kFileRecordInUse, 0);
            record->Release();
        }
        RemountAndCheck(&session, top, model, outside, true);
        // Deleting what is left gives back everything the test took.
        ASSERT_TRUE(DeleteByClose(session.Volume(), next));
        ASSERT_EQ(session.Volume()->RemoveDirectoryA(top.c_str()), 1) << session.Volume()->GetLastError();
        ExpectStartingSpace(&session);
    }
}

TEST(CreateDelete, AFileWithALongAndAShortNameGoesThroughEither) {
    for (const char* fixture : kSmallClusterFixtures) {
        WorkVolume work(fixture, u"\\work");
        auto& [top, outside, session, model, ready] = work;
        ASSERT_TRUE(ready) << fixture;
        CNTFSVolume* volume = session.Volume();
        for (int through = 0; through < 2; ++through) {
            const std::u16string path = top + u"\\Long Mixed Name " + Wide(std::to_string(through)) + u".txt";
            void* handle = Create(volume, path, kCreateNew);
            ASSERT_NE(handle, nullptr);
            EXPECT_TRUE(WriteAll(volume, handle, Content(through, 5000)));
            EXPECT_EQ(volume->CloseFileHandle(handle), 1);
            _FIND_FILE_DATA data{};
            ASSERT_TRUE(Exists(volume, path, &data));
            const std::u16string shortName = data.AlternateFileName;
            EXPECT_EQ(shortName.substr(0, 6), u"LONGM~") << Narrow(shortName);
            const auto names = RecordNames(volume, data.FileRecordNumber);
            EXPECT_EQ(names, (std::set<std::pair<std::u16string, int>>{{path.substr(top.size() + 1), 1},
                                                                       {shortName, kNamespaceDos}}));
            const std::u16string by = through == 0 ? top + u"\\" + shortName : path;
            ASSERT_TRUE(DeleteByClose(volume, by)) << volume->GetLastError();
            EXPECT_FALSE(Exists(volume, path));
            EXPECT_FALSE(Exists(volume, top + u"\\" + shortName));
        }
        // A name that is its own short name has one entry, namespace 3.
        const std::u16string plain = top + u"\\readme.txt";
        void* handle = Create(volume, plain, kCreateNew);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(volume->CloseFileHandle(handle), 1);
        _FIND_FILE_DATA data{};
        ASSERT_TRUE(Exists(volume, plain, &data));
        EXPECT_EQ(RecordNames(volume, data.FileRecordNumber),
                  (std::set<std::pair<std::u16string, int>>{{u"readme.txt", 3}}));
        ASSERT_TRUE(DeleteByClose(volume, top + u"\\README.TXT"));
        RemountAndCheck(&session, top, model, outside, false);
        CDirectory* directory = nullptr;
        ASSERT_TRUE(Exists(session.Volume(), top, &data));
        ASSERT_EQ(session.Volume()->ReferenceDirectory(data.FileRecordNumber, top.c_str(), &directory),
                  ERROR_SUCCESS);
        directory->LockExclusive();
        EXPECT_TRUE(test::WalkNames(directory).empty());
        directory->UnlockExclusive();
        directory->Release();
        ASSERT_EQ(session.Volume()->RemoveDirectoryA(top.c_str()), 1);
        ExpectStartingSpace(&session);
    }
}

TEST(CreateDelete, RemoveDirectoryRefusesInUseBeforeNotEmpty) {
    for (const char* fixture : kSmallClusterFixtures) {
        WorkVolume work(fixture, u"\\work");
        auto& [top, outside, session, model, ready] = work;
        ASSERT_TRUE(ready) << fixture;
        CNTFSVolume* volume = session.Volume();
        ASSERT_EQ(volume->CreateDirectoryA((top + u"\\child").c_str(), 0), 1);
        model.Directories.insert(top + u"\\child");
        // The root, paths the call refuses, an absent one.
        EXPECT_EQ(volume->RemoveDirectoryA(u"\\"), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_FILE_NOT_FOUND);
        // The root's own entry is hidden from the search, so no path reaches
        // record 5 by name.
        EXPECT_EQ(volume->RemoveDirectoryA(u"\\."), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_FILE_NOT_FOUND);
        for (const char16_t* path : {u"", u"work", u"\\wo*", u"\\wor?"}) {
            EXPECT_EQ(volume->RemoveDirectoryA(path), 0);
            EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_PARAMETER) << Narrow(path);
        }
        EXPECT_EQ(volume->RemoveDirectoryA((top + u"\\absent").c_str()), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_FILE_NOT_FOUND);
        // A file is no directory: the directory object is refused, and the
        // file stays.
        EXPECT_EQ(volume->RemoveDirectoryA(u"\\readme.txt"), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_PARAMETER);
        EXPECT_TRUE(Exists(volume, u"\\readme.txt"));
        // Not empty: 145; open (a find handle in it) and not empty: 5 first.
        EXPECT_EQ(volume->RemoveDirectoryA(top.c_str()), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_DIR_NOT_EMPTY);
        _FIND_FILE_DATA data{};
        void* find = volume->FindFirstFileA((top + u"\\*").c_str(), &data);
        ASSERT_NE(find, nullptr);
        EXPECT_EQ(volume->RemoveDirectoryA(top.c_str()), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_ACCESS_DENIED);
        EXPECT_EQ(volume->CloseFindHandle(find), 1);
        // An open file in it holds it too.
        void* file = Create(volume, top + u"\\child\\open.txt", kCreateNew);
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(volume->RemoveDirectoryA((top + u"\\child").c_str()), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_ACCESS_DENIED);
        EXPECT_EQ(volume->CloseFileHandle(file), 1);
        EXPECT_EQ(volume->RemoveDirectoryA((top + u"\\child").c_str()), 0);
        EXPECT_EQ(volume->GetLastError(), ERROR_DIR_NOT_EMPTY);
        model.Files[top + u"\\child\\open.txt"] = "";
        RemountAndCheck(&session, top, model, outside, false);
        volume = session.Volume();
        ASSERT_TRUE(DeleteByClose(volume, top + u"\\child\\open.txt"));
        EXPECT_EQ(volume->RemoveDirectoryA((top + u"\\child").c_str()), 1) << volume->GetLastError();
        EXPECT_FALSE(Exists(volume, top + u"\\child"));
        model.Files.clear();
        model.Directories.erase(top + u"\\child");
        RemountAndCheck(&session, top, model, outside, false);
        EXPECT_EQ(session.Volume()->RemoveDirectoryA(top.c_str()), 1);
        ExpectStartingSpace(&session);
    }
}

// A name of a file with other hard links goes alone: the record, its other
// names and its data stay, and the record on the disk loses that name too.
TEST(CreateDelete, DeletingOneHardLinkKeepsTheFile) {
    for (const char* fixture : kSmallClusterFixtures) {
        Session session(fixture);
        ASSERT_TRUE(session.Ready()) << fixture;
        CNTFSVolume* volume = session.Volume();
        const std::string kept = ReadAll(volume, u"\\links\\original.txt");
        ASSERT_EQ(kept.size(), 500u) << fixture;
        _FIND_FILE_DATA data{};
        ASSERT_TRUE(Exists(volume, u"\\docs\\cross-dir-link.txt", &data));
        const int64_t number = data.FileRecordNumber;
        auto names = RecordNames(volume, number);
        ASSERT_TRUE(DeleteByClose(volume, u"\\docs\\cross-dir-link.txt")) << volume->GetLastError();
        EXPECT_FALSE(Exists(volume, u"\\docs\\cross-dir-link.txt"));
        names.erase({u"cross-dir-link.txt", 1});
        names.erase({u"cross-dir-link.txt", 0});
        names.erase({u"cross-dir-link.txt", 3});
        Model seen;
        std::string ignored;
        int status = -1;
        session.Remount(u"\\links", &seen, &ignored, &status);
        ASSERT_TRUE(session.Ready());
        EXPECT_EQ(status, 0) << fixture << ": ntfsfix -n";
        volume = session.Volume();
        EXPECT_EQ(RecordNames(volume, number), names) << fixture;
        EXPECT_TRUE(ReadAll(volume, u"\\links\\original.txt") == kept) << fixture;
        EXPECT_TRUE(ReadAll(volume, u"\\links\\same-dir-link.txt") == kept) << fixture;
        EXPECT_EQ(seen.Files.count(u"\\links\\original.txt"), 1u) << fixture;
        const test::ClusterAudit audit = test::AuditClusters(volume);
        EXPECT_TRUE(audit.Clean()) << audit.First;
    }
}

// A thousand files: created and written, read back after a remount, then
// deleted and the volume remounted; at the end the directory is empty and
// removable, and the volume has all its clusters and records back. $MFT does
// not grow yet, so the thousand go in rounds of as many as the fixture's
// records allow (a create that finds none answers 39 and leaves nothing);
// the readers check the first and the last round.
TEST(CreateDelete, AThousandFilesComeAndGo) {
    constexpr int kFiles = 1000;
    for (const std::string& fixture : test::FixtureNames()) {
        SCOPED_TRACE(fixture);
        const bool readers = fixture == "c512" || fixture == "c1k" || fixture == "c4k";
        const std::u16string top = u"\\bulk";
        const std::string outside = readers ? UntouchedOutside(fixture, top) : "";
        Session session(fixture);
        ASSERT_TRUE(session.Ready());
        ASSERT_EQ(session.Volume()->CreateDirectoryA(top.c_str(), 0), 1);
        Model model;
        model.Directories.insert(top);
        int total = 0;
        int rounds = 0;
        auto remount = [&](bool check, const Model* sample) {
            if (readers && check) {
                RemountAndCheck(&session, top, model, outside, false, sample);
                return;
            }
            Model seen;
            std::string ignored;
            int status = 0;
            session.Remount(u"", &seen, &ignored, &status);
            const test::ClusterAudit audit = test::AuditClusters(session.Volume());
            EXPECT_TRUE(audit.Clean()) << audit.First;
        };
        while (total < kFiles) {
            CNTFSVolume* volume = session.Volume();
            const int first = total;
            for (; total < kFiles; ++total) {
                const std::u16string path = top + u"\\file number " + Wide(std::to_string(total)) + u".dat";
                void* handle = Create(volume, path, total % 2 == 0 ? kCreateNew : kOpenAlways);
                if (handle == nullptr && volume->GetLastError() == ERROR_HANDLE_DISK_FULL) {
                    EXPECT_FALSE(Exists(volume, path));
                    break;
                }
                ASSERT_NE(handle, nullptr) << total << " " << volume->GetLastError();
                const int bytes = total % 7 == 0 ? 3000 + total : total % 300;
                const std::string text = Content(total, bytes);
                ASSERT_TRUE(WriteAll(volume, handle, text)) << total;
                ASSERT_EQ(volume->CloseFileHandle(handle), 1) << total;
                model.Files[path] = text;
            }
            ASSERT_TRUE(total == kFiles || total - first >= 30) << "round " << rounds << ": " << total - first;
            const bool check = rounds == 0 || total == kFiles;
            Model sample = model;
            int n = 0;
            for (auto it = sample.Files.begin(); it != sample.Files.end(); ++n) {
                it = n % 10 == 0 ? std::next(it) : sample.Files.erase(it);
            }
            remount(check, &sample);
            volume = session.Volume();
            for (const auto& [path, text] : model.Files) ASSERT_TRUE(ReadAll(volume, path) == text) << Narrow(path);
            for (const auto& item : model.Files) ASSERT_TRUE(DeleteByClose(volume, item.first)) << Narrow(item.first);
            model.Files.clear();
            remount(check, nullptr);
            ++rounds;
        }
        std::printf("%s: %d files created, written, read back and deleted in %d rounds\n", fixture.c_str(), total,
                    rounds);
        CNTFSVolume* volume = session.Volume();
        _FIND_FILE_DATA data{};
        EXPECT_EQ(volume->FindFirstFileA((top + u"\\*").c_str(), &data), nullptr);
        EXPECT_EQ(volume->GetLastError(), ERROR_FILE_NOT_FOUND);
        ASSERT_EQ(volume->RemoveDirectoryA(top.c_str()), 1) << volume->GetLastError();
        ExpectStartingSpace(&session);
        model.Directories.clear();
        if (readers) RemountAndCheck(&session, top, model, outside, false);
    }
}

}  // namespace
}  // namespace ntfs
