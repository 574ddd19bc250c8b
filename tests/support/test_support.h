// Shared pieces of the tests: byte literals, the library's standard output
// split into its lines, and read access to TarvikImpl's private members.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "TarvikImpl.h"

namespace tarvik::test {

using Bytes = std::vector<std::uint8_t>;

// Bytes written as the camera's tables write them: "00 10 0C 00". "40..7B"
// stands for the ascending run 40 41 ... 7B. The result is padded with zeros
// to `size` when that is larger.
inline Bytes Hex(const std::string& text, size_t size = 0) {
    Bytes out;
    for (size_t i = 0; i + 1 < text.size();) {
        if (text[i] == ' ') {
            ++i;
            continue;
        }
        const auto byte = static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16));
        if (text.compare(i + 2, 2, "..") == 0) {
            const auto last = std::stoul(text.substr(i + 4, 2), nullptr, 16);
            for (unsigned b = byte; b <= last; ++b) out.push_back(static_cast<std::uint8_t>(b));
            i += 6;
        } else {
            out.push_back(byte);
            i += 2;
        }
    }
    if (out.size() < size) out.resize(size, 0);
    return out;
}

template <typename T>
Bytes BytesOf(const T& value) {
    Bytes b(sizeof value);
    std::memcpy(b.data(), &value, sizeof value);
    return b;
}

// A record whose bytes count up from `from`: every field differs from every other.
template <typename R>
R Counting(std::uint8_t from) {
    R r;
    auto* p = reinterpret_cast<std::uint8_t*>(&r);
    for (size_t i = 0; i < sizeof r; ++i) p[i] = static_cast<std::uint8_t>(from + i);
    return r;
}

// The library's prefixed messages ("\r[File:<path>, Line:<n>] <text>") and its
// unprefixed lines, in the order printed. A message ends at its first line
// feed or where the next prefix begins; text after that line feed is a line
// of its own.
inline std::vector<std::string> Lines(const std::string& out) {
    static const std::regex prefix(R"(\r\[File:[^,\]]+, Line:\d+\] )");
    std::vector<std::string> lines;
    auto split = [&lines](const std::string& chunk, bool prefixed) {
        size_t pos = 0;
        while (pos < chunk.size()) {
            const size_t nl = chunk.find('\n', pos);
            const size_t end = nl == std::string::npos ? chunk.size() : nl + 1;
            lines.push_back((prefixed && pos == 0 ? "" : "| ") + chunk.substr(pos, end - pos));
            pos = end;
        }
    };
    size_t pos = 0;
    bool prefixed = false;
    for (auto it = std::sregex_iterator(out.begin(), out.end(), prefix);
         it != std::sregex_iterator(); ++it) {
        split(out.substr(pos, static_cast<size_t>(it->position()) - pos), prefixed);
        prefixed = true;
        pos = static_cast<size_t>(it->position() + it->length());
    }
    split(out.substr(pos), prefixed);
    return lines;
}

// Whether `text` matches `pattern`, in which '*' stands for any run of
// characters (a libusb error text, a time, an address).
inline bool Glob(const char* pattern, const char* text) {
    if (*pattern == '\0') return *text == '\0';
    if (*pattern == '*') return Glob(pattern + 1, text) || (*text != '\0' && Glob(pattern, text + 1));
    return *pattern == *text && Glob(pattern + 1, text + 1);
}

// Lines as Lines() gives them, compared with patterns line by line. Unprefixed
// lines are written with a leading "| " in `expected`.
inline testing::AssertionResult LinesMatch(const std::vector<std::string>& actual,
                                           const std::vector<std::string>& expected) {
    bool same = actual.size() == expected.size();
    for (size_t i = 0; same && i < actual.size(); ++i) same = Glob(expected[i].c_str(), actual[i].c_str());
    if (same) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "lines " << testing::PrintToString(actual)
                                       << "\n expected " << testing::PrintToString(expected);
}

inline testing::AssertionResult LinesAre(const std::string& out,
                                         const std::vector<std::string>& expected) {
    return LinesMatch(Lines(out), expected);
}

// Captures standard output while alive (the library's log goes there).
class StdoutCapture {
public:
    StdoutCapture() { testing::internal::CaptureStdout(); }
    ~StdoutCapture() {
        if (!m_taken) testing::internal::GetCapturedStdout();
    }
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;
    std::string Take() {
        m_taken = true;
        return testing::internal::GetCapturedStdout();
    }

private:
    bool m_taken = false;
};

// Read and write access to TarvikImpl's private data members, for the tests
// only. An explicit instantiation may name private members; the friend it
// defines hands out the member pointer.
template <typename Tag, typename Tag::type Member>
struct PrivateMember {
    friend typename Tag::type MemberOf(Tag) { return Member; }
};

#define TARVIK_PRIVATE_MEMBER(Tag, Type, name)           \
    struct Tag {                                         \
        using type = Type TarvikImpl::*;                 \
        friend type MemberOf(Tag);                       \
    };                                                   \
    template struct PrivateMember<Tag, &TarvikImpl::name>

TARVIK_PRIVATE_MEMBER(ContextTag, libusb_context*, m_pContext);
TARVIK_PRIVATE_MEMBER(HandleTag, libusb_device_handle*, m_pDevHandle);
TARVIK_PRIVATE_MEMBER(DetachedTag, bool, m_bKernelDetached);
TARVIK_PRIVATE_MEMBER(MutexTag, wNewMutex, m_mutex);
TARVIK_PRIVATE_MEMBER(InnerOpenedTag, bool, m_bInnerOpened);
TARVIK_PRIVATE_MEMBER(MarkerTag, std::atomic<bool>, m_bMarkerSet);
TARVIK_PRIVATE_MEMBER(LastIdTag, unsigned short, m_nLastId);
TARVIK_PRIVATE_MEMBER(DevicesTag, std::vector<pm_usb_device_desc>, m_vecValidDevices);
TARVIK_PRIVATE_MEMBER(ProductTypeTag, unsigned short, m_nProductType);

template <typename Tag>
auto& Private(TarvikImpl& impl) {
    return impl.*MemberOf(Tag{});
}

}  // namespace tarvik::test
