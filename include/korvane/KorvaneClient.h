/// \file
/// The whole public interface of the Korvane client library: what an
/// application includes.
#ifndef KORVANE_KORVANECLIENT_H
#define KORVANE_KORVANECLIENT_H

#include <korvane/CKorvaneClient.h>
#include <korvane/CMsgSocket.h>
#include <korvane/CMsgSocketClient.h>
#include <korvane/CParam.h>
#include <korvane/CParamComm.h>
#include <korvane/CSelectBuffer.h>
#include <korvane/KvnDefs.h>
#include <korvane/SockInit.h>
#include <korvane/platform/CString.h>
#include <korvane/platform/DStr.h>
#include <korvane/platform/KvnWait.h>
#include <korvane/platform/NotifyWindow.h>

#endif
