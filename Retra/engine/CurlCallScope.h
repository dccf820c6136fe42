#pragma once

#include "Orb/Ptr.h"

namespace Retra {

class RetraSm;

// Marks the engine as inside libcurl for as long as it lives: around `curl_multi_socket_action`,
// whose transfer callbacks notify clients, and a client's reactor may then withdraw or change a
// request, call `shutdown()` or drop its `Root`. libcurl objects must not be released, nor easy
// handles added, while libcurl is on the stack, so the engine queues such work
// (`RetraSm::whenOutOfCurl`) and the outermost scope runs it, in order, as it ends. The scope
// also holds the engine, so that nothing a client does destroys it under libcurl.
//
//   {
//     CurlCallScope inside(*this);
//     curl_multi_socket_action(multi, fd, 0, &running);
//   }  // queued releases and additions run here
class CurlCallScope {
 public:
  explicit CurlCallScope(RetraSm& engine);
  ~CurlCallScope();
  CurlCallScope(const CurlCallScope&) = delete;
  CurlCallScope& operator=(const CurlCallScope&) = delete;

 private:
  Orb::Ptr<RetraSm> engine_;
};

}  // namespace Retra
