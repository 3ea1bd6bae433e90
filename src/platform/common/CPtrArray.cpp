// CPtrArray and CPtrList: untyped containers of pointers.
#include <korvane/platform/CPtrArray.h>

#include <cstdlib>
#include <cstring>
#include <new>

// ---- CPtrArray ------------------------------------------------------------------

CPtrArray::CPtrArray() : m_pData(nullptr), m_nSize(0), m_nMaxSize(0) {}

CPtrArray::~CPtrArray() { std::free(m_pData); }

void* CPtrArray::GetAt(int index) const {
    if (index < 0 || index >= m_nSize) return nullptr;
    return m_pData[index];
}

void CPtrArray::SetAt(int index, void* p) {
    if (index < 0 || index >= m_nSize) return;
    m_pData[index] = p;
}

BOOL CPtrArray::Grow(int minimumSize) {
    if (minimumSize <= m_nMaxSize) return TRUE;
    int newMax = m_nMaxSize ? m_nMaxSize * 2 : 8;
    while (newMax < minimumSize) newMax *= 2;
    void** p = static_cast<void**>(std::realloc(m_pData, sizeof(void*) * newMax));
    if (!p) return FALSE;
    m_pData = p;
    m_nMaxSize = newMax;
    return TRUE;
}

int CPtrArray::Add(void* p) {
    if (!Grow(m_nSize + 1)) return -1;
    m_pData[m_nSize] = p;
    return m_nSize++;
}

BOOL CPtrArray::InsertAt(int index, void* p) {
    if (index < 0 || index > m_nSize) return FALSE;
    if (!Grow(m_nSize + 1)) return FALSE;
    std::memmove(m_pData + index + 1, m_pData + index, sizeof(void*) * (m_nSize - index));
    m_pData[index] = p;
    ++m_nSize;
    return TRUE;
}

void CPtrArray::RemoveAt(int index, int count) {
    if (index < 0 || count <= 0 || index >= m_nSize) return;
    if (count > m_nSize - index) count = m_nSize - index;
    std::memmove(m_pData + index, m_pData + index + count,
                 sizeof(void*) * (m_nSize - index - count));
    m_nSize -= count;
}

void CPtrArray::RemoveAll() { m_nSize = 0; }

// ---- CPtrList ---------------------------------------------------------------------

struct CPtrListNode {
    CPtrListNode* pNext;
    CPtrListNode* pPrev;
    void* data;
};

CPtrList::CPtrList() : m_pHead(nullptr), m_pTail(nullptr), m_nCount(0), m_pFree(nullptr) {}

CPtrList::~CPtrList() {
    RemoveAll();
    while (m_pFree) {
        CPtrListNode* next = m_pFree->pNext;
        delete m_pFree;
        m_pFree = next;
    }
}

CPtrListNode* CPtrList::NewNode(CPtrListNode* next, CPtrListNode* prev, void* p) {
    CPtrListNode* node = m_pFree;
    if (node) m_pFree = node->pNext;
    else node = new (std::nothrow) CPtrListNode;
    if (node) *node = CPtrListNode{next, prev, p};
    return node;
}

void CPtrList::FreeNode(CPtrListNode* node) {
    node->pNext = m_pFree;
    m_pFree = node;
}

void* CPtrList::GetHead() const { return m_pHead ? m_pHead->data : nullptr; }

void* CPtrList::GetTail() const { return m_pTail ? m_pTail->data : nullptr; }

POSITION CPtrList::AddHead(void* p) {
    CPtrListNode* node = NewNode(m_pHead, nullptr, p);
    if (!node) return nullptr;
    if (m_pHead) m_pHead->pPrev = node;
    else m_pTail = node;
    m_pHead = node;
    ++m_nCount;
    return node;
}

POSITION CPtrList::AddTail(void* p) {
    CPtrListNode* node = NewNode(nullptr, m_pTail, p);
    if (!node) return nullptr;
    if (m_pTail) m_pTail->pNext = node;
    else m_pHead = node;
    m_pTail = node;
    ++m_nCount;
    return node;
}

void* CPtrList::RemoveHead() {
    if (!m_pHead) return nullptr;
    void* data = m_pHead->data;
    RemoveAt(m_pHead);
    return data;
}

void CPtrList::RemoveAt(POSITION pos) {
    if (!pos) return;
    if (pos->pPrev) pos->pPrev->pNext = pos->pNext;
    else m_pHead = pos->pNext;
    if (pos->pNext) pos->pNext->pPrev = pos->pPrev;
    else m_pTail = pos->pPrev;
    FreeNode(pos);
    --m_nCount;
}

void CPtrList::RemoveAll() {
    CPtrListNode* node = m_pHead;
    while (node) {
        CPtrListNode* next = node->pNext;
        delete node;
        node = next;
    }
    m_pHead = m_pTail = nullptr;
    m_nCount = 0;
}

POSITION CPtrList::GetHeadPosition() const { return m_pHead; }

void* CPtrList::GetNext(POSITION& pos) const {
    if (!pos) return nullptr;
    void* data = pos->data;
    pos = pos->pNext;
    return data;
}
