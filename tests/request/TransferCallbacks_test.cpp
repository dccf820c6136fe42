// The transfer callbacks, called the way libcurl calls them: header lines parsed into the
// response, body chunks into the body or a file, verbose output into the trace.

#include "Retra/request/TransferCallbacks.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "Retra/model/Response.h"
#include "Retra/request/CurlCallbackData.h"
#include "engine/support/TraceCapture.h"
#include "support/TempDir.h"

namespace {

using Retra::Response;

// Finishes the response as soon as its body changes.
class FinishOnBody : public Response::NotifieeConst {
 public:
  explicit FinishOnBody(Response* response) : response_(response) {}
  void onBody() override { response_->requestStateIs(Retra::stateFinished); }

 private:
  Response* response_;
};

class TransferCallbacksTest : public ::testing::Test {
 protected:
  void SetUp() override {
    record_.response = response_.ptr();
    record_.curlHandle = curl_easy_init();  // a transfer not torn down
  }
  void TearDown() override {
    if (record_.outputFile) std::fclose(record_.outputFile);
    curl_easy_cleanup(record_.curlHandle);
  }

  // One header line as libcurl hands it over; returns what the callback took.
  size_t header(const std::string& line) {
    std::string buffer = line;  // the callback must not rely on a terminator
    return Retra::curlHeaderCB(buffer.data(), 1, buffer.size(), &record_);
  }
  size_t write(const std::string& chunk) {
    std::string buffer = chunk;
    return Retra::curlWriteCB(buffer.data(), 1, buffer.size(), &record_);
  }

  EngineTest::TraceCapture trace_;
  Orb::Ptr<Response> response_ =
      Orb::allocate<Response>(Retra::RequestKey(Retra::GET, "http://127.0.0.1/"));
  Retra::CurlCallbackData record_;
};

// The white-space rule itself is proven end to end; here: what is taken, what is stored.
TEST_F(TransferCallbacksTest, HeaderLinesAreTakenWholeAndStoredOnlyWithAValue) {
  for (const std::string line : {"HTTP/1.1 200 OK\r\n", "\r\n", "X-Empty:\r\n", "X-Blank: \r\n",
                                 "X-Tight:tight\r\n", "x-tight: again\r\n"}) {
    EXPECT_EQ(header(line), line.size()) << line;
  }
  EXPECT_EQ(response_->requestState(), Retra::stateRecvHeader);
  EXPECT_TRUE(trace_.messages().empty());
  // The blank after the colon is the value; skipping it leaves an empty one. Names are kept as
  // received.
  EXPECT_EQ(response_->header().size(), 3u);
  EXPECT_EQ(response_->header("X-Blank"), "");
  EXPECT_EQ(response_->header("X-Tight"), "tight");
  EXPECT_EQ(response_->header("x-tight"), "again");

  // A finished response refuses further lines untouched.
  response_->requestStateIs(Retra::stateFinished);
  EXPECT_EQ(header("Content-Type: text/plain\r\n"), 0u);
  EXPECT_EQ(response_->header().size(), 3u);
  EXPECT_EQ(response_->requestState(), Retra::stateFinished);
}

TEST_F(TransferCallbacksTest, BodyChunksConcatenateBinarySafe) {
  EXPECT_EQ(write("first "), 6u);
  EXPECT_EQ(response_->requestState(), Retra::stateRecvBody);
  EXPECT_EQ(write(std::string("nul\0inside", 10)), 10u);
  EXPECT_EQ(response_->body().size(), 16u);
  EXPECT_EQ(response_->body().view(), std::string_view("first nul\0inside", 16));
  EXPECT_EQ(write(""), 0u);
  EXPECT_EQ(response_->body().size(), 16u);

  // A response finished while the chunk is taken in (here by an observer of the body) refuses
  // it: the chunk is stored, then libcurl is told to abort.
  auto finisher = Orb::allocate<FinishOnBody>(response_.ptr());
  finisher->notifierIs(response_);
  EXPECT_EQ(write("late"), 0u);
  EXPECT_EQ(response_->body().view(), std::string_view("first nul\0insidelate", 20));
  EXPECT_EQ(response_->requestState(), Retra::stateFinished);
}

TEST_F(TransferCallbacksTest, OutputPathTakesTheBodyInsteadOfTheResponse) {
  RetraTest::TempDir dir;
  response_->outputPathIs(Orb::String(dir.path("download.bin")));

  EXPECT_EQ(write("abc"), 3u);
  ASSERT_NE(record_.outputFile, nullptr);
  FILE* stream = record_.outputFile;
  EXPECT_EQ(write(std::string("\0def", 4)), 4u);
  EXPECT_EQ(record_.outputFile, stream);  // opened once, kept open
  std::fflush(stream);
  EXPECT_EQ(dir.read("download.bin"), std::string("abc\0def", 7));
  EXPECT_TRUE(response_->body().empty());
  EXPECT_EQ(response_->lastError(), Retra::errNone);

  // An existing file is truncated when it is opened, also by an empty chunk.
  std::fclose(record_.outputFile);
  record_.outputFile = nullptr;
  dir.write("again.bin", "old contents");
  response_->outputPathIs(Orb::String(dir.path("again.bin")));
  EXPECT_EQ(write(""), 0u);
  ASSERT_NE(record_.outputFile, nullptr);
  EXPECT_EQ(dir.read("again.bin"), "");
}

TEST_F(TransferCallbacksTest, NullRecordIsFatal) {
  char line[] = "A: b\r\n";
  EXPECT_DEATH(Retra::curlHeaderCB(line, 1, 6, nullptr), "cd");
  EXPECT_DEATH(Retra::curlWriteCB(line, 1, 6, nullptr), "cd");
}

TEST_F(TransferCallbacksTest, DebugOutputIsTracedAtLevelFiveByKind) {
  char text[] = "Connected to 127.0.0.1\n";
  char in[] = "HTTP/1.1 200 OK\r\n";
  char out[] = "GET / HTTP/1.1\r\n";
  char data[] = "0123456789";
  EXPECT_EQ(Retra::curlDebugCB(nullptr, CURLINFO_TEXT, text, 3, nullptr), 0);
  EXPECT_EQ(Retra::curlDebugCB(nullptr, CURLINFO_HEADER_IN, in, 4, nullptr), 0);
  EXPECT_EQ(Retra::curlDebugCB(nullptr, CURLINFO_HEADER_OUT, out, 5, nullptr), 0);
  EXPECT_EQ(Retra::curlDebugCB(nullptr, CURLINFO_DATA_IN, data, 10, nullptr), 0);
  EXPECT_EQ(Retra::curlDebugCB(nullptr, CURLINFO_DATA_OUT, data, 7, nullptr), 0);
  EXPECT_EQ(Retra::curlDebugCB(nullptr, CURLINFO_SSL_DATA_IN, data, 10, nullptr), 0);

  // Text and headers go out whole, up to their terminator, whatever the size says; each line of
  // trace text is one line of output, so the trailing line ends are read back as line breaks.
  std::vector<std::string> messages;
  for (const auto& line : trace_.lines()) {
    EXPECT_EQ(line.level, 5u);
    EXPECT_EQ(line.function, "curlDebugCB");
    messages.push_back(line.message);
  }
  EXPECT_EQ(messages, (std::vector<std::string>{
                          "Connected to 127.0.0.1", "curl_response_data=HTTP/1.1 200 OK\r",
                          "curl_request_hdr=GET / HTTP/1.1\r", "curl_data_in_bytes=10",
                          "curl_data_out_bytes=7", "curl debug_default=5"}));
}

}  // namespace
