// Process-wide objects of the client: the locks shared by every client of
// the process, the notification message identifiers and the once-per-process
// log set-up flag.
#include "client/ClientGlobals.h"

#include <korvane/KvnDefs.h>
#include <korvane/platform/NotifyWindow.h>

// Both are built before main (and before any client object); the platform's
// kernel objects are created on first use, so the order of construction
// between files does not matter.
CMutex g_mutexReconnecte;
CMutex g_mutexHeartBeat;

const UINT g_nMsgPerteComm = KvnRegisterWindowMessage(KVN_MSG_PERTE_COMM);
const UINT g_nMsgCommOK = KvnRegisterWindowMessage(KVN_MSG_COMM_OK);
const UINT g_nMsgWarningFermeture = KvnRegisterWindowMessage(KVN_MSG_WARNING_FERMETURE);
const UINT g_nMsgFermeture = KvnRegisterWindowMessage(KVN_MSG_FERMETURE);
const UINT g_nMsgFermetureKorvane = KvnRegisterWindowMessage(KVN_MSG_FERMETURE_KORVANE);

std::atomic<int> g_bLogInitialise{0};
