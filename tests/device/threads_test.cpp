// Threads sharing objects and cameras, the descriptors and heap that objects
// leave behind, and the real timeout of a transfer.
#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "device_fixture.h"

namespace tarvik::test {
namespace {

constexpr int kThreads = 8;
constexpr int kRounds = 40;

void InThreads(int n, const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i) threads.emplace_back(body, i);
    for (std::thread& t : threads) t.join();
}

// Threads sharing one object each write and read back a lens-motor slot of
// their own between reads of other items: no thread ever gets another's answer.
TEST_F(DeviceTest, ThreadsSharingAnObjectGetTheirOwnAnswers) {
    TarvikPtr t = Open(Transport::kUsb, false);
    const sim::CameraState state = Model().State();
    StdoutCapture quiet;
    InThreads(kThreads, [&](int i) {
        const auto mode = static_cast<_VCM_MODE_E>(0x20 + i);
        for (int round = 0; round < kRounds; ++round) {
            const auto value = static_cast<unsigned short>(i * 1000 + round);
            EXPECT_EQ(t->zq_WriteVCM(_VCM_PARAM{1, 2, value, mode}), 0);
            unsigned short back = 0;
            EXPECT_EQ(t->zq_ReadVCM(mode, &back), 0);
            EXPECT_EQ(back, value);
            _ROI_PARAM roi{};
            EXPECT_EQ(t->zq_ReadROI(&roi), 0);
            EXPECT_EQ(BytesOf(roi), BytesOf(state.roi));
        }
    });
    quiet.Take();
    EXPECT_EQ(Model().State().markerWrites, 1u) << "the marker once, however the threads race";
}

// Objects on cameras of their own, card reads among them: the code tables are
// filled and read by several threads at once.
TEST(Threads, CardReadsOnSeveralCameras) {
    sim::Testbed bed;
    for (int i = 0; i < 4; ++i) {
        bed.AddCamera(1, 2 + i).Model().Update(
            [i](sim::CameraState& s) { s.sam.card.name = "测试" + std::string(1, static_cast<char>('A' + i)); });
    }
    StdoutCapture quiet;
    InThreads(4, [&](int i) {
        TarvikPtr t(static_cast<TarvikImpl*>(zq_CreateTarvik(nullptr, 1, 2 + i)));
        ASSERT_NE(t, nullptr);
        const std::wstring name = L"测试" + std::wstring(1, static_cast<wchar_t>(L'A' + i));
        for (int round = 0; round < 5; ++round) {
            auto out = std::make_unique<_SAM_OUT_PARAM>();
            _SAM_IN_PARAM in{static_cast<unsigned char>(3 + round % 2)};
            EXPECT_EQ(t->ReadByExtItem(EXT_ITEM_SAM, &in, out.get()), 0);
            EXPECT_EQ(out->name, name);
            EXPECT_STREQ(out->nation, L"汉");
        }
    });
    quiet.Take();
}

// Objects made and released, by the library and on an adopted handle, with
// reads among them and on a camera gone away, leave no descriptor behind
// (LeakSanitizer checks the heap in the ASan build).
TEST(Leaks, CreateUseReleaseCycles) {
    sim::Testbed bed;
    sim::Camera& cam = bed.AddCamera(1, 2, false);  // adopted handles need no detach
    auto cycle = [&](bool gone) {
        libusb_context* ctx = nullptr;
        ASSERT_EQ(libusb_init(&ctx), 0);
        libusb_device_handle* handle = libusb_open_device_with_vid_pid(ctx, 0x0AC8, 0x010C);
        for (libusb_device_handle* adopted : {static_cast<libusb_device_handle*>(nullptr), handle}) {
            TarvikPtr t(static_cast<TarvikImpl*>(zq_CreateTarvik(adopted, -1, -1)));
            ASSERT_NE(t, nullptr);
            auto out = std::make_unique<_SAM_OUT_PARAM>();
            _SAM_IN_PARAM in{3};
            EXPECT_EQ(t->ReadByExtItem(EXT_ITEM_SAM, &in, out.get()), 0);
            if (gone) cam.Model().InjectFault({sim::FaultKind::kGone, sim::kAnySelector, sim::Direction::kAny, sim::kAnyRequest, 3});
            _ROI_PARAM roi{};
            EXPECT_EQ(t->zq_ReadROI(&roi), gone ? LIBUSB_ERROR_NO_DEVICE : 0);
        }
        libusb_close(handle);
        libusb_exit(ctx);
        EXPECT_EQ(zq_CreateTarvik(nullptr, 9, 9), nullptr);
    };
    StdoutCapture warmUp;  // libusb and the emulation set up what they keep for the process's life
    cycle(true);
    warmUp.Take();
    const std::vector<std::string> descriptors = OpenDescriptors();
    StdoutCapture quiet;
    for (int i = 0; i < 20; ++i) cycle(i % 2 == 0);
    quiet.Take();
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

// The real control timeout: a camera that never answers costs one call five seconds.
TEST_F(DeviceTest, UnansweredTransferEndsAfterFiveSeconds) {
    TarvikPtr t = Open();
    Model().InjectFault({sim::FaultKind::kDelay, 14, sim::Direction::kIn});
    unsigned int status = 0;
    const auto start = std::chrono::steady_clock::now();
    const Outcome o = Run([&] { return t->ReadByExtItem(EXT_ITEM_ROI_STATUS, nullptr, &status); });
    EXPECT_EQ(o.result, LIBUSB_ERROR_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4990));
}

}  // namespace
}  // namespace tarvik::test
