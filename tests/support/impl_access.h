// Test access to TarvikImpl's private state, through the internal build only.
#pragma once

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
};

}  // namespace tarvik
