// curl-baseline: the job of retra-bench done by a plain libcurl program on libuv, for
// comparison. Same arguments, same checks, same JSON line. See bench/README.md.
//
//   curl-baseline http://127.0.0.1:8080/1k.bin 10000 --expect-size 1024

#include <exception>
#include <iostream>

#include "baseline/CurlBaselineHost.h"
#include "common/BenchOptions.h"

int main(int argc, char** argv) {
  const RetraBench::ParsedCommandLine line =
      RetraBench::parseCommandLine("curl-baseline", argc, argv);
  if (line.outcome == RetraBench::ParsedCommandLine::Outcome::exit) return line.exitStatus;
  try {
    RetraBench::CurlBaselineHost host(line.options);
    return host.run();
  } catch (const std::exception& e) {
    std::cerr << "curl-baseline: " << e.what() << "\n";
    return 1;
  }
}
