#include "support/TimeScale.h"

#include <cmath>
#include <cstdlib>

namespace RetraTest {

double timeScale() {
  static const double scale = [] {
    const char* text = std::getenv("RETRA_TEST_TIME_SCALE");
    const double value = text ? std::strtod(text, nullptr) : 1.0;
    return value >= 1.0 ? value : 1.0;
  }();
  return scale;
}

unsigned scaledSeconds(unsigned seconds) {
  return static_cast<unsigned>(std::ceil(seconds * timeScale()));
}

}  // namespace RetraTest
