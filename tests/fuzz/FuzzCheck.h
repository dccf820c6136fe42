#pragma once

#include <cstdio>
#include <cstdlib>

#include "Orb/Exception.h"

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

namespace FuzzCheck {

// Rejections are expected while it lives; any other exception of the framework is a fault.
struct ExpectParse : Orb::Expect {
  ExpectParse() { add(Orb::ExceptionId::parse); }
};

// Runs `read`: true if it raised the parse exception, false if it returned.
template <class Read>
bool rejects(Read&& read) {
  try {
    read();
  } catch (const Orb::ParseException&) {
    return true;
  }
  return false;
}

}  // namespace FuzzCheck
