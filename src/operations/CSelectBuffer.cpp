// CLigneSelect and CSelectBuffer: the rows of a select between the result
// receiver, which appends them from the connection's thread, and Fetch and the
// GetData family, which consume them from the application's thread.
//
// Rows and values are handed over by pointer and owned by their container:
// nothing is copied on the way from the receiver to GetData. The buffer's
// flags (end mark, block in reception) are plain reads and writes outside the
// lock: Fetch polls them while a block arrives.
#include <korvane/CSelectBuffer.h>

#include <korvane/KvnDefs.h>

#include <new>

namespace {

// Holds a CMutex for the lifetime of the scope. The waits are unlimited: the
// buffer's and the row's locks are held only for a few list operations.
class ScopedLock {
public:
    explicit ScopedLock(CMutex& m) : m_mutex(m) { m_mutex.Lock(INFINITE); }
    ~ScopedLock() { m_mutex.Unlock(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    CMutex& m_mutex;
};

} // namespace

// ---- CLigneSelect -------------------------------------------------------------

CLigneSelect::CLigneSelect() {}

CLigneSelect::CLigneSelect(CLigneSelect& other) { *this = other; }

CLigneSelect::~CLigneSelect() { VideLigne(); }

CLigneSelect& CLigneSelect::operator=(CLigneSelect& other) {
    if (this == &other) return *this;
    ScopedLock lock(m_mutexLigne);
    VideLigne();
    // The source row is read without its lock: a row is copied only once it
    // is complete, and complete rows no longer change.
    for (int i = 0; i < other.m_arrayParam.GetSize(); i++) {
        const CParam* src = static_cast<const CParam*>(other.m_arrayParam.GetAt(i));
        CParam* copy = new (std::nothrow) CParam();
        if (!copy) break;
        if (src) *copy = *src;
        if (m_arrayParam.Add(copy) < 0) {
            delete copy;
            break;
        }
    }
    return *this;
}

void CLigneSelect::AddParam(CParam* p) {
    if (!p) return;
    ScopedLock lock(m_mutexLigne);
    // The row owns what it was given: a value it cannot hold is freed here.
    if (m_arrayParam.Add(p) < 0) delete p;
}

void CLigneSelect::VideLigne() {
    ScopedLock lock(m_mutexLigne);
    for (int i = 0; i < m_arrayParam.GetSize(); i++) delete static_cast<CParam*>(m_arrayParam.GetAt(i));
    m_arrayParam.RemoveAll();
}

int CLigneSelect::GetNbColonnes() {
    ScopedLock lock(m_mutexLigne);
    return m_arrayParam.GetSize();
}

CParam* CLigneSelect::GetParam(int col) {
    ScopedLock lock(m_mutexLigne);
    if (col < 1 || col > m_arrayParam.GetSize()) return nullptr;
    return static_cast<CParam*>(m_arrayParam.GetAt(col - 1));
}

// ---- CSelectBuffer ------------------------------------------------------------

CSelectBuffer::CSelectBuffer() : m_bFetched(0), m_bLastLigne(0), m_bCurrentRecept(0) {}

CSelectBuffer::~CSelectBuffer() { VideBuffer(); }

int CSelectBuffer::AddLigne(CLigneSelect* row) {
    if (!row) return 0;
    ScopedLock lock(m_mutexBuffer);
    // The buffer owns what it was given: a row it cannot queue is freed here.
    if (!m_listLigne.AddTail(row)) delete row;
    return 0;
}

int CSelectBuffer::Fetch(int& remaining) {
    ScopedLock lock(m_mutexBuffer);
    if (m_listLigne.IsEmpty()) {
        m_bFetched = 0;
        return KVN_NO_DATA;
    }
    // The current row has been read: drop it (the lock is recursive).
    if (m_bFetched) {
        SuppLigne();
        if (m_listLigne.IsEmpty()) {
            m_bFetched = 0;
            return KVN_NO_DATA;
        }
    }
    remaining = m_listLigne.GetCount() - 1;
    m_bFetched = 1;
    return 0;
}

int CSelectBuffer::GetData(int col, CParam** value) {
    ScopedLock lock(m_mutexBuffer);
    CLigneSelect* head = static_cast<CLigneSelect*>(m_listLigne.GetHead());
    if (!head) {
        m_bFetched = 0;
        return KVN_NO_DATA;
    }
    CParam* p = head->GetParam(col);
    if (!p) return KVN_NO_DATA;
    if (value) *value = p;
    return 0;
}

int CSelectBuffer::GetNbLigne() {
    ScopedLock lock(m_mutexBuffer);
    int n = m_listLigne.GetCount() - (m_bFetched ? 1 : 0);
    return n < 0 ? 0 : n;
}

void CSelectBuffer::SuppLigne() {
    ScopedLock lock(m_mutexBuffer);
    if (!m_listLigne.IsEmpty()) delete static_cast<CLigneSelect*>(m_listLigne.RemoveHead());
    if (m_listLigne.IsEmpty()) m_bFetched = 0;
}

void CSelectBuffer::BeginRecept() {
    m_mutexBuffer.Lock(INFINITE);
    m_bCurrentRecept = 1;
}

void CSelectBuffer::EndRecept() {
    m_bCurrentRecept = 0;
    m_mutexBuffer.Unlock();
}

void CSelectBuffer::WaitRecept() {
    // The flag is set only under the lock: taking the lock waits for the
    // block in progress, after which the flag is clear (or a new block began,
    // and is waited for in turn).
    while (m_bCurrentRecept) {
        ScopedLock lock(m_mutexBuffer);
    }
}

void CSelectBuffer::VideBuffer() {
    ScopedLock lock(m_mutexBuffer);
    while (!m_listLigne.IsEmpty()) delete static_cast<CLigneSelect*>(m_listLigne.RemoveHead());
    m_bFetched = 0;
    m_bLastLigne = 0;
    // m_bCurrentRecept belongs to the receiver that may be adding a block.
}
