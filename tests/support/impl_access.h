// Test access to TarvikImpl's private state, through the internal build only.
#pragma once

#include <cstddef>
#include <vector>

#include "TarvikImpl.h"

namespace tarvik {

struct ImplAccess {
    static unsigned short& LastId(TarvikImpl& t) { return t.m_nLastId; }
    static bool MarkerSet(const TarvikImpl& t) { return t.m_bMarkerSet; }
    static libusb_device_handle* Handle(const TarvikImpl& t) { return t.m_pDevHandle; }
    static libusb_context* Context(const TarvikImpl& t) { return t.m_pContext; }
    static bool KernelDetached(const TarvikImpl& t) { return t.m_bKernelDetached; }
    static bool InnerOpened(const TarvikImpl& t) { return t.m_bInnerOpened; }
    static unsigned short ProductType(const TarvikImpl& t) { return t.m_nProductType; }
    static const std::vector<pm_usb_device_desc>& ValidDevices(const TarvikImpl& t) {
        return t.m_vecValidDevices;
    }
    // Offsets of the data members in their declared order, measured on an
    // object that never touches a device.
    static std::vector<std::ptrdiff_t> MemberOffsets() {
        alignas(TarvikImpl) static unsigned char storage[sizeof(TarvikImpl)];
        const TarvikImpl& t = *reinterpret_cast<const TarvikImpl*>(storage);
        const auto* base = reinterpret_cast<const char*>(&t);
        auto at = [base](const void* member) { return static_cast<const char*>(member) - base; };
        return {at(&t.m_pContext), at(&t.m_pDevHandle),      at(&t.m_bKernelDetached),
                at(&t.m_mutex),    at(&t.m_bInnerOpened),    at(&t.m_bMarkerSet),
                at(&t.m_nLastId),  at(&t.m_vecValidDevices), at(&t.m_nProductType)};
    }
};

}  // namespace tarvik
