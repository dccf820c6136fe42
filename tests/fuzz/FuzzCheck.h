#pragma once

#include <cstdio>
#include <cstdlib>

// The property check of the fuzz targets: a condition that does not hold is a crash, which
// libFuzzer reports with the input that caused it.
//
//   FUZZ_CHECK(parse(print(value)) == value);
#define FUZZ_CHECK(condition)                                                                      \
  do {                                                                                             \
    if (!(condition)) {                                                                            \
      std::fprintf(stderr, "%s:%d: property does not hold: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                                \
    }                                                                                              \
  } while (false)
