#pragma once

#include <curl/curl.h>

namespace Retra {

// The bridge between libcurl's multi socket interface and the activity loop. The engine installs
// the two callbacks on its multi handle with its `CurlGlobalData` record as their user pointer;
// libcurl calls them only from inside the engine's own multi calls.

// CURLMOPT_SOCKETFUNCTION: watches, re-arms or forgets socket `s` as `what` asks. A new socket
// gets an `Orb::FileDescriptor` (kept in the engine's `socket` collection, with a reactor in
// `socketFd`) and a `CurlSocketData` record assigned to it in libcurl. CURL_POLL_IN watches
// readable, CURL_POLL_OUT writable, anything else (CURL_POLL_INOUT included) neither;
// CURL_POLL_REMOVE sets the object's descriptor to -1 and drops it from the engine. Returns 0.
int curlSockCb(CURL* easy, curl_socket_t s, int what, void* userp, void* socketp);

// libcurl's timer wish: sets the engine's timeout clock to now plus `timeoutMs` milliseconds.
// libcurl's -1 (no timer) thus lands one millisecond in the past and fires on the next loop
// turn, which costs one harmless call into libcurl. A null `userp` is fatal.
void curlTimerCb(CURLM* multi, long timeoutMs, void* userp);
// CURLMOPT_TIMERFUNCTION: `curlTimerCb`, returning the 0 libcurl reads as success (libcurl
// reads the callback's result, which a function without one would leave undefined).
int curlTimerCallback(CURLM* multi, long timeoutMs, void* userp);

// The text of a multi result code for traces: "CURLM_BAD_HANDLE" for 1, ..., "CURLM_unknown"
// for any code without a text of its own (0, 5 and 7 included).
[[nodiscard]] const char* mcodeString(int code);

}  // namespace Retra
