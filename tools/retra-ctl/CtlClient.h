#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include "Orb/Ptr.h"
#include "Retra/model/FetchFinishWatch.h"
#include "Retra/remote/RemoteRoot.h"
#include "Retra/remote/WireProtocol.h"
#include "retra-ctl/CtlCommandLine.h"
#include "retra-ctl/ResponseChangeWatch.h"

namespace RetraCtl {

// Runs one retra-ctl command against the service through a `Retra::RemoteRoot`: connects,
// sends the command, waits for the service's answer, prints the outcome on `out` (messages on
// `err`) and returns the exit status (toolkit/ExitCode.h).
//
//   RetraCtl::CtlClient client(line.command, std::cout, std::cerr);
//   return client.run();
//
// Every command but `watch` gives up when the connection fails or ends; `watch` waits for a
// service that went away to come back (a restart) and goes on watching, until --count finished
// fetches have been reported or it is stopped.
class CtlClient {
 public:
  CtlClient(CtlCommand command, std::ostream& out, std::ostream& err);
  ~CtlClient();
  CtlClient(const CtlClient&) = delete;
  CtlClient& operator=(const CtlClient&) = delete;

  [[nodiscard]] int run();

 private:
  class ConnectionWatch;

  int add();
  int del();
  int list();
  int show();
  int watch();
  int reset();
  int ping();

  // Creates the remote root and waits for the connection: false when there is no service.
  bool connect(bool watchEverything, const Retra::RequestKey& watchKey, bool reconnect);
  // Runs the loop until the reply the handler stored arrives.
  void awaitReply();
  // The exit status of a command the service answered with `code` and `text`.
  int replyStatus(Retra::Wire::ReplyCode code, const std::string& text);
  [[nodiscard]] int noService();
  void connectionChanged(bool connected);

  CtlCommand command_;
  std::ostream& out_;
  std::ostream& err_;
  Orb::Ptr<Retra::RemoteRoot> root_;
  Orb::Ptr<ConnectionWatch> connectionWatch_;
  Orb::Ptr<Retra::FetchFinishWatch> finishWatch_;  // watch: counts finished fetches
  Orb::Ptr<ResponseChangeWatch> changeWatch_;      // watch --json
  std::optional<std::pair<Retra::Wire::ReplyCode, std::string>> reply_;
  uint32_t finished_ = 0;
};

}  // namespace RetraCtl
