// The bodies of the client's background threads and the request hand-off.
// Each thread receives its parameter block as `arg` and returns 0.
#ifndef KORVANE_CLIENT_CLIENTTHREADS_H
#define KORVANE_CLIENT_CLIENTTHREADS_H

class CConnexionKorvane;

// One per client object: supervises the main socket and re-opens the session
// after a loss. arg: the CKorvaneClient.
unsigned ThreadSockPrincipale(void* arg);
// One per lifetime of the main link: receives the service's heartbeat and
// declares a loss when it stays away. arg: the CKorvaneClient.
unsigned ThreadHeartBeat(void* arg);
// One per logical connection: sends the requests handed over by callers,
// receives and dispatches the answers, re-opens the connection's socket.
// arg: a heap-allocated CParamThreadCnx that the thread frees.
unsigned ThreadSockClient(void* arg);
// Sends the request published in cnx->m_pMsgAEnvoyer (under m_mutexEnvoi)
// and reports the outcome through m_bMsgSended, m_nCodeErreur and the count
// and time of the acknowledged sends; run by the connection's thread, or by
// a caller that has borrowed the socket.
void EnvoiRequeteCnx(CConnexionKorvane* cnx);

#endif
