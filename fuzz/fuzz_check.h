// A broken invariant aborts, so that libFuzzer keeps the input that broke it.
#ifndef TARVIK_FUZZ_CHECK_H
#define TARVIK_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>

namespace tarvik::fuzz {

[[noreturn]] inline void Fail(const char* condition, const char* file, int line) {
    std::fprintf(stderr, "\nINVARIANT BROKEN: %s (%s:%d)\n", condition, file, line);
    std::abort();
}

}  // namespace tarvik::fuzz

#define FUZZ_CHECK(cond) \
    ((cond) ? static_cast<void>(0) : ::tarvik::fuzz::Fail(#cond, __FILE__, __LINE__))

#endif
