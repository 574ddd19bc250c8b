// Little-endian packing of 32-bit control values, and assertion reporting.
#ifndef TARVIK_BYTE_PACK_H
#define TARVIK_BYTE_PACK_H

#include "tarvik_export.h"

// Receives assertion reports instead of standard output. The application owns
// the object; the library only calls Log, the first virtual slot (the
// destructor comes after it and is never called by the library).
class AssertLogger {
public:
    virtual void Log(char* message) = 0;
    virtual ~AssertLogger() = default;
};

// Clears `size` bytes, then stores `value` little-endian in the first four.
// A size below 4 is reported through MyAssert and nothing is written.
TARVIK_API void Int2Byte(int value, unsigned char* bytes, int size);

// Reads the first four bytes as a little-endian signed 32-bit value.
// A size below 4 is reported through MyAssert and the result is 0.
TARVIK_API int Byte2Int(unsigned char* bytes, int size);

// Installs the logger that receives reports; null restores standard output.
TARVIK_API void SetAssertLogger(AssertLogger* logger);

// Reports `message` to the installed logger, or prints it with a line feed.
TARVIK_API void MyAssert(char* message);

#endif
