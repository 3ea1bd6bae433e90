// Process-wide objects of the client, shared by every CKorvaneClient of the
// process, and the few helpers that the client's own files share.
//
// Not for the client object's fields (CKorvaneClient.h) nor for the timings of
// the request frame (ClientTimings.h).
#ifndef KORVANE_CLIENT_CLIENTGLOBALS_H
#define KORVANE_CLIENT_CLIENTGLOBALS_H

#include <atomic>

#include <korvane/platform/CMutex.h>
#include <korvane/platform/KvnTypes.h>

class CConnexionKorvane;

// Lets one connection at a time, of all clients of the process, re-open its
// socket (the service sees REINIT_CONNEXION one by one). Taken with a 3000 ms
// time-out, before a client's m_mutexConnected and m_mutexAccesList.
extern CMutex g_mutexReconnecte;
// Guards CKorvaneClient::m_dwLastHeartBeat where a heartbeat is recorded.
extern CMutex g_mutexHeartBeat;

// The identifiers of the five notification messages, registered when the
// library is loaded; an application gets the same ones by registering the
// same names (KvnDefs.h). 0 when the registration failed: nothing is posted.
extern const UINT g_nMsgPerteComm;
extern const UINT g_nMsgCommOK;
extern const UINT g_nMsgWarningFermeture;
extern const UINT g_nMsgFermeture;
extern const UINT g_nMsgFermetureKorvane;

// Set by the first Init of the process that asked for a log: the log is set
// up once per process, whatever the later clients ask.
extern std::atomic<int> g_bLogInitialise;

// ---- Time limits shared by the session and the registry -------------------------
// Every registry member gives up on m_mutexAccesList after this long, so that
// a thread stuck while holding it cannot freeze the others for ever.
const DWORD kAccesListLockMs = 20000;
// Free deletes every connection under the lock; each deletion may wait for
// its thread, so it waits longer for the lock itself.
const DWORD kFreeAccesListLockMs = 60000;
// How long a connection's thread is given to end: FreeConnexion waits less
// than the shutdown of the whole client, which may have many threads to stop.
const DWORD kDelConnexionThreadWaitMs = 10000;
const DWORD kCloseThreadsCnxWaitMs = 30000;

// Posts a notification (wParam 0, lParam 0) to hWnd; does nothing when hWnd
// is 0 or msg could not be registered. Never waits for the application.
void PostNotification(HWND hWnd, UINT msg);

#endif
