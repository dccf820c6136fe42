#pragma once

#include "Orb/FileDescriptor.h"
#include "Orb/Ptr.h"

namespace Retra {

// The record libcurl keeps for one socket (`curl_multi_assign`) and hands back as the socket
// pointer of later socket callbacks: the framework file descriptor that watches the socket.
//
// Allocated zero-filled (`calloc`) when libcurl first asks for the socket. When libcurl removes
// the socket the record is abandoned, not freed: it keeps its file descriptor object (with
// descriptor -1) for as long as the engine lives, which is what the engine has always done.
struct CurlSocketData {
  Orb::Ptr<Orb::FileDescriptor> fileDescriptor;
};

}  // namespace Retra
