// The text conversions with arbitrary buffers and sizes, sizes too small for
// the text included, and the byte packing with sizes below four. Every buffer
// is a heap block of exactly the size the function is told, so a byte touched
// past it is caught. Round trips check the encoders against each other.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "byte_pack.h"
#include "device_script.h"
#include "text_convert.h"

namespace {

class QuietLogger : public AssertLogger {
public:
    void Log(char*) override {}
};

template <typename T>
std::unique_ptr<T[]> Exact(std::size_t n) {
    return std::unique_ptr<T[]>(new T[std::max<std::size_t>(n, 1)]());
}

// UCS-2 -> UTF-8 into `dstSize` bytes, then back.
void Ucs2ToUtf8(const std::vector<unsigned short>& units, unsigned srcLen, unsigned dstSize) {
    auto counted = Exact<unsigned short>(units.size());
    std::copy(units.begin(), units.end(), counted.get());
    const unsigned needed = ucs2_to_utf8(counted.get(), srcLen, nullptr, 0);

    auto src = Exact<unsigned short>(units.size());
    std::copy(units.begin(), units.end(), src.get());
    auto dst = Exact<unsigned char>(dstSize);
    const unsigned written = ucs2_to_utf8(src.get(), srcLen, dst.get(), dstSize);
    FUZZ_CHECK(written <= dstSize);
    FUZZ_CHECK(written <= needed);

    // The conversion takes units until a zero unit, `srcLen`, or a unit whose
    // encoding does not fit the room left; 0xFFFE gives nothing. What was
    // written decodes back to exactly those units. (The source is as the call
    // left it: byte-swapped when it began with 0xFFFE.)
    std::vector<unsigned short> expected;
    unsigned bytes = 0;
    for (unsigned i = 0; i < srcLen && src[i] != 0; ++i) {
        const unsigned short u = src[i];
        if (u == 0xFFFE) continue;
        const unsigned n = u < 0x80 ? 1 : u < 0x800 ? 2 : 3;
        if (bytes + n > dstSize) break;
        bytes += n;
        expected.push_back(u);
    }
    FUZZ_CHECK(bytes == written);
    auto back = Exact<unsigned short>(expected.size());
    const unsigned units2 =
        utf8_to_ucs2(dst.get(), written, back.get(), static_cast<unsigned>(expected.size()));
    FUZZ_CHECK(units2 == expected.size());
    FUZZ_CHECK(std::equal(expected.begin(), expected.end(), back.get()));
    // The wide conversion of the same bytes agrees.
    const std::wstring wide = utf8_to_wstring(std::string(dst.get(), dst.get() + written));
    FUZZ_CHECK(wide.size() == expected.size());
    for (std::size_t i = 0; i < wide.size(); ++i)
        FUZZ_CHECK(static_cast<unsigned>(wide[i]) == expected[i]);
}

void Utf8ToUcs2(const std::string& bytes, unsigned srcLen, unsigned dstLen) {
    auto src = Exact<unsigned char>(bytes.size());
    if (!bytes.empty()) std::memcpy(src.get(), bytes.data(), bytes.size());
    const unsigned needed = utf8_to_ucs2(src.get(), srcLen, nullptr, 0);
    FUZZ_CHECK(needed <= srcLen);
    auto dst = Exact<unsigned short>(dstLen);
    const unsigned written = utf8_to_ucs2(src.get(), srcLen, dst.get(), dstLen);
    FUZZ_CHECK(written <= dstLen && written <= srcLen);
}

void Wide(const std::string& s) {
    const std::wstring w = utf8_to_wstring(s);
    FUZZ_CHECK(w.size() <= s.size());
    for (wchar_t c : w) FUZZ_CHECK(static_cast<unsigned>(c) <= 0xFFFF);
}

void Trims(const std::string& s) {
    const std::size_t first = s.find_first_not_of(' ');
    const std::size_t last = s.find_last_not_of(' ');
    std::string a = s, b = s, c = s, d = s;
    trim_left_space(a);
    FUZZ_CHECK(a == (first == std::string::npos ? "" : s.substr(first)));
    trim_right_space(b);
    FUZZ_CHECK(b == (last == std::string::npos ? "" : s.substr(0, last + 1)));
    trim_left_right_space(c);
    FUZZ_CHECK(c == (first == std::string::npos ? "" : s.substr(first, last - first + 1)));
    trim_all_space(d);
    std::string none = s;
    none.erase(std::remove(none.begin(), none.end(), ' '), none.end());
    FUZZ_CHECK(d == none);
}

void Swap(const std::vector<unsigned short>& units, unsigned len) {
    auto buf = Exact<unsigned short>(units.size());
    std::copy(units.begin(), units.end(), buf.get());
    const unsigned swapped = ucs2be_to_ucs2le(buf.get(), len);
    FUZZ_CHECK(swapped <= len && swapped <= units.size());
    for (std::size_t i = 0; i < units.size(); ++i) {
        const unsigned short u = units[i];
        FUZZ_CHECK(buf[i] == (i < swapped ? static_cast<unsigned short>(u << 8 | u >> 8) : u));
    }
}

void Packing(int size, int value) {
    auto bytes = Exact<unsigned char>(static_cast<std::size_t>(std::max(size, 0)));
    Int2Byte(value, bytes.get(), size);
    const int back = Byte2Int(bytes.get(), size);
    FUZZ_CHECK(size >= 4 ? back == value : back == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static QuietLogger logger;
    SetAssertLogger(&logger);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const unsigned srcCut = in.ConsumeIntegral<std::uint8_t>();
    const unsigned dstSize = in.ConsumeIntegralInRange<unsigned>(0, 400);
    const int packSize = in.ConsumeIntegralInRange<int>(-2, 8);
    const int packValue = in.ConsumeIntegral<int>();
    const std::string bytes = in.ConsumeRemainingBytesAsString();

    std::vector<unsigned short> units(bytes.size() / 2);
    if (!units.empty()) std::memcpy(units.data(), bytes.data(), units.size() * 2);
    const unsigned unitLen = static_cast<unsigned>(units.size());
    const unsigned byteLen = static_cast<unsigned>(bytes.size());

    // Source lengths up to the buffer's end; destinations of any size.
    Ucs2ToUtf8(units, unitLen - std::min(srcCut, unitLen), dstSize);
    Utf8ToUcs2(bytes, byteLen - std::min(srcCut, byteLen), dstSize / 3);
    Swap(units, unitLen - std::min(srcCut, unitLen));
    Wide(bytes);
    Trims(bytes);
    Packing(packSize, packValue);
    return 0;
}
