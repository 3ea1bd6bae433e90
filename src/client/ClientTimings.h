// Time limits of the request hand-off between the application's threads and
// a connection's thread, in milliseconds. They are constants of the library:
// no configuration changes them. Only the answer wait and the waits for a
// thread to end can be shortened, and only by tests, so that a service that
// never answers, or a thread stuck in an exchange, can be tested without
// waiting minutes.
#ifndef KORVANE_CLIENT_CLIENTTIMINGS_H
#define KORVANE_CLIENT_CLIENTTIMINGS_H

#include <korvane/platform/KvnTypes.h>

// A second operation on a busy connection gives up after this wait (-62).
const DWORD KVN_TIMEOUT_USE_CNX_MS = 20000;
// The connection's thread picks a request up at once; it needs longer only
// when its socket is stuck, and then the request fails with -52.
const DWORD KVN_SEND_WAIT_MS = 10000;
// A stored procedure's request may wait behind a long procedure of the same
// connection on the service's side.
const DWORD KVN_SEND_WAIT_PROC_MS = 1000000;
// Releasing a statement is not answered; the caller only waits for the send.
const DWORD KVN_SEND_WAIT_LIBERE_MS = 1000;
// Asking for the last ODBC error text.
const DWORD KVN_SEND_WAIT_ERROR_TEXT_MS = 30000;
// The service answers within its own query time-out; beyond this the request
// is given up with -63 (see KvnGetAnswerWaitMs).
const DWORD KVN_ANSWER_WAIT_MS = 240000;

// Connection thread.
// One connection of the whole process re-opens at a time; a thread that
// cannot get its turn within this time tries again on its next pass.
const DWORD KVN_TIMEOUT_RECONNECTE_MS = 3000;
// Random pause before a re-opening: spreads the connections of several
// applications that lost the service at the same moment.
const DWORD KVN_REOPEN_PAUSE_MIN_MS = 10;
const DWORD KVN_REOPEN_PAUSE_SPREAD = 491;  // pause = rand() % 491 + 10
// After the service closed a connection's socket: lets the service finish
// its own clean-up before the connection is re-opened.
const DWORD KVN_PAUSE_AFTER_CLOSE_MS = 500;
// The events of the main link may disagree with its flags for a moment while
// a loss or a re-opening is being declared; the thread looks again after this
// pause.
const DWORD KVN_PAUSE_WAIT_MAIN_LINK_MS = 10;
// After a network-event set that is neither a read nor a close alone.
const DWORD KVN_PAUSE_ODD_EVENTS_MS = 20;

// The answer wait in force: KVN_ANSWER_WAIT_MS unless a test shortened it.
DWORD KvnGetAnswerWaitMs();
// Tests only: sets the answer wait; 0 restores KVN_ANSWER_WAIT_MS.
void KvnSetAnswerWaitForTests(DWORD ms);

// A wait for a thread to end of ms, unless a test cut it shorter.
DWORD KvnStopWaitMs(DWORD ms);
// Tests only: caps every wait for a thread to end at ms; 0 restores them.
void KvnSetStopWaitsForTests(DWORD ms);

#endif
