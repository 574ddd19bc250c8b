#include "card_file.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace tarvik::sim {
namespace {

TEST(CardFile, ExampleCardLoads) {
    const IdentityCard card = LoadCardFile(TARVIK_EXAMPLE_CARD);
    EXPECT_EQ(card.name, "张三");
    EXPECT_EQ(card.sex, "1");
    EXPECT_EQ(card.nation, "01");
}

TEST(CardFile, KeysLeftOutKeepTheDefaultsAndHexGivesBlocks) {
    const IdentityCard card = ParseCardJson(R"({"name": "李四", "photo_hex": "0aff"})");
    EXPECT_EQ(card.name, "李四");
    EXPECT_EQ(card.birth, DefaultIdentityCard().birth);
    EXPECT_EQ(card.photo, (std::vector<uint8_t>{0x0A, 0xFF}));
}

TEST(CardFile, BadInputIsReported) {
    for (const char* text :
         {"[1]", "{", R"({"name": 5})", R"({"photo_hex": "0g"})", R"({"photo_hex": "abc"})"}) {
        EXPECT_THROW(ParseCardJson(text), std::runtime_error) << text;
    }
    EXPECT_THROW(LoadCardFile("/nonexistent/card.json"), std::runtime_error);
}

}  // namespace
}  // namespace tarvik::sim
