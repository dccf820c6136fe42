// retrad: the Retra fetch service. Hosts the library for other processes over a Unix socket.
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "Orb/ActivityManager.h"
#include "Orb/Clock.h"
#include "Orb/FileDescriptor.h"
#include "Orb/Trace.h"
#include "retrad/ReadinessNotice.h"
#include "retrad/Service.h"
#include "retrad/ServiceMetrics.h"
#include "retrad/ServiceTrace.h"

namespace {

// Stops the loop on SIGTERM or SIGINT, read from a signalfd on the loop.
class SignalWatch : public Orb::FileDescriptor::NotifieeConst {
 public:
  explicit SignalWatch(int fd) : fd_(fd) {}
  void onReadableCount() override {
    signalfd_siginfo info{};
    if (::read(fd_, &info, sizeof info) == ssize_t(sizeof info)) {
      RETRAD_TRACE(2, "signal " << info.ssi_signo << ": stopping");
      stopping = true;
      Orb::activityManager()->stop();
    }
  }
  bool stopping = false;

 private:
  int fd_;
};

// Every connection takes a descriptor: allow as many as the hard limit does.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    (void)::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Retrad::CommandLine line =
      Retrad::parseCommandLine(std::vector<std::string>(argv, argv + argc));
  if (line.outcome == Retrad::CommandLine::Outcome::exit) {
    std::cout << line.message;
    return 0;
  }
  if (line.outcome == Retrad::CommandLine::Outcome::usageError) {
    std::cerr << "retrad: " << line.message << "\nRun 'retrad --help' for the options.\n";
    return 2;
  }
  if (!line.options.trace.empty()) Orb::TraceHandle::configurationIs(line.options.trace);
  raiseDescriptorLimit();
  std::signal(SIGPIPE, SIG_IGN);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  const int signalFd = ::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);

  try {
    Retrad::Service service(line.options);
    std::unique_ptr<Retrad::ServiceMetrics> metrics;
    if (!line.options.metricsListen.empty()) {
      metrics = std::make_unique<Retrad::ServiceMetrics>(service, line.options.metricsListen);
    }
    if (!Retrad::notifyReady())
      std::cerr << "retrad: could not tell the service manager it is ready\n";
    auto fd = Orb::allocate<Orb::FileDescriptor>(Orb::Name("retradSignals"));
    fd->descriptorIs(signalFd);
    fd->notifyOnReadableIs(true);
    auto watch = Orb::allocate<SignalWatch>(signalFd);
    watch->notifierIs(fd);
    while (!watch->stopping) {
      (void)Orb::activityManager()->runUntil([&] { return watch->stopping; }, 3600);
    }
    metrics.reset();
    service.shutdown();
    watch->notifierIs(nullptr);
    fd->descriptorIs(-1);
  } catch (const std::exception& e) {
    std::cerr << "retrad: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
