// A condition that every input of a fuzz target must keep.
#pragma once

#include <cstdio>
#include <cstdlib>

#define MUST(condition)                                                                                      \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition);                                     \
            std::abort();                                                                                    \
        }                                                                                                    \
    } while (false)
