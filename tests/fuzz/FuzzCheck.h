// What every fuzz target needs: a checked invariant that stops the run with
// a readable reason, so the fuzzer keeps the input as a crash.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                      \
    do {                                                                                      \
        if (!(cond)) {                                                                        \
            std::fprintf(stderr, "%s:%d: invariant failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                     \
        }                                                                                     \
    } while (0)
