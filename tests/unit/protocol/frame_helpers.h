// Building expected frames for the protocol tests: zeros with a few runs of
// bytes placed at given offsets.
#ifndef TARVIK_TESTS_FRAME_HELPERS_H
#define TARVIK_TESTS_FRAME_HELPERS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "frame_codec.h"

namespace tarvik::test {

using Bytes = std::vector<std::uint8_t>;

struct Run {
    unsigned at;
    Bytes bytes;
};

inline frame::Frame frame_of(const std::vector<Run>& runs) {
    frame::Frame f{};
    for (const Run& r : runs) {
        for (unsigned i = 0; i < r.bytes.size(); ++i) f.at(r.at + i) = r.bytes[i];
    }
    return f;
}

// Little-endian bytes of a 32-bit value.
inline Bytes le32(std::uint32_t v) {
    return {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8),
            static_cast<std::uint8_t>(v >> 16), static_cast<std::uint8_t>(v >> 24)};
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Names parameterised cases after their `name` member.
struct ByName {
    template <typename P>
    std::string operator()(const testing::TestParamInfo<P>& p) const {
        return p.param.name;
    }
};

}  // namespace tarvik::test

#endif
