#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "byte_pack.h"

namespace {

class RecordingLogger : public AssertLogger {
public:
    void Log(char* message) override { messages.emplace_back(message); }
    std::vector<std::string> messages;
};

// Restores standard-output reporting whatever a test installed.
class ByteTest : public testing::Test {
protected:
    void TearDown() override { SetAssertLogger(nullptr); }
};

struct PackCase {
    int value;
    int size;
    std::vector<unsigned char> bytes;
};

class Int2ByteTest : public testing::TestWithParam<PackCase> {};

TEST_P(Int2ByteTest, PacksLittleEndianAndClearsTheRest) {
    const PackCase& c = GetParam();
    std::array<unsigned char, 12> buf;
    buf.fill(0xAA);  // old contents and a guard beyond `size`
    Int2Byte(c.value, buf.data(), c.size);
    EXPECT_EQ(std::vector<unsigned char>(buf.begin(), buf.begin() + c.size), c.bytes);
    for (size_t i = static_cast<size_t>(c.size); i < buf.size(); ++i) {
        EXPECT_EQ(buf[i], 0xAA) << "written past the end at " << i;
    }
    EXPECT_EQ(Byte2Int(buf.data(), c.size), c.value);
}

INSTANTIATE_TEST_SUITE_P(Values, Int2ByteTest,
                         testing::Values(PackCase{258, 8, {0x02, 0x01, 0, 0, 0, 0, 0, 0}},
                                         PackCase{-1, 4, {0xFF, 0xFF, 0xFF, 0xFF}},
                                         PackCase{1, 8, {1, 0, 0, 0, 0, 0, 0, 0}},
                                         PackCase{0x12345678, 5, {0x78, 0x56, 0x34, 0x12, 0}},
                                         PackCase{INT32_MIN, 4, {0, 0, 0, 0x80}}));

TEST_F(ByteTest, Byte2IntIgnoresBytesBeyondFour) {
    unsigned char bytes[8] = {0xFF, 0xFF, 0xFF, 0x7F, 0x11, 0x22, 0x33, 0x44};
    EXPECT_EQ(Byte2Int(bytes, 8), 0x7FFFFFFF);
}

// Sizes below 4 are reported and touch nothing, in every build.
TEST_F(ByteTest, SizeBelowFourIsReportedAndTouchesNothing) {
    RecordingLogger logger;
    SetAssertLogger(&logger);
    for (int size : {3, 1, 0, -5}) {
        unsigned char guard[4] = {0xAA, 0xAA, 0xAA, 0xAA};
        Int2Byte(0x01020304, guard, size);
        EXPECT_EQ(std::memcmp(guard, "\xAA\xAA\xAA\xAA", 4), 0) << size;
        EXPECT_EQ(Byte2Int(guard, size), 0) << size;
    }
    ASSERT_EQ(logger.messages.size(), 8u);
    EXPECT_NE(logger.messages[0].find("size >= 4"), std::string::npos);
    EXPECT_NE(logger.messages[0].find("Int2Byte"), std::string::npos);
    EXPECT_NE(logger.messages[1].find("size >= 4"), std::string::npos);
    EXPECT_NE(logger.messages[1].find("Byte2Int"), std::string::npos);
}

TEST_F(ByteTest, MyAssertGoesToTheLoggerOrToStandardOutput) {
    char text[] = "something is wrong";
    testing::internal::CaptureStdout();
    MyAssert(text);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "something is wrong\n");

    RecordingLogger logger;
    SetAssertLogger(&logger);
    testing::internal::CaptureStdout();
    MyAssert(text);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(logger.messages, std::vector<std::string>{"something is wrong"});

    SetAssertLogger(nullptr);
    testing::internal::CaptureStdout();
    MyAssert(text);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "something is wrong\n");
    EXPECT_EQ(logger.messages.size(), 1u);
}

}  // namespace
