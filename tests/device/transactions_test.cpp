// The transactions and the transfer primitives beneath the operations: items
// that no operation reaches, the data block and its counter, the marker, value
// controls, the retry routines, and an object without a device.
#include <cstring>

#include "device_fixture.h"

namespace tarvik::test {
namespace {

constexpr std::uint8_t kPoison = 0xAB;

uvc_extDataBlock Block(unsigned char length) {
    uvc_extDataBlock b{7, length, 0x1234, {}};
    for (int i = 0; i < 48; ++i) b.data[i] = static_cast<unsigned char>(0x80 + i);
    return b;
}

struct WriteCase {
    const char* name;
    int item;
    Bytes record;
    HRESULT result;
    const char* frame;  // null: nothing is sent
};

const WriteCase kWrites[] = {
    {"Beep", 3, BytesOf(2u), 0, "03 10 00 00 02 00 00 00"},
    {"StatusLed", 4, Hex("01..08"), 0, "04 10 00 00 01..08"},
    {"UvcMode", 11, Hex("01 02 03 04"), 0, "0B 10 00 00 01 02 03 04"},
    {"Sam", 12, Hex("05"), 0, "0C 10"},
    {"Et", 1, Hex("10..3F"), 0, "01 10 00 00 10..25 00 00 00 00 00 00 28..3D"},
    // First field 0 sets bit 4 of byte 5; the second field's low 4 bits fill bits 0-3.
    {"LedOff", 15, BytesOf(_LED_CONTROL_PARAM{0, 0x3C, {0x13121110, 0x17161514, 0x1B1A1918,
                                                          0x1F1E1D1C, 0x23222120, 0x27262524}}),
     0, "0F 10 00 00 1A 1C 10..27"},
    {"LedOn", 15, BytesOf(_LED_CONTROL_PARAM{7, 5, {}}), 0, "0F 10 00 00 1A 05"},
    {"DataBlockLong", 10, BytesOf(Block(60)), 0, "0A 10 01 00 07 30 34 12 80..AF"},
    {"DataBlockEmpty", 10, BytesOf(Block(0)), 0, "0A 10 01 00 07 00 34 12"},
    {"NoWriteOfItem0", 0, Hex("01"), 7, nullptr},
    {"NoWriteOfVersion", 5, Hex("01"), 7, nullptr},
    {"NoWriteOfRoiStatus", 7, Hex("01"), 7, nullptr},
    {"NoWriteOfStreamState", 13, Hex("01"), 7, nullptr},
    {"NoWriteOfLastId", 14, Hex("01"), 7, nullptr},
    {"NoWriteOfGyro", 16, Hex("01"), 7, nullptr},
    {"NoWriteOfItem19", 19, Hex("01"), 7, nullptr},
};

class Writes : public DeviceTest, public testing::WithParamInterface<WriteCase> {};

TEST_P(Writes, FrameOnTheWire) {
    const WriteCase& c = GetParam();
    TarvikPtr t = Open();
    Bytes record = c.record;
    record.resize(64, 0);
    const Outcome o = Run([&] {
        return t->WriteByExtItem(static_cast<UVC_EXT_ITEM_E>(c.item), record.data());
    });
    EXPECT_EQ(o.result, c.result);
    if (c.frame == nullptr) {
        EXPECT_TRUE(o.wire.empty());
    } else {
        ASSERT_EQ(o.wire.size(), 1u);
        EXPECT_TRUE(IsSetCur(o.wire[0], 14, Hex(c.frame, 60)));
    }
}

INSTANTIATE_TEST_SUITE_P(Items, Writes, testing::ValuesIn(kWrites),
                         [](const auto& p) { return p.param.name; });

// Reads that no operation makes: what they send, what they take from the answer.
TEST_F(DeviceTest, ReadsOfItemsWithoutOperations) {
    TarvikPtr t = Open();
    struct Row {
        int item;
        const char* request;
        HRESULT result;
    };
    for (const Row& row : {Row{3, "00 10 00 00 03", 7}, Row{0, "00 10", 7}, Row{25, "00 10 00 00 19", 7},
                           Row{1, "00 10 00 00 01", 0}}) {
        QueueAnswer({"40..7B"});
        Bytes record(64, kPoison);
        const Outcome o = Run([&] {
            return t->ReadByExtItem(static_cast<UVC_EXT_ITEM_E>(row.item), nullptr, record.data());
        });
        EXPECT_EQ(o.result, row.result) << row.item;
        ASSERT_EQ(o.wire.size(), 2u);
        EXPECT_TRUE(IsSetCur(o.wire[0], 14, Hex(row.request, 60)));
        if (row.item == 1) {
            // Each eye's 22 wire bytes land field by field; answer bytes 26-31 and 54-59 do not.
            record.resize(sizeof(_DUAL_ET_PARAM));
            EXPECT_EQ(record, Hex("44..59 AB AB 60..75 AB AB"));
        } else {
            EXPECT_EQ(record, Bytes(64, kPoison));
        }
    }
}

// The data block carries the counter: 1 and 2 for a read, 3 for the write after it.
TEST_F(DeviceTest, DataBlockAndItsCounter) {
    TarvikPtr t = Open();
    QueueAnswer({"40..7B"});
    uvc_extDataBlock block = Block(200);
    Outcome o = Run([&] { return t->ReadByExtItem(EXT_ITEM_DATA_BLOCK, &block, nullptr); });
    EXPECT_EQ(o.result, 0);
    EXPECT_TRUE(IsSetCur(o.wire.at(0), 14, Hex("00 10 01 00 0A 00 00 00 07 30 34 12", 60)));
    EXPECT_TRUE(LinesAre(o.out, {"===== read, tell m_nLastId [1] to device, next _SetBytes...",
                                 "===== read, m_nLastId [2], next _GetBytes..."}));
    EXPECT_EQ(BytesOf(block), Hex("07 C8 34 12 48..77"));

    block = Block(5);
    o = Run([&] { return t->WriteByExtItem(EXT_ITEM_DATA_BLOCK, &block); });
    EXPECT_TRUE(IsSetCur(o.wire.at(0), 14, Hex("0A 10 03 00 07 05 34 12 80..84", 60)));
    EXPECT_TRUE(LinesAre(o.out, {"===== write, tell m_nLastId [3] to device, next _SetBytes..."}));

    // A short read clears all 48 data bytes and copies its length.
    QueueAnswer({"40..7B"});
    o = Run([&] { return t->ReadByExtItem(EXT_ITEM_DATA_BLOCK, &block, nullptr); });
    EXPECT_EQ(BytesOf(block), Hex("07 05 34 12 48..4C", 52));

    // The counter wraps; a failed request does not give its step back.
    Private<LastIdTag>(*t) = 65535;
    Model().InjectFault({sim::FaultKind::kStall, 14, sim::Direction::kOut});
    o = Run([&] { return t->ReadByExtItem(EXT_ITEM_DATA_BLOCK, &block, nullptr); });
    EXPECT_EQ(o.result, LIBUSB_ERROR_PIPE);
    EXPECT_TRUE(IsSetCur(o.wire.at(0), 14, Hex("00 10 00 00 0A 00 00 00 07 05 34 12", 60)));
    EXPECT_EQ(Private<LastIdTag>(*t), 0);
}

// Missing records end a transaction before the marker and the camera.
TEST_F(DeviceTest, MissingRecords) {
    TarvikPtr t = Open(Transport::kUsb, false);
    unsigned short value = 0;
    uvc_extDataBlock block{};
    const std::function<HRESULT()> calls[] = {
        [&] { return t->ReadByExtItem(EXT_ITEM_VERSION, nullptr, nullptr); },
        [&] { return t->ReadByExtItem(EXT_ITEM_LAST_ID, &block, nullptr); },
        [&] { return t->ReadByExtItem(EXT_ITEM_DATA_BLOCK, nullptr, &block); },
        [&] { return t->ReadByExtItem(EXT_ITEM_VCM, nullptr, &value); },
        [&] { return t->WriteByExtItem(EXT_ITEM_SAM, nullptr); },
    };
    for (const auto& call : calls) {
        const Outcome o = Run(call);
        EXPECT_EQ(o.result, 1);
        EXPECT_TRUE(o.wire.empty());
    }
}

// The marker: eight zero bytes on selector 1 before the first transaction,
// never again once sent, again after it failed.
TEST_F(DeviceTest, MarkerOncePerObject) {
    TarvikPtr t = Open(Transport::kUsb, false);
    unsigned int status = 0;
    const Bytes marker(8, 0);
    Model().InjectFault({sim::FaultKind::kStall, 1});
    Outcome o = Run([&] { return t->ReadByExtItem(EXT_ITEM_ROI_STATUS, nullptr, &status); });
    EXPECT_EQ(o.result, LIBUSB_ERROR_PIPE);
    EXPECT_TRUE(LinesAre(o.out, {"-----> SetMarker, hr=0xfffffff7", "ReadByExtItem 1 error. hr = 0xfffffff7"}));
    ASSERT_EQ(o.wire.size(), 1u);
    EXPECT_TRUE(IsSetCur(o.wire[0], 1, marker));

    Model().InjectFault({sim::FaultKind::kStall, 1});
    o = Run([&] { return t->WriteByExtItem(EXT_ITEM_VERSION, &status); });
    EXPECT_TRUE(LinesAre(o.out, {"-----> SetMarker, hr=0xfffffff7", "WriteByExtItem 1 error. hr = 0xfffffff7"}));

    // Item 5 is not written, but the marker was due.
    o = Run([&] { return t->WriteByExtItem(EXT_ITEM_VERSION, &status); });
    EXPECT_EQ(o.result, 7);
    ASSERT_EQ(o.wire.size(), 1u);
    EXPECT_TRUE(IsSetCur(o.wire[0], 1, marker));
    o = Run([&] { return t->ReadByExtItem(EXT_ITEM_ROI_STATUS, nullptr, &status); });
    EXPECT_EQ(o.wire.size(), 2u);
    EXPECT_EQ(Run([&] { return t->RecoveryMarker() + t->CheckDataSize(); }).wire.size(), 0u);
}

// Control lengths and 32-bit values on the unit's plain controls (selector 2
// is 4 bytes long, 3 is 2 bytes, 4 is 16 bytes).
TEST_F(DeviceTest, ValueControls) {
    TarvikPtr t = Open();
    unsigned int n = 77;
    Outcome o = Run([&] { return t->_GetLength(14, &n); });
    EXPECT_EQ(n, 60u);
    ASSERT_EQ(o.wire.size(), 1u);
    EXPECT_TRUE(IsRequest(o.wire[0], 0xA1, 0x85, 14, 2));
    o = Run([&] { return t->_GetLength(1, &n); });
    EXPECT_EQ(n, 8u);
    EXPECT_TRUE(o.wire.empty());
    n = 77;
    EXPECT_EQ(Run([&] { return t->_GetLength(9, &n); }).result, LIBUSB_ERROR_PIPE);
    EXPECT_EQ(n, 77u);

    o = Run([&] { return t->_GetValue(2, &n); });
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(n, 0x78563412u);
    EXPECT_TRUE(LinesAre(o.out, {"get value ok. id: 2, value: 2018915346.\n"}));
    ASSERT_EQ(o.wire.size(), 2u);
    EXPECT_TRUE(IsGetCur(o.wire[1], 2, 4));

    o = Run([&] { return t->_SetValue(4, 258); });
    EXPECT_EQ(o.result, 0);
    ASSERT_EQ(o.wire.size(), 2u);
    EXPECT_TRUE(IsSetCur(o.wire[1], 4, Hex("02 01", 16)));
    o = Run([&] { return t->SpecialOperator(0x01020304); });
    ASSERT_EQ(o.wire.size(), 1u);
    EXPECT_TRUE(IsSetCur(o.wire[0], 1, Hex("04 03 02 01 00 00 00 00")));

    // A control shorter than a value is refused after its length is known.
    o = Run([&] { return t->_GetValue(3, &n); });
    EXPECT_EQ(o.result, 1);
    EXPECT_TRUE(LinesAre(o.out, {"| Assertion `size >= 4' failed in _GetValue\n"}));
    EXPECT_EQ(o.wire.size(), 1u);
    o = Run([&] { return t->_SetValue(3, 5); });
    EXPECT_EQ(o.result, 1);
    EXPECT_TRUE(LinesAre(o.out, {"| Assertion `size >= 4' failed in _SetValue\n"}));
    o = Run([&] { return t->_GetValue(2, nullptr); });
    EXPECT_EQ(o.result, 1);
    EXPECT_TRUE(LinesAre(o.out, {"get value: invalid input arg.\n"}));
    EXPECT_TRUE(o.wire.empty());

    // A short answer is the count moved.
    unsigned char frame[60];
    Model().InjectFault({sim::FaultKind::kShort, 14, sim::Direction::kIn, sim::kAnyRequest, 1, 0, 30});
    EXPECT_EQ(t->_GetBytes(14, frame, 60), 30);
}

// The retry routines, called directly: their names for every item, the
// record cleared before each attempt, and items outside their tables.
TEST_F(DeviceTest, RetryRoutines) {
    TarvikPtr t = Open();
    struct Named {
        int item;
        const char* name;
    };
    std::vector<std::uint8_t> record(4096, 0);
    for (const Named& w : {Named{1, "WriteET"}, Named{3, "WriteBeep"}, Named{15, "WriteLed"},
                           Named{2, "WriteMJpegQp"}, Named{6, "WriteROI"}, Named{4, "WriteStatusLed"},
                           Named{9, "WriteDeviceId"}, Named{8, "WriteDeviceSn"},
                           Named{11, "WriteUVCMode"}, Named{17, "WriteGPIO"}, Named{18, "WriteVCM"}}) {
        const Outcome o = Run([&] { return t->RetryWriteByExtCmd(static_cast<UVC_EXT_ITEM_E>(w.item), record.data()); });
        EXPECT_TRUE(LinesAre(o.out, {std::string("----- ") + w.name + ", retry times=1, ok, hr=0x0"}));
    }
    Outcome o = Run([&] { return t->RetryReadByExtCmd(EXT_ITEM_ET, nullptr, record.data()); });
    EXPECT_TRUE(LinesAre(o.out, {"----- ReadET, retry times=1, ok, hr=0x0"}));
    _SAM_IN_PARAM in{6};
    o = Run([&] { return t->RetryReadByExtCmd(EXT_ITEM_SAM, &in, record.data()); });
    EXPECT_TRUE(LinesAre(o.out, {"SAM > input command: 6, return result: 0",
                                 "----- ReadSAM, retry times=1, ok, hr=0x0"}));

    struct Cleared {
        int item;
        size_t size;
    };
    for (const Cleared& c : {Cleared{5, 56}, Cleared{1, 48}, Cleared{2, 16}, Cleared{16, 14},
                             Cleared{7, 4}, Cleared{6, 16}, Cleared{9, 20}, Cleared{8, 20},
                             Cleared{12, sizeof(_SAM_OUT_PARAM)}, Cleared{13, 4}, Cleared{14, 2},
                             Cleared{18, 2}}) {
        std::fill(record.begin(), record.end(), kPoison);
        Model().InjectFault({sim::FaultKind::kStall, 14, sim::Direction::kIn, sim::kAnyRequest, 2});
        unsigned short mode = 0;
        const void* input = c.item == 12 ? static_cast<const void*>(&in) : &mode;
        EXPECT_EQ(t->RetryReadByExtCmd(static_cast<UVC_EXT_ITEM_E>(c.item), const_cast<void*>(input),
                                       record.data()),
                  LIBUSB_ERROR_PIPE);
        Bytes cleared(c.size, 0);
        cleared.push_back(kPoison);
        EXPECT_EQ(Bytes(record.begin(), record.begin() + c.size + 1), cleared) << c.item;
    }

    o = Run([&] { return t->RetryReadByExtCmd(EXT_ITEM_BEEP, nullptr, record.data()); });
    EXPECT_EQ(o.result, 7);
    EXPECT_TRUE(o.wire.empty());
    o = Run([&] { return t->RetryWriteByExtCmd(EXT_ITEM_VERSION, record.data()); });
    EXPECT_EQ(o.result, 7);
    EXPECT_TRUE(o.wire.empty());
}

// An object without a device: 11 from every locked primitive, 6 from the raw ones.
TEST(NoDevice, EveryPrimitiveRefuses) {
    StdoutCapture quiet;
    TarvikImpl t;
    unsigned char data[60] = {};
    unsigned int value = 0;
    EXPECT_EQ(t.check_dev_opened(), 11);
    EXPECT_EQ(t.read_from_uvc_extension(14, 60, data), 6);
    EXPECT_EQ(t.write_to_uvc_extension(14, 60, data), 6);
    EXPECT_EQ(t._GetBytes(14, data, 60), 11);
    EXPECT_EQ(t._SetBytes(14, data, 60), 11);
    EXPECT_EQ(t._GetLength(14, &value), 11);
    EXPECT_EQ(t._GetValue(2, &value), 11);
    EXPECT_EQ(t._SetValue(2, 1), 11);
    EXPECT_EQ(t.zq_ReadVersion(reinterpret_cast<_VERSION_PARAM*>(data)), 11);
    int type = 0;
    EXPECT_EQ(t.zq_ReadProductType(&type), 0);
    EXPECT_EQ(type, 1);
}

}  // namespace
}  // namespace tarvik::test
