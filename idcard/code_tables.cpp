#include "code_tables.h"

#include <mutex>

#include "IDCardData.h"
#include "card_lock.h"

std::map<std::wstring, std::wstring> IDCardData::sex_map;
std::map<std::wstring, std::wstring> IDCardData::nation_map;
bool IDCardData::map_inited = false;

namespace {
struct CodeRow {
    const wchar_t* code;
    const wchar_t* name;
};

// Sex codes of the card, in insertion order.
const CodeRow kSexRows[] = {
    {L"0", L"未知"},
    {L"1", L"男"},
    {L"2", L"女"},
    {L"9", L"未说明"},
};

// Nation codes of the card, in insertion order; names are the short forms.
// clang-format off
const CodeRow kNationRows[] = {
    {L"01", L"汉"},       {L"02", L"蒙古"},     {L"03", L"回"},       {L"04", L"藏"},
    {L"05", L"维吾尔"},   {L"06", L"苗"},       {L"07", L"彝"},       {L"08", L"壮"},
    {L"09", L"布依"},     {L"10", L"朝鲜"},     {L"11", L"满"},       {L"12", L"侗"},
    {L"13", L"瑶"},       {L"14", L"白"},       {L"15", L"土家"},     {L"16", L"哈尼"},
    {L"17", L"哈萨克"},   {L"18", L"傣"},       {L"19", L"黎"},       {L"20", L"傈僳"},
    {L"21", L"佤"},       {L"22", L"畲"},       {L"23", L"高山"},     {L"24", L"拉祜"},
    {L"25", L"水"},       {L"26", L"东乡"},     {L"27", L"纳西"},     {L"28", L"景颇"},
    {L"29", L"柯尔克孜"}, {L"30", L"土"},       {L"31", L"达斡尔"},   {L"32", L"仫佬"},
    {L"33", L"羌"},       {L"34", L"布朗"},     {L"35", L"撒拉"},     {L"36", L"毛南"},
    {L"37", L"仡佬"},     {L"38", L"锡伯"},     {L"39", L"阿昌"},     {L"40", L"普米"},
    {L"41", L"塔吉克"},   {L"42", L"怒"},       {L"43", L"乌兹别克"}, {L"44", L"俄罗斯"},
    {L"45", L"鄂温克"},   {L"46", L"德昂"},     {L"47", L"保安"},     {L"48", L"裕固"},
    {L"49", L"京"},       {L"50", L"塔塔尔"},   {L"51", L"独龙"},     {L"52", L"鄂伦春"},
    {L"53", L"赫哲"},     {L"54", L"门巴"},     {L"55", L"珞巴"},     {L"56", L"基诺"},
    {L"97", L"其他"},     {L"98", L"外国血统中国籍人士"},
};
// clang-format on

// Insert-if-absent: a code already present keeps its name, and a table that is
// already full is only read, so later fills never write to it.
template <std::size_t N>
void insert_missing(std::map<std::wstring, std::wstring>& table, const CodeRow (&rows)[N]) {
    for (const CodeRow& row : rows) {
        table.try_emplace(row.code, row.name);
    }
}

std::wstring lookup(const std::map<std::wstring, std::wstring>& table, const std::wstring& code) {
    std::lock_guard<std::recursive_mutex> lock(tarvik::card_parse_mutex());
    const auto it = table.find(code);
    return it == table.end() ? std::wstring() : it->second;
}
}  // namespace

namespace tarvik {
void fill_code_tables() {
    std::lock_guard<std::recursive_mutex> lock(card_parse_mutex());
    IDCardData::map_inited = false;
    insert_missing(IDCardData::sex_map, kSexRows);
    insert_missing(IDCardData::nation_map, kNationRows);
    IDCardData::map_inited = true;
}
}  // namespace tarvik

std::wstring IDCardData::get_sex(std::wstring code) { return lookup(sex_map, code); }

std::wstring IDCardData::get_nation(std::wstring code) { return lookup(nation_map, code); }
