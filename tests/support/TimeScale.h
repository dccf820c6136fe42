#pragma once

namespace RetraTest {

// The factor every time limit of a test is stretched by: RETRA_TEST_TIME_SCALE when it holds a
// number of at least 1 (set when the suite runs under a slow checker such as valgrind),
// otherwise 1. Limits that a test sets on the library (time-outs of a request or a resolver)
// scale with it as well as the test's own waits.
//
//   request.timeoutConnectIs(RetraTest::scaledSeconds(1));
[[nodiscard]] double timeScale();

// `seconds` stretched by timeScale(), rounded up to whole seconds.
[[nodiscard]] unsigned scaledSeconds(unsigned seconds);

}  // namespace RetraTest
