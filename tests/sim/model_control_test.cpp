// The unit's controls and requests, and the transfer faults, at the model level.
#include <gtest/gtest.h>

#include "model_host.h"

namespace tarvik::sim {
namespace {

using host::Bytes;
using host::Get;
using host::GetCur;
using host::ReadRequest;
using host::SetCur;

struct LengthCase {
    uint8_t selector;
    std::vector<uint8_t> answer;
};

class GetLen : public ::testing::TestWithParam<LengthCase> {};

TEST_P(GetLen, AnswersTheControlLengthLittleEndian) {
    CameraModel model;
    const Reply r = Get(model, kGetLen, GetParam().selector, 2);
    ASSERT_EQ(r.status, TransferStatus::kCompleted);
    EXPECT_EQ(r.data, GetParam().answer);
}

INSTANTIATE_TEST_SUITE_P(Selectors, GetLen,
                         ::testing::Values(LengthCase{1, {8, 0}}, LengthCase{2, {4, 0}},
                                           LengthCase{3, {2, 0}}, LengthCase{4, {16, 0}},
                                           LengthCase{14, {60, 0}}));

TEST(Controls, WhatTheUnitDoesNotHaveStalls) {
    CameraModel model;
    struct Case {
        const char* what;
        SetupPacket setup;
    } cases[] = {
        {"unknown selector", {kRequestTypeIn, kGetCur, 9 << 8, kUnitIndex, 4}},
        {"other unit", {kRequestTypeIn, kGetCur, 14 << 8, 0x0600, 60}},
        {"other interface", {kRequestTypeIn, kGetCur, 14 << 8, 0x0501, 60}},
        {"low byte of wValue", {kRequestTypeIn, kGetCur, (14 << 8) | 1, kUnitIndex, 60}},
        {"wrong length", {kRequestTypeIn, kGetCur, 14 << 8, kUnitIndex, 30}},
        {"unknown request", {kRequestTypeIn, 0x88, 14 << 8, kUnitIndex, 60}},
        {"GET_MIN of the wrong length", {kRequestTypeIn, kGetMin, 14 << 8, kUnitIndex, 59}},
        {"vendor request type", {0xC1, kGetCur, 14 << 8, kUnitIndex, 60}},
        {"GET_LEN of unknown selector", {kRequestTypeIn, kGetLen, 9 << 8, kUnitIndex, 2}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(model.Handle(c.setup, {}).status, TransferStatus::kStalled) << c.what;
    }
    EXPECT_EQ(SetCur(model, kSelectorChannel, std::vector<uint8_t>(59)).status,
              TransferStatus::kStalled);
}

TEST(Controls, MarkerAndPlainControlsKeepWhatIsWritten) {
    CameraModel model;
    SetCur(model, kSelectorMarker, {1, 2, 3, 4, 0, 0, 0, 9});
    EXPECT_EQ(GetCur(model, kSelectorMarker, 8).data,
              (std::vector<uint8_t>{1, 2, 3, 4, 0, 0, 0, 9}));
    EXPECT_EQ(model.State().markerWrites, 1u);
    EXPECT_EQ(GetCur(model, 3, 2).data, (std::vector<uint8_t>{0xAB, 0xCD}));
    SetCur(model, 3, {0x01, 0x02});
    EXPECT_EQ(GetCur(model, 3, 2).data, (std::vector<uint8_t>{0x01, 0x02}));
}

// Faults aimed at a selector and direction, lasting `count` matching transfers.
struct FaultCase {
    const char* name;
    Fault fault;
    TransferStatus status;
    size_t moved;  // for completed transfers
};

class FaultKinds : public ::testing::TestWithParam<FaultCase> {};

TEST_P(FaultKinds, HitTheNextMatchingTransferOnly) {
    const FaultCase& c = GetParam();
    CameraModel model;
    model.InjectFault(c.fault);
    SetCur(model, kSelectorChannel, Bytes(ReadRequest(kItemVersion)));
    const Reply hit = GetCur(model, kSelectorChannel, kFrameLength);
    EXPECT_EQ(hit.status, c.status);
    if (c.status == TransferStatus::kCompleted) {
        EXPECT_EQ(hit.actualLength, c.moved);
    }
    EXPECT_EQ(hit.delay,
              c.fault.kind == FaultKind::kDelay ? c.fault.delay : std::chrono::milliseconds(0));
    // Healthy again.
    SetCur(model, kSelectorChannel, Bytes(ReadRequest(kItemVersion)));
    const Reply after = GetCur(model, kSelectorChannel, kFrameLength);
    EXPECT_EQ(after.status, TransferStatus::kCompleted);
    EXPECT_EQ(after.data[4], 'S');
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, FaultKinds,
    ::testing::Values(
        FaultCase{"Stall", {FaultKind::kStall, 14, Direction::kIn}, TransferStatus::kStalled, 0},
        FaultCase{"Gone", {FaultKind::kGone, 14, Direction::kIn}, TransferStatus::kNoDevice, 0},
        FaultCase{"Short",
                  {FaultKind::kShort, 14, Direction::kIn, kAnyRequest, 1, 0, 30},
                  TransferStatus::kCompleted,
                  30},
        FaultCase{"Delay",
                  {FaultKind::kDelay, 14, Direction::kIn, kAnyRequest, 1, 0, 0,
                   std::chrono::milliseconds(500)},
                  TransferStatus::kCompleted,
                  60},
        FaultCase{
            "Garbage", {FaultKind::kGarbage, 14, Direction::kIn}, TransferStatus::kCompleted, 60}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

TEST(Faults, SkipCountSelectorAndDirectionAimTheFault) {
    CameraModel model;
    model.InjectFault({FaultKind::kStall, kSelectorChannel, Direction::kOut, kAnyRequest, 2, 1});
    const std::vector<uint8_t> request = Bytes(ReadRequest(kItemRoi));
    EXPECT_EQ(GetCur(model, kSelectorChannel, 60).status, TransferStatus::kCompleted);  // IN
    EXPECT_EQ(SetCur(model, kSelectorMarker, std::vector<uint8_t>(8)).status,
              TransferStatus::kCompleted);  // other selector
    EXPECT_EQ(SetCur(model, kSelectorChannel, request).status, TransferStatus::kCompleted);  // skip
    EXPECT_EQ(SetCur(model, kSelectorChannel, request).status, TransferStatus::kStalled);
    EXPECT_EQ(SetCur(model, kSelectorChannel, request).status, TransferStatus::kStalled);
    EXPECT_EQ(SetCur(model, kSelectorChannel, request).status, TransferStatus::kCompleted);
}

TEST(Faults, GoneForGoodStaysGoneUntilCleared) {
    CameraModel model;
    model.InjectFault({FaultKind::kGoneForGood, kAnySelector});
    for (int i = 0; i < 3; ++i) {
        const Reply r = Get(model, kGetLen, kSelectorChannel, 2);
        EXPECT_EQ(r.status, TransferStatus::kNoDevice);
        EXPECT_TRUE(r.goneForGood);
    }
    EXPECT_TRUE(model.Gone());
    model.ClearFaults();
    EXPECT_EQ(Get(model, kGetLen, kSelectorChannel, 2).status, TransferStatus::kCompleted);
}

TEST(Faults, AShortWriteIsNotActedOn) {
    CameraModel model;
    model.InjectFault({FaultKind::kShort, kSelectorChannel, Direction::kOut, kAnyRequest, 1, 0, 4});
    Frame f = host::WriteRequest(kItemBeep);
    PutLe32(&f[4], 9);
    const Reply r = SetCur(model, kSelectorChannel, Bytes(f));
    EXPECT_EQ(r.actualLength, 56u);
    EXPECT_EQ(model.State().beep, 0u);
}

TEST(Faults, GarbageIsNotTheAnswer) {
    CameraModel model;
    model.InjectFault({FaultKind::kGarbage, kSelectorChannel, Direction::kIn});
    SetCur(model, kSelectorChannel, Bytes(ReadRequest(kItemVersion)));
    const Reply garbage = GetCur(model, kSelectorChannel, 60);
    SetCur(model, kSelectorChannel, Bytes(ReadRequest(kItemVersion)));
    EXPECT_NE(garbage.data, GetCur(model, kSelectorChannel, 60).data);
}

}  // namespace
}  // namespace tarvik::sim
