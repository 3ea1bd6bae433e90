// The heartbeat queue. Every operation but construction and destruction runs
// under the queue's owned mutex, taken under the operation's own name so that
// a lock failure tells who held the queue.
#include "client/CNewQuillonFifo.h"

#include <cstring>
#include <cwchar>
#include <new>

#include "platform/DebugOutput.h"
#include "platform/Kernel.h"

namespace {

// The producer and the consumer hold the lock for a few instructions only: a
// lock not obtained in this time means a stuck holder, and after repeated
// failures the owned mutex replaces itself.
const DWORD kFifoLockMs = 8000;
// A size line is written each time the queue passes another thousand blocks:
// a consumer that falls behind shows in the debugger output.
const int kSeuilTracePas = 1000;

}  // namespace

CNewQuillonFifo::CNewQuillonFifo()
    : m_hEvtNotEmpty(KvnCreateEvent(FALSE, FALSE)),
      m_nNbElements(0),
      m_nSeuilTrace(kSeuilTracePas),
      m_pSortie(nullptr),
      m_pTete(nullptr),
      m_pQueue(nullptr) {}

CNewQuillonFifo::~CNewQuillonFifo() {
    ResetFifo();
    if (KvnIsHandleOpen(m_hEvtNotEmpty)) KvnCloseHandle(m_hEvtNotEmpty);
    m_hEvtNotEmpty = nullptr;
}

void CNewQuillonFifo::FreeElement(Element* e) {
    if (e == nullptr) return;
    delete[] e->pData;
    delete e;
}

int CNewQuillonFifo::AddFifo(const BYTE* data, int nLen) {
    if (!LockOwnedMutex(m_mutex, kFifoLockMs, L"CNewQuillonFifo::AddFifo")) {
        KvnDebugOutput(L"\r\nCNewQuillonFifo::AddFifo Mutex TimeOut    ");
        return m_nNbElements;
    }
    if (data != nullptr && nLen > 0) {
        Element* e = new (std::nothrow) Element;
        BYTE* copy = e ? new (std::nothrow) BYTE[static_cast<size_t>(nLen)] : nullptr;
        if (copy != nullptr) {
            std::memcpy(copy, data, static_cast<size_t>(nLen));
            e->pNext = nullptr;
            e->pData = copy;
            e->nLen = nLen;
            if (m_pQueue != nullptr) m_pQueue->pNext = e;
            else m_pTete = e;
            m_pQueue = e;
            ++m_nNbElements;
            KvnSetEvent(m_hEvtNotEmpty);
            if (m_nNbElements / m_nSeuilTrace >= 1) {
                wchar_t line[64];
                std::swprintf(line, sizeof line / sizeof line[0], L"\r\n %d element dans le fifo  ",
                              m_nNbElements.load());
                KvnDebugOutput(line);
                // Never lowered: the line marks a new high only.
                m_nSeuilTrace += kSeuilTracePas;
            }
        } else {
            // Out of memory: the block is lost, as a datagram would be.
            delete e;
        }
    }
    const int count = m_nNbElements;
    UnlockOwnedMutex(m_mutex);
    return count;
}

BYTE* CNewQuillonFifo::GetFifo(int& nLen) {
    // The consumer polls often; an empty queue does not cost it the lock.
    if (m_nNbElements == 0) return nullptr;
    if (!LockOwnedMutex(m_mutex, kFifoLockMs, L"CNewQuillonFifo::GetFifo")) {
        KvnDebugOutput(L"\r\nCNewQuillonFifo::GetFifo Mutex TimeOut    ");
        return nullptr;
    }
    BYTE* data = nullptr;
    FreeElement(m_pSortie);
    m_pSortie = nullptr;
    if (m_pTete != nullptr) {
        Element* e = m_pTete;
        m_pTete = e->pNext;
        if (m_pTete == nullptr) m_pQueue = nullptr;
        e->pNext = nullptr;
        m_pSortie = e;
        --m_nNbElements;
        data = e->pData;
        nLen = e->nLen;
    }
    UnlockOwnedMutex(m_mutex);
    return data;
}

int CNewQuillonFifo::GetSize() {
    if (!LockOwnedMutex(m_mutex, kFifoLockMs, L"CNewQuillonFifo::GetSize")) {
        KvnDebugOutput(L"\r\nCNewQuillonFifo::GetSize Mutex TimeOut    ");
        return 0;
    }
    const int count = m_nNbElements;
    UnlockOwnedMutex(m_mutex);
    return count;
}

void CNewQuillonFifo::ResetFifo() {
    if (!LockOwnedMutex(m_mutex, kFifoLockMs, L"CNewQuillonFifo::ResetFifo")) {
        KvnDebugOutput(L"\r\nCNewQuillonFifo::ResetFifo Mutex TimeOut    ");
        return;
    }
    FreeElement(m_pSortie);
    m_pSortie = nullptr;
    while (m_pTete != nullptr) {
        Element* next = m_pTete->pNext;
        FreeElement(m_pTete);
        m_pTete = next;
    }
    m_pQueue = nullptr;
    m_nNbElements = 0;
    UnlockOwnedMutex(m_mutex);
}
