/* The kiosk loop: wait until a card lies on the camera, read it once, wait
 * until it is lifted; when the camera drops off the bus, carry on when it is
 * back (with the settings this program wrote). Ends on Ctrl-C.
 *
 *     cc kiosk.c $(pkg-config --cflags --libs libtarvik) -o kiosk
 */
#define _POSIX_C_SOURCE 200809L /* sigaction */
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <tarvik.h>

static tarvik_camera* camera;

static void stop(int sig) {
    (void)sig;
    tarvik_cancel(camera); /* safe in a signal handler: the wait returns */
}

static void show_card(void) {
    tarvik_card card;
    int r = tarvik_read_card(camera, &card, 0);
    if (r == 0) {
        printf("card: %s, born %s\n", card.name, card.birth);
    } else {
        fprintf(stderr, "the card could not be read: %s\n", tarvik_strerror(r));
    }
    tarvik_card_clear(&card); /* no trace of the holder stays behind */
}

int main(void) {
    tarvik_open_options options = tarvik_default_options();
    options.flags = TARVIK_OPEN_REAPPLY;
    int r = tarvik_open(&options, &camera);
    if (r != 0) {
        fprintf(stderr, "no camera: %s\n", tarvik_strerror(r));
        return 1;
    }
    const int32_t roi[4] = {0, 0, 640, 480};
    tarvik_write_roi(camera, roi); /* written again after an unplug */
    struct sigaction on_stop;
    memset(&on_stop, 0, sizeof on_stop);
    on_stop.sa_handler = stop;
    sigaction(SIGINT, &on_stop, NULL);
    sigaction(SIGTERM, &on_stop, NULL);

    tarvik_event event;
    while ((r = tarvik_wait_event(camera, &event, -1)) == 0) {
        printf("#%llu %s\n", (unsigned long long)event.sequence, tarvik_event_name(event.type));
        if (event.type == TARVIK_EVENT_CARD_PLACED) show_card();
        if (event.type == TARVIK_EVENT_CAMERA_BACK && event.result != 0) {
            fprintf(stderr, "settings not written again: %s\n", tarvik_strerror(event.result));
        }
        fflush(stdout);
    }
    tarvik_close(camera);
    return r == TARVIK_E_CANCELLED ? 0 : 1;
}
