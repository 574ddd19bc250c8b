/* Reads an identity card through the C interface.
 *
 *     TARVIK_LOG=off read_card_c [/dev/videoN]
 *
 * Build against an installed libTarvik:
 *     cc -std=c99 read_card.c $(pkg-config --cflags --libs libtarvik) -o read_card_c
 * TARVIK_LOG=off keeps the library's log lines off standard output. */
#include <stdio.h>

#include <tarvik.h>

int main(int argc, char** argv) {
    tarvik_open_options options = tarvik_default_options();
    if (argc > 1) options.video_node = argv[1];
    tarvik_camera* camera = NULL;
    int r = tarvik_open(&options, &camera);
    if (r != 0) {
        fprintf(stderr, "cannot open the camera: %s\n", tarvik_strerror(r));
        return 1;
    }
    tarvik_card card;
    r = tarvik_read_card(camera, &card, 0);
    if (r == 0) {
        printf("name: %s\nsex: %s\nnation: %s\nbirth: %s\nid: %s\n", card.name, card.sex,
               card.nation, card.birth, card.id_number);
    } else {
        fprintf(stderr, "reading the card failed: %s (SAM code %d)\n", tarvik_strerror(r),
                card.sam_result);
    }
    tarvik_card_clear(&card);
    tarvik_close(camera);
    return r == 0 ? 0 : 1;
}
