// The heartbeat receiver: the block that ThreadHeartBeat hands to its
// receiver thread, ThreadUDP, and the receiver itself. ThreadHeartBeat is
// declared with the other thread bodies in ClientThreads.h.
#ifndef KORVANE_CLIENT_THREADHEARTBEAT_H
#define KORVANE_CLIENT_THREADHEARTBEAT_H

#include <atomic>

#include <korvane/platform/KvnTypes.h>

class CNewQuillonFifo;

#define KVN_UDP_MODE_MULTICAST 1
#define KVN_UDP_MODE_BROADCAST 2

// Filled by ThreadHeartBeat before the receiver starts; afterwards the
// receiver writes `sock` once and ThreadHeartBeat writes `bRun` once.
struct CParamUDP {
    std::atomic<BOOL> bRun;        // the receiver runs while non-zero
    HANDLE hThreadStopped;         // manual reset; set by the receiver as it ends
    CNewQuillonFifo* pFifoIn;      // where received datagrams go
    wchar_t szAdresseGroupe[20];   // multicast group to join; empty in broadcast
    int nPort;                     // UDP port to bind (low 16 bits)
    int nMode;                     // KVN_UDP_MODE_MULTICAST or KVN_UDP_MODE_BROADCAST
    std::atomic<SOCKET> sock;      // the receiving socket, written by the receiver
};

// Receives datagrams on paramUDP->nPort and queues every one longer than a
// bare 12 bytes in paramUDP->pFifoIn until bRun drops; sets hThreadStopped as
// it ends. The socket is left to ThreadHeartBeat, which closes it to wake a
// receive in progress. arg: the CParamUDP.
void ThreadUDP(void* arg);

#endif
