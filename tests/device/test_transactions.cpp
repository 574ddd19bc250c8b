// Read and write transactions: the frames on selector 14 and the records.
#include <libusb.h>

#include <atomic>
#include <thread>

#include "device_fixture.h"

namespace tarvik::test {
namespace {

using sim::Direction;
using sim::Fault;
using sim::FaultKind;

// An answer frame whose every byte tells its offset.
sim::Frame PatternFrame() {
    sim::Frame f{};
    for (size_t i = 0; i < f.size(); ++i) f[i] = static_cast<std::uint8_t>(0x40 + i);
    return f;
}

Bytes Slice(const sim::Frame& f, size_t from, size_t count) {
    return Bytes(f.begin() + static_cast<long>(from), f.begin() + static_cast<long>(from + count));
}

std::uint32_t Le32(const sim::Frame& f, size_t at) {
    return f[at] | f[at + 1] << 8 | f[at + 2] << 16 | static_cast<std::uint32_t>(f[at + 3]) << 24;
}

_ET_PARAM EtBlockAt(const sim::Frame& f, size_t at) {
    _ET_PARAM b{};
    b.et = Le32(f, at);
    b.etMax = Le32(f, at + 4);
    b.etMin = Le32(f, at + 8);
    b.extra = static_cast<unsigned short>(f[at + 12] | f[at + 13] << 8);
    for (size_t i = 0; i < 8; ++i) b.flags[i] = f[at + 14 + i];
    return b;
}

struct ReadCase {
    const char* label;
    UVC_EXT_ITEM_E item;
    size_t recordSize;
    size_t from;  // answer bytes taken
    size_t count;
};

class ReadItems : public CameraTest, public testing::WithParamInterface<ReadCase> {};

// The request names the item; the record receives exactly the item's answer bytes.
TEST_P(ReadItems, RequestAndRecord) {
    const ReadCase& c = GetParam();
    TarvikPtr t = OpenPrimed();
    const sim::Frame answer = PatternFrame();
    Model().QueueAnswer({answer});
    Bytes record(c.recordSize + 8, 0xEE);  // guard bytes after the record
    std::fill(record.begin(), record.begin() + static_cast<long>(c.recordSize), 0);
    StdoutCapture capture;
    capture.Start();
    ASSERT_EQ(t->ReadByExtItem(c.item, nullptr, record.data()), 0);
    EXPECT_EQ(capture.Take(), "");

    const std::vector<sim::Transfer> log = Cam().Log();
    ASSERT_EQ(log.size(), 2u) << Describe(log);
    EXPECT_EQ(log[0].setup.bRequest, 0x01);
    EXPECT_EQ(log[0].setup.wValue, 0x0E00);
    EXPECT_EQ(log[0].setup.wIndex, 0x0500);
    EXPECT_EQ(log[0].out, ReadRequest(c.item));
    EXPECT_EQ(log[1].setup.bRequest, 0x81);
    EXPECT_EQ(log[1].setup.wLength, 60);

    Bytes expected(c.recordSize, 0);
    if (c.item == EXT_ITEM_ET) {
        _DUAL_ET_PARAM et{};
        et.left = EtBlockAt(answer, 4);
        et.right = EtBlockAt(answer, 32);
        expected = BytesOf(et);
    } else {
        const Bytes taken = Slice(answer, c.from, c.count);
        std::copy(taken.begin(), taken.end(), expected.begin());
    }
    EXPECT_EQ(Bytes(record.begin(), record.begin() + static_cast<long>(c.recordSize)), expected);
    EXPECT_EQ(Bytes(record.begin() + static_cast<long>(c.recordSize), record.end()),
              Bytes(8, 0xEE));
}

INSTANTIATE_TEST_SUITE_P(
    Items, ReadItems,
    testing::Values(ReadCase{"Et", EXT_ITEM_ET, sizeof(_DUAL_ET_PARAM), 0, 0},
                    ReadCase{"MjpegQp", EXT_ITEM_MJPEG_QP, sizeof(_MJPEG_QP_PARAM), 4, 16},
                    ReadCase{"Version", EXT_ITEM_VERSION, sizeof(_VERSION_PARAM), 4, 56},
                    ReadCase{"Roi", EXT_ITEM_ROI, sizeof(_ROI_PARAM), 4, 16},
                    ReadCase{"RoiStatus", EXT_ITEM_ROI_STATUS, 4, 4, 4},
                    ReadCase{"DeviceSn", EXT_ITEM_DEVICE_SN, 20, 4, 20},
                    ReadCase{"DeviceId", EXT_ITEM_DEVICE_ID, 20, 4, 20},
                    ReadCase{"StreamState", EXT_ITEM_STREAM_STATE, 4, 4, 4},
                    ReadCase{"LastId", EXT_ITEM_LAST_ID, 2, 4, 2},
                    ReadCase{"Gyro", EXT_ITEM_GYRO, 14, 4, 14}),
    [](const auto& p) { return std::string(p.param.label); });

class Transactions : public CameraTest {};

TEST_F(Transactions, VcmRequestCarriesTheModeByteAndAnswersFromByteSix) {
    TarvikPtr t = OpenPrimed();
    Model().QueueAnswer({PatternFrame()});
    _VCM_MODE_E mode = static_cast<_VCM_MODE_E>(0x102);
    unsigned short value = 0;
    ASSERT_EQ(t->ReadByExtItem(EXT_ITEM_VCM, &mode, &value), 0);
    Bytes request = ReadRequest(EXT_ITEM_VCM);
    request[8] = 0x02;
    EXPECT_EQ(Cam().Log().at(0).out, request);
    EXPECT_EQ(value, 0x4746);
}

TEST_F(Transactions, DataBlockRequestAnswerAndCounter) {
    TarvikPtr t = OpenPrimed();
    Model().QueueAnswer({PatternFrame()});
    uvc_extDataBlock block{};
    block.target = 0x21;
    block.length = 200;  // more than a frame holds
    block.offset = 0x1234;
    std::fill(std::begin(block.data), std::end(block.data), 0xEE);
    StdoutCapture capture;
    capture.Start();
    ASSERT_EQ(t->ReadByExtItem(EXT_ITEM_DATA_BLOCK, &block, nullptr), 0);
    block.length = 5;
    ASSERT_EQ(t->WriteByExtItem(EXT_ITEM_DATA_BLOCK, &block), 0);
    EXPECT_EQ(
        Messages(capture.Take()),
        (std::vector<std::string>{"===== read, tell m_nLastId [1] to device, next _SetBytes...",
                                  "===== read, m_nLastId [2], next _GetBytes...",
                                  "===== write, tell m_nLastId [3] to device, next _SetBytes..."}));
    EXPECT_EQ(ImplAccess::LastId(*t), 3);

    const std::vector<sim::Transfer> log = Cam().Log();
    ASSERT_EQ(log.size(), 3u) << Describe(log);
    Bytes request = ReadRequest(EXT_ITEM_DATA_BLOCK);
    request[2] = 1;
    request[8] = 0x21;
    request[9] = 48;
    request[10] = 0x34;
    request[11] = 0x12;
    EXPECT_EQ(log[0].out, request);
    EXPECT_EQ(block.target, 0x21);
    EXPECT_EQ(block.offset, 0x1234);
    EXPECT_EQ(Bytes(std::begin(block.data), std::end(block.data)), Slice(PatternFrame(), 8, 48));

    Bytes write(60, 0);
    write[0] = 10;
    write[1] = 0x10;
    write[2] = 3;
    write[4] = 0x21;
    write[5] = 5;
    write[6] = 0x34;
    write[7] = 0x12;
    for (int i = 0; i < 5; ++i) write[8 + i] = static_cast<std::uint8_t>(0x48 + i);
    EXPECT_EQ(log[2].out, write);
    // The camera keeps what was written, where it was written.
    EXPECT_EQ(Model().State().dataMemory.at({0x21, 0x1234}), 0x48);
}

TEST_F(Transactions, DataBlockReadOfFewBytesClearsTheRest) {
    TarvikPtr t = OpenPrimed();
    Model().QueueAnswer({PatternFrame()});
    uvc_extDataBlock block{};
    block.length = 5;
    std::fill(std::begin(block.data), std::end(block.data), 0xEE);
    ASSERT_EQ(t->ReadByExtItem(EXT_ITEM_DATA_BLOCK, &block, nullptr), 0);
    Bytes expected(48, 0);
    for (int i = 0; i < 5; ++i)
        expected[static_cast<size_t>(i)] = static_cast<std::uint8_t>(0x48 + i);
    EXPECT_EQ(Bytes(std::begin(block.data), std::end(block.data)), expected);
}

TEST_F(Transactions, CounterWrapsAndOnlyDataBlocksCarryIt) {
    TarvikPtr t = OpenPrimed();
    ImplAccess::LastId(*t) = 65535;
    uvc_extDataBlock block{};
    _ROI_PARAM roi{};
    StdoutCapture quiet;
    quiet.Start();
    ASSERT_EQ(t->ReadByExtItem(EXT_ITEM_DATA_BLOCK, &block, nullptr), 0);
    ASSERT_EQ(t->ReadByExtItem(EXT_ITEM_ROI, nullptr, &roi), 0);
    ASSERT_EQ(t->WriteByExtItem(EXT_ITEM_ROI, &roi), 0);
    quiet.Take();
    EXPECT_EQ(ImplAccess::LastId(*t), 1);
    const std::vector<sim::Transfer> log = Cam().Log();
    ASSERT_EQ(log.size(), 5u);
    EXPECT_EQ(log[0].out[2], 0);
    EXPECT_EQ(log[0].out[3], 0);
    for (size_t i : {size_t{2}, size_t{4}}) {
        EXPECT_EQ(log[i].out[2], 0);
        EXPECT_EQ(log[i].out[3], 0);
    }
}

// A failed SET_CUR still uses up the counter value.
TEST_F(Transactions, FailedDataBlockTransferKeepsTheIncrement) {
    TarvikPtr t = OpenPrimed();
    Model().InjectFault(Fault{FaultKind::kStall, 14, Direction::kOut, sim::kAnyRequest, 2});
    uvc_extDataBlock block{};
    StdoutCapture quiet;
    quiet.Start();
    EXPECT_EQ(t->ReadByExtItem(EXT_ITEM_DATA_BLOCK, &block, nullptr), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(t->WriteByExtItem(EXT_ITEM_DATA_BLOCK, &block), LIBUSB_ERROR_PIPE);
    quiet.Take();
    EXPECT_EQ(ImplAccess::LastId(*t), 2);
}

struct WriteCase {
    const char* label;
    UVC_EXT_ITEM_E item;
    Bytes record;
    Bytes payload;  // frame bytes 4..; the rest of the 60 bytes must be 0
};

class WriteItems : public CameraTest, public testing::WithParamInterface<WriteCase> {};

TEST_P(WriteItems, PayloadLandsWhereTheItemPutsIt) {
    const WriteCase& c = GetParam();
    TarvikPtr t = OpenPrimed();
    Bytes record = c.record;
    const Bytes before = record;
    StdoutCapture capture;
    capture.Start();
    ASSERT_EQ(t->WriteByExtItem(c.item, record.data()), 0);
    EXPECT_EQ(capture.Take(), "");
    EXPECT_EQ(record, before) << "the record is never modified";
    const std::vector<sim::Transfer> log = Cam().Log();
    ASSERT_EQ(log.size(), 1u) << Describe(log);
    Bytes expected(60, 0);
    expected[0] = static_cast<std::uint8_t>(c.item);
    expected[1] = 0x10;
    std::copy(c.payload.begin(), c.payload.end(), expected.begin() + 4);
    EXPECT_EQ(log[0].out, expected);
    EXPECT_EQ(log[0].setup.bmRequestType, 0x21);
    EXPECT_EQ(log[0].setup.wValue, 0x0E00);
}

Bytes EtRecord() {
    _DUAL_ET_PARAM et{};
    et.left = {0x11223344, 0x55667788, 0x99AABBCC, 0xDDEE, {1, 2, 3, 4, 5, 6, 7, 8}};
    et.right = {0x01020304, 0x05060708, 0x090A0B0C, 0x0D0E, {9, 10, 11, 12, 13, 14, 15, 16}};
    return BytesOf(et);
}

Bytes EtPayload() {
    Bytes p(50, 0);  // frame bytes 4-53
    const Bytes left = {0x44, 0x33, 0x22, 0x11, 0x88, 0x77, 0x66, 0x55, 0xCC, 0xBB, 0xAA,
                        0x99, 0xEE, 0xDD, 1,    2,    3,    4,    5,    6,    7,    8};
    const Bytes right = {0x04, 0x03, 0x02, 0x01, 0x08, 0x07, 0x06, 0x05, 0x0C, 0x0B, 0x0A,
                         0x09, 0x0E, 0x0D, 9,    10,   11,   12,   13,   14,   15,   16};
    std::copy(left.begin(), left.end(), p.begin());
    std::copy(right.begin(), right.end(), p.begin() + 28);
    return p;
}

Bytes LedRecord(unsigned state, unsigned mode) {
    _LED_CONTROL_PARAM led{state, mode, {1, 2, 3, 4, 5, 0x01020304}};
    return BytesOf(led);
}

Bytes LedPayload(std::uint8_t modeByte) {
    Bytes p = {0x1A, modeByte};
    for (std::uint32_t v : {1u, 2u, 3u, 4u, 5u, 0x01020304u}) {
        for (int i = 0; i < 4; ++i) p.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    }
    return p;
}

Bytes Counting(std::uint8_t from, size_t n) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(from + i);
    return b;
}

INSTANTIATE_TEST_SUITE_P(
    Items, WriteItems,
    testing::Values(
        WriteCase{"Et", EXT_ITEM_ET, EtRecord(), EtPayload()},
        WriteCase{"MjpegQp",
                  EXT_ITEM_MJPEG_QP,
                  BytesOf(_MJPEG_QP_PARAM{{1, -2, 3, 0x7F}}),
                  {1, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF, 3, 0, 0, 0, 0x7F, 0, 0, 0}},
        WriteCase{"Beep", EXT_ITEM_BEEP, BytesOf(2u), {2, 0, 0, 0}},
        WriteCase{"StatusLed",
                  EXT_ITEM_STATUS_LED,
                  BytesOf(_STATUS_LED_PARAM{7, 0x10009}),
                  {7, 0, 0, 0, 9, 0, 1, 0}},
        WriteCase{"Roi",
                  EXT_ITEM_ROI,
                  BytesOf(_ROI_PARAM{{10, 20, 640, 480}}),
                  {10, 0, 0, 0, 20, 0, 0, 0, 0x80, 2, 0, 0, 0xE0, 1, 0, 0}},
        WriteCase{"DeviceSn", EXT_ITEM_DEVICE_SN, Counting(0x30, 20), Counting(0x30, 20)},
        WriteCase{"DeviceId", EXT_ITEM_DEVICE_ID, Counting(0x61, 20), Counting(0x61, 20)},
        WriteCase{"UvcMode", EXT_ITEM_UVC_MODE, BytesOf(0x01020304u), {4, 3, 2, 1}},
        WriteCase{"SamHeaderOnly", EXT_ITEM_SAM, Counting(1, 8), {}},
        WriteCase{"LedOn", EXT_ITEM_LED, LedRecord(1, 0x3C), LedPayload(0x0C)},
        WriteCase{"LedStateSeven", EXT_ITEM_LED, LedRecord(7, 5), LedPayload(0x05)},
        WriteCase{"LedOff", EXT_ITEM_LED, LedRecord(0, 5), LedPayload(0x15)},
        WriteCase{"Gpio",
                  EXT_ITEM_GPIO,
                  BytesOf(_GPIO_PARAM{{3, -1}}),
                  {3, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}},
        WriteCase{"Vcm",
                  EXT_ITEM_VCM,
                  BytesOf(_VCM_PARAM{0xA1, 0xB2, 0x1234, static_cast<_VCM_MODE_E>(0x102)}),
                  {0xA1, 0xB2, 0x34, 0x12, 0x02}}),
    [](const auto& p) { return std::string(p.param.label); });

TEST_F(Transactions, WritesAreWhatLaterReadsReturn) {
    TarvikPtr t = OpenPrimed();
    const _ROI_PARAM roi{{1, 2, 3, 4}};
    const _MJPEG_QP_PARAM qp{{50, 60, 70, 80}};
    _DEVICE_SN_PARAM sn{};
    std::memcpy(sn.sn, "SN-0001-TARVIK-SIM", 18);
    const _VCM_PARAM vcm{0, 0, 0x0321, static_cast<_VCM_MODE_E>(2)};
    ASSERT_EQ(t->WriteByExtItem(EXT_ITEM_ROI, const_cast<_ROI_PARAM*>(&roi)), 0);
    ASSERT_EQ(t->WriteByExtItem(EXT_ITEM_MJPEG_QP, const_cast<_MJPEG_QP_PARAM*>(&qp)), 0);
    ASSERT_EQ(t->WriteByExtItem(EXT_ITEM_DEVICE_SN, &sn), 0);
    ASSERT_EQ(t->WriteByExtItem(EXT_ITEM_VCM, const_cast<_VCM_PARAM*>(&vcm)), 0);

    _ROI_PARAM roiBack{};
    _MJPEG_QP_PARAM qpBack{};
    _DEVICE_SN_PARAM snBack{};
    unsigned short vcmBack = 0;
    _VCM_MODE_E mode = static_cast<_VCM_MODE_E>(2);
    ASSERT_EQ(t->ReadByExtItem(EXT_ITEM_ROI, nullptr, &roiBack), 0);
    ASSERT_EQ(t->ReadByExtItem(EXT_ITEM_MJPEG_QP, nullptr, &qpBack), 0);
    ASSERT_EQ(t->ReadByExtItem(EXT_ITEM_DEVICE_SN, nullptr, &snBack), 0);
    ASSERT_EQ(t->ReadByExtItem(EXT_ITEM_VCM, &mode, &vcmBack), 0);
    EXPECT_EQ(BytesOf(roiBack), BytesOf(roi));
    EXPECT_EQ(BytesOf(qpBack), BytesOf(qp));
    EXPECT_EQ(BytesOf(snBack), BytesOf(sn));
    EXPECT_EQ(vcmBack, 0x0321);
}

TEST_F(Transactions, ItemsWithoutHandlingAnswerSeven) {
    TarvikPtr t = OpenPrimed();
    for (std::uint32_t item : {0u, 3u, 4u, 11u, 15u, 17u, 19u, 25u}) {
        Bytes record(64, 0xEE);
        EXPECT_EQ(t->ReadByExtItem(static_cast<UVC_EXT_ITEM_E>(item), record.data(), record.data()),
                  7)
            << item;
        EXPECT_EQ(record, Bytes(64, 0xEE)) << item;
        const std::vector<sim::Transfer> log = Cam().TakeLog();
        ASSERT_EQ(log.size(), 2u) << item << "\n" << Describe(log);
        EXPECT_EQ(log[0].out, ReadRequest(item));
        EXPECT_TRUE(log[1].isIn());
    }
    for (std::uint32_t item : {0u, 5u, 7u, 13u, 14u, 16u, 19u, 4096u}) {
        Bytes record(64, 0x11);
        EXPECT_EQ(t->WriteByExtItem(static_cast<UVC_EXT_ITEM_E>(item), record.data()), 7) << item;
        EXPECT_TRUE(Cam().TakeLog().empty()) << item;
    }
}

TEST_F(Transactions, MissingRecordsEndBeforeAnythingIsSent) {
    TarvikPtr t = Open();
    Bytes record(sizeof(_SAM_OUT_PARAM), 0);
    _SAM_IN_PARAM in{3};
    struct Case {
        UVC_EXT_ITEM_E item;
        void* input;
        void* output;
    } cases[] = {
        {EXT_ITEM_VERSION, record.data(), nullptr},    {EXT_ITEM_GYRO, nullptr, nullptr},
        {EXT_ITEM_DATA_BLOCK, nullptr, record.data()}, {EXT_ITEM_VCM, nullptr, record.data()},
        {EXT_ITEM_VCM, record.data(), nullptr},        {EXT_ITEM_SAM, &in, nullptr},
        {EXT_ITEM_SAM, nullptr, record.data()}};
    StdoutCapture capture;
    capture.Start();
    for (const Case& c : cases) EXPECT_EQ(t->ReadByExtItem(c.item, c.input, c.output), 1) << c.item;
    EXPECT_EQ(t->WriteByExtItem(EXT_ITEM_ROI, nullptr), 1);
    EXPECT_EQ(t->WriteByExtItem(EXT_ITEM_SAM, nullptr), 1);
    EXPECT_EQ(capture.Take(), "");
    EXPECT_TRUE(Cam().Log().empty()) << "not even the marker";
    EXPECT_FALSE(ImplAccess::MarkerSet(*t));
}

TEST_F(Transactions, FailedTransfersAreLoggedAndLeaveTheRecord) {
    TarvikPtr t = OpenPrimed();
    struct Case {
        Direction direction;
        const char* line;
    } cases[] = {{Direction::kOut, "ReadByExtItem, _SetBytes error. extItemType=6, hr=0xfffffff7"},
                 {Direction::kIn, "ReadByExtItem, _GetBytes error. extItemType=6, hr=0xfffffff7"}};
    for (const Case& c : cases) {
        Model().InjectFault(Fault{FaultKind::kStall, 14, c.direction});
        _ROI_PARAM roi{{9, 9, 9, 9}};
        StdoutCapture capture;
        capture.Start();
        EXPECT_EQ(t->ReadByExtItem(EXT_ITEM_ROI, nullptr, &roi), LIBUSB_ERROR_PIPE);
        EXPECT_EQ(Messages(capture.Take()), std::vector<std::string>{c.line});
        EXPECT_EQ(BytesOf(roi), BytesOf(_ROI_PARAM{{9, 9, 9, 9}}));
    }
    Model().InjectFault(Fault{FaultKind::kShort, 14, Direction::kOut, sim::kAnyRequest, 1, 0, 10});
    _ROI_PARAM roi{};
    StdoutCapture capture;
    capture.Start();
    EXPECT_EQ(t->WriteByExtItem(EXT_ITEM_ROI, &roi), 50);
    EXPECT_EQ(capture.Take(), "") << "a write transaction logs nothing of its own";
}

// Two threads sharing an object never receive each other's answer.
TEST_F(Transactions, ThreadsSharingAnObjectGetTheirOwnAnswers) {
    TarvikPtr t = Open();
    const sim::CameraState state = Model().State();
    _DEVICE_SN_PARAM snExpected{};
    std::copy(state.deviceSn.begin(), state.deviceSn.end(), snExpected.sn);
    _ROI_PARAM roiExpected{};
    for (int i = 0; i < 4; ++i)
        roiExpected.roi[i] = static_cast<int>(state.roi[static_cast<size_t>(i)]);
    ASSERT_NE(BytesOf(roiExpected), Bytes(sizeof roiExpected, 0));

    constexpr int kRounds = 60;
    std::atomic<int> wrong{0};
    std::thread roiReader([&] {
        for (int i = 0; i < kRounds; ++i) {
            _ROI_PARAM roi{};
            if (t->ReadByExtItem(EXT_ITEM_ROI, nullptr, &roi) != 0 ||
                BytesOf(roi) != BytesOf(roiExpected))
                ++wrong;
        }
    });
    std::thread snReader([&] {
        for (int i = 0; i < kRounds; ++i) {
            _DEVICE_SN_PARAM sn{};
            if (t->ReadByExtItem(EXT_ITEM_DEVICE_SN, nullptr, &sn) != 0 ||
                BytesOf(sn) != BytesOf(snExpected))
                ++wrong;
        }
    });
    roiReader.join();
    snReader.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(OnSelector(Cam().Log(), 1).size(), 1u) << "one marker for the object";
}

}  // namespace
}  // namespace tarvik::test
