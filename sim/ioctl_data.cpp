#include "ioctl_data.h"

#include <umockdev.h>

namespace tarvik::sim {

DataRef::~DataRef() {
    if (m_data != nullptr) g_object_unref(m_data);
}

DataRef& DataRef::operator=(DataRef&& other) noexcept {
    if (this != &other) {
        if (m_data != nullptr) g_object_unref(m_data);
        m_data = other.release();
    }
    return *this;
}

unsigned char* DataRef::bytes() const { return m_data->data; }
unsigned long DataRef::clientAddress() const { return m_data->client_addr; }

UMockdevIoctlData* DataRef::release() {
    UMockdevIoctlData* d = m_data;
    m_data = nullptr;
    return d;
}

DataRef Resolve(UMockdevIoctlData* parent, size_t offset, size_t len) {
    if (parent == nullptr || len == 0) return DataRef();
    GError* error = nullptr;
    DataRef out(umockdev_ioctl_data_resolve(parent, offset, len, &error));
    if (error != nullptr) {
        g_clear_error(&error);
        return DataRef();
    }
    if (out && static_cast<size_t>(out.get()->data_len) < len) return DataRef();
    return out;
}

DataRef ResolveArgument(UMockdevIoctlClient* client, size_t len) {
    return Resolve(umockdev_ioctl_client_get_arg(client), 0, len);
}

void Complete(UMockdevIoctlClient* client, int error, long result) {
    umockdev_ioctl_client_complete(client, error != 0 ? -1 : result, error);
}

std::mutex& PublicationLock() {
    static std::mutex lock;  // constant-initialised: no thread can see it half-made
    return lock;
}

}  // namespace tarvik::sim
