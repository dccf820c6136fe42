#pragma once

#include <curl/curl.h>

#include <cstdio>

#include "Orb/String.h"

namespace Retra {

class Response;

// The record of one libcurl transfer: libcurl hands it back to the transfer's header and write
// callbacks, dispatch configures the easy handle in it and teardown releases what it holds.
//
// Ownership: the engine allocates it zero-filled (`calloc`) when it takes a request in, keeps it
// in its `retraCurl` collection and frees it once the transfer's `RequestSm` has torn the
// transfer down; a `RequestSm` only points at it. The record owns the easy handle, the two
// string lists and the output stream (all released by `RequestSm::doCurlShutdown`); the multi
// handle and the response belong to others.
//
//   auto* cd = static_cast<CurlCallbackData*>(std::calloc(1, sizeof(CurlCallbackData)));
//   new (cd) CurlCallbackData();
//   cd->curlHandle = curl_easy_init();
//   sm->curlDataIs(cd);
struct CurlCallbackData {
  CURL* curlHandle = nullptr;         // the transfer's easy handle; null after teardown
  CURLM* curlMultiHandle = nullptr;   // the engine's multi handle
  FILE* outputFile = nullptr;         // stream on the response's outputPath, opened on demand
  Response* response = nullptr;       // the response the callbacks publish into
  Orb::String requestBody;            // sent with POST and PUT
  CURLcode result = CURLE_OK;         // completion code of the finished transfer
  curl_slist* headerList = nullptr;   // request header lines "name: value"
  curl_slist* resolveList = nullptr;  // CURLOPT_RESOLVE entries
};

}  // namespace Retra
