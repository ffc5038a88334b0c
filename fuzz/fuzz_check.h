// What the fuzz targets share: a property check that stops the run.
#ifndef FUZZ_FUZZ_CHECK_H
#define FUZZ_FUZZ_CHECK_H

#include <stdio.h>
#include <stdlib.h>

// Says which property failed and aborts, which libFuzzer reports as a crash
// and saves the input for.
[[noreturn]] inline void fuzzCheckFailed(const char* what, const char* file, int line) {
    fprintf(stderr, "%s:%d: property failed: %s\n", file, line, what);
    abort();
}

#define FUZZ_CHECK(cond) ((cond) ? (void)0 : fuzzCheckFailed(#cond, __FILE__, __LINE__))

#endif
