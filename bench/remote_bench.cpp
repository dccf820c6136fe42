// retra-remote-bench: fetches COUNT requests at once through the service retrad (started here,
// on a socket of its own) with the client library, and prints one JSON line of measurements
// with the service's memory growth and CPU time. See bench/README.md.
//
//   retra-remote-bench http://127.0.0.1:8080/1k.bin 10000 --retrad build/tools/retrad/retrad

#include <exception>
#include <iostream>

#include "common/BenchOptions.h"
#include "remote/RemoteBenchHost.h"

int main(int argc, char** argv) {
  const RetraBench::ParsedCommandLine line =
      RetraBench::parseCommandLine("retra-remote-bench", argc, argv);
  if (line.outcome == RetraBench::ParsedCommandLine::Outcome::exit) return line.exitStatus;
  try {
    RetraBench::RemoteBenchHost host(line.options);
    return host.run();
  } catch (const std::exception& e) {
    std::cerr << "retra-remote-bench: " << e.what() << "\n";
    return 1;
  }
}
