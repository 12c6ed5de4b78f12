// Checks of the test support code itself: the SHA-256 helper, the UTF-8
// conversion and that every fixture volume and manifest loads.
#include "fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>

namespace ntfs::test {
namespace {

std::string Sha(const std::string& s) {
    return Sha256Hex(s.data(), s.size());
}

TEST(Sha256Hex, KnownVectors) {
    EXPECT_EQ(Sha(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(Sha("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(Sha("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(Sha(std::string(1000000, 'a')), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256Hex, PaddingBoundaries) {
    // 55 bytes fit the length in one final block, 56 need a second one.
    EXPECT_EQ(Sha(std::string(55, 'a')), "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318");
    EXPECT_EQ(Sha(std::string(56, 'a')), "b35439a4ac6f0948b6d6f9e3c6af0f5f590ce20f1bde7090ef7970686ec6738a");
    EXPECT_EQ(Sha(std::string(64, 'a')), "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb");
}

TEST(Utf8ToUtf16, SurrogatePairsAndErrors) {
    EXPECT_EQ(Utf8ToUtf16("a\xC3\xBC\xE6\x97\xA5\xF0\x9F\x98\x80"), std::u16string(u"a\u00FC\u65E5\xD83D\xDE00"));
    EXPECT_THROW(Utf8ToUtf16("\xC3"), std::runtime_error);          // truncated
    EXPECT_THROW(Utf8ToUtf16("\xC0\x80"), std::runtime_error);      // overlong
    EXPECT_THROW(Utf8ToUtf16("\xED\xA0\x80"), std::runtime_error);  // lone surrogate
}

TEST(Fixtures, EveryVolumeLoads) {
    const std::vector<std::string> names = FixtureNames();
    ASSERT_FALSE(names.empty()) << "no fixture images in " << FixtureDir();
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const std::vector<ManifestEntry> entries = LoadManifest(name);
        EXPECT_FALSE(entries.empty());
        const std::vector<uint8_t> image = LoadImage(name);
        EXPECT_FALSE(image.empty());
        EXPECT_EQ(image.size() % 512, 0u);

        // Every name of a record reports the same link count, and a file has
        // as many names as links.
        std::map<int64_t, int> names_per_record;
        for (const ManifestEntry& e : entries) {
            EXPECT_GE(e.record, 16) << e.path_utf8;
            EXPECT_FALSE(e.path.empty());
            if (!e.is_dir) ++names_per_record[e.record];
        }
        for (const ManifestEntry& e : entries) {
            if (!e.is_dir) {
                EXPECT_EQ(names_per_record[e.record], e.links) << e.path_utf8;
            }
        }
    }
}

TEST(Fixtures, ExpectedVolumesArePresent) {
    const std::vector<std::string> names = FixtureNames();
    for (const char* want : {"big", "c1k", "c4k", "c512", "c64k", "c8k"}) {
        EXPECT_NE(std::find(names.begin(), names.end(), want), names.end()) << want;
    }
}

TEST(Fixtures, NonAsciiNamesRoundTrip) {
    const std::vector<ManifestEntry> entries = LoadManifest("c4k");
    bool emoji = false, long_name = false;
    for (const ManifestEntry& e : entries) {
        if (e.path == u"\\unicode\\emoji-\U0001F600-smile.txt") emoji = true;
        const size_t slash = e.path.rfind(u'\\');
        if (e.path.size() - slash - 1 == 255) long_name = true;
    }
    EXPECT_TRUE(emoji);
    EXPECT_TRUE(long_name);
}

}  // namespace
}  // namespace ntfs::test
