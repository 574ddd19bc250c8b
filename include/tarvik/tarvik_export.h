// Symbol visibility for libTarvik. The library is built with hidden visibility;
// only names marked TARVIK_API are part of its ABI.
#ifndef TARVIK_EXPORT_H
#define TARVIK_EXPORT_H

#define TARVIK_API __attribute__((visibility("default")))
// Members of an exported class that are not part of the ABI.
#define TARVIK_HIDDEN __attribute__((visibility("hidden")))

#endif
