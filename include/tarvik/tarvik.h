/* tarvik.h: the C interface of libTarvik, for C and for every language that
 * calls C (C#, Go, Java, Python, ...). C99; needs no libusb header.
 *
 *     tarvik_camera* cam;
 *     if (tarvik_open(NULL, &cam) == 0) {
 *         tarvik_card card;
 *         int r = tarvik_read_card(cam, &card, 0);
 *         if (r == 0) printf("%s\n", card.name);
 *         else fprintf(stderr, "%s\n", tarvik_strerror(r));
 *         tarvik_card_clear(&card);
 *         tarvik_close(cam);
 *     }
 *
 * Every function returns an int that means one thing: 0 success, libusb's
 * negative codes (TARVIK_LIBUSB_ERROR_*, the same numbers as libusb's own), or
 * one of the TARVIK_E_ codes below. tarvik_result_name and tarvik_strerror
 * name and word each; a code they do not know is "UNKNOWN". A camera may be used from several
 * threads at once; each call is whole. Text is UTF-8. Log lines: see "the
 * log" below. */
#ifndef TARVIK_H
#define TARVIK_H

#include <stddef.h>
#include <stdint.h>

#include "tarvik_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* libusb's codes, as a transfer or an open gives them; the names are those
 * tarvik_result_name gives without the TARVIK_ prefix. */
#define TARVIK_LIBUSB_ERROR_IO (-1) /* on the USB path also: another program holds the camera */
#define TARVIK_LIBUSB_ERROR_INVALID_PARAM (-2)
#define TARVIK_LIBUSB_ERROR_ACCESS (-3)    /* no permission for the camera's node */
#define TARVIK_LIBUSB_ERROR_NO_DEVICE (-4) /* the camera is gone */
#define TARVIK_LIBUSB_ERROR_NOT_FOUND (-5)
#define TARVIK_LIBUSB_ERROR_BUSY (-6)    /* another program holds the camera */
#define TARVIK_LIBUSB_ERROR_TIMEOUT (-7) /* the camera did not answer within 5 s */
#define TARVIK_LIBUSB_ERROR_OVERFLOW (-8)
#define TARVIK_LIBUSB_ERROR_PIPE (-9) /* the camera refused the request */
#define TARVIK_LIBUSB_ERROR_INTERRUPTED (-10)
#define TARVIK_LIBUSB_ERROR_NO_MEM (-11)
#define TARVIK_LIBUSB_ERROR_NOT_SUPPORTED (-12) /* the video driver refused the query */
#define TARVIK_LIBUSB_ERROR_OTHER (-99)

/* The library's own conditions, apart from libusb's codes. */
#define TARVIK_E_INVALID_ARGUMENT (-1001) /* a null pointer, a bad size or no such command */
#define TARVIK_E_NOT_OPEN (-1002)         /* the camera is not open */
#define TARVIK_E_SHORT_TRANSFER (-1003)   /* the camera moved fewer bytes than asked */
#define TARVIK_E_NOT_HANDLED (-1004)      /* the item is not read (or written) that way */
#define TARVIK_E_INVALID_SAMPLE (-1005)   /* the gyroscope answered an all-zero sample */
#define TARVIK_E_NOT_PROVIDED (-1006)     /* not provided by this camera's library */
#define TARVIK_E_NOT_MANUAL (-1007)       /* an eye is not in manual exposure mode */
#define TARVIK_E_OUT_OF_RANGE (-1008)     /* an exposure time is outside its eye's range */
#define TARVIK_E_MODES_DIFFER (-1009)     /* the two eyes' exposure modes differ */
#define TARVIK_E_NO_CAMERA (-1010)        /* no camera found, or it could not be opened */
#define TARVIK_E_UNKNOWN_PRODUCT (-1011)  /* the product type is unknown */
#define TARVIK_E_SAM (-1012)              /* the SAM refused or failed; its code is in the record */
#define TARVIK_E_NO_MEMORY (-1013)        /* out of memory */
#define TARVIK_E_UNKNOWN (-1014)          /* a condition this interface does not know */
#define TARVIK_E_NO_EVENT (-1015)         /* no event (within the time given) */
#define TARVIK_E_CANCELLED (-1016)        /* the wait was cancelled (tarvik_cancel) */

typedef struct tarvik_camera tarvik_camera;

typedef enum {
    TARVIK_TRANSPORT_AUTO = 0, /* the kernel's video driver when it holds the camera, else libusb */
    TARVIK_TRANSPORT_USB = 1,  /* libusb: the video driver is detached while the camera is open */
    TARVIK_TRANSPORT_KERNEL = 2 /* the video driver's capture node: video keeps streaming */
} tarvik_transport;

typedef struct {
    int bus;
    int address;
    char serial[64];     /* the USB serial number, "" when the camera shows none */
    char video_node[32]; /* its capture node ("/dev/video0"), "" when none */
} tarvik_camera_info;

/* Fills at most `capacity` records (cameras may be null when capacity is 0)
 * and returns how many cameras there are, or a negative result. */
TARVIK_API int tarvik_list(tarvik_camera_info* cameras, size_t capacity);

typedef struct {
    int bus; /* with address: this camera; -1 in either: any */
    int address;
    const char* video_node;     /* or: the camera of this capture node (kernel path) */
    const char* serial;         /* or: the camera with this USB serial number */
    tarvik_transport transport; /* for bus/address and serial */
    unsigned flags;             /* TARVIK_OPEN_* */
} tarvik_open_options;

/* After the camera comes back from an unplug, write again the last value this
 * object wrote of each setting a power cycle resets (ROI, MJPEG quantisation,
 * lens motor, GPIO, exposure; never the device id or serial), in the order
 * first written. */
#define TARVIK_OPEN_REAPPLY 1u

/* Options for the first camera, on the path that fits (auto). */
TARVIK_API tarvik_open_options tarvik_default_options(void);

/* Opens a camera (options null: the default options) into *camera.
 * LIBUSB_ERROR_BUSY when another program holds it (USB path). The camera is
 * known by its USB serial from then on (by its USB port when it shows none):
 * when it leaves the bus every call answers TARVIK_LIBUSB_ERROR_NO_DEVICE at
 * once, and when it comes back (dispatch sees it arrive) the object opens it
 * again on the same path; see "waiting" below. */
TARVIK_API int tarvik_open(const tarvik_open_options* options, tarvik_camera** camera);
/* Closes it and frees the object; null is ignored. No other thread may be
 * using it. */
TARVIK_API void tarvik_close(tarvik_camera* camera);

/* Where an open camera is (serial and node as far as known) and the path its
 * requests take. */
TARVIK_API int tarvik_describe(tarvik_camera* camera, tarvik_camera_info* info,
                               tarvik_transport* transport);

/* --- operations --- */
TARVIK_API int tarvik_read_product_type(tarvik_camera* camera, int* type);
TARVIK_API int tarvik_read_version(tarvik_camera* camera, uint8_t version[56]);
TARVIK_API int tarvik_read_mjpeg_qp(tarvik_camera* camera, int32_t qp[4]);
TARVIK_API int tarvik_write_mjpeg_qp(tarvik_camera* camera, const int32_t qp[4]);
TARVIK_API int tarvik_read_roi(tarvik_camera* camera, int32_t roi[4]);
TARVIK_API int tarvik_write_roi(tarvik_camera* camera, const int32_t roi[4]);
TARVIK_API int tarvik_read_roi_status(tarvik_camera* camera, uint32_t* status);
TARVIK_API int tarvik_read_device_id(tarvik_camera* camera, uint8_t id[20]);
TARVIK_API int tarvik_write_device_id(tarvik_camera* camera, const uint8_t id[20]);
TARVIK_API int tarvik_read_device_sn(tarvik_camera* camera, uint8_t sn[20]);
TARVIK_API int tarvik_write_device_sn(tarvik_camera* camera, const uint8_t sn[20]);
TARVIK_API int tarvik_write_gpio(tarvik_camera* camera, int32_t gpio0, int32_t gpio1);
/* The lens motor: `mode` chooses the value (its low byte is sent). */
TARVIK_API int tarvik_read_vcm(tarvik_camera* camera, int mode, uint16_t* value);
TARVIK_API int tarvik_write_vcm(tarvik_camera* camera, int mode, uint16_t value, uint8_t ctrl0,
                                uint8_t ctrl1);
TARVIK_API int tarvik_read_autofocus_state(tarvik_camera* camera, uint8_t* state);
/* 1 while the camera streams, else 0. */
TARVIK_API int tarvik_read_stream_state(tarvik_camera* camera, uint32_t* streaming);
/* Tilt in whole degrees, each between -90 and 90. */
TARVIK_API int tarvik_read_gyro(tarvik_camera* camera, int32_t* pitch, int32_t* roll);

/* The two eyes' exposure block (extension item 1). */
typedef struct {
    uint32_t time;
    uint32_t max;
    uint32_t min;
    uint16_t extra;
    uint8_t flags[8]; /* flags[4]: the exposure mode, 1 = manual */
} tarvik_eye_exposure;

typedef struct {
    tarvik_eye_exposure left;
    tarvik_eye_exposure right;
} tarvik_exposure;

TARVIK_API int tarvik_read_exposure(tarvik_camera* camera, tarvik_exposure* exposure);
TARVIK_API int tarvik_write_exposure(tarvik_camera* camera, const tarvik_exposure* exposure);
/* Sets both eyes' exposure times: the block is read, each time checked
 * against its eye's range (TARVIK_E_OUT_OF_RANGE, judged first) and both eyes
 * against manual mode (TARVIK_E_NOT_MANUAL); nothing is written unless both
 * checks pass. */
TARVIK_API int tarvik_write_exposure_times(tarvik_camera* camera, uint32_t left, uint32_t right);
/* Sets both eyes' exposure mode (1 = manual; the low byte is sent).
 * TARVIK_E_MODES_DIFFER, with nothing sent, when the two differ. */
TARVIK_API int tarvik_write_exposure_mode(tarvik_camera* camera, int32_t left, int32_t right);

/* The record of extension item 10: a block of the camera's data, read into
 * `data` or written from it. A length above 48 counts as 48. */
typedef struct {
    uint8_t target;
    uint8_t length;
    uint16_t offset;
    uint8_t data[48];
} tarvik_data_block;

/* The extension items by number and by name, as tarvikctl and the service
 * name them ("roi", "device-sn", "data-block"). */
typedef struct {
    int number;       /* 1-18 */
    const char* name; /* static text */
    int read_size;    /* the record tarvik_read_item fills; -1: not read that way */
    int write_size;   /* the record tarvik_write_item takes; -1: not written */
} tarvik_item_info;

/* 0 and *info filled, or TARVIK_E_INVALID_ARGUMENT for no such item. */
TARVIK_API int tarvik_item(int number, tarvik_item_info* info);
TARVIK_API int tarvik_item_by_name(const char* name, tarvik_item_info* info);

/* Any extension item, with the library's record of the item (item 10: a
 * tarvik_data_block, both in and out; item 18: `input` holds the mode).
 * `size` is the room in `output` for a read, at least the item's read_size;
 * a write's `size` is exactly the item's write_size. Checked before anything
 * is sent: TARVIK_E_INVALID_ARGUMENT for no such item or a wrong size,
 * TARVIK_E_NOT_HANDLED for an item not read (or written) that way. Item 12 is
 * read with tarvik_sam_command and tarvik_read_card. */
TARVIK_API int tarvik_read_item(tarvik_camera* camera, int item, const void* input, void* output,
                                size_t size);
TARVIK_API int tarvik_write_item(tarvik_camera* camera, int item, const void* record, size_t size);

/* --- the SAM (the camera's secure access module, item 12) ---
 * Its commands, each one exchange through the camera: */
#define TARVIK_SAM_CMD_STATUS 0      /* a one-frame exchange: codes 0 and 1 mean a card answered */
#define TARVIK_SAM_CMD_STATUS_DATA 1 /* the same, with eight bytes the library does not deliver */
#define TARVIK_SAM_CMD_NUMBER 2      /* the SAM's 16-byte number */
#define TARVIK_SAM_CMD_READ_CARD 3   /* the card: ten text fields and the photo (tarvik_read_card) */
#define TARVIK_SAM_CMD_READ_CARD_THIRD 4 /* the same and the card's third block */
#define TARVIK_SAM_CMD_6 6               /* answered with a code only */
#define TARVIK_SAM_CMD_7 7               /* answered with a code only */

/* Its codes (tarvik_card.sam_result, *sam_result of tarvik_sam_command):
 * 0 and 1 are success; tarvik_sam_strerror words every one. */
#define TARVIK_SAM_OK 0
#define TARVIK_SAM_OK_9F 1     /* success, status 0x9F */
#define TARVIK_SAM_UNTRUSTED 2 /* status 0x10, a checksum mismatch or a broken answer */
#define TARVIK_SAM_NO_CARD 17  /* status 0x80: no card on the reader */
#define TARVIK_SAM_FAILED (-1) /* an unknown status, or the camera reported a failure */
#define TARVIK_SAM_FRAME_LOST (-2) /* an answer frame of the SAM's packet was lost */
#define TARVIK_SAM_BUSY (-3)       /* the camera reported the SAM busy */

/* Runs SAM command `command` (one of TARVIK_SAM_CMD_*): the SAM's own code
 * into *sam_result; command 2 also fills `number` (16 bytes, required for 2,
 * may be null for the others). Arguments are checked before anything is sent:
 * TARVIK_E_INVALID_ARGUMENT for a command that is none or command 2 without
 * room for the number. TARVIK_E_SAM when the SAM answered with a failure. */
TARVIK_API int tarvik_sam_command(tarvik_camera* camera, int command, int* sam_result,
                                  uint8_t number[16]);

/* --- identity cards --- */
#define TARVIK_CARD_THIRD_BLOCK 1u /* read the third block too (TARVIK_SAM_CMD_READ_CARD_THIRD) */

typedef struct {
    int sam_result; /* the SAM's code: 0 or 1 success */
    char name[48];
    char sex[16];
    char sex_code[8]; /* the code on the card, also when it names nothing */
    char nation[32];
    char nation_code[8];
    char birth[32];
    char address[112];
    char id_number[64];
    char authority[48];
    char valid_from[32];
    char valid_to[32];
    char reserved[64];
    uint8_t photo[1024];
    uint8_t third_block[1024];
    int has_third_block; /* 1 only when the third block was asked for and delivered */
} tarvik_card;

/* Reads the card on the reader (flags: 0 or TARVIK_CARD_THIRD_BLOCK); a
 * failed exchange is tried again up to twice, as every read is. TARVIK_E_SAM when the SAM answered with a failure (no
 * card, say): card->sam_result holds its code. */
TARVIK_API int tarvik_read_card(tarvik_camera* camera, tarvik_card* card, unsigned flags);

/* Wipes the record so that no trace of the card stays in memory. */
TARVIK_API void tarvik_card_clear(tarvik_card* card);

/* --- waiting: cards and a camera that comes back ---
 * No thread of the library's own: the application waits on the camera's
 * descriptor (poll, epoll, an event loop) and calls tarvik_dispatch when it
 * is readable, then takes the events with tarvik_next_event; or it calls
 * tarvik_wait_event, which does all three. Dispatch asks the SAM whether a
 * card lies on the camera (command 0, one exchange, every poll interval) and
 * follows the camera leaving and coming back (udev's events); it never blocks
 * longer than one exchange. Each event has a sequence number of its own
 * camera, from 1: a gap means events were lost, and an overflow event says so
 * (the queue holds 64). A card is removed when two polls in a row find none. */
#define TARVIK_EVENT_CARD_PLACED 1
#define TARVIK_EVENT_CARD_REMOVED 2
#define TARVIK_EVENT_CAMERA_GONE 3
#define TARVIK_EVENT_CAMERA_BACK 4 /* result: writing the settings again (TARVIK_OPEN_REAPPLY) */
#define TARVIK_EVENT_OVERFLOW 5    /* events after the one before it were lost */

typedef struct {
    int type;          /* TARVIK_EVENT_* */
    int result;        /* camera back: 0, or the first failure writing the settings again */
    uint64_t sequence; /* per camera, from 1 */
    uint64_t time_ns;  /* CLOCK_MONOTONIC */
} tarvik_event;

/* The descriptor to wait on (readable when dispatch has work); it belongs to
 * the camera. Asking for it starts the card polls. */
TARVIK_API int tarvik_get_fd(tarvik_camera* camera);
/* The time between card polls: at least 50 ms, 250 ms by default; 0 stops
 * the polls (the camera is still followed through unplugs), and a card that
 * lies there when they start again is told of as placed. */
TARVIK_API int tarvik_set_poll_interval(tarvik_camera* camera, unsigned interval_ms);
/* Does what is due, without waiting; starts the card polls. */
TARVIK_API int tarvik_dispatch(tarvik_camera* camera);
/* The oldest event, or TARVIK_E_NO_EVENT. */
TARVIK_API int tarvik_next_event(tarvik_camera* camera, tarvik_event* event);
/* Waits up to `timeout_ms` (-1: no limit) for an event: 0, TARVIK_E_NO_EVENT,
 * or TARVIK_E_CANCELLED when tarvik_cancel was called. */
TARVIK_API int tarvik_wait_event(tarvik_camera* camera, tarvik_event* event, int timeout_ms);
/* Wakes a waiter, which returns TARVIK_E_CANCELLED (the next one, if none
 * waits now). Any thread may call it, a signal handler too. */
TARVIK_API int tarvik_cancel(tarvik_camera* camera);
/* "card-placed", "card-removed", "camera-gone", "camera-back", "overflow". */
TARVIK_API const char* tarvik_event_name(int type);

/* --- results, version, log --- */
TARVIK_API const char* tarvik_strerror(int result);
/* The code's name ("LIBUSB_ERROR_ACCESS", "TARVIK_E_SAM", "SUCCESS"), "UNKNOWN" for none. */
TARVIK_API const char* tarvik_result_name(int result);
/* What a SAM code (TARVIK_SAM_*) means; "unknown SAM code" for none. */
TARVIK_API const char* tarvik_sam_strerror(int sam_result);
TARVIK_API const char* tarvik_version(void);

/* --- the log ---
 * Every line of the library has a level. A program that uses this interface
 * gets no line on standard output: by default warnings and errors go to
 * standard error, one line each. tarvik_set_log_level keeps more or fewer;
 * a handler receives them instead. TARVIK_LOG=stdout|stderr|off in the
 * environment sends every line (as the C++ interface writes them) to that
 * stream, or nowhere, for the whole process. */
#define TARVIK_LOG_ERROR 3   /* a camera could not be opened */
#define TARVIK_LOG_WARNING 4 /* a failure the result reports too, a retry, a slow call */
#define TARVIK_LOG_DEBUG 7   /* progress: timing, counters, the SAM's steps, a camera opened */

/* Lines less severe than `level` are dropped: TARVIK_LOG_DEBUG keeps all. */
TARVIK_API void tarvik_set_log_level(int level);

/* Each kept line, without its leading carriage return and its trailing line
 * feed, goes to `handler` with its level, on the thread that logs it, while
 * the library holds its log lock: the handler must be quick and must not call
 * the library. Null restores the default destination. Lines never carry card
 * data. */
typedef void (*tarvik_log_handler)(int level, const char* line, void* user);
TARVIK_API void tarvik_set_log_handler(tarvik_log_handler handler, void* user);

#ifdef __cplusplus
}
#endif

#endif
