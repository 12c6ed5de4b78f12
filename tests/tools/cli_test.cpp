// The ntfskit command end to end on copies of the fixture volumes: what it
// prints, that read commands never change an image, that writes reach the
// independent readers, that every fixture copies out as its manifest says
// with the volume's known differences reported (never silent), and that bad
// input and usage errors give their exit status and one clear message and
// leave the image byte for byte as it was.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

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

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string Hash(const std::string& path) {
    const std::string bytes = ReadFile(path);
    return test::Sha256Hex(bytes.data(), bytes.size());
}

size_t Count(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

uint64_t Get(const std::string& bytes, size_t at, int width) {
    uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i) value = (value << 8) | static_cast<uint8_t>(bytes[at + i]);
    return value;
}

class CliTest : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/ntfskit-cli-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        image_ = Copy("c4k");
    }
    void TearDown() override { RunTool("chmod -R u+w " + ShellQuote(dir_) + "; rm -rf " + ShellQuote(dir_)); }

    // A copy of fixture `name` in the test's directory.
    std::string Copy(const std::string& name, const std::string& as = "") {
        const std::string path = dir_ + "/" + (as.empty() ? name : as) + ".img";
        EXPECT_EQ(RunTool("cp " + ShellQuote(test::FixturePath(name)) + " " + ShellQuote(path)).status, 0);
        return path;
    }
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
    const std::string before = Hash(image_);
    const std::string image = ShellQuote(image_);
    test::ToolResult info = Run("info " + image);
    EXPECT_EQ(info.status, 0);
    EXPECT_NE(info.output.find("cluster size:        4096"), std::string::npos) << info.output;
    EXPECT_EQ(info.output.find("NFTS Volume Mount"), std::string::npos);  // no library log without -v
    test::ToolResult ls = Run("ls " + image + " /data");
    EXPECT_EQ(ls.status, 0);
    EXPECT_NE(ls.output.find("one-byte.bin\n"), std::string::npos);
    test::ToolResult longList = Run("ls -l -R " + image);
    EXPECT_NE(longList.output.find("409617"), std::string::npos);
    EXPECT_NE(longList.output.find("\\docs\\Archive\\2019\\Deep\\Deeper\\Level5:"), std::string::npos);
    for (const test::ManifestEntry& entry : test::LoadManifest("c4k")) {
        if (entry.path_utf8 != "\\unicode\\日本語.txt" && entry.path_utf8 != "\\data\\Large Text File.log") continue;
        test::ToolResult cat = Run("cat " + image + " " + ShellQuote(entry.path_utf8));
        EXPECT_EQ(cat.status, 0);
        EXPECT_EQ(test::Sha256Hex(cat.output.data(), cat.output.size()), entry.sha256);
    }
    ASSERT_EQ(Run("get -R " + image + " /docs " + ShellQuote(dir_ + "/docs")).status, 0);
    EXPECT_EQ(ReadFile(dir_ + "/docs/Archive/README").size(), 1500u);
    test::ToolResult verbose = Run("-v info " + image);
    EXPECT_EQ(verbose.output.find("NFTS Volume Mount"), std::string::npos);  // log goes to stderr
    EXPECT_EQ(Run("stat " + image + " / /links/original.txt").status, 0);
    EXPECT_EQ(Run("ls -a --json -R " + image).status, 0);
    EXPECT_EQ(Hash(image_), before);
}

TEST_F(CliTest, ListingShowsEveryNameSystemFilesAndJson) {
    const std::string image = ShellQuote(image_);
    // Record 98 has two names in \links; the volume's enumeration hands both
    // entries out under one name merged from the two.
    test::ToolResult links = Run("ls " + image + " /links");
    EXPECT_EQ(links.status, 0);
    EXPECT_EQ(links.output, "big-original.txt\noriginal.txt\nsame-dir-link.txt\n");
    test::ToolResult root = Run("ls " + image);
    EXPECT_EQ(root.output.find("$MFT"), std::string::npos);
    test::ToolResult all = Run("ls -a " + image);
    EXPECT_NE(all.output.find("$MFT\n"), std::string::npos);
    EXPECT_NE(all.output.find("$Extend/\n"), std::string::npos);
    EXPECT_NE(all.output.find("readme.txt\n"), std::string::npos);
    test::ToolResult json = Run("ls --json " + image + " /links");
    EXPECT_EQ(json.status, 0);
    EXPECT_EQ(json.output.rfind("[\n", 0), 0u) << json.output;
    EXPECT_NE(json.output.find("{\"path\": \"\\\\links\\\\same-dir-link.txt\", \"name\": \"same-dir-link.txt\", "
                               "\"type\": \"file\", \"size\": 500, \"record\": 98, \"modified\": \""),
              std::string::npos)
        << json.output;
    EXPECT_EQ(Run("ls --json " + image + " /EmptyDir").output, "[]\n");
}

TEST_F(CliTest, StatShowsRecordsNamesSizesAndFlags) {
    const std::string image = ShellQuote(image_);
    test::ToolResult links = Run("stat " + image + " /docs/cross-dir-link.txt");
    EXPECT_EQ(links.status, 0);
    for (const char* line : {"record:            98 (sequence", "links:             3", "parent 97: original.txt",
                             "parent 97: same-dir-link.txt", "parent 67: cross-dir-link.txt",
                             "short name:        (none)", "size:              500 (resident)", "extension records: 99",
                             "$ATTRIBUTE_LIST in record 98", "read differences:  none"}) {
        EXPECT_NE(links.output.find(line), std::string::npos) << line << "\n" << links.output;
    }
    test::ToolResult sparse = Run("stat " + image + " /sparse/data-at-end.bin /compressed/text-300k.txt");
    EXPECT_EQ(sparse.status, 0);
    for (const char* line : {"size:              8388608", "sparse:            yes", "compression unit:  65536 bytes",
                             "bytes 8380416 to 8388607: a sparse hole entered from an earlier compression unit",
                             "compressed:        yes", "attributes:        0x820 (archive,compressed)"}) {
        EXPECT_NE(sparse.output.find(line), std::string::npos) << line << "\n" << sparse.output;
    }
}

TEST_F(CliTest, GetCopiesFilesTreesHolesAndTimes) {
    const std::string image = ShellQuote(image_);
    // Several sources into a directory; '-' is standard output.
    ASSERT_EQ(mkdir((dir_ + "/out").c_str(), 0777), 0);
    ASSERT_EQ(Run("get " + image + " /readme.txt /docs/Notes.TXT " + ShellQuote(dir_ + "/out")).status, 0);
    EXPECT_EQ(ReadFile(dir_ + "/out/readme.txt"), Run("cat " + image + " /readme.txt").output);
    EXPECT_FALSE(ReadFile(dir_ + "/out/Notes.TXT").empty());
    EXPECT_EQ(Run("get " + image + " /readme.txt -").output, ReadFile(dir_ + "/out/readme.txt"));
    // Holes stay holes on the host.
    const std::string hole = dir_ + "/hole.bin";
    ASSERT_EQ(Run("get -p " + image + " /sparse/all-hole-10M.bin " + ShellQuote(hole)).status, 0);
    struct stat info {};
    ASSERT_EQ(stat(hole.c_str(), &info), 0);
    EXPECT_EQ(info.st_size, 10 << 20);
    EXPECT_LT(info.st_blocks * 512, 1 << 20);
    // -p: the modification time of the original, as stat shows it.
    const std::string shown = Run("stat " + image + " /sparse/all-hole-10M.bin").output;
    const size_t at = shown.find("modified:          ");
    ASSERT_NE(at, std::string::npos);
    std::tm calendar{};
    ASSERT_NE(strptime(shown.substr(at + 19, 19).c_str(), "%Y-%m-%d %H:%M:%S", &calendar), nullptr);
    EXPECT_EQ(info.st_mtime, timegm(&calendar));
    // A tree, with times kept on the directories too.
    ASSERT_EQ(Run("get -R -p " + image + " /docs " + ShellQuote(dir_ + "/docs")).status, 0);
    EXPECT_EQ(ReadFile(dir_ + "/docs/Archive/README").size(), 1500u);
    ASSERT_EQ(stat((dir_ + "/docs").c_str(), &info), 0);
    EXPECT_LT(info.st_mtime, time(nullptr) - 1);
}

// Every fixture copied out whole and compared with its manifest: a file
// that comes out other than the manifest says is named on standard error
// with the reason, every name on the error stream is such a file, and the
// command exits 1 exactly when there are any.
TEST_F(CliTest, GetOfEveryFixtureMatchesItsManifestWithDifferencesReported) {
    const std::map<std::string, size_t> expected = {{"c4k", 2}, {"c8k", 2}, {"c64k", 3}};
    size_t reportedTotal = 0;
    for (const std::string& name : test::FixtureNames()) {
        const std::string out = dir_ + "/tree-" + name;
        std::string errors;
        const test::ToolResult get =
            Run("get -R " + ShellQuote(test::FixturePath(name)) + " / " + ShellQuote(out), &errors);
        std::set<std::string> differing;
        size_t files = 0;
        for (const test::ManifestEntry& entry : test::LoadManifest(name)) {
            if (entry.is_dir) continue;
            std::string host = entry.path_utf8;
            for (char& c : host) c = c == '\\' ? '/' : c;
            struct stat info {};
            ASSERT_EQ(stat((out + host).c_str(), &info), 0) << name << " " << entry.path_utf8 << " missing";
            ++files;
            if (Hash(out + host) != entry.sha256) differing.insert(entry.path_utf8);
        }
        std::set<std::string> reported;
        std::istringstream lines(errors);
        for (std::string line; std::getline(lines, line);) {
            const size_t colon = line.find(": bytes ");
            ASSERT_TRUE(line.rfind("ntfskit: ", 0) == 0 && colon != std::string::npos &&
                        line.find("differ from the file on disk: ") != std::string::npos)
                << name << ": unexpected message " << line;
            const std::string path = line.substr(9, colon - 9);
            reported.insert(path);
            // Every byte that differs from what ntfs-3g reads lies in the
            // range named.
            uint64_t from = 0;
            uint64_t to = 0;
            ASSERT_EQ(std::sscanf(line.c_str() + colon, ": bytes %" SCNu64 " to %" SCNu64, &from, &to), 2) << line;
            std::string host = path;
            for (char& c : host) c = c == '\\' ? '/' : c;
            const std::string copy = ReadFile(out + host);
            const std::string truth =
                RunTool("ntfscat " + ShellQuote(test::FixturePath(name)) + " " + ShellQuote(host) + " 2>/dev/null")
                    .output;
            ASSERT_EQ(copy.size(), truth.size()) << path;
            for (size_t i = 0; i < copy.size(); ++i) {
                if (copy[i] != truth[i]) {
                    ASSERT_TRUE(i >= from && i <= to) << name << " " << path << " byte " << i;
                }
            }
        }
        EXPECT_EQ(reported, differing) << name;
        EXPECT_EQ(get.status, differing.empty() ? 0 : 1) << name;
        const auto want = expected.find(name);
        EXPECT_EQ(reported.size(), want == expected.end() ? 0u : want->second) << name;
        reportedTotal += reported.size();
        std::printf("%s: %zu files, %zu come out different and are reported\n", name.c_str(), files, reported.size());
        RunTool("rm -rf " + ShellQuote(out));
    }
    EXPECT_EQ(reportedTotal, 7u);
}

TEST_F(CliTest, WriteOverwritesAndAppends) {
    const std::string source = dir_ + "/source.txt";
    WriteFile(source, std::string(9000, 'x'));
    ASSERT_EQ(Run("write " + ShellQuote(image_) + " /readme.txt " + ShellQuote(source)).status, 0);
    EXPECT_EQ(Run("cat " + ShellQuote(image_) + " /readme.txt").output, std::string(9000, 'x'));
    ASSERT_EQ(RunTool("printf tail | " + Cli() + " write -a " + ShellQuote(image_) + " /readme.txt").status, 0);
    const std::string expected = std::string(9000, 'x') + "tail";
    EXPECT_EQ(Run("cat " + ShellQuote(image_) + " /readme.txt").output, expected);
    const test::ToolResult cat = RunTool("ntfscat " + ShellQuote(image_) + " /readme.txt 2>/dev/null");
    EXPECT_EQ(cat.output, expected);
    const std::string record = Run("stat " + ShellQuote(image_) + " /readme.txt").output;
    const size_t at = record.find("record:            ");
    ASSERT_NE(at, std::string::npos);
    const std::string number = record.substr(at + 19, record.find(' ', at + 19) - at - 19);
    EXPECT_EQ(RunTool("icat -f ntfs " + ShellQuote(image_) + " " + number + " 2>/dev/null").output, expected);
    EXPECT_NE(RunTool("fls -f ntfs " + ShellQuote(image_) + " 2>/dev/null").output.find("readme.txt"),
              std::string::npos);
    EXPECT_EQ(RunTool("ntfsfix -n " + ShellQuote(image_)).status, 0);
}

// The changing commands end to end: a host tree put on the volume (new
// directories, new files, a file overwritten), a directory path made with
// -p, a rename, then everything removed again; after each step the
// independent readers agree, and at the end the free clusters and records
// are what they were.
TEST_F(CliTest, PutMkdirMvRmAndRmdirReachTheIndependentReaders) {
    const std::string tree = dir_ + "/tree";
    ASSERT_EQ(RunTool("mkdir -p " + ShellQuote(tree + "/sub/deeper")).status, 0);
    WriteFile(tree + "/a.txt", "first file\n");
    WriteFile(tree + "/sub/Long File Name.txt", std::string(70000, 'q'));
    std::string random;
    for (int i = 0; i < 300000; ++i) random += static_cast<char>((i * 2654435761u) >> 13);
    WriteFile(tree + "/sub/deeper/random.bin", random);
    WriteFile(dir_ + "/readme.new", "replaced readme\n");
    const std::string image = ShellQuote(image_);
    const std::string before = Run("info " + image).output;

    ASSERT_EQ(Run("put -R " + image + " " + ShellQuote(tree) + " /").status, 0);
    ASSERT_EQ(Run("put " + image + " " + ShellQuote(dir_ + "/readme.new") + " /readme.txt").status, 0);
    ASSERT_EQ(Run("mkdir -p " + image + " /made/on/the/way").status, 0);
    ASSERT_EQ(Run("mv " + image + " /tree/a.txt renamed.txt").status, 0);
    const std::string listing = RunTool("ntfsls -R -p /tree " + image + " 2>&1").output;
    for (const char* name : {"renamed.txt", "sub", "Long File Name.txt", "deeper", "random.bin"}) {
        EXPECT_NE(listing.find(name), std::string::npos) << name << "\n" << listing;
    }
    EXPECT_EQ(listing.find("a.txt\n"), std::string::npos) << listing;
    EXPECT_EQ(RunTool("ntfscat " + image + " /tree/sub/deeper/random.bin 2>/dev/null").output, random);
    EXPECT_EQ(RunTool("ntfscat " + image + " /tree/renamed.txt 2>/dev/null").output, "first file\n");
    EXPECT_EQ(RunTool("ntfscat " + image + " /readme.txt 2>/dev/null").output, "replaced readme\n");
    EXPECT_NE(RunTool("fls -r -p -f ntfs " + image + " 2>/dev/null").output.find("made/on/the/way"), std::string::npos);
    // The short name of a long one, as the readers see it.
    EXPECT_NE(RunTool("ntfsls -x -p /tree/sub " + image + " 2>&1").output.find("LONGF~1.TXT"), std::string::npos);
    EXPECT_EQ(RunTool("ntfsfix -n " + image).status, 0);

    ASSERT_EQ(Run("rm -r " + image + " /tree").status, 0);
    ASSERT_EQ(Run("rmdir " + image + " /made/on/the/way /made/on/the /made/on /made").status, 0);
    const std::string root = RunTool("ntfsls " + image + " 2>&1").output;
    EXPECT_EQ(root.find("tree"), std::string::npos) << root;
    EXPECT_EQ(root.find("made"), std::string::npos) << root;
    EXPECT_EQ(RunTool("ntfsfix -n " + image).status, 0);
    // Only the overwritten readme may hold other clusters than before.
    const auto line = [](const std::string& text, const char* key) {
        const size_t at = text.find(key);
        return at == std::string::npos ? std::string() : text.substr(at, text.find('\n', at) - at);
    };
    const std::string after = Run("info " + image).output;
    EXPECT_EQ(line(after, "free clusters:"), line(before, "free clusters:"));
    EXPECT_EQ(line(after, "free file records:"), line(before, "free file records:"));
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

// A directory that another writer ordered with its case table: the look-up
// misses a name that the listing shows. Made from c4k by renaming
// \unicode\Grüße.txt to ωrüße.txt in place (index entry and record): ordered
// by case table it stays before Ωμέγα, but folding only a to z puts it
// after, so the look-up of Ωμέγα stops early.
TEST_F(CliTest, NameOrderedByAnotherCaseTableIsReportedAsSuch) {
    std::string bytes = ReadFile(image_);
    const std::u16string from = u"Grüße.txt";
    const std::u16string to = u"ωrüße.txt";
    const std::string fromBytes(reinterpret_cast<const char*>(from.data()), from.size() * 2);
    const std::string toBytes(reinterpret_cast<const char*>(to.data()), to.size() * 2);
    int replaced = 0;
    for (size_t at = bytes.find(fromBytes); at != std::string::npos; at = bytes.find(fromBytes, at + 1)) {
        bytes.replace(at, toBytes.size(), toBytes);
        ++replaced;
    }
    ASSERT_EQ(replaced, 2);
    WriteFile(image_, bytes);
    const std::string image = ShellQuote(image_);
    EXPECT_NE(Run("ls " + image + " /unicode").output.find("Ωμέγα/\n"), std::string::npos);
    std::string errors;
    EXPECT_EQ(Run("cat " + image + " /unicode/Ωμέγα/ñandú.bin", &errors).status, 1);
    EXPECT_EQ(errors,
              "ntfskit: \\unicode\\Ωμέγα\\ñandú.bin: its directory \\unicode\\Ωμέγα is listed in its parent but not "
              "found by name: the directory was ordered by another writer's case table (letters beyond a to z "
              "compare differently there), which ntfskit does not read\n");
    EXPECT_EQ(Run("get -R " + image + " /unicode " + ShellQuote(dir_ + "/u"), &errors).status, 1);
    EXPECT_EQ(Count(errors, "\\unicode\\Ωμέγα: listed in its directory but not found by name"), 1u) << errors;
    EXPECT_EQ(Run("stat " + image + " /unicode/nothing", &errors).status, 1);
    EXPECT_EQ(errors, "ntfskit: \\unicode\\nothing: no such file or directory\n");
}

// A damaged index entry (one byte of c4k changed: the root's entry of
// \MiXeD, record 85, loses its name) lists a directory inside itself: the
// walks of ls -R and get -R say so and end, and nothing is written outside
// the target.
TEST_F(CliTest, DirectoryListedInsideItselfEndsTheWalk) {
    std::string bytes = ReadFile(image_);
    ASSERT_EQ(bytes[103570], 0);
    bytes[103570] = static_cast<char>(237);
    WriteFile(image_, bytes);
    const struct {
        std::string command;
        const char* message;
    } walks[] = {
        {"ls -R " + ShellQuote(image_),
         "directory record 85 is listed inside itself (a damaged index); not walked again"},
        // The copy refuses the empty name before it could walk into it.
        {"get -R " + ShellQuote(image_) + " / " + ShellQuote(dir_ + "/out"),
         "\\: a name the host cannot take (empty, '.', '..' or with '/'); not copied"},
    };
    for (const auto& walk : walks) {
        const std::string errorFile = dir_ + "/stderr";
        const test::ToolResult result =
            RunTool("{ timeout 120 " + Cli() + " " + walk.command + " >/dev/null 2>" + ShellQuote(errorFile) + "; }");
        const std::string errors = ReadFile(errorFile);
        EXPECT_EQ(result.status, 1) << walk.command << "\n" << errors;
        EXPECT_EQ(Count(errors, walk.message), 1u) << walk.command << "\n" << errors;
    }
    EXPECT_EQ(RunTool("ls " + ShellQuote(dir_)).output.find("MiXeD"), std::string::npos);
}

// A read the device answers short: the volume goes on with shifted data and
// success, the command reports it.
TEST_F(CliTest, DeviceFailureDuringAReadIsReported) {
    std::string bytes = ReadFile(image_);
    // Record 79, \data\large-random.bin: its one run moved to cluster 4090,
    // so that 59 of its 65 clusters lie behind the end of the image.
    const uint64_t cluster = Get(bytes, 11, 2) * static_cast<uint8_t>(bytes[13]);
    const size_t record = Get(bytes, 48, 8) * cluster + 79 * 1024;
    ASSERT_EQ(bytes.compare(record, 4, "FILE"), 0);
    size_t attribute = record + Get(bytes, record + 0x14, 2);
    while (Get(bytes, attribute, 4) != 0x80) attribute += Get(bytes, attribute + 4, 4);
    ASSERT_EQ(bytes[attribute + 8], 1);  // non-resident
    const size_t run = attribute + Get(bytes, attribute + 0x20, 2);
    const int countBytes = bytes[run] & 0x0F;
    const int lcnBytes = (bytes[run] >> 4) & 0x0F;
    ASSERT_GE(lcnBytes, 2);
    const size_t lcn = run + 1 + countBytes;
    ASSERT_LT((lcn + lcnBytes) % 512, 510u);  // clear of the record's update sequence places
    for (int i = 0; i < lcnBytes; ++i) bytes[lcn + i] = static_cast<char>(i < 2 ? (4090 >> (8 * i)) & 0xFF : 0);
    WriteFile(image_, bytes);
    const std::string before = Hash(image_);
    std::string errors;
    EXPECT_EQ(Run("cat " + ShellQuote(image_) + " /data/large-random.bin", &errors).status, 1);
    EXPECT_NE(errors.find(image_ + ": device error during the read of \\data\\large-random.bin: read of "),
              std::string::npos)
        << errors;
    EXPECT_EQ(Count(errors, "ntfskit: "), 1u) << errors;
    EXPECT_EQ(Hash(image_), before);
}

// Bad input and usage errors: exit status, one message that names the image
// or path and what is wrong, and the image byte for byte as it was.
TEST_F(CliTest, BadInputAndUsageErrorsChangeNothing) {
    const std::string random = dir_ + "/random.img";
    RunTool("head -c 1000000 /dev/urandom > " + ShellQuote(random));
    const std::string truncated = dir_ + "/truncated.img";
    RunTool("head -c 4000000 " + ShellQuote(image_) + " > " + ShellQuote(truncated));
    const std::string empty = dir_ + "/empty.img";
    WriteFile(empty, "");
    const std::string geometry = Copy("c4k", "geometry");
    std::string boot = ReadFile(geometry);
    boot[11] = 0;
    boot[12] = 0x10;  // 4096-byte sectors
    WriteFile(geometry, boot);
    const std::string readOnly = Copy("c4k", "read-only");
    ASSERT_EQ(chmod(readOnly.c_str(), 0444), 0);
    const std::string source = dir_ + "/source.txt";
    WriteFile(source, "new content\n");
    const std::string huge = dir_ + "/huge.bin";
    ASSERT_EQ(truncate((WriteFile(huge, ""), huge).c_str(), 64 << 20), 0);

    const std::map<std::string, std::string> names = {
        {"{image}", image_},  {"{random}", random},     {"{truncated}", truncated},
        {"{empty}", empty},   {"{geometry}", geometry}, {"{ro}", readOnly},
        {"{source}", source}, {"{huge}", huge},         {"{dir}", dir_}};
    const auto expand = [&](std::string text, bool quote) {
        for (const auto& [key, value] : names) {
            for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at)) {
                text.replace(at, key.size(), quote ? ShellQuote(value) : value);
                at += value.size();
            }
        }
        return text;
    };
    struct Case {
        const char* arguments;
        int status;
        const char* message;  // on standard error, exactly once
    };
    const Case cases[] = {
        // Bad input.
        {"info {random}", 1, "{random}: not an NTFS volume (no NTFS boot sector)"},
        {"ls {truncated}", 1, "{truncated}: truncated image: the volume has 32767 sectors, the file holds only 7812"},
        {"info {empty}", 1, "{empty}: too small to be a volume (0 bytes)"},
        {"stat {geometry} /", 1, "{geometry}: unsupported geometry: 4096-byte sectors"},
        {"cat {dir} /readme.txt", 1, "{dir}: is a directory, not a volume image"},
        {"info {dir}/absent.img", 1, "{dir}/absent.img: no such image file"},
        {"write {ro} /readme.txt {source}", 1, "{ro}: the image is read-only"},
        {"write {image} /readme.txt {dir}", 1, "{dir}: is a directory; write takes a file"},
        {"write {image} /readme.txt {dir}/absent.txt", 1, "{dir}/absent.txt: No such file or directory"},
        {"write {image} /absent.txt {source}", 1,
         "\\absent.txt: no such file or directory (write changes an existing file; nothing was changed)"},
        {"write {image} /docs {source}", 1, "\\docs: is a directory; nothing was changed"},
        {"write {image} /readme.txt {huge}", 1,
         "\\readme.txt: not enough free space: 16383 more clusters wanted, 3035 free"},
        {"write -a {image} /docs/Notes.TXT {huge}", 1, "\\docs\\Notes.TXT: not enough free space"},
        {"cat {image} /no/such.txt", 1, "\\no\\such.txt: no such file or directory"},
        {"cat {image} /docs", 1, "\\docs: is a directory"},
        {"get {image} /docs {dir}/docs-copy", 1, "\\docs: is a directory (use get -R)"},
        {"get {image} /docs -", 1, "\\docs: is a directory ('-' takes files only)"},
        {"get {image} /readme.txt /Empty.dat {source}", 1, "{source}: not a directory (several sources"},
        // Usage.
        {"", 2, "A subcommand is required"},
        {"frobnicate {image}", 2, "unknown command 'frobnicate'"},
        {"-v frobnicate {image}", 2, "unknown command 'frobnicate'"},
        {"--frobnicate", 2, "--frobnicate"},
        {"info", 2, "IMAGE is required"},
        {"info {image} /extra", 2, "/extra"},
        {"ls -x {image}", 2, "-x"},
        {"stat {image}", 2, "PATH is required"},
        {"cat {image}", 2, "PATH is required"},
        {"get {image} /readme.txt", 2, "SRC: At least 2 required"},
        {"get -q {image} /readme.txt {dir}", 2, "-q"},
        {"write {image}", 2, "PATH is required"},
        {"write -z {image} /readme.txt", 2, "-z"},
        {"put {image} {source}", 2, "SRC: At least 2 required"},
        {"mkdir {image}", 2, "PATH is required"},
        {"rm {image}", 2, "PATH is required"},
        {"rmdir {image}", 2, "PATH is required"},
        {"mv {image} /readme.txt", 2, "NEWNAME is required"},
        {"put -x {image} {source} /new.txt", 2, "-x"},
        // The changing commands: every precondition before the first change.
        {"put {image} {dir}/absent.txt /new.txt", 1, "{dir}/absent.txt: No such file or directory"},
        {"put {image} {dir} /new", 1, "{dir}: is a directory (use put -R)"},
        {"put {image} {source} /no/such/x.txt", 1, "\\no\\such: no such file or directory"},
        {"put {image} {source} /readme.txt/x", 1, "\\readme.txt: not a directory"},
        {"put {image} {source} {source} /readme.txt", 1, "\\readme.txt: not a directory (several sources"},
        {"put {image} {huge} /big.bin", 1, "{image}: not enough free space: 16384 clusters wanted, 3035 free"},
        {"put {image} {source} /bad:name", 1, "\\bad:name: not a valid name on the volume"},
        {"put {ro} {source} /new.txt", 1, "{ro}: the image is read-only"},
        {"mkdir {image} /docs", 1, "\\docs: exists"},
        {"mkdir {image} /no/such", 1, "\\no: no such file or directory"},
        {"mkdir {image} /readme.txt", 1, "\\readme.txt: exists and is a file"},
        {"rm {image} /docs", 1, "\\docs: is a directory (use rm -r, or rmdir)"},
        {"rm {image} /", 1, "\\: the root directory cannot be removed"},
        {"rm {image} /readme.txt /absent", 1, "\\absent: no such file or directory"},
        {"rmdir {image} /docs", 1, "\\docs: directory not empty"},
        {"rmdir {image} /readme.txt", 1, "\\readme.txt: not a directory"},
        {"mv {image} /readme.txt a/b", 1, "a/b: mv takes a new name, not a path"},
        {"mv {image} /readme.txt Empty.dat", 1, "\\Empty.dat: exists; nothing was changed"},
        {"mv {image} /docs d2", 1, "\\docs: is a directory; the volume renames files only"},
    };
    const std::vector<std::string> images = {image_, geometry, readOnly, truncated, random};
    std::vector<std::string> contents;
    for (const std::string& image : images) contents.push_back(ReadFile(image));
    for (const Case& row : cases) {
        std::string errors;
        const test::ToolResult result = Run(expand(row.arguments, true), &errors);
        const std::string message = expand(row.message, false);
        EXPECT_EQ(result.status, row.status) << row.arguments << "\n" << errors;
        EXPECT_EQ(Count(errors, message), 1u) << row.arguments << "\n" << errors;
        EXPECT_EQ(Count(errors, "ntfskit: "), 1u) << row.arguments << "\n" << errors;
        EXPECT_EQ(result.output, "") << row.arguments;
        for (size_t i = 0; i < images.size(); ++i) EXPECT_TRUE(ReadFile(images[i]) == contents[i]) << row.arguments;
    }
    EXPECT_EQ(Hash(image_), Hash(test::FixturePath("c4k")));
}

TEST_F(CliTest, HelpAndVersionExitZero) {
    for (const char* arguments :
         {"--help", "--version", "info --help", "ls --help", "stat --help", "cat --help", "get --help", "write --help",
          "put --help", "mkdir --help", "rm --help", "rmdir --help", "mv --help"}) {
        const test::ToolResult result = Run(arguments);
        EXPECT_EQ(result.status, 0) << arguments;
        EXPECT_FALSE(result.output.empty()) << arguments;
    }
    EXPECT_EQ(Run("--version").output.rfind("ntfskit ", 0), 0u);
}

// The progress line appears only when standard error is a terminal.
TEST_F(CliTest, ProgressLineOnATerminalOnly) {
    if (RunTool("command -v script").status != 0) GTEST_SKIP() << "script(1) is not installed";
    const std::string copy = ShellQuote(dir_ + "/copy.bin");
    const test::ToolResult terminal =
        RunTool("script -qec " +
                ShellQuote(Cli() + " get " + ShellQuote(image_) + " /sparse/all-hole-10M.bin " + copy) + " /dev/null");
    EXPECT_EQ(terminal.status, 0) << terminal.output;
    EXPECT_NE(terminal.output.find("\\sparse\\all-hole-10M.bin: 10485760 of 10485760 bytes, "), std::string::npos)
        << terminal.output;
    EXPECT_NE(terminal.output.find(" s left"), std::string::npos) << terminal.output;
    std::string errors;
    EXPECT_EQ(Run("get " + ShellQuote(image_) + " /sparse/all-hole-10M.bin " + copy, &errors).status, 0);
    EXPECT_EQ(errors, "");
}

}  // namespace
}  // namespace ntfs
