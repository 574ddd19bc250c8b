// The codec functions of the irregular extension items, whose data is not one
// run of little-endian values at a fixed place of the frame (internal). The
// item table names them; frame_codec calls them.
#ifndef TARVIK_ITEM_CODECS_H
#define TARVIK_ITEM_CODECS_H

#include <cstdint>

#include "frame_codec.h"

namespace tarvik::codec {

// Item 1: the two eyes' exposure blocks, 22 bytes each on the wire at frame
// bytes 4 and 32, 24 bytes each in the record.
void et_from_answer(const frame::Frame& f, void* input, void* output);
void et_into_request(frame::Frame& f, const void* record);

// Item 10: the data block answers into the caller's input record (`data`
// only, from byte 8); its address and length go at bytes 8-11 of a read
// request and 4-7 of a write, whose data follows from byte 8.
void data_block_from_answer(const frame::Frame& f, void* input, void* output);
void data_block_read_params(frame::Frame& f, const void* input);
void data_block_into_request(frame::Frame& f, const void* record);

// Item 18: a read sends the mode's low byte at byte 8; a write sends the two
// control bytes, the value and the mode's low byte.
void vcm_read_params(frame::Frame& f, const void* input);
void vcm_into_request(frame::Frame& f, const void* record);

// Item 15: the LED command byte, the mode nibble with the state bit, six values.
void led_into_request(frame::Frame& f, const void* record);

}  // namespace tarvik::codec

#endif
