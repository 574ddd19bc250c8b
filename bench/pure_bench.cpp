// Pure-code benchmarks: the protocol functions and the card text, no device.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "sam_packet.h"
#include "IDCardData.h"
#include "TarvikImpl.h"
#include "camera_state.h"
#include "frame_codec.h"
#include "sensor_math.h"
#include "text_convert.h"

// The simulated camera's SAM encoder: an independent source of real answers.
#include "../sim/sam_answer.h"

namespace {

namespace frame = tarvik::frame;
namespace sam = tarvik::sam;
namespace sim = tarvik::sim;

// Big and aligned enough for any item's record.
union AnyRecord {
    _DUAL_ET_PARAM et;
    _LED_CONTROL_PARAM led;
    uvc_extDataBlock block;
    _VERSION_PARAM version;
    _VCM_MODE_E mode;
    unsigned char bytes[64];
};

constexpr std::uint32_t kReadItems[] = {1, 2, 5, 6, 7, 8, 9, 10, 13, 14, 16, 18};
constexpr std::uint32_t kWriteItems[] = {1, 2, 3, 4, 6, 8, 9, 10, 11, 12, 15, 17, 18};

AnyRecord InputFor(std::uint32_t item) {
    AnyRecord in{};
    if (item == EXT_ITEM_DATA_BLOCK) in.block.length = 48;
    if (item == EXT_ITEM_VCM) in.mode = static_cast<_VCM_MODE_E>(1);
    for (unsigned i = 0; i < sizeof in.bytes; ++i) in.bytes[i] = static_cast<unsigned char>(i * 7);
    if (item == EXT_ITEM_DATA_BLOCK) in.block.length = 48;
    return in;
}

void BM_BuildReadRequest(benchmark::State& state) {
    const auto item = static_cast<std::uint32_t>(state.range(0));
    AnyRecord in = InputFor(item);
    frame::Frame f;
    for (auto _ : state) {
        frame::build_read_request(f, item, 1, 0, &in);
        benchmark::DoNotOptimize(f);
    }
}

void BM_DecodeReadAnswer(benchmark::State& state) {
    const auto item = static_cast<std::uint32_t>(state.range(0));
    AnyRecord in = InputFor(item);
    AnyRecord out{};
    frame::Frame answer;
    for (unsigned i = 0; i < answer.size(); ++i) answer[i] = static_cast<std::uint8_t>(i + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(frame::decode_read_answer(item, answer, &in, &out));
        benchmark::ClobberMemory();
    }
}

void BM_BuildWriteRequest(benchmark::State& state) {
    const auto item = static_cast<std::uint32_t>(state.range(0));
    AnyRecord in = InputFor(item);
    frame::Frame f;
    for (auto _ : state) {
        benchmark::DoNotOptimize(frame::build_write_request(f, item, 1, &in));
        benchmark::DoNotOptimize(f);
    }
}

void ItemArgs(benchmark::internal::Benchmark* b, const std::uint32_t* items, size_t n) {
    b->ArgName("item");
    for (size_t i = 0; i < n; ++i) b->Arg(items[i]);
}

BENCHMARK(BM_BuildReadRequest)->Apply([](auto* b) {
    ItemArgs(b, kReadItems, std::size(kReadItems));
});
BENCHMARK(BM_DecodeReadAnswer)->Apply([](auto* b) {
    ItemArgs(b, kReadItems, std::size(kReadItems));
});
BENCHMARK(BM_BuildWriteRequest)->Apply([](auto* b) {
    ItemArgs(b, kWriteItems, std::size(kWriteItems));
});

// A full command-4 answer of the default card, as the camera sends it.
struct CardAnswer {
    std::vector<frame::Frame> frames;
    unsigned packetLength = 0;
};

const CardAnswer& Command4Answer() {
    static const CardAnswer answer = [] {
        const sim::CameraState state = sim::DefaultCameraState();
        const std::vector<std::uint8_t> packet = sim::BuildSamPacket(
            state.sam.sw1, state.sam.sw2, state.sam.sw3, sim::SamCommandData(4, state.sam));
        const std::uint8_t header[4] = {0x00, 0x10, 0x00, 0x00};
        CardAnswer a;
        a.packetLength = static_cast<unsigned>(packet.size());
        for (const sim::Frame& f : sim::SamAnswerFrames(header, 4, 0, packet)) {
            frame::Frame copy;
            std::memcpy(copy.data(), f.data(), copy.size());
            a.frames.push_back(copy);
        }
        return a;
    }();
    return answer;
}

// What the library does with the frames of a card read before delivery: the
// first answer, the joining, the status bytes and the checksum.
void BM_SamCommand4AssembleAndCheck(benchmark::State& state) {
    const CardAnswer& answer = Command4Answer();
    for (auto _ : state) {
        const sam::FirstAnswer first = sam::decode_first_answer(answer.frames[0]);
        sam::PacketAssembler assembler;
        if (!assembler.start(answer.frames[0], sam::receive_buffer_size(4))) {
            state.SkipWithError("packet refused");
            break;
        }
        for (size_t i = 1; i < answer.frames.size() && !assembler.complete(); ++i) {
            assembler.append(answer.frames[i]);
        }
        benchmark::DoNotOptimize(GetSAMResponseCode(first.sw1, first.sw2, first.sw3));
        const sam::Checksum sum = sam::verify_checksum(assembler.packet());
        if (!sum.ok() || !assembler.complete()) {
            state.SkipWithError("bad packet");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * answer.packetLength);
    state.counters["frames"] = static_cast<double>(answer.frames.size());
}
BENCHMARK(BM_SamCommand4AssembleAndCheck);

// The delivery of that packet: the blocks, the card record parsed and copied.
void BM_SamCommand4Deliver(benchmark::State& state) {
    const CardAnswer& answer = Command4Answer();
    sam::PacketAssembler assembler;
    assembler.start(answer.frames[0], sam::receive_buffer_size(4));
    for (size_t i = 1; i < answer.frames.size(); ++i) assembler.append(answer.frames[i]);
    static _SAM_OUT_PARAM out;
    for (auto _ : state) {
        std::uint8_t text[sam::kTextBlockSize] = {};
        sam::copy_card_blocks(4, assembler.packet(), text, &out);
        IDCardData card;
        card.prase(text, nullptr);
        sam::copy_card_fields(card, &out);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_SamCommand4Deliver);

std::vector<std::uint8_t> CardText() {
    const auto block = sim::EncodeCardText(sim::DefaultIdentityCard());
    return {block.begin(), block.end()};
}

void BM_PraseCardBlock(benchmark::State& state) {
    std::vector<std::uint8_t> text = CardText();
    IDCardData card;
    for (auto _ : state) {
        card.prase(text.data(), nullptr);
        benchmark::DoNotOptimize(card.address.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * text.size());
}
BENCHMARK(BM_PraseCardBlock);

// Every card read constructs a record, which checks the code tables.
void BM_IDCardDataConstruct(benchmark::State& state) {
    for (auto _ : state) {
        IDCardData card;
        benchmark::DoNotOptimize(&card);
    }
}
BENCHMARK(BM_IDCardDataConstruct);

// The card's address field: 35 UCS-2 units, mostly CJK.
std::vector<unsigned short> AddressUnits() {
    const std::vector<std::uint8_t> text = CardText();
    std::vector<unsigned short> units(35);
    std::memcpy(units.data(), text.data() + 52, units.size() * 2);
    return units;
}

void BM_Ucs2ToUtf8(benchmark::State& state) {
    const std::vector<unsigned short> units = AddressUnits();
    std::vector<unsigned short> work(units);
    unsigned char out[128];
    for (auto _ : state) {
        work = units;
        benchmark::DoNotOptimize(
            ucs2_to_utf8(work.data(), static_cast<unsigned>(work.size()), out, sizeof out));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * units.size());
}
BENCHMARK(BM_Ucs2ToUtf8);

std::string AddressUtf8() {
    std::vector<unsigned short> units = AddressUnits();
    unsigned char out[128] = {};
    const unsigned n =
        ucs2_to_utf8(units.data(), static_cast<unsigned>(units.size()), out, sizeof out);
    return std::string(reinterpret_cast<char*>(out), n);
}

void BM_Utf8ToUcs2(benchmark::State& state) {
    std::string text = AddressUtf8();
    unsigned short out[64];
    for (auto _ : state) {
        benchmark::DoNotOptimize(utf8_to_ucs2(reinterpret_cast<unsigned char*>(text.data()),
                                              static_cast<unsigned>(text.size()), out, 64));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * text.size());
}
BENCHMARK(BM_Utf8ToUcs2);

void BM_Utf8ToWstring(benchmark::State& state) {
    const std::string text = AddressUtf8();
    for (auto _ : state) {
        std::wstring w = utf8_to_wstring(text);
        benchmark::DoNotOptimize(w.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * text.size());
}
BENCHMARK(BM_Utf8ToWstring);

void BM_Ucs2BeToLe(benchmark::State& state) {
    std::vector<unsigned short> units = AddressUnits();
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            ucs2be_to_ucs2le(units.data(), static_cast<unsigned>(units.size())));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * units.size());
}
BENCHMARK(BM_Ucs2BeToLe);

void BM_TrimLeftRightSpace(benchmark::State& state) {
    const std::string padded = "   " + AddressUtf8() + "          ";
    for (auto _ : state) {
        std::string s = padded;
        trim_left_right_space(s);
        benchmark::DoNotOptimize(s.data());
    }
}
BENCHMARK(BM_TrimLeftRightSpace);

void BM_TrimAllSpace(benchmark::State& state) {
    const std::string padded = " 19 90 01 01   ";
    for (auto _ : state) {
        std::string s = padded;
        trim_all_space(s);
        benchmark::DoNotOptimize(s.data());
    }
}
BENCHMARK(BM_TrimAllSpace);

void BM_GyroToTilt(benchmark::State& state) {
    const std::uint8_t raw[14] = {0x12, 0x34, 0xF0, 0x00, 0x40, 0x00};
    _GYRO_PARAM tilt{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(tarvik::gyro_to_tilt(raw, &tilt));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_GyroToTilt);

}  // namespace

BENCHMARK_MAIN();
