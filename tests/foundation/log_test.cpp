// Tracing: exact texts, both sinks of LogFailure in order, LogMessage on
// standard output only, and text that contains '%' printed as it stands.
#include "foundation/log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/platform.h"

namespace ntfs {
namespace {

std::vector<std::string> g_debugLines;

void Collect(const char* text) {
    g_debugLines.emplace_back(text);
}

class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_debugLines.clear();
        previous_ = SetDebugSink(&Collect);
    }
    void TearDown() override { SetDebugSink(previous_); }
    DebugSink previous_ = nullptr;
};

TEST_F(LogTest, FailureGoesToBothSinksWithCodeLine) {
    testing::internal::CaptureStdout();
    const unsigned int code = LogFailure("Entry is broken.", ERROR_NOT_ENOUGH_MEMORY);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(code, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(out, "Entry is broken. ErrorCode = 00000008H.\n");
    ASSERT_EQ(g_debugLines.size(), 2u);
    EXPECT_EQ(g_debugLines[0], "Entry is broken.");
    EXPECT_EQ(g_debugLines[1], " ErrorCode = 00000008H.\n");
}

TEST_F(LogTest, FailureFormatsArgumentsAfterCode) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(LogFailure("record %XH ", ERROR_FILE_CORRUPT, 0x1Fu), ERROR_FILE_CORRUPT);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "record 1FH  ErrorCode = 00000570H.\n");
}

TEST_F(LogTest, MessageGoesToStandardOutputOnly) {
    testing::internal::CaptureStdout();
    LogMessage("Volume version %d.%d.\n", 3, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Volume version 3.1.\n");
    EXPECT_TRUE(g_debugLines.empty());
}

TEST_F(LogTest, FormattedPercentIsPrintedPlain) {
    testing::internal::CaptureStdout();
    LogMessage("%s\n", "100%d %s %n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "100%d %s %n\n");
}

TEST(LogFormat, BoundsAndOverflow) {
    char buffer[8];
    EXPECT_EQ(LogFormat(buffer, sizeof(buffer), "%d", 1234), 4);
    EXPECT_STREQ(buffer, "1234");
    EXPECT_EQ(LogFormat(buffer, sizeof(buffer), "%s", "far too long"), -1);
    EXPECT_EQ(LogFormat(buffer, 0, "x"), -1);
}

TEST(LogSink, UnsetSinkIsSilent) {
    DebugSink previous = SetDebugSink(nullptr);
    OutputDebugStringA("nobody hears this");
    SetDebugSink(previous);
}

}  // namespace
}  // namespace ntfs
