/* The C interface from a C program, under tarvik-sim with its default camera.
 * Prints one line per check that fails and exits 1; prints nothing else. */
#include <stdio.h>
#include <string.h>

#include "tarvik.h"

static int failures = 0;

#define CHECK(cond)                                                 \
    do {                                                            \
        if (!(cond)) {                                              \
            printf("%s:%d: %s\n", __FILE__, __LINE__, #cond);       \
            ++failures;                                             \
        }                                                           \
    } while (0)

static int lines = 0;
static int warnings = 0;
static void count_line(int level, const char* line, void* user) {
    (void)user;
    lines += strncmp(line, "[File:", 6) == 0;
    warnings += level <= TARVIK_LOG_WARNING;
}

/* `capi_test hammer MODE`: writes and reads back a lens-motor slot of its own
 * many times, as fast as it can; run beside another, on one camera, neither
 * may ever receive the other's answer. */
static int hammer(int mode) {
    tarvik_camera* cam = NULL;
    if (tarvik_open(NULL, &cam) != 0) return 2;
    for (uint16_t i = 0; i < 300 && failures == 0; ++i) {
        uint16_t back = 0;
        uint32_t status = 0;
        CHECK(tarvik_write_vcm(cam, mode, (uint16_t)(mode * 1000 + i), 0, 0) == 0);
        CHECK(tarvik_read_roi_status(cam, &status) == 0 && status == 0xA5A50001u);
        CHECK(tarvik_read_vcm(cam, mode, &back) == 0 && back == mode * 1000 + i);
    }
    tarvik_close(cam);
    return failures == 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    tarvik_set_log_handler(count_line, NULL);
    tarvik_set_log_level(TARVIK_LOG_DEBUG);
    if (argc == 3 && strcmp(argv[1], "hammer") == 0) return hammer(argv[2][0] - '0');
    tarvik_camera_info info[2];
    CHECK(tarvik_list(info, 2) == 1 && info[0].bus == 1 && info[0].address == 2);

    tarvik_camera* cam = NULL;
    tarvik_open_options by_serial = tarvik_default_options();
    by_serial.serial = "no such serial";
    CHECK(tarvik_open(&by_serial, &cam) == TARVIK_E_NO_CAMERA && cam == NULL);
    CHECK(tarvik_open(NULL, &cam) == 0 && cam != NULL);

    int32_t roi[4] = {1, -2, 3, 0x7fffffff}, back[4];
    CHECK(tarvik_write_roi(cam, roi) == 0 && tarvik_read_roi(cam, back) == 0);
    CHECK(memcmp(roi, back, sizeof roi) == 0);
    uint8_t record[64];
    /* The library's two 7s and 1s: an item it does not read, a command that is none. */
    CHECK(tarvik_read_item(cam, 3, NULL, record, sizeof record) == TARVIK_E_NOT_HANDLED);
    CHECK(tarvik_read_item(cam, 5, NULL, record, 55) == TARVIK_E_INVALID_ARGUMENT);
    int sam = 99;
    CHECK(tarvik_sam_command(cam, 5, &sam, NULL) == TARVIK_E_INVALID_ARGUMENT);
    CHECK(tarvik_read_version(NULL, record) == TARVIK_E_INVALID_ARGUMENT);
    CHECK(tarvik_read_exposure(cam, (tarvik_exposure*)record) == 0);

    tarvik_card card;
    CHECK(tarvik_read_card(cam, &card, TARVIK_CARD_THIRD_BLOCK) == 0 && card.sam_result == 0);
    CHECK(strcmp(card.name, "张三") == 0 && strcmp(card.sex, "男") == 0);
    CHECK(strcmp(card.sex_code, "1") == 0 && strcmp(card.nation_code, "01") == 0);
    CHECK(strcmp(card.id_number, "000000199001010000") == 0 && card.has_third_block == 1);
    tarvik_card_clear(&card);
    CHECK(card.name[0] == 0 && card.photo[1] == 0);

    tarvik_close(cam);
    tarvik_close(NULL);
    /* Progress lines at debug; an error only for the open of no such serial. */
    CHECK(lines > 0 && warnings == 1);
    static const int codes[] = {0, -1, -3, -4, -6, -7, -9, -12, TARVIK_E_INVALID_ARGUMENT,
                                TARVIK_E_SHORT_TRANSFER, TARVIK_E_NOT_HANDLED, TARVIK_E_SAM,
                                TARVIK_E_NO_MEMORY};
    for (size_t i = 0; i < sizeof codes / sizeof codes[0]; ++i) {
        CHECK(strcmp(tarvik_strerror(codes[i]), "unknown result") != 0);
    }
    CHECK(strcmp(tarvik_strerror(12345), "unknown result") == 0);
    CHECK(strcmp(tarvik_version(), TARVIK_EXPECTED_VERSION) == 0);
    return failures == 0 ? 0 : 1;
}
