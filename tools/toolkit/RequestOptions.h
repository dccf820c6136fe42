#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Retra/model/Enumerations.h"
#include "Retra/model/Request.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace RetraTool {

// A bad command line found after CLI11 has read it; the message names the option and the value.
struct UsageError {
  std::string message;
};

// The settings of a request as the tools' command lines give them, checked and converted:
// every field holds a value the library accepts. Options follow curl's names and meanings where
// the library can carry them out.
struct RequestOptions {
  Retra::Method method = Retra::GET;                         // -X; POST when -d is given without -X
  std::vector<std::pair<std::string, std::string>> headers;  // -H, name and value
  std::optional<std::string> body;                           // -d TEXT, or the contents of -d @FILE
  Retra::HttpAuthenticationType authType = Retra::authNone;  // -u with --basic or --digest
  std::string username;
  std::string password;
  bool insecure = false;                   // -k: no certificate or host name check
  std::string pinnedPublicKey;             // --pinnedpubkey, as libcurl takes it
  std::string outputFile;                  // -o ("-" is standard output)
  std::optional<uint16_t> connectTimeout;  // --connect-timeout, whole seconds
  std::optional<uint16_t> maxTime;         // -m, whole seconds; 0 is no overall limit
  std::optional<uint32_t> refresh;         // --refresh, seconds between fetches
};

// Declares the request options on a CLI11 command (-X, -H, -d, -u, --basic, --digest, -k,
// --pinnedpubkey, -o, --connect-timeout, -m, --refresh) and converts what they collected. It
// holds the texts CLI11 writes into, so it lives as long as the command's parse.
//
//   CLI::App app;
//   RetraTool::RequestOptionReader reader(app);
//   app.parse(argc, argv);
//   RetraTool::RequestOptions options = reader.options();   // may throw UsageError
class RequestOptionReader {
 public:
  explicit RequestOptionReader(CLI::App& app);
  RequestOptionReader(const RequestOptionReader&) = delete;
  RequestOptionReader& operator=(const RequestOptionReader&) = delete;

  // The options given, converted; fractional seconds round up to whole seconds, the unit of the
  // library's time-outs. Throws UsageError.
  [[nodiscard]] RequestOptions options() const;

 private:
  RequestOptions direct_;  // the options CLI11 can store as they are
  std::string method_;
  std::vector<std::string> headers_;
  std::vector<std::string> data_;
  std::string user_;
  bool digest_ = false;
  bool basic_ = false;
  std::string connectTimeout_;
  std::string maxTime_;
  std::string refresh_;
};

// The method named `text`, in any case; throws UsageError naming -X and the known methods.
[[nodiscard]] Retra::Method methodNamed(const std::string& text);

// "'text'", for messages.
[[nodiscard]] std::string quoted(const std::string& text);

// The request of `options` for `url`, its body going to `outputPath` (empty: into the
// response). Time-outs follow curl: -m bounds the whole transfer, the connection phase
// included, so the connect time-out never exceeds it.
[[nodiscard]] Retra::Request requestFor(const RequestOptions& options, const std::string& url,
                                        const std::string& outputPath);

}  // namespace RetraTool
