// No trace of a card in freed memory or in the log: this program takes over
// malloc and free, and every block freed while a card is read is searched for
// the card's name and number, whichever encoding they are in. Blocks of the emulation's own
// transport (umockdev and its GLib, and the simulated camera, served on
// umockdev's thread) are not the library's: a real camera has none of them.
#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "device_fixture.h"

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* p);
}

namespace {

constexpr std::uint32_t kMagic = 0x7A12C0DE;

// In front of every block: where it came from.
struct alignas(16) Header {
    std::uint32_t magic;
    std::uint32_t offset;  // from the start of the real block
    size_t size;
    void* caller;
    pthread_t thread;
};

std::atomic<bool> g_watching{false};
pthread_t g_reader;
std::atomic<int> g_found{0};
char g_where[256];

// The name 张三 and the number 000000199001010000 in UTF-8, UCS-2 and UTF-32.
const std::string kTraces[] = {
    "\xE5\xBC\xA0\xE4\xB8\x89",
    std::string("\x20\x5F\x09\x4E", 4),
    std::string("\x20\x5F\x00\x00\x09\x4E\x00\x00", 8),
    "000000199001010000",
    std::string("0\0"
                "0\0"
                "0\0"
                "0\0"
                "0\0"
                "0\0"
                "1\0"
                "9\0"
                "9\0",
                18),
    std::string("0\0\0\0"
                "0\0\0\0"
                "0\0\0\0"
                "1\0\0\0"
                "9\0\0\0"
                "9\0\0\0",
                24),
};

bool emulation(void* caller) {
    Dl_info info{};
    if (dladdr(caller, &info) == 0 || info.dli_fname == nullptr) return false;
    return std::strstr(info.dli_fname, "umockdev") != nullptr ||
           std::strstr(info.dli_fname, "libglib") != nullptr ||
           std::strstr(info.dli_fname, "libgio") != nullptr;
}

void* place(void* base, size_t offset, size_t size, void* caller) {
    if (base == nullptr) return nullptr;
    auto* p = static_cast<char*>(base) + offset;
    auto* h = reinterpret_cast<Header*>(p) - 1;
    *h = Header{kMagic, static_cast<std::uint32_t>(offset), size, caller, pthread_self()};
    return p;
}

void search(const Header& h, const char* p) {
    if (!g_watching || !pthread_equal(h.thread, g_reader)) return;
    for (const std::string& trace : kTraces) {
        if (memmem(p, h.size, trace.data(), trace.size()) != nullptr && !emulation(h.caller)) {
            Dl_info info{};
            dladdr(h.caller, &info);
            std::snprintf(g_where, sizeof g_where, "a block of %zu bytes from %s", h.size,
                          info.dli_fname != nullptr ? info.dli_fname : "?");
            ++g_found;
            return;
        }
    }
}

}  // namespace

extern "C" {
void* malloc(size_t size) {
    return place(__libc_malloc(size + sizeof(Header)), sizeof(Header), size,
                 __builtin_return_address(0));
}
void* calloc(size_t n, size_t size) {
    void* p = place(__libc_malloc(n * size + sizeof(Header)), sizeof(Header), n * size,
                    __builtin_return_address(0));
    if (p != nullptr) std::memset(p, 0, n * size);
    return p;
}
void* memalign(size_t alignment, size_t size) {
    const size_t offset = std::max(alignment, sizeof(Header));
    return place(__libc_memalign(alignment, size + offset), offset, size,
                 __builtin_return_address(0));
}
int posix_memalign(void** out, size_t alignment, size_t size) {
    *out = memalign(alignment, size);
    return *out != nullptr ? 0 : ENOMEM;
}
void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
size_t malloc_usable_size(void* p) {
    return p != nullptr ? (static_cast<Header*>(p) - 1)->size : 0;
}
void free(void* p) {
    if (p == nullptr) return;
    const Header h = *(static_cast<Header*>(p) - 1);
    if (h.magic != kMagic) return __libc_free(p);  // not one of ours
    search(h, static_cast<const char*>(p));
    __libc_free(static_cast<char*>(p) - h.offset);
}
void* realloc(void* p, size_t size) {
    void* q = malloc(size);
    if (p != nullptr && q != nullptr) {
        std::memcpy(q, p, std::min(size, (static_cast<Header*>(p) - 1)->size));
    }
    if (q != nullptr || size == 0) free(p);
    return q;
}
}

namespace tarvik::test {
namespace {

class CardMemory : public DeviceTest, public testing::WithParamInterface<Transport> {};

TEST_P(CardMemory, FreedBlocksHoldNoCardData) {
    TarvikPtr t = Open(GetParam());
    for (unsigned char cmd : {3, 4}) {
        auto out = std::make_unique<_SAM_OUT_PARAM>();
        _SAM_IN_PARAM in{cmd};
        StdoutCapture quiet;
        g_reader = pthread_self();
        g_watching = true;
        EXPECT_EQ(t->ReadByExtItem(EXT_ITEM_SAM, &in, out.get()), 0);
        g_watching = false;
        const std::string log = quiet.Take();
        EXPECT_STREQ(out->name, L"张三");
        for (const std::string& trace : kTraces) {
            EXPECT_EQ(log.find(trace), std::string::npos) << "card data in the log: " << log;
        }
        EXPECT_EQ(g_found.load(), 0)
            << "card data in " << g_where << " (command " << int(cmd) << ")";
    }
}

INSTANTIATE_TEST_SUITE_P(Transports, CardMemory, BothTransports(), TransportName);

}  // namespace
}  // namespace tarvik::test
