/// \file
/// Starting and stopping the platform's socket layer. The application calls
/// SockInitWinSock once before its first CKorvaneClient::Init and
/// SockCloseWinSock after its last client has been freed.
#ifndef KORVANE_SOCKINIT_H
#define KORVANE_SOCKINIT_H

#include <korvane/KvnExport.h>

extern "C" {
/// 1 when the socket layer (version 2.2) is running, 0 otherwise.
KVN_API int SockInitWinSock();
/// 1 when the socket layer was stopped, 0 otherwise.
KVN_API int SockCloseWinSock();
}

#endif
