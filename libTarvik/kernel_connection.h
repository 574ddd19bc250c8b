// The kernel path's leaf: the camera's capture node, opened and given back.
// It opens nothing else and calls no other way of opening. Internal.
#ifndef TARVIK_KERNEL_CONNECTION_H
#define TARVIK_KERNEL_CONNECTION_H

#include <string>

class TarvikImpl;

namespace tarvik {

// The capture node of the camera at `bus`/`address` (-1 in either: the
// first). 0, or -1 after the lines saying why.
int open_kernel_leaf(TarvikImpl& impl, int bus, int address);

// `node`, once it is known to be a camera's capture node. 0, or -1.
int open_video_leaf(TarvikImpl& impl, const std::string& node);

// Closes what the kernel path opened; nothing when it opened nothing.
void release_video_leaf(TarvikImpl& impl);

}  // namespace tarvik

#endif
