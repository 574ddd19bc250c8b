// Every condition the library reports, in one table: the C interface's code,
// its name and its text, and the results of the described C++ members that
// mean it. tarvik_strerror, tarvik_result_name, the C interface's mapping and,
// through them, tarvikctl, the Python package and the service read it.
// Internal.
#ifndef TARVIK_RESULT_TABLE_H
#define TARVIK_RESULT_TABLE_H

namespace tarvik::results {

struct Result {
    int code;          // the C interface's: 0, libusb's negative codes, TARVIK_E_*
    const char* name;  // "LIBUSB_ERROR_ACCESS", "TARVIK_E_SAM", "SUCCESS"
    const char* text;
    int members[2];  // the C++ members' results that mean it (0: none)
};

// The row of a C interface code; null for a code the library never returns.
const Result* find(int code);

// The C interface's code for a member's result `r`. `transferFailure` is
// what the transfer layer noted during this call (0: no transfer failed): a
// result equal to it is the transfer's (libusb's code, or a short count).
// Anything else that no row claims is TARVIK_E_UNKNOWN, never another
// condition.
int from_member(int r, int transferFailure);

}  // namespace tarvik::results

#endif
