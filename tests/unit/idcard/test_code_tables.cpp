#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "IDCardData.h"
#include "card_lock.h"

namespace {
TEST(idcard_tables, LookupMatchesWholeCodesOnly) {
    IDCardData card;
    const auto sex = &IDCardData::get_sex;
    const auto nation = &IDCardData::get_nation;
    const struct {
        std::wstring (IDCardData::*lookup)(std::wstring);
        std::wstring code;
        std::wstring name;
    } cases[] = {
        {sex, L"0", L"未知"},     {sex, L"9", L"未说明"},
        {sex, L"3", L""},         {sex, L"01", L""},
        {sex, L"", L""},          {nation, L"01", L"汉"},
        {nation, L"56", L"基诺"}, {nation, L"98", L"外国血统中国籍人士"},
        {nation, L"1", L""},      {nation, L"00", L""},
        {nation, L"57", L""},     {nation, L"01 ", L""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ((card.*c.lookup)(c.code), c.name) << c.code;
    }
}

TEST(idcard_tables, EveryConstructionInsertsOnlyMissingRows) {
    std::lock_guard<std::recursive_mutex> lock(tarvik::card_parse_mutex());
    IDCardData first;
    IDCardData::sex_map[L"1"] = L"changed";
    IDCardData::nation_map.erase(L"97");
    IDCardData second;
    EXPECT_TRUE(IDCardData::map_inited);
    EXPECT_EQ(IDCardData::sex_map.size(), 4u);
    EXPECT_EQ(IDCardData::nation_map.size(), 58u);
    EXPECT_EQ(second.get_sex(L"1"), L"changed");
    EXPECT_EQ(second.get_nation(L"97"), L"其他");
    IDCardData::sex_map[L"1"] = L"男";
}

// Emptied tables make every thread race for the first fill; the thread
// sanitizer build reports any access that the lock does not order.
TEST(idcard_tables, ConcurrentConstructionsAndLookups) {
    {
        std::lock_guard<std::recursive_mutex> lock(tarvik::card_parse_mutex());
        IDCardData::sex_map.clear();
        IDCardData::nation_map.clear();
    }
    std::vector<int> misses(8, 0);
    std::vector<std::thread> threads;
    for (int& miss : misses) {
        threads.emplace_back([&miss] {
            for (int i = 0; i < 50; ++i) {
                IDCardData card;
                miss += card.get_nation(L"98").empty() + card.get_sex(L"9").empty();
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(misses, std::vector<int>(8, 0));
}
}  // namespace
