// Create/release cycles through both construction paths, and a tour of every
// operation (failing ones included), leave no open file descriptor and no
// heap behind. LeakSanitizer (ASan build) checks the heap at exit with
// suppressions for the emulation's libraries only; other builds compare the
// heap in use before and after.
#include <libusb.h>
#include <malloc.h>

#include "reliability_fixture.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TARVIK_OWN_ALLOCATOR 1  // mallinfo2 does not see the sanitizer's heap
#else
#define TARVIK_OWN_ALLOCATOR 0
#endif

namespace tarvik::reliability {
namespace {

constexpr int kCycles = 40;

size_t HeapInUse() {
    const struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
}

// Every operation, every SAM command, a data block, the value controls and a
// failing read that runs the retry path.
void Tour(TarvikImpl& t, sim::Camera& cam) {
    for (const Operation& op : Operations()) {
        Bytes record;
        const HRESULT r = Quiet([&] { return op.run(t, record); });
        EXPECT_EQ(r, op.kind == Kind::kFixed ? FixedResult(op.name) : 0) << op.name;
    }
    for (unsigned cmd : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u}) {
        auto out = std::make_unique<_SAM_OUT_PARAM>();
        _SAM_IN_PARAM in{static_cast<unsigned char>(cmd)};
        EXPECT_EQ(Quiet([&] { return t.ReadByExtItem(EXT_ITEM_SAM, &in, out.get()); }),
                  cmd == 5 ? 1 : 0);
    }
    uvc_extDataBlock block{1, 48, 0, {}};
    EXPECT_EQ(Quiet([&] { return t.ReadByExtItem(EXT_ITEM_DATA_BLOCK, &block, nullptr); }), 0);
    EXPECT_EQ(Quiet([&] { return t.WriteByExtItem(EXT_ITEM_DATA_BLOCK, &block); }), 0);
    unsigned int value = 0;
    EXPECT_EQ(Quiet([&] { return t._GetValue(2, &value); }), 0);
    EXPECT_EQ(Quiet([&] { return t._SetValue(3, 1); }), 1) << "a control shorter than a value";
    cam.Model().InjectFault(
        sim::Fault{sim::FaultKind::kStall, 14, sim::Direction::kIn, sim::kAnyRequest, 3});
    _VERSION_PARAM version;
    EXPECT_EQ(Quiet([&] { return t.zq_ReadVersion(&version); }), LIBUSB_ERROR_PIPE);
    cam.Model().InjectSamFault(sim::SamFault::kGoneMidPacket);
    auto out = std::make_unique<_SAM_OUT_PARAM>();
    _SAM_IN_PARAM in{3};
    EXPECT_EQ(Quiet([&] { return t.ReadByExtItem(EXT_ITEM_SAM, &in, out.get()); }),
              LIBUSB_ERROR_NO_DEVICE);
}

class Leaks : public ReliabilityTest {
protected:
    // The library opens the camera itself.
    void OwnCycle(sim::Camera& cam, bool tour) {
        TarvikPtr t = Open(cam);
        ASSERT_NE(t, nullptr);
        if (tour) Tour(*t, cam);
    }

    // The application opens the camera and hands its handle over; the handle
    // stays the application's.
    void AdoptedCycle(sim::Camera& cam, bool tour) {
        libusb_context* ctx = nullptr;
        ASSERT_EQ(libusb_init(&ctx), 0);
        libusb_device_handle* handle =
            libusb_open_device_with_vid_pid(ctx, sim::kCameraVendorId, sim::kCameraProductId);
        ASSERT_NE(handle, nullptr);
        {
            TarvikPtr t(
                Quiet([&] { return static_cast<TarvikImpl*>(zq_CreateTarvik(handle, -1, -1)); }));
            ASSERT_NE(t, nullptr);
            if (tour) Tour(*t, cam);
        }
        libusb_close(handle);
        libusb_exit(ctx);
    }

    // A creation that finds no camera.
    void FailedCreation() {
        EXPECT_EQ(Quiet([] { return zq_CreateTarvik(nullptr, 99, 99); }), nullptr);
    }

    void AllPaths(sim::Camera& cam, bool tour) {
        OwnCycle(cam, tour);
        AdoptedCycle(cam, tour);
        FailedCreation();
        cam.Model().ClearFaults();
    }
};

TEST_F(Leaks, CyclesAndToursLeaveNothingBehind) {
    sim::Camera& cam = NewCamera();
    // One round first: libusb and the emulation set up what they keep for
    // the process's life.
    AllPaths(cam, true);
    const int fds = OpenFileDescriptors();
    const size_t heap = HeapInUse();

    for (int i = 0; i < kCycles; ++i) AllPaths(cam, i % 4 == 0);

    EXPECT_EQ(OpenFileDescriptors(), fds) << "file descriptors left open";
    if (!TARVIK_OWN_ALLOCATOR) {
        // A leak of one transfer frame per cycle would show; the emulation's
        // own bookkeeping stays well below this.
        EXPECT_LT(HeapInUse(), heap + 60 * kCycles) << "heap in use grew by " << HeapInUse() - heap;
    }
}

// A camera that vanishes while an object holds it: releasing the object still
// closes everything.
TEST_F(Leaks, ReleaseAfterTheCameraIsGone) {
    sim::Camera& cam = NewCamera();
    std::vector<sim::Camera*> doomed;
    for (int i = 1; i <= 5; ++i) doomed.push_back(&NewCamera(i));
    AllPaths(cam, false);
    const int fds = OpenFileDescriptors();
    for (sim::Camera* gone : doomed) {
        TarvikPtr t = Open(*gone);
        ASSERT_NE(t, nullptr);
        gone->Model().InjectFault(sim::Fault{sim::FaultKind::kGoneForGood, sim::kAnySelector});
        _ROI_PARAM roi;
        EXPECT_EQ(Quiet([&] { return t->zq_ReadROI(&roi); }), LIBUSB_ERROR_NO_DEVICE);
    }
    EXPECT_EQ(OpenFileDescriptors(), fds);
}

}  // namespace
}  // namespace tarvik::reliability
