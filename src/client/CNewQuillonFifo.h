// CNewQuillonFifo: the queue of byte blocks between the heartbeat receiver
// (the producer, ThreadUDP) and ThreadHeartBeat (the consumer). Each block is
// copied once when it is queued; the consumer owns only the block it took
// last, which stays valid until its next GetFifo or ResetFifo.
//
// Not a general container: one producer, one consumer, blocks taken in the
// order they came.
#ifndef KORVANE_CLIENT_CNEWQUILLONFIFO_H
#define KORVANE_CLIENT_CNEWQUILLONFIFO_H

#include <atomic>

#include <korvane/platform/KvnTypes.h>

#include "diag/OwnedMutex.h"

class CNewQuillonFifo {
public:
    CNewQuillonFifo();
    virtual ~CNewQuillonFifo();

    CNewQuillonFifo(const CNewQuillonFifo&) = delete;
    CNewQuillonFifo& operator=(const CNewQuillonFifo&) = delete;

    // Queues a copy of the nLen bytes at data (ignored when data is null or
    // nLen is 0 or less). Returns the number of queued blocks.
    int AddFifo(const BYTE* data, int nLen);
    // The oldest block and its length in nLen, or null when the queue is empty
    // (nLen is then left alone). The block frees the one handed out before.
    BYTE* GetFifo(int& nLen);
    int GetSize();
    // Empties the queue, the block handed out last included.
    void ResetFifo();

    // Set by every AddFifo (auto reset): a consumer may wait on it.
    HANDLE GetEventNotEmpty() const { return m_hEvtNotEmpty; }

private:
    struct Element {
        Element* pNext;
        BYTE* pData;
        int nLen;
    };

    static void FreeElement(Element* e);

    HANDLE m_hEvtNotEmpty;
    // Read without the lock by GetFifo's empty test, hence atomic.
    std::atomic<int> m_nNbElements;
    int m_nSeuilTrace;
    COwnedMutex m_mutex;
    Element* m_pSortie;
    Element* m_pTete;
    Element* m_pQueue;
};

#endif
