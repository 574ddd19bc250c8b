// Finding, opening, adopting and releasing the camera.
#include <libusb.h>

#include <regex>

#include "device_fixture.h"

namespace tarvik::test {
namespace {

const char* const kReleaseLine = "libTarvik: release_libusb.\n";

struct Created {
    TarvikPtr impl;
    std::string out;
};

Created Create(libusb_device_handle* handle, int bus, int address) {
    StdoutCapture capture;
    capture.Start();
    TarvikPtr impl(static_cast<TarvikImpl*>(zq_CreateTarvik(handle, bus, address)));
    return {std::move(impl), capture.Take()};
}

std::string ListingLine(int bus, int address, std::uint16_t vid = 0x0AC8,
                        std::uint16_t pid = 0x010C) {
    char line[96];
    std::snprintf(line, sizeof line, "vid:pid[0x%04x:0x%04x] (bus %d, device %d)\n", vid, pid, bus,
                  address);
    return line;
}

// Which of the cameras received the transfers of a read.
int CameraThatAnswers(sim::Testbed& bed, TarvikImpl& impl) {
    for (size_t i = 0; i < bed.CameraCount(); ++i) bed.GetCamera(i).ClearLog();
    _VERSION_PARAM version{};
    StdoutCapture quiet;
    quiet.Start();
    EXPECT_EQ(impl.zq_ReadVersion(&version), 0);
    quiet.Take();
    int answered = -1;
    for (size_t i = 0; i < bed.CameraCount(); ++i) {
        if (!bed.GetCamera(i).Log().empty()) {
            EXPECT_EQ(answered, -1) << "two cameras answered";
            answered = static_cast<int>(i);
        }
    }
    return answered;
}

struct SelectCase {
    const char* label;
    int bus;
    int address;
    int expectedCamera;  // index into the two cameras below; -1: the first in libusb's list
    const char* how;
};

class Selection : public testing::TestWithParam<SelectCase> {
protected:
    sim::Testbed bed;
};

// Two cameras (bus 1 address 2, bus 3 address 4) and a foreign device at bus 5 address 6.
TEST_P(Selection, OpensTheCameraTheArgumentsName) {
    const SelectCase& c = GetParam();
    bed.AddCamera(1, 2);
    bed.AddCamera(3, 4);
    bed.AddOtherDevice(5, 6);
    Created created = Create(nullptr, c.bus, c.address);
    ASSERT_NE(created.impl, nullptr) << created.out;

    const std::vector<std::string> plain = PlainLines(created.out);
    ASSERT_FALSE(plain.empty());
    // The chosen line comes last: the walk ends with the first device taken.
    const std::string& chosen = plain.back();
    std::smatch m;
    ASSERT_TRUE(std::regex_match(chosen, m,
                                 std::regex(std::string("ok, ") + c.how +
                                            ", 0x0ac8:0x010c \\(bus (\\d+), device (\\d+)\\)\n")))
        << created.out;
    const int bus = std::stoi(m[1]);
    const int address = std::stoi(m[2]);
    ASSERT_GE(plain.size(), 2u);
    EXPECT_EQ(plain[plain.size() - 2], ListingLine(bus, address))
        << "chosen device listed just before";

    const int answering = CameraThatAnswers(bed, *created.impl);
    ASSERT_GE(answering, 0);
    EXPECT_EQ(bed.GetCamera(static_cast<size_t>(answering)).Bus(), bus);
    EXPECT_EQ(bed.GetCamera(static_cast<size_t>(answering)).Address(), address);
    if (c.expectedCamera >= 0) {
        EXPECT_EQ(answering, c.expectedCamera);
    }

    const std::vector<std::string> messages = Messages(created.out);
    const std::vector<std::string> expected = {
        "libTarvik: libusb_init...\n", "libTarvik: libusb_get_device_list...\n",
        "libTarvik: initialize_libusb ok.\n", "libTarvik: sdk inner open device ok.\n"};
    ASSERT_EQ(messages.size(), expected.size() + 1) << created.out;
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), messages.begin() + 1)) << created.out;
    EXPECT_TRUE(std::regex_match(messages.front(),
                                 std::regex("libTarvik build time: [A-Z][a-z]{2} [ 123]\\d \\d{4} "
                                            "\\d{2}:\\d{2}:\\d{2}")))
        << messages.front();
}

INSTANTIATE_TEST_SUITE_P(Cases, Selection,
                         testing::Values(SelectCase{"Wildcard", -1, -1, -1, "found"},
                                         SelectCase{"OneMinusOneSwitchesOffBothTests", 2, -1, -1,
                                                    "found"},
                                         SelectCase{"AddressAloneWildcard", -1, 4, -1, "found"},
                                         SelectCase{"ExplicitFirst", 1, 2, 0, "matched"},
                                         SelectCase{"ExplicitSecond", 3, 4, 1, "matched"}),
                         [](const auto& p) { return std::string(p.param.label); });

struct NotFoundCase {
    const char* label;
    bool withCameras;
    int bus;
    int address;
};

class NotFound : public testing::TestWithParam<NotFoundCase> {};

TEST_P(NotFound, ReturnsNullAndLeavesNothingOpen) {
    const NotFoundCase& c = GetParam();
    sim::Testbed bed;
    bed.AddOtherDevice(5, 6);
    if (c.withCameras) bed.AddCamera(1, 2);
    Created created = Create(nullptr, c.bus, c.address);
    EXPECT_EQ(created.impl, nullptr);

    const std::vector<std::string> messages = Messages(created.out);
    const std::regex notFound("libTarvik: not found, bus: " + std::to_string(c.bus) +
                              " dev: " + std::to_string(c.address) +
                              "\\. libusb errno=-?\\d+, [A-Z_]+, [^\n]*\\.\n");
    ASSERT_EQ(messages.size(), 6u) << created.out;
    EXPECT_EQ(messages[1], "libTarvik: libusb_init...\n");
    EXPECT_EQ(messages[2], "libTarvik: libusb_get_device_list...\n");
    EXPECT_TRUE(std::regex_match(messages[3], notFound)) << messages[3];
    EXPECT_EQ(messages[4], kReleaseLine);
    EXPECT_EQ(messages[5], "libTarvik: sdk inner open device failed.\n");
    // The foreign device was listed, and nothing was taken.
    const std::vector<std::string> plain = PlainLines(created.out);
    EXPECT_NE(std::find(plain.begin(), plain.end(), ListingLine(5, 6, 0x1D6B, 0x0104)),
              plain.end());
    for (const std::string& p : plain) EXPECT_EQ(p.rfind("ok, ", 0), std::string::npos) << p;
}

INSTANTIATE_TEST_SUITE_P(Cases, NotFound,
                         testing::Values(NotFoundCase{"NoCameraWildcard", false, -1, -1},
                                         NotFoundCase{"ForeignDeviceAtTheAddress", true, 5, 6},
                                         NotFoundCase{"NothingAtTheAddress", true, 7, 7}),
                         [](const auto& p) { return std::string(p.param.label); });

TEST(KernelDriver, DetachedWhileOpenAndReattachedOnRelease) {
    sim::Testbed bed;
    sim::Camera& cam = bed.AddCamera(1, 2, /*kernelDriverBound=*/true);
    Created created = Create(nullptr, -1, -1);
    ASSERT_NE(created.impl, nullptr);
    EXPECT_FALSE(cam.KernelDriverAttached());
    EXPECT_TRUE(ImplAccess::KernelDetached(*created.impl));
    StdoutCapture capture;
    capture.Start();
    created.impl.reset();
    EXPECT_EQ(Messages(capture.Take()), std::vector<std::string>{kReleaseLine});
    EXPECT_TRUE(cam.KernelDriverAttached());
}

TEST(KernelDriver, NoDriverBoundMeansNoDetachAndNoReattach) {
    sim::Testbed bed;
    sim::Camera& cam = bed.AddCamera(1, 2, /*kernelDriverBound=*/false);
    Created created = Create(nullptr, -1, -1);
    ASSERT_NE(created.impl, nullptr) << created.out;
    EXPECT_FALSE(ImplAccess::KernelDetached(*created.impl));
    created.impl.reset();
    EXPECT_FALSE(cam.KernelDriverAttached());
}

class Adoption : public testing::Test {
protected:
    void SetUp() override {
        bed.AddCamera(1, 2);
        ASSERT_EQ(libusb_init(&context), 0);
        handle = libusb_open_device_with_vid_pid(context, 0x0AC8, 0x010C);
        ASSERT_NE(handle, nullptr);
    }
    void TearDown() override {
        if (handle != nullptr) libusb_close(handle);
        libusb_exit(context);
    }
    sim::Testbed bed;
    libusb_context* context = nullptr;
    libusb_device_handle* handle = nullptr;
};

TEST_F(Adoption, UsesTheHandleWithoutEnumeratingAndLeavesItOpen) {
    Created created = Create(handle, 99, 99);
    ASSERT_NE(created.impl, nullptr);
    EXPECT_TRUE(PlainLines(created.out).empty()) << "nothing is enumerated";
    const std::vector<std::string> messages = Messages(created.out);
    ASSERT_EQ(messages.size(), 2u) << created.out;
    char expected[64];
    std::snprintf(expected, sizeof expected, "libTarvik: use outer handle [%p] directly.\n",
                  static_cast<void*>(handle));
    EXPECT_EQ(messages[0], expected);
    EXPECT_EQ(ImplAccess::Context(*created.impl), nullptr);
    EXPECT_FALSE(ImplAccess::InnerOpened(*created.impl));

    _VERSION_PARAM version{};
    StdoutCapture quiet;
    quiet.Start();
    EXPECT_EQ(created.impl->zq_ReadVersion(&version), 0);
    quiet.Take();

    StdoutCapture capture;
    capture.Start();
    created.impl.reset();
    EXPECT_EQ(capture.Take(), "") << "an adopted handle is not released";
    // The application's handle still works.
    unsigned char answer[2] = {};
    EXPECT_EQ(libusb_control_transfer(handle, 0xA1, 0x85, 14 << 8, 0x0500, answer, 2, 1000), 2);
    EXPECT_EQ(answer[0], 60);
}

TEST(Factory, ReleaseOfNullDoesNothing) { zq_ReleaseTarvik(nullptr); }

TEST(Lifecycle, ProductTypeAndFixedResultMembers) {
    sim::Testbed bed;
    sim::Camera& cam = bed.AddCamera(1, 2);
    Created created = Create(nullptr, -1, -1);
    ASSERT_NE(created.impl, nullptr);
    TarvikImpl& t = *created.impl;
    cam.ClearLog();

    int type = 42;
    EXPECT_EQ(t.zq_ReadProductType(&type), 0);
    EXPECT_EQ(type, 1);
    EXPECT_EQ(t.zq_ReadProductType(nullptr), 1);
    ASSERT_EQ(ImplAccess::ValidDevices(t).size(), 1u);
    EXPECT_EQ(ImplAccess::ValidDevices(t)[0].vid, 0x0AC8);
    EXPECT_EQ(ImplAccess::ValidDevices(t)[0].pid, 0x010C);

    StdoutCapture capture;
    capture.Start();
    for (int round = 0; round < 2; ++round) {
        _DUAL_ET_PARAM et{};
        _I2C_PARAM i2c{};
        _SAM_IN_PARAM in{3};
        _SAM_OUT_PARAM out{};
        EXPECT_EQ(t.zq_WriteBeep(1), -2);
        EXPECT_EQ(t.zq_WriteLed(_LED_CONTROL_PARAM{}), -2);
        EXPECT_EQ(t.zq_WriteStatusLed(_STATUS_LED_PARAM{}), -2);
        EXPECT_EQ(t.zq_ReadI2C(&i2c), -2);
        EXPECT_EQ(t.zq_ReadI2C(nullptr), -2);
        EXPECT_EQ(t.zq_WriteI2C(i2c), -2);
        EXPECT_EQ(t.zq_ReadSAM(&in, &out), -2);
        EXPECT_EQ(t.zq_WriteUVCMode(3), -2);
        EXPECT_EQ(t.zq_ReadET(&et), -2);
        EXPECT_EQ(t.zq_WriteET(et), -2);
        EXPECT_EQ(t.open_v4l2_device("/dev/video0"), -1);
        t.close_v4l2_device(3);
    }
    EXPECT_EQ(capture.Take(), "");
    EXPECT_TRUE(cam.Log().empty()) << Describe(cam.Log());
}

// The interface's slot order is part of the ABI: call through the vtable by index.
TEST(Lifecycle, SlotOrderOfTheInterface) {
    sim::Testbed bed;
    bed.AddCamera(1, 2);
    Created created = Create(nullptr, -1, -1);
    ASSERT_NE(created.impl, nullptr);
    libTarvik* plugin = created.impl.get();
    void** vtable = *reinterpret_cast<void***>(plugin);
    using ReadProductType = HRESULT (*)(libTarvik*, int*);
    int type = 0;
    EXPECT_EQ(reinterpret_cast<ReadProductType>(vtable[19])(plugin, &type), 0);
    EXPECT_EQ(type, 1);
    using WriteETMode = HRESULT (*)(libTarvik*, const _DUAL_ET_MODE&);
    StdoutCapture quiet;
    quiet.Start();
    EXPECT_EQ(reinterpret_cast<WriteETMode>(vtable[15])(plugin, _DUAL_ET_MODE{1, 0}), -103);
    quiet.Take();
}

}  // namespace
}  // namespace tarvik::test
