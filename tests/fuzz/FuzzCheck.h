// A failed property prints and aborts; libFuzzer keeps the input.
#pragma once
#include <cstdio>
#include <cstdlib>
#define FUZZ_CHECK(condition, what)                                                                  \
    do {                                                                                             \
        if (!(condition)) {                                                                          \
            std::fprintf(stderr, "fuzz check failed: %s: %s\n", #condition, std::string(what).c_str()); \
            std::abort();                                                                            \
        }                                                                                            \
    } while (0)
