// A failed property prints and aborts; libFuzzer keeps the input.
#pragma once
#include <cstdio>
#include <cstdlib>
#include <string>
#define FUZZ_CHECK(ok, what)                                                                                           \
    ((ok) ? void()                                                                                                     \
          : (std::fprintf(stderr, "fuzz check failed: %s: %s\n", #ok, std::string(what).c_str()), std::abort()))
