#pragma once

#include <curl/curl.h>

#include <cstddef>

namespace Retra {

// The libcurl callbacks that dispatch installs on every easy handle. They run inside the
// engine's `curl_multi_socket_action` calls, on the activity loop's thread, and publish straight
// into the transfer's `Response`: its headers, its body (or the file at its `outputPath`), its
// `requestState` and file errors. Each response notification they cause runs synchronously
// inside the callback.
//
// The header and write callbacks get the transfer's `CurlCallbackData` as user pointer (a null
// one is fatal). They are also where a transfer is cancelled: once the response reads
// `stateFinished` they refuse data (return 0), and libcurl aborts the transfer.
//
//   curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, Retra::curlHeaderCB);
//   curl_easy_setopt(easy, CURLOPT_HEADERDATA, cd);
//   curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, Retra::curlWriteCB);
//   curl_easy_setopt(easy, CURLOPT_WRITEDATA, cd);

// One header line (the status line and the blank line that ends the headers included): moves
// the response to `stateRecvHeader` and stores "name: value" lines with `headerIs` (the name as
// received; the value to the end of the line, after one leading blank). Lines without a value
// store nothing. Returns the line's length, or 0 once the response is finished.
size_t curlHeaderCB(void* buffer, size_t size, size_t nitems, void* userdata);

// One chunk of body: moves the response to `stateRecvBody`, then appends the chunk to `body`,
// or writes it to the file at `outputPath` (opened on the first chunk, kept open until
// teardown). A file that cannot be opened or written sets `errFile` with the system's message
// and returns 0. Otherwise returns the chunk's length, or 0 when the response reads
// `stateFinished` afterwards.
size_t curlWriteCB(void* buffer, size_t size, size_t nmemb, void* userdata);

// libcurl's verbose output (installed only for requests asking for `debug`), traced at level 5.
// Text, incoming and outgoing headers are traced as NUL-terminated text; data chunks by size.
// Always returns 0.
int curlDebugCB(CURL* handle, curl_infotype type, char* data, size_t size, void* userptr);

}  // namespace Retra
