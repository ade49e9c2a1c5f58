// The system's socket functions, as platform/socket.h uses them.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>

#include "platform/win32/system_library.h"

namespace kova {

/// Winsock, loaded at run time: a tool call that reaches no engine does not pay for it. The members
/// have the names of its functions, without the prefix WSA.
struct Winsock {
  decltype(&::WSAStartup) startup;
  decltype(&::WSACleanup) cleanup;
  decltype(&::WSAGetLastError) last_error;
  decltype(&::WSASocketW) socket;
  decltype(&::accept) accept;
  decltype(&::bind) bind;
  decltype(&::closesocket) closesocket;
  decltype(&::connect) connect;
  decltype(&::freeaddrinfo) freeaddrinfo;
  decltype(&::getaddrinfo) getaddrinfo;
  decltype(&::htonl) htonl;
  decltype(&::htons) htons;
  decltype(&::ioctlsocket) ioctlsocket;
  decltype(&::listen) listen;
  decltype(&::recv) recv;
  decltype(&::select) select;
  decltype(&::send) send;
  decltype(&::setsockopt) setsockopt;
  decltype(&::shutdown) shutdown;

  /// False when one of them is missing.
  [[nodiscard]] bool load() {
    const SystemLibrary library(L"ws2_32.dll");
    return library.find("WSAStartup", startup) && library.find("WSACleanup", cleanup) &&
           library.find("WSAGetLastError", last_error) && library.find("WSASocketW", socket) &&
           library.find("accept", accept) && library.find("bind", bind) &&
           library.find("closesocket", closesocket) && library.find("connect", connect) &&
           library.find("freeaddrinfo", freeaddrinfo) && library.find("getaddrinfo", getaddrinfo) &&
           library.find("htonl", htonl) && library.find("htons", htons) &&
           library.find("ioctlsocket", ioctlsocket) && library.find("listen", listen) &&
           library.find("recv", recv) && library.find("select", select) &&
           library.find("send", send) && library.find("setsockopt", setsockopt) &&
           library.find("shutdown", shutdown);
  }
};

}  // namespace kova
