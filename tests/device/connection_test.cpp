// Finding, opening, adopting and releasing the camera: the lines, the camera
// chosen, and the kernel driver of interface 0.
#include <filesystem>

#include "camera_opener.h"
#include "device_fixture.h"
#include "tarvik.h"

namespace tarvik::test {
namespace {

const std::vector<std::string> kOpened = {
    "libTarvik build time: * *",           "libTarvik: libusb_init...\n",
    "libTarvik: libusb_get_device_list...\n",
};

struct OpenCase {
    const char* name;
    int bus;
    int address;
    const char* lastListed;          // the listing ends with the device taken
    std::vector<std::string> after;  // the lines after the listing
    bool opened;
};

constexpr const char* kAnyCamera = "| vid:pid[0x0ac8:0x010c] (bus *, device *)\n";

// Cameras at 1:2 (kernel driver bound) and 7:8 (none), another device at 5:6.
const OpenCase kCases[] = {
    {"Wildcard", -1, -1, kAnyCamera, {"| ok, found, 0x0ac8:0x010c (bus *, device *)\n"}, true},
    {"OneMinusOneIsWildcard", 5, -1, kAnyCamera, {"| ok, found, 0x0ac8:0x010c (bus *, device *)\n"}, true},
    {"Matched",
     7,
     8,
     "| vid:pid[0x0ac8:0x010c] (bus 7, device 8)\n",
     {"| ok, matched, 0x0ac8:0x010c (bus 7, device 8)\n"},
     true},
    {"AnotherKindOfDevice",
     5,
     6,
     "*",
     {"libTarvik: not found, bus: 5 dev: 6. libusb errno=*, *, *.\n", "libTarvik: release_libusb.\n",
      "libTarvik: sdk inner open device failed.\n"},
     false},
};

class Opening : public testing::TestWithParam<OpenCase> {
protected:
    Opening() {
        m_bed.AddCamera(1, 2);
        m_bed.AddOtherDevice(5, 6);
        m_bed.AddCamera(7, 8, false);
    }
    sim::Testbed m_bed;
};

TEST_P(Opening, LinesAndTheCameraOpened) {
    const OpenCase& c = GetParam();
    StdoutCapture capture;
    TarvikPtr t(static_cast<TarvikImpl*>(zq_CreateTarvik(nullptr, c.bus, c.address)));
    std::vector<std::string> lines = Lines(capture.Take());
    // The listing: one line per device walked, in libusb's order, right after the list is made.
    auto first = lines.begin() + std::min<size_t>(3, lines.size());
    auto end = std::find_if(first, lines.end(), [](const std::string& l) { return l.rfind("| vid:pid[", 0) != 0; });
    const std::vector<std::string> listing(first, end);
    lines.erase(first, end);

    std::vector<std::string> expected = kOpened;
    expected.insert(expected.end(), c.after.begin(), c.after.end());
    if (c.opened) {
        expected.push_back("libTarvik: initialize_libusb ok.\n");
        expected.push_back("libTarvik: sdk inner open device ok.\n");
    }
    EXPECT_TRUE(LinesMatch(lines, expected));
    ASSERT_FALSE(listing.empty());
    EXPECT_TRUE(Glob(c.lastListed, listing.back().c_str())) << listing.back();
    if (!c.opened) {
        EXPECT_EQ(listing.size(), 3u) << "every device is walked";
    }
    EXPECT_EQ(t != nullptr, c.opened);
}

INSTANTIATE_TEST_SUITE_P(Table, Opening, testing::ValuesIn(kCases),
                         [](const auto& p) { return p.param.name; });

// Another kind of device, or none at all (an empty list is no failure to list).
TEST(Opening, NoCameraAtAll) {
    for (const bool other : {true, false}) {
        sim::Testbed bed;
        if (other) bed.AddOtherDevice(5, 6);
        StdoutCapture capture;
        EXPECT_EQ(zq_CreateTarvik(nullptr, -1, -1), nullptr);
        std::vector<std::string> lines = {"libTarvik build time: * *", "libTarvik: libusb_init...\n",
                                          "libTarvik: libusb_get_device_list...\n",
                                          "| vid:pid[0x1d6b:0x0104] (bus 5, device 6)\n",
                                          "libTarvik: not found, bus: -1 dev: -1. libusb errno=*, *, *.\n",
                                          "libTarvik: release_libusb.\n", "libTarvik: sdk inner open device failed.\n"};
        if (!other) lines.erase(lines.begin() + 3);
        EXPECT_TRUE(LinesAre(capture.Take(), lines)) << other;
    }
}

// Opening detaches the kernel driver of interface 0; releasing gives it back.
// A camera without a driver is neither detached nor attached.
TEST(Opening, KernelDriverDetachedAndGivenBack) {
    sim::Testbed bed;
    sim::Camera& bound = bed.AddCamera(1, 2);
    sim::Camera& unbound = bed.AddCamera(1, 3, false);
    StdoutCapture capture;
    TarvikPtr a(static_cast<TarvikImpl*>(zq_CreateTarvik(nullptr, 1, 2)));
    TarvikPtr b(static_cast<TarvikImpl*>(zq_CreateTarvik(nullptr, 1, 3)));
    ASSERT_TRUE(a && b);
    EXPECT_FALSE(bound.KernelDriverAttached());
    EXPECT_TRUE(Private<DetachedTag>(*a));
    EXPECT_FALSE(Private<DetachedTag>(*b));
    a.reset();
    b.reset();
    const std::vector<std::string> lines = Lines(capture.Take());
    EXPECT_EQ(lines.back(), "libTarvik: release_libusb.\n");
    EXPECT_TRUE(bound.KernelDriverAttached());
    EXPECT_FALSE(unbound.KernelDriverAttached());
}

// An adopted handle (on a camera the video driver does not hold: usbfs would
// refuse its transfers): no enumeration, no attach, and still the
// application's after the release.
TEST(Opening, AdoptedHandleStaysTheApplications) {
    sim::Testbed bed;
    sim::Camera& cam = bed.AddCamera(1, 2, false);
    libusb_context* ctx = nullptr;
    ASSERT_EQ(libusb_init(&ctx), 0);
    libusb_device_handle* handle = libusb_open_device_with_vid_pid(ctx, 0x0AC8, 0x010C);
    ASSERT_NE(handle, nullptr);
    StdoutCapture capture;
    TarvikPtr t(static_cast<TarvikImpl*>(zq_CreateTarvik(handle, 99, 99)));
    _VERSION_PARAM version{};
    EXPECT_EQ(t->zq_ReadVersion(&version), 0);
    t.reset();
    zq_ReleaseTarvik(nullptr);
    const std::vector<std::string> lines = Lines(capture.Take());
    ASSERT_GE(lines.size(), 2u);
    EXPECT_TRUE(Glob("libTarvik: use outer handle [0x*] directly.\n", lines[0].c_str())) << lines[0];
    EXPECT_TRUE(Glob("libTarvik build time: * *", lines[1].c_str()));
    EXPECT_FALSE(cam.DriverBound());
    unsigned char len[2] = {};
    EXPECT_EQ(libusb_control_transfer(handle, 0xA1, 0x85, 14 << 8, 0x0500, len, 2, 1000), 2);
    libusb_close(handle);
    libusb_exit(ctx);
}

// A camera gone between the listing and the detach: -1, and nothing kept.
TEST(Opening, CameraGoneBeforeTheDetach) {
    sim::Testbed bed;
    sim::Camera& cam = bed.AddCamera(1, 2);
    cam.Model().InjectFault({sim::FaultKind::kGoneForGood, sim::kAnySelector});
    cam.Model().Handle(sim::SetupPacket{0xA1, 0x85, 14 << 8, 0x0500, 2}, {});  // the fault strikes
    StdoutCapture capture;
    TarvikImpl t;
    EXPECT_EQ(t.initialize_libusb(1, 2), -1);
    EXPECT_EQ(Private<HandleTag>(t), nullptr);
    EXPECT_EQ(Private<ContextTag>(t), nullptr);
    const std::vector<std::string> lines = Lines(capture.Take());
    ASSERT_GE(lines.size(), 2u);
    EXPECT_TRUE(LinesMatch({lines.end() - 2, lines.end()},
                           {"libTarvik: libusb_detach_kernel_driver error. libusb errno=*, *, *.\n",
                            "libTarvik: release_libusb.\n"}));
}

// A second user of the camera on the USB path: usbfs refuses its transfers
// (libusb calls it an I/O error) for as long as the first holds interface 0;
// the library says so when it opens.
TEST(Opening, SecondUserOnTheUsbPath) {
    sim::Testbed bed;
    bed.AddCamera(1, 2);
    StdoutCapture capture;
    TarvikPtr first(static_cast<TarvikImpl*>(zq_CreateTarvik(nullptr, 1, 2)));
    TarvikPtr second(static_cast<TarvikImpl*>(zq_CreateTarvik(nullptr, 1, 2)));
    _ROI_PARAM roi{};
    EXPECT_EQ(first->zq_ReadROI(&roi), 0);
    EXPECT_EQ(second->zq_ReadROI(&roi), LIBUSB_ERROR_IO);
    EXPECT_NE(capture.Take().find("libTarvik: the camera is in use by another program; its "
                                  "transfers will fail until that program lets it go.\n"),
              std::string::npos);
    // The C interface refuses such a camera instead of handing out one that fails.
    tarvik_open_options o = tarvik_default_options();
    o.transport = TARVIK_TRANSPORT_USB;
    tarvik_camera* camera = nullptr;
    EXPECT_EQ(tarvik_open(&o, &camera), TARVIK_LIBUSB_ERROR_BUSY);
    EXPECT_EQ(camera, nullptr);
}

// The camera's lock files this process holds open.
int LockFilesOpen() {
    int n = 0;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        const std::string target = std::filesystem::read_symlink(fd.path(), ignored).string();
        n += target.find("/tarvik-") != std::string::npos && target.size() > 5 &&
             target.compare(target.size() - 5, 5, ".lock") == 0;
    }
    return n;
}

class Reopening : public DeviceTest, public testing::WithParamInterface<Transport> {};

// Closed, the object gives back the device and the lock and sends nothing;
// opened again, it takes the lock again and sends the marker before its
// first transaction, as a new object would.
TEST_P(Reopening, MarkerAndLockAgain) {
    TarvikPtr t = Open(GetParam(), false);
    unsigned int status = 0;
    const Bytes marker(8, 0);
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(LockFilesOpen(), 1);
        Outcome o = Run([&] { return t->ReadByExtItem(EXT_ITEM_ROI_STATUS, nullptr, &status); });
        ASSERT_EQ(o.result, 0);
        ASSERT_EQ(o.wire.size(), 3u);
        EXPECT_TRUE(IsSetCur(o.wire[0], 1, marker));

        Run([&] { return t->CloseCamera(), 0; });
        EXPECT_EQ(LockFilesOpen(), 0);
        o = Run([&] { return t->ReadByExtItem(EXT_ITEM_ROI_STATUS, nullptr, &status); });
        EXPECT_EQ(o.result, 11);
        EXPECT_TRUE(o.wire.empty());
        CameraTarget target;
        target.choice = GetParam() == Transport::kUsb ? Choice::kUsb : Choice::kKernel;
        ASSERT_EQ(Run([&] { return open_camera(*t, target, InUse::kRefuse); }).result, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Table, Reopening, BothTransports(), TransportName);

TEST(Opening, PrintDevsListsEveryDevice) {
    sim::Testbed bed;
    bed.AddOtherDevice(5, 6, 0x1234, 0xABCD);
    libusb_context* ctx = nullptr;
    ASSERT_EQ(libusb_init(&ctx), 0);
    libusb_device** list = nullptr;
    ASSERT_EQ(libusb_get_device_list(ctx, &list), 1);
    StdoutCapture capture;
    print_devs(list);
    print_devs(nullptr);
    EXPECT_EQ(capture.Take(), "vid:pid[0x1234:0xabcd] (bus 5, device 6)\n");
    libusb_free_device_list(list, 1);
    libusb_exit(ctx);
}

}  // namespace
}  // namespace tarvik::test
