// Record layouts and the implementation object's member order are part of the
// ABI that applications were built against.
#include <gtest/gtest.h>

#include <cstddef>

#include "TarvikImpl.h"
#include "test_support.h"

static_assert(sizeof(HRESULT) == 4);
static_assert(sizeof(_VERSION_PARAM) == 56);
static_assert(sizeof(_MJPEG_QP_PARAM) == 16);
static_assert(sizeof(_ROI_PARAM) == 16);
static_assert(sizeof(_DEVICE_ID_PARAM) == 20);
static_assert(sizeof(_DEVICE_SN_PARAM) == 20);
static_assert(sizeof(_VCM_MODE_E) == 4);
static_assert(sizeof(_GPIO_PARAM) == 8);
static_assert(sizeof(_VCM_PARAM) == 8 && offsetof(_VCM_PARAM, value) == 2 &&
              offsetof(_VCM_PARAM, mode) == 4);
static_assert(sizeof(_ET_PARAM) == 24 && offsetof(_ET_PARAM, extra) == 12 &&
              offsetof(_ET_PARAM, flags) == 14);
static_assert(sizeof(_DUAL_ET_PARAM) == 48 && offsetof(_DUAL_ET_PARAM, right) == 24);
static_assert(sizeof(_MAE_PARAM) == 8 && sizeof(_DUAL_ET_RANGE) == 16 &&
              sizeof(_DUAL_ET_MODE) == 8);
static_assert(sizeof(_GYRO_PARAM) == 8);
static_assert(sizeof(_SAM_IN_PARAM) == 1);
static_assert(sizeof(wchar_t) == 4);
static_assert(offsetof(_SAM_OUT_PARAM, name) == 4 && offsetof(_SAM_OUT_PARAM, number) == 4);
static_assert(offsetof(_SAM_OUT_PARAM, sex) == 4 + 30 * 4);
static_assert(offsetof(_SAM_OUT_PARAM, reserved) ==
              4 + (30 + 16 + 16 + 16 + 70 + 36 + 30 + 16 + 16) * 4);
static_assert(offsetof(_SAM_OUT_PARAM, photo) == 4 + 282 * 4);
static_assert(offsetof(_SAM_OUT_PARAM, fingerprint) == 4 + 282 * 4 + 1024);
static_assert(sizeof(_SAM_OUT_PARAM) == 4 + 282 * 4 + 2048);
static_assert(sizeof(_LED_CONTROL_PARAM) == 32);
static_assert(sizeof(uvc_extDataBlock) == 52 && offsetof(uvc_extDataBlock, data) == 4);
static_assert(sizeof(pm_usb_device_desc) == 4);
static_assert(sizeof(wNewMutex) == sizeof(pthread_mutex_t) + sizeof(pthread_t) + 8);

namespace tarvik::test {
namespace {

// TarvikImpl's data members follow the vtable pointer in their fixed order.
TEST(Layout, ImplementationMembersInTheirOrder) {
    alignas(TarvikImpl) static unsigned char storage[sizeof(TarvikImpl)];
    auto& t = *reinterpret_cast<TarvikImpl*>(storage);  // never constructed, only measured
    const auto* base = reinterpret_cast<const char*>(&t);
    auto at = [base](const void* member) { return static_cast<const char*>(member) - base; };
    const std::ptrdiff_t offsets[] = {
        at(&Private<ContextTag>(t)),  at(&Private<HandleTag>(t)),     at(&Private<DetachedTag>(t)),
        at(&Private<MutexTag>(t)),    at(&Private<InnerOpenedTag>(t)), at(&Private<MarkerTag>(t)),
        at(&Private<LastIdTag>(t)),   at(&Private<DevicesTag>(t)),    at(&Private<ProductTypeTag>(t)),
    };
    EXPECT_EQ(offsets[0], static_cast<std::ptrdiff_t>(sizeof(void*)));
    for (size_t i = 1; i < std::size(offsets); ++i) EXPECT_GT(offsets[i], offsets[i - 1]) << i;
}

}  // namespace
}  // namespace tarvik::test
