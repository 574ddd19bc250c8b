// Many threads on one object and one object per camera at the same time:
// mixed reads, writes, data-block reads and SAM card reads. Every answer must
// be the thread's own (every item of every camera has content of its own), the
// marker goes out once per object, and the transaction counter counts every
// data-block transaction. Meant to run under ThreadSanitizer too.
//
// TARVIK_STRESS_ITERATIONS sets the calls per thread (default below).
#include <atomic>
#include <cstdlib>
#include <cwchar>
#include <mutex>
#include <thread>

#include "reliability_fixture.h"

namespace tarvik::reliability {
namespace {

constexpr int kSharedThreads = 8;
constexpr int kOwnObjects = 4;
constexpr int kDefaultIterations = 1000;

int Iterations() {
    const char* v = std::getenv("TARVIK_STRESS_ITERATIONS");
    return v != nullptr && std::atoi(v) > 0 ? std::atoi(v) : kDefaultIterations;
}

// One call of the mix and its check; returns an empty string when it held.
using Step = std::function<std::string(TarvikImpl&, int thread)>;

std::string Mismatch(const std::string& what, const Bytes& got, const Bytes& want) {
    return got == want ? "" : what + ": another answer than the camera's own";
}

// The mix for a camera prepared with `salt` and holding `state`. Writes send
// what the camera holds already, so every read stays checkable.
std::vector<Step> Mix(int salt, const sim::CameraState& state) {
    std::vector<Step> steps;
    for (const Operation& op : Operations(salt)) {
        if (op.kind != Kind::kRead) continue;
        const Bytes want = op.expected(state);
        // The camera's last id follows the data-block reads of every thread.
        const bool changing = op.name == "ReadLastId";
        steps.push_back([op, want, changing](TarvikImpl& t, int) {
            Bytes record;
            const HRESULT r = op.run(t, record);
            if (r != 0) return op.name + " failed: " + std::to_string(r);
            return changing ? std::string() : Mismatch(op.name, record, want);
        });
    }
    steps.push_back([state](TarvikImpl& t, int) {
        _ROI_PARAM roi;
        std::memcpy(&roi, state.roi.data(), sizeof roi);
        const HRESULT r = t.zq_WriteROI(roi);
        return r == 0 ? "" : "WriteROI failed: " + std::to_string(r);
    });
    steps.push_back([state](TarvikImpl& t, int) {
        _DEVICE_SN_PARAM sn;
        std::memcpy(sn.sn, state.deviceSn.data(), sizeof sn.sn);
        const HRESULT r = t.zq_WriteDeviceSn(sn);
        return r == 0 ? "" : "WriteDeviceSn failed: " + std::to_string(r);
    });
    steps.push_back([](TarvikImpl& t, int thread) {
        const HRESULT r = t.zq_WriteGpio(_GPIO_PARAM{{thread, 1}});
        return r == 0 ? "" : "WriteGpio failed: " + std::to_string(r);
    });
    // A data block addressed by the thread: its bytes differ from thread to thread.
    steps.push_back([](TarvikImpl& t, int thread) {
        uvc_extDataBlock block{};
        block.target = static_cast<unsigned char>(thread);
        block.length = 16;
        block.offset = static_cast<unsigned short>(thread * 100);
        const HRESULT r = t.ReadByExtItem(EXT_ITEM_DATA_BLOCK, &block, nullptr);
        if (r != 0) return "data block failed: " + std::to_string(r);
        Bytes want(16);
        for (unsigned i = 0; i < 16; ++i)
            want[i] = sim::DefaultDataByte(block.target, block.offset + i);
        return Mismatch("data block", Bytes(block.data, block.data + 16), want);
    });
    // Identity cards: the text fields go through the process-wide code tables.
    steps.push_back([salt, state](TarvikImpl& t, int) -> std::string {
        auto out = std::make_unique<_SAM_OUT_PARAM>();
        _SAM_IN_PARAM in{3};
        const HRESULT r = t.ReadByExtItem(EXT_ITEM_SAM, &in, out.get());
        if (r != 0 || out->result != 0) return "card read failed: " + std::to_string(r);
        const std::wstring name = std::wstring(L"测试") + static_cast<wchar_t>(L'A' + salt);
        if (name != out->name || std::wstring(L"男") != out->sex ||
            std::wstring(L"汉") != out->nation) {
            return "card read: another card's text";
        }
        return Mismatch("card photo", Bytes(out->photo, out->photo + 1024), state.sam.card.photo);
    });
    steps.push_back([state](TarvikImpl& t, int) -> std::string {
        auto out = std::make_unique<_SAM_OUT_PARAM>();
        _SAM_IN_PARAM in{2};
        const HRESULT r = t.ReadByExtItem(EXT_ITEM_SAM, &in, out.get());
        if (r != 0 || out->result != 0) return "number read failed: " + std::to_string(r);
        return Mismatch("number", Bytes(out->number, out->number + 16), state.sam.number);
    });
    return steps;
}

// Collects failures from the threads; GoogleTest reports them afterwards,
// when standard output is back.
class Failures {
public:
    void Add(std::string what) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_list.size() < 20) m_list.push_back(std::move(what));
        ++m_count;
    }
    int Count() const { return m_count; }
    const std::vector<std::string>& List() const { return m_list; }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_list;
    int m_count = 0;
};

class Stress : public ReliabilityTest {};

TEST_F(Stress, SharedObjectAndOwnObjectsAtOnce) {
    const int iterations = Iterations();
    // Camera 0 is shared by kSharedThreads threads; cameras 1-4 have one object each.
    std::vector<sim::Camera*> cams;
    std::vector<TarvikPtr> objects;
    std::vector<std::vector<Step>> mixes;
    // Every camera is on the bus before the first object starts libusb's threads.
    for (int salt = 0; salt <= kOwnObjects; ++salt) cams.push_back(&NewCamera(salt));
    for (int salt = 0; salt <= kOwnObjects; ++salt) {
        objects.push_back(Open(*cams[salt]));
        ASSERT_NE(objects.back(), nullptr);
        mixes.push_back(Mix(salt, cams[salt]->Model().State()));
    }

    Failures failures;
    std::atomic<int> ready{0};
    std::atomic<int> dataBlocks[kOwnObjects + 1] = {};
    auto worker = [&](int object, int thread) {
        const std::vector<Step>& mix = mixes[object];
        // Every thread starts its first transaction at once: the marker race.
        ++ready;
        while (ready.load() < kSharedThreads + kOwnObjects) std::this_thread::yield();
        for (int k = 0; k < iterations; ++k) {
            const size_t which = static_cast<size_t>(thread * 5 + k) % mix.size();
            if (which == mix.size() - 3) ++dataBlocks[object];
            const std::string failure = mix[which](*objects[object], thread);
            if (!failure.empty())
                failures.Add("object " + std::to_string(object) + ", thread " +
                             std::to_string(thread) + ": " + failure);
        }
    };

    const auto start = std::chrono::steady_clock::now();
    {
        QuietStdout quiet;
        std::vector<std::thread> threads;
        for (int i = 0; i < kSharedThreads; ++i) threads.emplace_back(worker, 0, i);
        for (int o = 1; o <= kOwnObjects; ++o) threads.emplace_back(worker, o, kSharedThreads + o);
        for (std::thread& th : threads) th.join();
    }
    std::printf("stress: %d calls in %lld ms\n", (kSharedThreads + kOwnObjects) * iterations,
                static_cast<long long>(Since(start).count()));

    EXPECT_EQ(failures.Count(), 0);
    for (const std::string& f : failures.List()) ADD_FAILURE() << f;
    for (int o = 0; o <= kOwnObjects; ++o) {
        SCOPED_TRACE("object " + std::to_string(o));
        EXPECT_EQ(cams[o]->Model().State().markerWrites, 1u) << "the marker goes out once";
        // Two advances per data-block read, none lost to a race.
        EXPECT_EQ(ImplAccess::LastId(*objects[o]), (2 * dataBlocks[o].load()) & 0xFFFF);
    }
}

}  // namespace
}  // namespace tarvik::reliability
