// Which layer made a thread's failing result: the members' positive results
// collide (a short transfer of 7 bytes and "item not handled" are both 7), so
// the transfer layer notes each failing transfer of the calling thread, and
// the C API tells the two apart. Internal.
#ifndef TARVIK_CALL_STATUS_H
#define TARVIK_CALL_STATUS_H

namespace tarvik {

// The result of the thread's last failed transfer (a negative libusb code or
// a short count) since the last clear; 0 when none failed.
int last_transfer_failure();
void note_transfer_failure(int result);
void clear_transfer_failure();

}  // namespace tarvik

#endif
