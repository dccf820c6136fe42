// retra-bench: fetches COUNT requests at once with the Retra library and prints one JSON line
// of measurements. See bench/README.md.
//
//   retra-bench http://127.0.0.1:8080/1k.bin 10000 --expect-size 1024

#include <exception>
#include <iostream>

#include "common/BenchOptions.h"
#include "retra/RetraBenchHost.h"

int main(int argc, char** argv) {
  const RetraBench::ParsedCommandLine line =
      RetraBench::parseCommandLine("retra-bench", argc, argv);
  if (line.outcome == RetraBench::ParsedCommandLine::Outcome::exit) return line.exitStatus;
  try {
    RetraBench::RetraBenchHost host(line.options);
    return host.run();
  } catch (const std::exception& e) {
    std::cerr << "retra-bench: " << e.what() << "\n";
    return 1;
  }
}
