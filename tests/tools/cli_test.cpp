// The ntfskit command end to end on copies of the fixture volumes: what it
// prints, that read commands never change an image, that writes reach the
// independent readers, and that failures name the path and exit non-zero.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "support/fixture.h"
#include "support/tools.h"

namespace ntfs {
namespace {

using test::RunTool;
using test::ShellQuote;

std::string Cli() {
    return NTFSKIT_CLI;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream out;
    out << in.rdbuf();
    return out.str();
}

class CliTest : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/ntfskit-cli-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        image_ = dir_ + "/c4k.img";
        ASSERT_EQ(RunTool("cp " + ShellQuote(test::FixturePath("c4k")) + " " + ShellQuote(image_)).status, 0);
    }
    void TearDown() override { RunTool("rm -rf " + ShellQuote(dir_)); }
    // Runs the command with standard error kept apart from standard output.
    test::ToolResult Run(const std::string& arguments, std::string* errors = nullptr) {
        const std::string errorFile = dir_ + "/stderr";
        test::ToolResult result = RunTool("{ " + Cli() + " " + arguments + " 2>" + ShellQuote(errorFile) + "; }");
        if (errors != nullptr) *errors = ReadFile(errorFile);
        return result;
    }

    std::string dir_;
    std::string image_;
};

TEST_F(CliTest, ReadCommandsPrintCleanlyAndLeaveTheImageAlone) {
    const std::string before = test::Sha256Hex(ReadFile(image_).data(), ReadFile(image_).size());
    test::ToolResult info = Run("info " + ShellQuote(image_));
    EXPECT_EQ(info.status, 0);
    EXPECT_NE(info.output.find("cluster size:        4096"), std::string::npos) << info.output;
    EXPECT_EQ(info.output.find("NFTS Volume Mount"), std::string::npos);  // no library log without -v
    test::ToolResult ls = Run("ls " + ShellQuote(image_) + " /data");
    EXPECT_EQ(ls.status, 0);
    EXPECT_NE(ls.output.find("one-byte.bin\n"), std::string::npos);
    test::ToolResult longList = Run("ls -l -R " + ShellQuote(image_));
    EXPECT_NE(longList.output.find("409617"), std::string::npos);
    EXPECT_NE(longList.output.find("\\docs\\Archive\\2019\\Deep\\Deeper\\Level5:"), std::string::npos);
    for (const test::ManifestEntry& entry : test::LoadManifest("c4k")) {
        if (entry.path_utf8 != "\\unicode\\日本語.txt" && entry.path_utf8 != "\\data\\Large Text File.log") continue;
        test::ToolResult cat = Run("cat " + ShellQuote(image_) + " " + ShellQuote(entry.path_utf8));
        EXPECT_EQ(cat.status, 0);
        EXPECT_EQ(test::Sha256Hex(cat.output.data(), cat.output.size()), entry.sha256);
    }
    ASSERT_EQ(Run("get -R " + ShellQuote(image_) + " /docs " + ShellQuote(dir_ + "/docs")).status, 0);
    EXPECT_EQ(ReadFile(dir_ + "/docs/Archive/README").size(), 1500u);
    test::ToolResult verbose = Run("-v info " + ShellQuote(image_));
    EXPECT_EQ(verbose.output.find("NFTS Volume Mount"), std::string::npos);  // log goes to stderr
    const std::string after = ReadFile(image_);
    EXPECT_EQ(test::Sha256Hex(after.data(), after.size()), before);
}

TEST_F(CliTest, WriteOverwritesAndAppends) {
    const std::string source = dir_ + "/source.txt";
    std::ofstream(source) << std::string(9000, 'x');
    ASSERT_EQ(Run("write " + ShellQuote(image_) + " /readme.txt " + ShellQuote(source)).status, 0);
    EXPECT_EQ(Run("cat " + ShellQuote(image_) + " /readme.txt").output, std::string(9000, 'x'));
    ASSERT_EQ(RunTool("printf tail | " + Cli() + " write -a " + ShellQuote(image_) + " /readme.txt").status, 0);
    const std::string expected = std::string(9000, 'x') + "tail";
    EXPECT_EQ(Run("cat " + ShellQuote(image_) + " /readme.txt").output, expected);
    const test::ToolResult cat = RunTool("ntfscat " + ShellQuote(image_) + " /readme.txt 2>/dev/null");
    EXPECT_EQ(cat.output, expected);
    EXPECT_EQ(RunTool("ntfsfix -n " + ShellQuote(image_)).status, 0);
}

// Writing over a compressed and a sparse file: text, random bytes and zeros
// of several compression units and a part of one, then an append; each
// reads back exactly through cat and through ntfscat.
TEST_F(CliTest, WriteIntoCompressedAndSparseFilesReadsBack) {
    std::string content;
    uint32_t state = 2463534242u;
    for (int i = 0; i < 200000; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        content += static_cast<char>(i < 70000 ? 'a' + (i * 7 + i / 13) % 26 : i < 150000 ? state : 0);
    }
    const std::string source = dir_ + "/source.bin";
    std::ofstream(source, std::ios::binary) << content;
    for (const char* path : {"/compressed/text-300k.txt", "/sparse/islands.bin"}) {
        SCOPED_TRACE(path);
        ASSERT_EQ(Run("write " + ShellQuote(image_) + " " + path + " " + ShellQuote(source)).status, 0);
        EXPECT_TRUE(Run("cat " + ShellQuote(image_) + " " + path).output == content);
        ASSERT_EQ(RunTool("printf tail | " + Cli() + " write -a " + ShellQuote(image_) + " " + path).status, 0);
        EXPECT_TRUE(Run("cat " + ShellQuote(image_) + " " + path).output == content + "tail");
        EXPECT_TRUE(RunTool("ntfscat " + ShellQuote(image_) + " " + path + " 2>/dev/null").output == content + "tail");
    }
    EXPECT_EQ(RunTool("ntfsfix -n " + ShellQuote(image_)).status, 0);
}

TEST_F(CliTest, FailuresNameThePathAndExitNonZero) {
    std::string errors;
    test::ToolResult missing = Run("cat " + ShellQuote(image_) + " /no/such.txt", &errors);
    EXPECT_NE(missing.status, 0);
    EXPECT_NE(errors.find("\\no\\such.txt: no such file or directory (code 2)"), std::string::npos) << errors;
    test::ToolResult notImage = Run("info " + ShellQuote(dir_ + "/absent.img"), &errors);
    EXPECT_NE(notImage.status, 0);
    EXPECT_NE(errors.find("absent.img"), std::string::npos);
    EXPECT_NE(Run("frobnicate", &errors).status, 0);
    test::ToolResult directory = Run("get " + ShellQuote(image_) + " /docs", &errors);
    EXPECT_NE(directory.status, 0);
    EXPECT_NE(errors.find("is a directory"), std::string::npos);
}

}  // namespace
}  // namespace ntfs
