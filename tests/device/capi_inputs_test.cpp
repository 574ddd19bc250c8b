// The C interface against bad input: each row a call, the code it must give,
// and whether the camera may see anything of it. A refused call sends
// nothing and leaves the camera as it was.
#include <climits>
#include <cstring>
#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "device_fixture.h"
#include "tarvik.h"

namespace tarvik::test {
namespace {

struct Hostile {
    const char* name;
    std::function<int(tarvik_camera*)> call;
    int expected;
    bool reachesCamera;
};

tarvik_open_options Options(int transport, const char* serial = nullptr) {
    tarvik_open_options o = tarvik_default_options();
    std::memcpy(&o.transport, &transport, sizeof transport);  // as a caller's stray value arrives
    o.serial = serial;
    return o;
}

int OpenWith(const tarvik_open_options& o) {
    tarvik_camera* camera = nullptr;
    const int r = tarvik_open(&o, &camera);
    tarvik_close(camera);
    return r;
}

uint8_t g_record[64];
tarvik_card g_card;

const Hostile kRows[] = {
    {"TransportBeyondTheEnum", [](tarvik_camera*) { return OpenWith(Options(3)); },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"TransportNegative", [](tarvik_camera*) { return OpenWith(Options(-1)); },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"EmptySerial", [](tarvik_camera*) { return OpenWith(Options(0, "")); }, TARVIK_E_NO_CAMERA,
     false},
    {"NoCameraRecord", [](tarvik_camera*) { return tarvik_open(nullptr, nullptr); },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"ListIntoNothing", [](tarvik_camera*) { return tarvik_list(nullptr, 2); },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"NullCamera", [](tarvik_camera*) { return tarvik_read_version(nullptr, g_record); },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"WriteOneByteMore", [](tarvik_camera* c) { return tarvik_write_item(c, 6, g_record, 17); },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"WriteOneByteLess", [](tarvik_camera* c) { return tarvik_write_item(c, 6, g_record, 15); },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"WriteSizeMax",
     [](tarvik_camera* c) { return tarvik_write_item(c, 6, g_record, SIZE_MAX); },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"WriteNoSuchItem", [](tarvik_camera* c) { return tarvik_write_item(c, 19, g_record, 4); },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"WriteReadOnlyItem", [](tarvik_camera* c) { return tarvik_write_item(c, 5, g_record, 0); },
     TARVIK_E_NOT_HANDLED, false},
    {"ReadIntoTooLittle",
     [](tarvik_camera* c) { return tarvik_read_item(c, 5, nullptr, g_record, 55); },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"ReadNegativeItem",
     [](tarvik_camera* c) { return tarvik_read_item(c, -7, nullptr, g_record, 64); },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"ReadTheSamItem",
     [](tarvik_camera* c) { return tarvik_read_item(c, 12, nullptr, g_record, 64); },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"ReadWriteOnlyItem",
     [](tarvik_camera* c) { return tarvik_read_item(c, 3, nullptr, g_record, 64); },
     TARVIK_E_NOT_HANDLED, false},
    {"SamCommandNone", [](tarvik_camera* c) {
         int code = 0;
         return tarvik_sam_command(c, 5, &code, nullptr);
     },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"SamCommandBeyondAByte", [](tarvik_camera* c) {
         int code = 0;
         return tarvik_sam_command(c, 0x100, &code, g_record);
     },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"SamNumberWithoutRoom", [](tarvik_camera* c) {
         int code = 0;
         return tarvik_sam_command(c, TARVIK_SAM_CMD_NUMBER, &code, nullptr);
     },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"CardFlagsUnknown", [](tarvik_camera* c) { return tarvik_read_card(c, &g_card, 2u); },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"ExposureModesDiffer", [](tarvik_camera* c) { return tarvik_write_exposure_mode(c, 1, 2); },
     TARVIK_E_MODES_DIFFER, false},
    {"ExposureTimeOutOfRange",
     [](tarvik_camera* c) { return tarvik_write_exposure_times(c, 0, UINT32_MAX); },
     TARVIK_E_OUT_OF_RANGE, true},  // the block is read to judge it; nothing is written
    {"ItemZero", [](tarvik_camera*) {
         tarvik_item_info info;
         return tarvik_item(0, &info);
     },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"ItemNamedInCapitals", [](tarvik_camera*) {
         tarvik_item_info info;
         return tarvik_item_by_name("ROI", &info);
     },
     TARVIK_E_INVALID_ARGUMENT, false},
    {"ItemNamedNull", [](tarvik_camera*) { return tarvik_item_by_name(nullptr, nullptr); },
     TARVIK_E_INVALID_ARGUMENT, false},
};

class CInterfaceInputs : public DeviceTest, public testing::WithParamInterface<Hostile> {};

TEST_P(CInterfaceInputs, RefusedWithTheirCode) {
    tarvik_camera* camera = nullptr;
    StdoutCapture quiet;
    ASSERT_EQ(tarvik_open(nullptr, &camera), 0);
    int32_t roi[4] = {1, 2, 3, 4}, back[4] = {};
    ASSERT_EQ(tarvik_write_roi(camera, roi), 0);
    quiet.Take();
    Cam().ClearLog();

    const int r = GetParam().call(camera);
    EXPECT_EQ(r, GetParam().expected) << tarvik_result_name(r);
    EXPECT_STRNE(tarvik_strerror(r), "unknown result");
    std::vector<sim::Transfer> wire = Cam().TakeLog();
    if (!GetParam().reachesCamera) {
        EXPECT_TRUE(wire.empty()) << wire.size() << " requests";
    }
    for (const sim::Transfer& t : wire) {  // a write frame names its item in bytes 0-1
        const bool writes = t.out.size() == 60 && (t.out[0] != 0 || (t.out[1] & 0x0F) != 0);
        EXPECT_FALSE(writes) << sim::Describe(t);
    }
    ASSERT_EQ(tarvik_read_roi(camera, back), 0);
    EXPECT_EQ(std::memcmp(roi, back, sizeof roi), 0);
    tarvik_close(camera);
}

INSTANTIATE_TEST_SUITE_P(Table, CInterfaceInputs, testing::ValuesIn(kRows),
                         [](const testing::TestParamInfo<Hostile>& row) {
                             return std::string(row.param.name);
                         });

// Every item read through the C interface fills its record and not one byte
// more, however much room it is given.
TEST_F(DeviceTest, ItemReadsStopAtTheirRecord) {
    tarvik_camera* camera = nullptr;
    StdoutCapture quiet;
    ASSERT_EQ(tarvik_open(nullptr, &camera), 0);
    for (int n = 1; n <= 18; ++n) {
        tarvik_item_info info{};
        ASSERT_EQ(tarvik_item(n, &info), 0);
        if (info.read_size < 0 || n == 12) continue;  // the SAM's: tarvik_sam_command
        alignas(8) std::uint8_t room[80];
        std::memset(room, 0xAB, sizeof room);
        const int mode = 0;
        ASSERT_EQ(tarvik_read_item(camera, n, n == 18 ? &mode : nullptr, room, sizeof room), 0)
            << info.name;
        for (size_t i = static_cast<size_t>(info.read_size); i < sizeof room; ++i) {
            ASSERT_EQ(room[i], 0xAB) << info.name << ": byte " << i << " of its room written";
        }
    }
    tarvik_close(camera);
}

// Every code has its own name and text; libusb's are named as libusb names them.
TEST(CInterfaceResults, NamesAndTexts) {
    for (int code = LIBUSB_ERROR_NOT_SUPPORTED; code <= LIBUSB_ERROR_IO; ++code) {
        EXPECT_STREQ(tarvik_result_name(code), libusb_error_name(code));
    }
    EXPECT_STREQ(tarvik_result_name(LIBUSB_ERROR_OTHER), libusb_error_name(LIBUSB_ERROR_OTHER));
    std::set<std::string> names, texts;
    for (int code = -1100; code <= 0; ++code) {
        const std::string name = tarvik_result_name(code);
        if (name == "UNKNOWN") continue;
        EXPECT_TRUE(names.insert(name).second) << name;
        EXPECT_TRUE(texts.insert(tarvik_strerror(code)).second) << name;
    }
    EXPECT_EQ(names.size(), 30u);  // success, 13 of libusb's, 16 of the library's
    EXPECT_STREQ(tarvik_result_name(-1017), "UNKNOWN");
    EXPECT_STREQ(tarvik_sam_strerror(TARVIK_SAM_NO_CARD), "no card on the reader (status 0x80)");
    EXPECT_STREQ(tarvik_sam_strerror(20), "unknown SAM code");
}

}  // namespace
}  // namespace tarvik::test
