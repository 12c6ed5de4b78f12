// The FUSE mount: the POSIX face of a volume driven directly on fixture
// copies (attributes, listings, reads against the manifests, writes that
// grow and shrink files, the refusals a program sees), the one table of
// failure codes to errno, and a real mount served by `ntfskit mount` when
// this machine has /dev/fuse.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "mount/errno_map.h"
#include "mount/volume_fs.h"
#include "support/cluster_audit.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"
#include "support/tools.h"

namespace ntfs {
namespace {

using mount::ErrnoFromCode;
using mount::VolumeFs;
using test::MountedVolume;

TEST(MountErrno, EveryNamedCodeHasItsErrnoAndTheRestAreIoErrors) {
    const std::map<unsigned int, int> expected = {
        {ERROR_SUCCESS, 0},
        {ERROR_FILE_NOT_FOUND, ENOENT},
        {ERROR_FILE_EXISTS, EEXIST},
        {ERROR_DIR_NOT_EMPTY, ENOTEMPTY},
        {ERROR_HANDLE_DISK_FULL, ENOSPC},
        {ERROR_INSUFFICIENT_BUFFER, ENOSPC},
        {ERROR_ACCESS_DENIED, EBUSY},
        {ERROR_INVALID_PARAMETER, EINVAL},
        {ERROR_INVALID_HANDLE, EBADF},
        {ERROR_NOT_ENOUGH_MEMORY, ENOMEM},
        {ERROR_WRITE_PROTECT, EROFS},
        {ERROR_NOT_SUPPORTED, EOPNOTSUPP},
        {ERROR_FILE_CORRUPT, EIO},
        {ERROR_IO_DEVICE, EIO},
        {ERROR_SECTOR_NOT_FOUND, EIO},
        {ERROR_BAD_COMPRESSION_BUFFER, EIO},
        {ERROR_UNRECOGNIZED_VOLUME, EIO},
        {123456u, EIO},
    };
    for (const auto& [code, error] : expected) {
        EXPECT_EQ(ErrnoFromCode(code), error) << "code " << code;
    }
}

class VolumeFsTest : public ::testing::Test {
protected:
    void Load(bool readOnly) {
        volume_ = std::make_unique<MountedVolume>("c4k");
        ASSERT_EQ(volume_->Mount(), 1);
        fs_ = std::make_unique<VolumeFs>(volume_->Volume(), readOnly);
    }

    // Everything a read through the file system gives, start to end.
    std::string ReadAll(const std::u16string& path) {
        uint64_t handle = 0;
        EXPECT_EQ(fs_->Open(path, O_RDONLY, &handle), 0);
        std::string data;
        std::vector<char> buffer(100000);
        for (;;) {
            const int got = fs_->Read(handle, buffer.data(), buffer.size(), static_cast<off_t>(data.size()));
            EXPECT_GE(got, 0);
            if (got <= 0) break;
            data.append(buffer.data(), static_cast<size_t>(got));
        }
        // Closing writes the times back; a hard link in another directory
        // makes that close answer 2 after the record was written.
        fs_->Release(handle);
        return data;
    }

    // Unmounts through the file system, mounts the written image again and
    // audits its clusters and records.
    void Remount(bool readOnly) {
        ASSERT_EQ(fs_->Unmount(), ERROR_SUCCESS);
        fs_.reset();
        std::vector<uint8_t> image = volume_->Memory().Bytes();
        volume_ = std::make_unique<MountedVolume>(std::move(image));
        ASSERT_EQ(volume_->Mount(), 1);
        const test::ClusterAudit audit = test::AuditClusters(volume_->Volume());
        EXPECT_TRUE(audit.Clean()) << audit.First;
        fs_ = std::make_unique<VolumeFs>(volume_->Volume(), readOnly);
    }

    std::unique_ptr<MountedVolume> volume_;
    std::unique_ptr<VolumeFs> fs_;
};

TEST_F(VolumeFsTest, AttributesListingsAndReadsMatchTheManifest) {
    Load(true);
    struct stat root {};
    ASSERT_EQ(fs_->GetAttr(u"\\", &root), 0);
    EXPECT_TRUE(S_ISDIR(root.st_mode));
    EXPECT_EQ(root.st_ino, 5u);

    std::map<std::u16string, std::vector<std::u16string>> children;
    for (const test::ManifestEntry& entry : test::LoadManifest("c4k")) {
        SCOPED_TRACE(entry.path_utf8);
        children[ParentPath(entry.path)].push_back(LeafOf(entry.path));
        struct stat attributes {};
        ASSERT_EQ(fs_->GetAttr(entry.path, &attributes), 0);
        EXPECT_EQ(attributes.st_ino, static_cast<ino_t>(entry.record));
        EXPECT_EQ(S_ISDIR(attributes.st_mode), entry.is_dir);
        if (entry.is_dir) continue;
        EXPECT_EQ(static_cast<uint64_t>(attributes.st_size), entry.size);
        // Sparse files of other writers can hold holes entered from an
        // earlier compression unit, which the library reads otherwise.
        if (entry.sparse) continue;
        const std::string data = ReadAll(entry.path);
        EXPECT_EQ(test::Sha256Hex(data.data(), data.size()), entry.sha256);
    }
    for (const auto& [directory, names] : children) {
        size_t listed = 0;
        ASSERT_EQ(fs_->ReadDir(directory,
                               [&](const std::u16string&, const struct stat& attributes) {
                                   EXPECT_NE(attributes.st_mode, 0u);
                                   ++listed;
                                   return true;
                               }),
                  0);
        // Names that several links share appear once per link in the
        // manifest and once per name in the listing.
        EXPECT_GE(listed, 1u);
    }

    struct stat missing {};
    EXPECT_EQ(fs_->GetAttr(u"\\no such file", &missing), -ENOENT);
    EXPECT_EQ(fs_->ReadDir(u"\\no such dir", [](const std::u16string&, const struct stat&) { return true; }), -ENOENT);
    EXPECT_EQ(fs_->ReadDir(u"\\Empty.dat", [](const std::u16string&, const struct stat&) { return true; }), -ENOTDIR);
    size_t stopped = 0;
    ASSERT_EQ(fs_->ReadDir(u"\\", [&](const std::u16string&, const struct stat&) { return ++stopped < 2; }), 0);
    EXPECT_EQ(stopped, 2u);
}

TEST_F(VolumeFsTest, ReadOnlyRefusesEveryChangeAndLeavesTheImage) {
    Load(true);
    // As the mount opens an image: the storage refuses every write.
    volume_->Faults().RefuseWrites(ERROR_WRITE_PROTECT);
    const std::vector<uint8_t> before = volume_->Memory().Bytes();
    EXPECT_FALSE(ReadAll(u"\\MiXeD\\CaSe\\NaMe.TxT").empty());
    uint64_t handle = 0;
    EXPECT_EQ(fs_->Open(u"\\Empty.dat", O_RDWR, &handle), -EROFS);
    EXPECT_EQ(fs_->Create(u"\\new.txt", O_CREAT | O_WRONLY, &handle), -EROFS);
    EXPECT_EQ(fs_->Truncate(u"\\Empty.dat", nullptr, 10), -EROFS);
    EXPECT_EQ(fs_->MakeDirectory(u"\\dir"), -EROFS);
    EXPECT_EQ(fs_->Unlink(u"\\Empty.dat"), -EROFS);
    EXPECT_EQ(fs_->RemoveDirectory(u"\\EmptyDir"), -EROFS);
    EXPECT_EQ(fs_->Rename(u"\\Empty.dat", u"\\Full.dat", false), -EROFS);
    struct statvfs space {};
    ASSERT_EQ(fs_->StatFs(&space), 0);
    EXPECT_NE(space.f_flag & ST_RDONLY, 0u);
    EXPECT_EQ(space.f_bsize, 4096u);
    EXPECT_GT(space.f_blocks, space.f_bfree);
    EXPECT_GT(space.f_files, space.f_ffree);
    ASSERT_EQ(fs_->Unmount(), ERROR_SUCCESS);
    EXPECT_TRUE(volume_->Memory().Bytes() == before);
}

TEST_F(VolumeFsTest, WritesPastTheEndFillWithZerosAndTruncateBothWaysSurvivesRemount) {
    Load(false);
    uint64_t handle = 0;
    ASSERT_EQ(fs_->Open(u"\\Empty.dat", O_RDWR, &handle), 0);
    // A write far behind the end: the gap reads as zeros.
    const std::string tail = "tail of the file";
    ASSERT_EQ(fs_->Write(handle, tail.data(), tail.size(), 70000), static_cast<int>(tail.size()));
    const std::string head = "head";
    ASSERT_EQ(fs_->Write(handle, head.data(), head.size(), 0), static_cast<int>(head.size()));
    ASSERT_EQ(fs_->Truncate(u"\\Empty.dat", &handle, 70004), 0);  // cuts "tail" to 4 bytes
    ASSERT_EQ(fs_->Truncate(u"\\Empty.dat", &handle, 80000), 0);  // grows with zeros again
    ASSERT_EQ(fs_->Release(handle), 0);
    EXPECT_EQ(fs_->Release(handle), -EBADF);

    std::string expected(80000, '\0');
    expected.replace(0, head.size(), head);
    expected.replace(70000, 4, tail.substr(0, 4));
    EXPECT_EQ(ReadAll(u"\\Empty.dat"), expected);
    Remount(true);
    EXPECT_EQ(ReadAll(u"\\Empty.dat"), expected);
    struct stat attributes {};
    ASSERT_EQ(fs_->GetAttr(u"\\Empty.dat", &attributes), 0);
    EXPECT_EQ(attributes.st_size, 80000);
}

// What cp -r, mv and rm -r do through a mount: make a directory, create
// files in it, rename one, delete one, then remove it all; the readers agree
// after each remount, and the free clusters come back.
TEST_F(VolumeFsTest, CreateRenameDeleteAndRemoveReachTheDisk) {
    Load(false);
    struct statvfs start {};
    ASSERT_EQ(fs_->StatFs(&start), 0);
    ASSERT_EQ(fs_->MakeDirectory(u"\\made"), 0);
    EXPECT_EQ(fs_->MakeDirectory(u"\\made"), -EEXIST);
    const std::string data(20000, 'z');
    for (const char16_t* name : {u"\\made\\one.txt", u"\\made\\two.txt"}) {
        uint64_t handle = 0;
        ASSERT_EQ(fs_->Create(name, O_CREAT | O_WRONLY | O_EXCL, &handle), 0);
        ASSERT_EQ(fs_->Write(handle, data.data(), data.size(), 0), static_cast<int>(data.size()));
        ASSERT_EQ(fs_->Release(handle), 0);
    }
    uint64_t handle = 0;
    EXPECT_EQ(fs_->Create(u"\\made\\one.txt", O_CREAT | O_WRONLY | O_EXCL, &handle), -EEXIST);
    ASSERT_EQ(fs_->Rename(u"\\made\\one.txt", u"\\made\\renamed.txt", false), 0);
    ASSERT_EQ(fs_->Unlink(u"\\made\\two.txt"), 0);
    EXPECT_EQ(fs_->RemoveDirectory(u"\\made"), -ENOTEMPTY);
    Remount(false);
    EXPECT_EQ(ReadAll(u"\\made\\renamed.txt"), data);
    struct stat gone {};
    EXPECT_EQ(fs_->GetAttr(u"\\made\\two.txt", &gone), -ENOENT);
    ASSERT_EQ(fs_->Unlink(u"\\made\\renamed.txt"), 0);
    ASSERT_EQ(fs_->RemoveDirectory(u"\\made"), 0);
    Remount(true);
    struct statvfs end {};
    ASSERT_EQ(fs_->StatFs(&end), 0);
    EXPECT_EQ(end.f_bfree, start.f_bfree);
    EXPECT_EQ(fs_->GetAttr(u"\\made", &gone), -ENOENT);
}

TEST_F(VolumeFsTest, RefusalsAProgramSeesAsErrno) {
    Load(false);
    uint64_t handle = 0;
    EXPECT_EQ(fs_->Open(u"\\nothing here", O_RDONLY, &handle), -ENOENT);
    // Only inside one directory; mv falls back to copy and delete.
    EXPECT_EQ(fs_->Rename(u"\\Empty.dat", u"\\EmptyDir\\Empty.dat", false), -EXDEV);
    EXPECT_EQ(fs_->Unlink(u"\\EmptyDir"), -EISDIR);
    ASSERT_EQ(fs_->Open(u"\\Empty.dat", O_RDONLY, &handle), 0);
    EXPECT_EQ(fs_->Write(handle, "x", 1, 0), -EBADF);
    EXPECT_EQ(fs_->Truncate(u"\\Empty.dat", &handle, 0), -EBADF);
    EXPECT_EQ(fs_->Read(handle + 1, nullptr, 1, 0), -EBADF);
    ASSERT_EQ(fs_->Release(handle), 0);
}

TEST_F(VolumeFsTest, StaleBytesAndDroppedDeviceFailuresAnswerIoError) {
    Load(true);
    std::vector<std::string> reasons;
    fs_->SetRefusalLog([&](const std::u16string&, const std::string& reason) { reasons.push_back(reason); });
    // Bytes behind a claimed initialized size: zeros pass, data does not.
    uint64_t zerosFrom = 0;
    fs_->SetReadCheck([&](CNTFSVolume*, const std::u16string&) {
        mount::ReadVerdict verdict;
        verdict.zerosFrom = zerosFrom;
        return verdict;
    });
    char buffer[64];
    uint64_t handle = 0;
    ASSERT_EQ(fs_->Open(u"\\MiXeD\\CaSe\\NaMe.TxT", O_RDONLY, &handle), 0);
    EXPECT_EQ(fs_->Read(handle, buffer, sizeof(buffer), 0), -EIO);
    ASSERT_EQ(fs_->Release(handle), 0);
    zerosFrom = 321;  // the file's size: nothing behind it is read
    ASSERT_EQ(fs_->Open(u"\\MiXeD\\CaSe\\NaMe.TxT", O_RDONLY, &handle), 0);
    EXPECT_EQ(fs_->Read(handle, buffer, sizeof(buffer), 0), static_cast<int>(sizeof(buffer)));
    // A device failure during the read, which the volume would pass over.
    uint64_t failures = 0;
    fs_->SetDeviceFailures([&] { return failures++; });
    EXPECT_EQ(fs_->Read(handle, buffer, sizeof(buffer), 0), -EIO);
    ASSERT_EQ(fs_->Release(handle), 0);
    EXPECT_EQ(reasons.size(), 2u);
}

TEST_F(VolumeFsTest, ARefusedFileAnswersIoErrorAndIsLoggedOnce) {
    Load(true);
    fs_->SetReadCheck([](CNTFSVolume*, const std::u16string& path) {
        mount::ReadVerdict verdict;
        if (path == u"\\Empty.dat") verdict.refusal = "a hole the library would fill from an earlier unit";
        return verdict;
    });
    std::vector<std::u16string> logged;
    fs_->SetRefusalLog([&](const std::u16string& path, const std::string&) { logged.push_back(path); });
    uint64_t handle = 0;
    ASSERT_EQ(fs_->Open(u"\\Empty.dat", O_RDONLY, &handle), 0);
    char buffer[16];
    EXPECT_EQ(fs_->Read(handle, buffer, sizeof(buffer), 0), -EIO);
    ASSERT_EQ(fs_->Release(handle), 0);
    EXPECT_EQ(logged, std::vector<std::u16string>{u"\\Empty.dat"});
}

// A real mount: `ntfskit mount -f` in a child, ordinary programs on the
// mount point, fusermount3 -u, and the image checked by the peer tools.
class FuseMountTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (access("/dev/fuse", R_OK | W_OK) != 0 || test::RunTool("command -v fusermount3").status != 0) {
            GTEST_SKIP() << "no /dev/fuse or fusermount3 on this machine";
        }
        char name[] = "/tmp/ntfskit-mount-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        image_ = dir_ + "/c4k.img";
        point_ = dir_ + "/mnt";
        ASSERT_EQ(mkdir(point_.c_str(), 0755), 0);
        ASSERT_EQ(
            test::RunTool("cp " + test::ShellQuote(test::FixturePath("c4k")) + " " + test::ShellQuote(image_)).status,
            0);
        // Whether this machine lets FUSE file systems mount at all: ntfs-3g,
        // a FUSE program of its own, mounts the image read-only and leaves.
        if (test::RunTool("ntfs-3g -o ro " + test::ShellQuote(image_) + " " + test::ShellQuote(point_) +
                          " && fusermount3 -u " + test::ShellQuote(point_))
                .status != 0) {
            GTEST_SKIP() << "FUSE mounts do not work on this machine";
        }
    }

    void TearDown() override {
        if (child_ > 0) {
            test::RunTool("fusermount3 -u " + test::ShellQuote(point_));
            waitpid(child_, nullptr, 0);
        }
        if (!dir_.empty()) test::RunTool("rm -rf " + test::ShellQuote(dir_));
    }

    // Starts the mount and waits until the mount point is served.
    void Start(const std::vector<std::string>& options) {
        struct stat before {};
        ASSERT_EQ(stat(point_.c_str(), &before), 0);
        child_ = fork();
        ASSERT_GE(child_, 0);
        if (child_ == 0) {
            std::vector<std::string> arguments = {NTFSKIT_CLI, "mount", "-f"};
            arguments.insert(arguments.end(), options.begin(), options.end());
            arguments.push_back(image_);
            arguments.push_back(point_);
            std::vector<char*> argv;
            for (std::string& argument : arguments) argv.push_back(argument.data());
            argv.push_back(nullptr);
            execv(NTFSKIT_CLI, argv.data());
            _exit(127);
        }
        for (int tries = 0; tries < 200; ++tries) {
            struct stat now {};
            if (stat(point_.c_str(), &now) == 0 && now.st_dev != before.st_dev) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        FAIL() << "the mount point was not served within 5 s";
    }

    // Unmounts and returns the exit status of `ntfskit mount`.
    int Stop() {
        EXPECT_EQ(test::RunTool("fusermount3 -u " + test::ShellQuote(point_)).status, 0);
        int status = 0;
        waitpid(child_, &status, 0);
        child_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string Sh(const std::string& command) {
        const test::ToolResult result = test::RunTool(command);
        EXPECT_EQ(result.status, 0) << command << "\n" << result.output;
        return result.output;
    }

    std::string dir_, image_, point_;
    pid_t child_ = 0;
};

TEST_F(FuseMountTest, OrdinaryToolsReadAndWriteThroughTheMount) {
    Start({});
    const std::string point = test::ShellQuote(point_);
    // Every plain file of the manifest, read by sha256sum through the kernel.
    // A file the library's read would hand out wrongly (sparse files of
    // other writers) fails with EIO instead: a program gets the file's
    // bytes or an error, never other bytes.
    int refused = 0;
    for (const test::ManifestEntry& entry : test::LoadManifest("c4k")) {
        if (entry.is_dir) continue;
        std::string relative = entry.path_utf8;
        for (char& c : relative) {
            if (c == '\\') c = '/';
        }
        const test::ToolResult sum = test::RunTool("sha256sum " + test::ShellQuote(point_ + relative) + " 2>&1");
        if (sum.output.find("Input/output error") != std::string::npos) {
            EXPECT_TRUE(entry.sparse) << entry.path_utf8;
            ++refused;
            continue;
        }
        EXPECT_EQ(sum.output.substr(0, 64), entry.sha256) << entry.path_utf8;
    }
    EXPECT_EQ(refused, 2);  // \sparse\data-at-end.bin and \sparse\mid-write.bin
    EXPECT_NE(Sh("ls -l " + point).find("EmptyDir"), std::string::npos);
    EXPECT_NE(Sh("df " + point).find("ntfskit"), std::string::npos);
    // An overwrite through cp (open with O_TRUNC, write, release).
    Sh("head -c 300000 /dev/urandom > " + test::ShellQuote(dir_ + "/source"));
    Sh("cp " + test::ShellQuote(dir_ + "/source") + " " + point + "/Empty.dat");
    Sh("cmp " + test::ShellQuote(dir_ + "/source") + " " + point + "/Empty.dat");
    // A tree copied in, a file moved to another directory (mv copies and
    // deletes), a directory removed with what it holds.
    Sh("mkdir -p " + test::ShellQuote(dir_ + "/tree/sub") + " && printf one > " +
       test::ShellQuote(dir_ + "/tree/one.txt") + " && printf two > " + test::ShellQuote(dir_ + "/tree/sub/two.txt"));
    Sh("cp -r " + test::ShellQuote(dir_ + "/tree") + " " + point + "/copied");
    Sh("mv " + point + "/copied/one.txt " + point + "/EmptyDir/");
    Sh("rm -r " + point + "/copied/sub");
    ASSERT_EQ(Stop(), 0);
    EXPECT_EQ(Sh("ntfscat " + test::ShellQuote(image_) + " /EmptyDir/one.txt"), "one");
    const std::string copied = Sh("ntfsls -a -p /copied " + test::ShellQuote(image_));
    EXPECT_EQ(copied.find("sub"), std::string::npos) << copied;
    EXPECT_EQ(copied.find("one.txt"), std::string::npos) << copied;

    // The bitmaps and the new size reached the image.
    Sh("ntfscat " + test::ShellQuote(image_) + " Empty.dat | cmp - " + test::ShellQuote(dir_ + "/source"));
    EXPECT_NE(Sh("ntfsfix -n " + test::ShellQuote(image_)).find("processed successfully"), std::string::npos);
}

TEST_F(FuseMountTest, SigtermUnmountsCleanlySoTheWritesReachTheImage) {
    Start({});
    Sh("head -c 70000 /dev/urandom > " + test::ShellQuote(dir_ + "/source"));
    Sh("cp " + test::ShellQuote(dir_ + "/source") + " " + test::ShellQuote(point_ + "/Empty.dat"));
    ASSERT_EQ(kill(child_, SIGTERM), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child_, &status, 0), child_);
    child_ = 0;
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    Sh("ntfscat " + test::ShellQuote(image_) + " Empty.dat | cmp - " + test::ShellQuote(dir_ + "/source"));
    EXPECT_NE(Sh("ntfsfix -n " + test::ShellQuote(image_)).find("processed successfully"), std::string::npos);
}

TEST_F(FuseMountTest, ReadOnlyMountRefusesWritesAndKeepsTheImage) {
    const std::string before = Sh("sha256sum < " + test::ShellQuote(image_));
    Start({"-o", "ro"});
    EXPECT_NE(test::RunTool("echo x > " + test::ShellQuote(point_ + "/Empty.dat")).status, 0);
    Sh("cat " + test::ShellQuote(point_ + "/Empty.dat") + " > /dev/null");
    ASSERT_EQ(Stop(), 0);
    EXPECT_EQ(Sh("sha256sum < " + test::ShellQuote(image_)), before);
}

}  // namespace
}  // namespace ntfs
