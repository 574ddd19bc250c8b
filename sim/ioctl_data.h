// Helpers shared by the ioctl handlers: owned references to umockdev's copies of a client's
// memory, and the resolution of the client's pointers, which may be anything a program sends.
// Internal to the fixture.
#pragma once

#include <cstddef>
#include <mutex>

typedef struct _UMockdevIoctlClient UMockdevIoctlClient;
typedef struct _UMockdevIoctlData UMockdevIoctlData;

namespace tarvik::sim {

// Owns one reference to umockdev ioctl data (or none).
class DataRef {
public:
    DataRef() = default;
    explicit DataRef(UMockdevIoctlData* data) : m_data(data) {}
    ~DataRef();
    DataRef(DataRef&& other) noexcept : m_data(other.release()) {}
    DataRef& operator=(DataRef&& other) noexcept;
    DataRef(const DataRef&) = delete;
    DataRef& operator=(const DataRef&) = delete;

    explicit operator bool() const { return m_data != nullptr; }
    UMockdevIoctlData* get() const { return m_data; }
    unsigned char* bytes() const;
    unsigned long clientAddress() const;
    UMockdevIoctlData* release();

private:
    UMockdevIoctlData* m_data = nullptr;
};

// The `len` bytes that the pointer at `offset` of `parent` points to, copied from the client.
// Empty for a null pointer, a zero length or a failure: the caller answers EFAULT.
DataRef Resolve(UMockdevIoctlData* parent, size_t offset, size_t len);
// The block the ioctl's argument points to.
DataRef ResolveArgument(UMockdevIoctlClient* client, size_t len);

// Completes the client's ioctl with the result, or with -1 and `error` when it is not 0.
void Complete(UMockdevIoctlClient* client, int error, long result = 0);

// Handlers run on umockdev's worker thread, which learns of a node through GLib's own
// (uninstrumented) synchronisation. Passing through a lock that exists before any node makes
// the hand-over visible to the thread sanitizer too: take it once when a node is made and
// once in each handler call.
std::mutex& PublicationLock();

}  // namespace tarvik::sim
