#pragma once

// The engine's reactors, nested classes of `RetraSm`, defined apart so that the engine's header
// stays readable; include "Retra/engine/RetraSm.h", which includes this file.

#include "Retra/engine/RetraSm.h"

namespace Retra {

// ---- The reactors. Each holds what it watches (a counted reference) and a plain back pointer
// ---- to the engine, which the engine clears before it lets a reactor go.

// The request directory: every added, changed or removed request goes to intake.
class RetraSm::OrbRetraRequest : public RequestDir::NotifieeConst {
 public:
  OrbRetraRequest(RetraSm* engine, const Orb::Ptr<RequestDir>& directory)
      : engine_(engine), directory_(directory) {}
  [[nodiscard]] const Orb::Ptr<RequestDir>& directory() const noexcept { return directory_; }
  void engineIs(RetraSm* engine) noexcept { engine_ = engine; }

  void onRequest(const RequestKey& key) override;

 protected:
  // Replays `onRequest` for every request present.
  void onNotifierConnected() override;

 private:
  RetraSm* engine_;
  Orb::Ptr<RequestDir> directory_;
};

// The response directory: keeps `retraResponseReactor` in step with it.
class RetraSm::OrbRetraResponse : public ResponseDir::NotifieeConst {
 public:
  OrbRetraResponse(RetraSm* engine, const Orb::Ptr<ResponseDir>& directory)
      : engine_(engine), directory_(directory) {}
  [[nodiscard]] const Orb::Ptr<ResponseDir>& directory() const noexcept { return directory_; }
  void engineIs(RetraSm* engine) noexcept { engine_ = engine; }

  void onResponse(const RequestKey& key) override;
  // Brings the whole collection in step when it is not (see bringAllInStep).
  void onResponseImmediate() override;

 protected:
  void onNotifierConnected() override { bringAllInStep(); }

 private:
  // A reactor per response, none for a vanished one.
  void bringAllInStep();

  RetraSm* engine_;
  Orb::Ptr<ResponseDir> directory_;
};

// One response: acts on its `requestState`.
class RetraSm::OrbRetraResponseReactor : public Response::NotifieeConst {
 public:
  OrbRetraResponseReactor(RetraSm* engine, const Orb::Ptr<const Response>& response)
      : engine_(engine), response_(response) {}
  [[nodiscard]] const Orb::Ptr<const Response>& response() const noexcept { return response_; }
  void engineIs(RetraSm* engine) noexcept { engine_ = engine; }

  void onRequestState() override;
  // `stateDispatchReady` dispatches the key's machine. `stateFinished` stamps `lastUpdateTime`
  // (and `lastChangeTime` when the machine saw a change), schedules the refresh unless the
  // error is `errCurlInit` or `errCancel`, and drops the machine. A key without machine (one
  // being replaced or withdrawn) is only traced.
  void handleRequestState(const RequestKey& key);

 protected:
  // Serves the state the response already has.
  void onNotifierConnected() override { onRequestState(); }

 private:
  RetraSm* engine_;
  Orb::Ptr<const Response> response_;
};

// The resolver's record directory: keeps `dnsrRecordReactor` in step with it.
class RetraSm::OrbDnsrRecord : public Dnsr::ResolutionRecordDir::NotifieeConst {
 public:
  OrbDnsrRecord(RetraSm* engine, const Orb::Ptr<Dnsr::ResolutionRecordDir>& directory)
      : engine_(engine), directory_(directory) {}
  [[nodiscard]] const Orb::Ptr<Dnsr::ResolutionRecordDir>& directory() const noexcept {
    return directory_;
  }
  void engineIs(RetraSm* engine) noexcept { engine_ = engine; }

  void onRecord(const Orb::Name& name) override;
  void onRecordImmediate() override;

 protected:
  void onNotifierConnected() override { onRecordImmediate(); }

 private:
  RetraSm* engine_;
  Orb::Ptr<Dnsr::ResolutionRecordDir> directory_;
};

// One resolver record: releases (or fails) the responses waiting for its host.
class RetraSm::OrbDnsrRecordReactor : public Dnsr::ResolutionRecord::NotifieeConst {
 public:
  OrbDnsrRecordReactor(RetraSm* engine, const Orb::Ptr<const Dnsr::ResolutionRecord>& record)
      : engine_(engine), record_(record) {}
  [[nodiscard]] const Orb::Ptr<const Dnsr::ResolutionRecord>& record() const noexcept {
    return record_;
  }
  void engineIs(RetraSm* engine) noexcept { engine_ = engine; }

  void onValid() override;
  void onLastError() override;
  // Copies the record's outcome into every response of `host` (HostResolution.cpp).
  void handleRecord(const Orb::String& host);

 protected:
  // A record that is already complete is served at once.
  void onNotifierConnected() override {
    onValid();
    onLastError();
  }

 private:
  RetraSm* engine_;
  Orb::Ptr<const Dnsr::ResolutionRecord> record_;
};

// The refresh clock: wakes the refresh scan.
class RetraSm::OrbRefreshClock : public Orb::Clock::NotifieeConst {
 public:
  OrbRefreshClock(RetraSm* engine, const Orb::Ptr<Orb::Clock>& clock)
      : engine_(engine), clock_(clock) {}
  [[nodiscard]] const Orb::Ptr<Orb::Clock>& clock() const noexcept { return clock_; }
  void engineIs(RetraSm* engine) noexcept { engine_ = engine; }

  void onTime() override;

 protected:
  // Runs a scan at once.
  void onNotifierConnected() override;

 private:
  RetraSm* engine_;
  Orb::Ptr<Orb::Clock> clock_;
};

// The timeout clock: wakes libcurl's timer.
class RetraSm::OrbTimeoutClock : public Orb::Clock::NotifieeConst {
 public:
  OrbTimeoutClock(RetraSm* engine, const Orb::Ptr<Orb::Clock>& clock)
      : engine_(engine), clock_(clock) {}
  [[nodiscard]] const Orb::Ptr<Orb::Clock>& clock() const noexcept { return clock_; }
  void engineIs(RetraSm* engine) noexcept { engine_ = engine; }

  void onTime() override;

 private:
  RetraSm* engine_;
  Orb::Ptr<Orb::Clock> clock_;
};

// One socket libcurl watches: readable and writable both hand the socket back to libcurl.
class RetraSm::OrbSocketFd : public Orb::FileDescriptor::NotifieeConst {
 public:
  OrbSocketFd(RetraSm* engine, int socket) : engine_(engine), socket_(socket) {}
  [[nodiscard]] int socketDescriptor() const noexcept { return socket_; }
  void engineIs(RetraSm* engine) noexcept { engine_ = engine; }

  void onReadableCount() override { handleReady(); }
  void onWritableCount() override { handleReady(); }

 private:
  void handleReady();

  RetraSm* engine_;
  int socket_;
};

}  // namespace Retra
