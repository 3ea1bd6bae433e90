// CPtrArray and CPtrList: the application framework's untyped containers of
// pointers. They own nothing: the pointers they hold are their users' to free.
#ifndef KORVANE_PLATFORM_CPTRARRAY_H
#define KORVANE_PLATFORM_CPTRARRAY_H

#include <korvane/KvnExport.h>
#include <korvane/platform/KvnTypes.h>

// A growable array of pointers. Indexes outside 0..GetSize()-1 are refused:
// GetAt answers null and the changing members do nothing.
class KVN_API CPtrArray {
public:
    CPtrArray();
    ~CPtrArray();

    CPtrArray(const CPtrArray&) = delete;
    CPtrArray& operator=(const CPtrArray&) = delete;

    int GetSize() const { return m_nSize; }
    int GetCount() const { return m_nSize; }
    bool IsEmpty() const { return m_nSize == 0; }

    void* GetAt(int index) const;
    void SetAt(int index, void* p);
    void* operator[](int index) const { return GetAt(index); }

    // Appends; returns the new element's index, or -1 when memory ran out.
    int Add(void* p);
    // Inserts before index (index == GetSize() appends); FALSE when refused.
    kvn::Bool InsertAt(int index, void* p);
    void RemoveAt(int index, int count = 1);
    void RemoveAll();

private:
    kvn::Bool Grow(int minimumSize);

    void** m_pData;
    int m_nSize;
    int m_nMaxSize;
};

struct CPtrListNode;
typedef CPtrListNode* POSITION;

// A doubly linked list of pointers.
class KVN_API CPtrList {
public:
    CPtrList();
    ~CPtrList();

    CPtrList(const CPtrList&) = delete;
    CPtrList& operator=(const CPtrList&) = delete;

    int GetCount() const { return m_nCount; }
    bool IsEmpty() const { return m_nCount == 0; }

    // Null when the list is empty.
    void* GetHead() const;
    void* GetTail() const;

    // Null POSITION when memory ran out.
    POSITION AddHead(void* p);
    POSITION AddTail(void* p);

    // Removes the first element and returns it; null on an empty list.
    void* RemoveHead();
    void RemoveAt(POSITION pos);
    void RemoveAll();

    POSITION GetHeadPosition() const;
    // Returns the element at pos and moves pos to the next one (null at the end).
    void* GetNext(POSITION& pos) const;

private:
    CPtrListNode* m_pHead;
    CPtrListNode* m_pTail;
    int m_nCount;
};

#endif
