// The extension items and their wire-level records: what a transaction frame
// on selector 14 is about. Part of TarvikImpl.h's interface; needs no libusb.
#ifndef TARVIK_ITEMS_H
#define TARVIK_ITEMS_H

#include "tarvik_export.h"

// Extension items: what a transaction frame on selector 14 is about.
enum UVC_EXT_ITEM_E {
    EXT_ITEM_ET = 1,
    EXT_ITEM_MJPEG_QP = 2,
    EXT_ITEM_BEEP = 3,
    EXT_ITEM_STATUS_LED = 4,
    EXT_ITEM_VERSION = 5,
    EXT_ITEM_ROI = 6,
    EXT_ITEM_ROI_STATUS = 7,
    EXT_ITEM_DEVICE_SN = 8,
    EXT_ITEM_DEVICE_ID = 9,
    EXT_ITEM_DATA_BLOCK = 10,
    EXT_ITEM_UVC_MODE = 11,
    EXT_ITEM_SAM = 12,
    EXT_ITEM_STREAM_STATE = 13,
    EXT_ITEM_LAST_ID = 14,
    EXT_ITEM_LED = 15,
    EXT_ITEM_GYRO = 16,
    EXT_ITEM_GPIO = 17,
    EXT_ITEM_VCM = 18,
};
typedef UVC_EXT_ITEM_E extItem_E;

// SAM command codes on the wire.
enum uvc_extItem_SAM_E {
    EXT_SAM_CMD_0 = 0,
    EXT_SAM_CMD_1 = 1,
    EXT_SAM_CMD_READ_NUMBER = 2,
    EXT_SAM_CMD_READ_CARD = 3,
    EXT_SAM_CMD_READ_CARD_THIRD = 4,
    EXT_SAM_CMD_6 = 6,
    EXT_SAM_CMD_7 = 7,
};

// Record of EXT_ITEM_DATA_BLOCK, for reads (answer lands in `data`) and writes.
struct uvc_extDataBlock {
    unsigned char target;   // addressing byte, forwarded unchanged
    unsigned char length;   // data bytes wanted or sent; above 48 counts as 48
    unsigned short offset;  // addressing value, forwarded unchanged
    unsigned char data[48];
};

// Maps the SAM's three status bytes to its response code (0 and 1: success).
TARVIK_API int GetSAMResponseCode(unsigned char sw1, unsigned char sw2, unsigned char sw3);

#endif
