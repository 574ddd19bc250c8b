// Waiting through the C interface, on either path: cards placed and lifted,
// the camera leaving (unplugged while the program waits, in the middle of a
// card read, in a write) and coming back with its settings, lost events, and
// a cancel from another thread.
#include <malloc.h>
#include <poll.h>

#include <algorithm>
#include <thread>

#include "c_camera.h"
#include "device_fixture.h"
#include "tarvik.h"

namespace tarvik::test {
namespace {

constexpr int kPatienceMs = 5000;  // only bounds a hang: every wait below ends on an event

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;  // slow, and the heap is the sanitizer's
#else
constexpr bool kSanitized = false;
#endif

class Events : public DeviceTest, public testing::WithParamInterface<Transport> {
protected:
    void SetUp() override {
        tarvik_open_options o = tarvik_default_options();
        o.transport =
            GetParam() == Transport::kUsb ? TARVIK_TRANSPORT_USB : TARVIK_TRANSPORT_KERNEL;
        o.flags = TARVIK_OPEN_REAPPLY;
        ASSERT_EQ(tarvik_open(&o, &m_c), 0);
        ASSERT_EQ(tarvik_set_poll_interval(m_c, 50), 0);
    }
    void TearDown() override {
        tarvik_close(m_c);
        DeviceTest::TearDown();
    }

    // The next event's type, with its sequence number checked to follow the last.
    int Next() {
        tarvik_event e{};
        const int r = tarvik_wait_event(m_c, &e, kPatienceMs);
        if (r != 0) return r;
        EXPECT_EQ(e.sequence, ++m_sequence) << tarvik_event_name(e.type);
        m_lastResult = e.result;
        return e.type;
    }

    tarvik_camera* m_c = nullptr;
    uint64_t m_sequence = 0;
    int m_lastResult = 0;
};

// Placed, lifted, unplugged while waiting, back (the ROI written again after
// the camera lost it), placed again; gone, every call answers at once.
TEST_P(Events, CardsAndACameraThatComesBack) {
    const int32_t roi[4] = {5, 6, 7, 8};
    int32_t back[4] = {};
    ASSERT_EQ(tarvik_write_roi(m_c, roi), 0);
    EXPECT_EQ(Next(), TARVIK_EVENT_CARD_PLACED);
    Cam().RemoveCard();
    EXPECT_EQ(Next(), TARVIK_EVENT_CARD_REMOVED);
    Cam().Unplug();
    EXPECT_EQ(Next(), TARVIK_EVENT_CAMERA_GONE);
    EXPECT_EQ(tarvik_read_roi(m_c, back), TARVIK_LIBUSB_ERROR_NO_DEVICE);
    tarvik_camera_info info{};
    tarvik_transport path{};
    ASSERT_EQ(tarvik_describe(m_c, &info, &path), 0);
    EXPECT_STREQ(info.serial, Cam().Serial().c_str());
    Cam().PlaceCard();
    Cam().Replug();
    EXPECT_EQ(Next(), TARVIK_EVENT_CAMERA_BACK);
    EXPECT_EQ(m_lastResult, 0);
    ASSERT_EQ(tarvik_read_roi(m_c, back), 0);
    EXPECT_EQ(std::vector<int32_t>(back, back + 4), std::vector<int32_t>(roi, roi + 4));
    EXPECT_EQ(Next(), TARVIK_EVENT_CARD_PLACED);
    ASSERT_EQ(tarvik_describe(m_c, &info, &path), 0);
    EXPECT_EQ(info.address, Cam().Address());
    EXPECT_EQ(path, GetParam() == Transport::kUsb ? TARVIK_TRANSPORT_USB : TARVIK_TRANSPORT_KERNEL);
}

struct Leaving {
    const char* name;
    std::function<int(tarvik_camera*, sim::Camera&)> call;  // the call the camera leaves in
};

const Leaving kLeavings[] = {
    {"MidCardRead",
     [](tarvik_camera* c, sim::Camera& cam) {
         cam.Model().InjectSamFault(sim::SamFault::kGoneMidPacket, 3);  // every attempt
         tarvik_card card;
         const int r = tarvik_read_card(c, &card, 0);
         tarvik_card_clear(&card);
         return r;
     }},
    {"InAWrite",
     [](tarvik_camera* c, sim::Camera& cam) {
         int32_t roi[4];
         tarvik_read_roi(c, roi);  // the video driver has asked the control's size
         sim::Fault gone;
         gone.kind = sim::FaultKind::kGone;
         gone.count = 3;
         cam.Model().InjectFault(gone);
         return tarvik_write_gpio(c, 1, 0);
     }},
};

class LeavingMidCall : public DeviceTest, public testing::WithParamInterface<Leaving> {};

// A call that finds the camera gone takes it away: camera-gone, then no call
// reaches it until it is back.
TEST_P(LeavingMidCall, GoneThenBack) {
    tarvik_camera* c = nullptr;
    ASSERT_EQ(tarvik_open(nullptr, &c), 0);
    EXPECT_EQ(GetParam().call(c, Cam()), TARVIK_LIBUSB_ERROR_NO_DEVICE);
    tarvik_event e{};
    ASSERT_EQ(tarvik_next_event(c, &e), 0);
    EXPECT_EQ(e.type, TARVIK_EVENT_CAMERA_GONE);
    Cam().ClearLog();
    int32_t roi[4];
    EXPECT_EQ(tarvik_read_roi(c, roi), TARVIK_LIBUSB_ERROR_NO_DEVICE);
    EXPECT_TRUE(Cam().TakeLog().empty());
    Cam().Replug();
    ASSERT_EQ(tarvik_wait_event(c, &e, kPatienceMs), 0);
    EXPECT_EQ(e.type, TARVIK_EVENT_CAMERA_BACK);
    EXPECT_EQ(tarvik_read_roi(c, roi), 0);
    tarvik_close(c);
}

INSTANTIATE_TEST_SUITE_P(Table, LeavingMidCall, testing::ValuesIn(kLeavings),
                         [](const testing::TestParamInfo<Leaving>& row) {
                             return std::string(row.param.name);
                         });

// A consumer that stops reading: the queue keeps an overflow event and the
// numbers go on, so the loss shows; nothing is lost silently.
TEST_P(Events, LostEventsLeaveAGap) {
    constexpr int kCycles = 100;  // 200 changes, three times the queue
    for (int i = 0; i < kCycles; ++i) {
        Cam().PlaceCard();
        capi::poll_card(*m_c);
        Cam().RemoveCard();
        capi::poll_card(*m_c);
        capi::poll_card(*m_c);
    }
    std::vector<tarvik_event> got;
    for (tarvik_event e{}; tarvik_next_event(m_c, &e) == 0;) got.push_back(e);
    ASSERT_EQ(got.size(), 64u);
    EXPECT_EQ(got.back().type, TARVIK_EVENT_OVERFLOW);
    EXPECT_EQ(got.back().sequence, 64u);
    Cam().PlaceCard();
    capi::poll_card(*m_c);
    tarvik_event e{};
    ASSERT_EQ(tarvik_next_event(m_c, &e), 0);
    EXPECT_EQ(e.type, TARVIK_EVENT_CARD_PLACED);
    EXPECT_EQ(e.sequence, 2u * kCycles + 1);  // every change counted
}

// An application's own loop on the descriptor sees the card; with the polls
// stopped nothing is told and a wait runs out; started again, a card lying
// there is told anew.
TEST_P(Events, AnOwnLoopAndPollsThatStop) {
    const int fd = tarvik_get_fd(m_c);  // starts the polls
    ASSERT_GE(fd, 0);
    pollfd p{fd, POLLIN, 0};
    tarvik_event e{};
    while (tarvik_next_event(m_c, &e) != 0) {
        ASSERT_GT(::poll(&p, 1, kPatienceMs), 0);
        ASSERT_EQ(tarvik_dispatch(m_c), 0);
    }
    EXPECT_EQ(e.type, TARVIK_EVENT_CARD_PLACED);
    ASSERT_EQ(tarvik_set_poll_interval(m_c, 0), 0);
    Cam().RemoveCard();
    EXPECT_EQ(tarvik_wait_event(m_c, &e, 300), TARVIK_E_NO_EVENT);
    Cam().PlaceCard();
    ASSERT_EQ(tarvik_set_poll_interval(m_c, 50), 0);
    ASSERT_EQ(tarvik_wait_event(m_c, &e, kPatienceMs), 0);
    EXPECT_EQ(e.type, TARVIK_EVENT_CARD_PLACED);
    EXPECT_EQ(tarvik_set_poll_interval(m_c, 49), TARVIK_E_INVALID_ARGUMENT);
}

// Another thread's cancel wakes the waiter every time, with its own code.
TEST_P(Events, CancelWakesAWaiter) {
    Cam().RemoveCard();
    for (int i = 0; i < 50; ++i) {
        std::thread waiter([&] {
            tarvik_event e{};
            EXPECT_EQ(tarvik_wait_event(m_c, &e, -1), TARVIK_E_CANCELLED);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        EXPECT_EQ(tarvik_cancel(m_c), 0);
        waiter.join();
    }
}

// Unplug and replug, again and again: descriptors stay as they were, and the
// heap grows by no more than the simulated machine's own growth (its sysfs
// and nodes) with a little room; LeakSanitizer checks the exact heap in the
// ASan build.
TEST_P(Events, ManyReplugsLeaveNothingBehind) {
    const int cycles = kSanitized ? 20 : 200;
    sim::Camera& unwatched = m_bed.AddCamera(2, 2);  // the machine's own growth, alone
    auto growth = [&](sim::Camera& cam, bool watched) {
        const size_t heap = mallinfo2().uordblks;
        for (int i = 0; i < cycles; ++i) {
            cam.Unplug();
            EXPECT_TRUE(!watched || Next() == TARVIK_EVENT_CAMERA_GONE);
            cam.Replug();
            EXPECT_TRUE(!watched || Next() == TARVIK_EVENT_CAMERA_BACK);
            tarvik_dispatch(m_c);  // its uevents go by too (the emulation's queue is short)
        }
        return mallinfo2().uordblks - heap;
    };
    // What is open, by kind: numbers and node names change with every replug.
    auto kinds = [] {
        std::vector<std::string> out;
        for (std::string d : OpenDescriptors()) {
            d = d.substr(d.find(' ') + 1);
            out.push_back(d.substr(0, d.find_first_of("0123456789[")));
        }
        std::sort(out.begin(), out.end());
        return out;
    };
    Cam().RemoveCard();
    for (int i = 0; i < 2; ++i) {  // the first ones make what is kept for later
        Cam().Unplug();
        EXPECT_EQ(Next(), TARVIK_EVENT_CAMERA_GONE);
        Cam().Replug();
        EXPECT_EQ(Next(), TARVIK_EVENT_CAMERA_BACK);
        unwatched.Unplug();
        unwatched.Replug();
        tarvik_dispatch(m_c);
    }
    const std::vector<std::string> descriptors = kinds();
    const size_t machineAlone = growth(unwatched, false);
    const size_t withCamera = growth(Cam(), true);
    EXPECT_EQ(kinds(), descriptors);
    EXPECT_TRUE(kSanitized || withCamera < machineAlone + 1024u * cycles)
        << withCamera << " bytes with the camera, " << machineAlone << " without";
}

INSTANTIATE_TEST_SUITE_P(Table, Events, BothTransports(), TransportName);

}  // namespace
}  // namespace tarvik::test
