#include "retra-ctl/CtlClient.h"

#include <utility>

#include "Orb/ActivityManager.h"
#include "Retra/model/RequestDir.h"
#include "Retra/model/ResponseDir.h"
#include "retra-ctl/CtlOutput.h"
#include "toolkit/ExitCode.h"
#include "toolkit/RequestOptions.h"
#include "toolkit/ResponseJson.h"

namespace RetraCtl {
namespace {

// A local service answers at once; these only bound a service that hangs.
constexpr Orb::Seconds kConnectSeconds = 10;
constexpr Orb::Seconds kReplySeconds = 30;

std::string keyText(const Retra::RequestKey& key) {
  return Retra::stringValue(key.method()).str() + " " + key.uri().str();
}

}  // namespace

// Hears the connection come and go, and the mirror become complete.
class CtlClient::ConnectionWatch : public Retra::RemoteRoot::NotifieeConst {
 public:
  explicit ConnectionWatch(CtlClient* client) : client_(client) {}
  void onConnected() override { client_->connectionChanged(notifierPtr()->connected()); }
  void onSynced() override {
    if (client_->changeWatch_ && notifierPtr()->synced()) {
      client_->changeWatch_->reportSnapshots();
      client_->changeWatch_->mutedIs(false);
    }
  }

 private:
  CtlClient* client_;
};

CtlClient::CtlClient(CtlCommand command, std::ostream& out, std::ostream& err)
    : command_(std::move(command)), out_(out), err_(err) {
  if (command_.socketPath.empty()) command_.socketPath = Retra::RemoteRoot::defaultSocketPath();
}

CtlClient::~CtlClient() {
  if (connectionWatch_) connectionWatch_->notifierIs(nullptr);
  if (root_) root_->close();
}

int CtlClient::run() {
  using Verb = CtlCommand::Verb;
  switch (command_.verb) {
    case Verb::add:
      return add();
    case Verb::del:
      return del();
    case Verb::list:
      return list();
    case Verb::show:
      return show();
    case Verb::watch:
      return watch();
    case Verb::reset:
      return reset();
    case Verb::ping:
      return ping();
  }
  return RetraTool::exitFailure;
}

bool CtlClient::connect(bool watchEverything, const Retra::RequestKey& watchKey, bool reconnect) {
  Retra::RemoteRoot::Options options;
  options.socketPath = command_.socketPath;
  options.clientName = "retra-ctl";
  options.watchEverything = watchEverything;
  options.watchKey = watchKey;
  options.reconnect = reconnect;
  root_ = Orb::allocate<Retra::RemoteRoot>(Orb::Name(Orb::String("retra")), options);
  (void)Orb::activityManager()->runUntil(
      [this] { return root_->connected() || !root_->connectError().view().empty(); },
      kConnectSeconds);
  if (root_->connected()) {
    connectionWatch_ = Orb::allocate<ConnectionWatch>(this);
    connectionWatch_->notifierIs(root_);
  }
  return root_->connected();
}

int CtlClient::noService() {
  err_ << "retra-ctl: no service at " << command_.socketPath;
  if (root_ && !root_->connectError().view().empty()) err_ << " (" << root_->connectError() << ")";
  err_ << ".\nStart it with 'retrad &' or 'systemctl --user start retrad.socket'.\n";
  return RetraTool::exitNoService;
}

void CtlClient::awaitReply() {
  if (!Orb::activityManager()->runUntil([this] { return reply_.has_value(); }, kReplySeconds)) {
    reply_.emplace(Retra::Wire::ReplyCode::unavailable, "the service did not answer");
  }
}

int CtlClient::replyStatus(Retra::Wire::ReplyCode code, const std::string& text) {
  using Retra::Wire::ReplyCode;
  if (code == ReplyCode::ok) return RetraTool::exitOk;
  if (code == ReplyCode::notFound) {
    err_ << "retra-ctl: no request " << keyText(command_.key()) << "\n";
  } else if (code == ReplyCode::unavailable) {
    err_ << "retra-ctl: lost the service: " << text << "\n";
  } else {
    err_ << "retra-ctl: the service refused (" << Retra::Wire::replyCodeName(code) << "): " << text
         << "\n";
  }
  return code == ReplyCode::invalidKey ? RetraTool::exitUsage : RetraTool::exitFailure;
}

int CtlClient::add() {
  if (!connect(false, {}, false)) return noService();
  root_->writeHandlerIs([this](const Retra::RequestKey&, Retra::Wire::ReplyCode code,
                               const std::string& text) { reply_.emplace(code, text); });
  const RetraTool::RequestOptions& options = command_.request;
  root_->retraRequest()->requestIs(
      RetraTool::requestFor(options, command_.url, options.outputFile));
  awaitReply();
  return replyStatus(reply_->first, reply_->second);
}

int CtlClient::del() {
  if (!connect(false, {}, false)) return noService();
  root_->withdraw(command_.key(),
                  [this](auto code, const std::string& text) { reply_.emplace(code, text); });
  awaitReply();
  return replyStatus(reply_->first, reply_->second);
}

int CtlClient::reset() {
  if (!connect(false, {}, false)) return noService();
  root_->reset(command_.key(),
               [this](auto code, const std::string& text) { reply_.emplace(code, text); });
  awaitReply();
  return replyStatus(reply_->first, reply_->second);
}

int CtlClient::ping() {
  if (!connect(false, {}, false)) return noService();
  root_->ping([this](auto code, const std::string& text) { reply_.emplace(code, text); });
  awaitReply();
  if (reply_->first == Retra::Wire::ReplyCode::ok) {
    out_ << reply_->second << " at " << command_.socketPath << ", serving uid " << root_->uid()
         << "\n";
  }
  return replyStatus(reply_->first, reply_->second);
}

int CtlClient::list() {
  if (!connect(false, {}, false)) return noService();
  std::vector<Retra::Wire::ListedRequest> listing;
  root_->list(false, [&](auto code, const std::string& text, const auto& listed) {
    listing = listed;
    reply_.emplace(code, text);
  });
  awaitReply();
  for (const Retra::Wire::ListedRequest& listed : listing) {
    out_ << (command_.json ? RetraTool::jsonLine(listingJson(listed)) : listingLine(listed));
  }
  return replyStatus(reply_->first, reply_->second);
}

int CtlClient::show() {
  const Retra::RequestKey key = command_.key();
  if (!connect(false, key, false)) return noService();
  (void)Orb::activityManager()->runUntil([this] { return root_->synced() || !root_->connected(); },
                                         kReplySeconds);
  if (!root_->synced()) {
    err_ << "retra-ctl: the service did not send the response\n";
    return RetraTool::exitFailure;
  }
  Orb::Ptr<Retra::Response> response = root_->retraResponse()->response(key);
  if (!response) return replyStatus(Retra::Wire::ReplyCode::notFound, {});
  out_ << (command_.json ? RetraTool::jsonLine(RetraTool::responseJson(*response))
                         : responseText(*response));
  return RetraTool::exitCodeFor(response->lastError());
}

int CtlClient::watch() {
  const bool everything = command_.url.empty();
  if (!connect(everything, everything ? Retra::RequestKey() : command_.key(), true)) {
    return noService();
  }
  if (command_.json) {
    changeWatch_ = ResponseChangeWatch::ResponseChangeWatchIs(
        root_->retraResponse(), [this](const nlohmann::ordered_json& change) {
          out_ << RetraTool::jsonLine(change) << std::flush;
        });
    // Until the mirror is complete, the snapshots filling it are no changes.
    changeWatch_->mutedIs(!root_->synced());
    if (root_->synced()) changeWatch_->reportSnapshots();
  }
  finishWatch_ = Retra::FetchFinishWatch::FetchFinishWatchIs(
      root_->retraResponse(), [this](const Retra::Response& response) {
        if (!command_.json) out_ << finishLine(response) << std::flush;
        ++finished_;
      });
  const auto done = [this] { return command_.count && finished_ >= *command_.count; };
  while (!done()) (void)Orb::activityManager()->runUntil(done, 3600);
  return RetraTool::exitOk;
}

void CtlClient::connectionChanged(bool connected) {
  if (command_.verb != CtlCommand::Verb::watch) return;
  if (connected) {
    err_ << "retra-ctl: connected again to " << command_.socketPath << "\n";
  } else {
    err_ << "retra-ctl: the service went away (" << root_->connectError()
         << "); waiting for it to come back\n";
    if (changeWatch_) changeWatch_->mutedIs(true);
  }
}

}  // namespace RetraCtl
