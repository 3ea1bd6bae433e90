/// \file
/// CPtrArray and CPtrList: the application framework's untyped containers of
/// pointers. They own nothing: the pointers they hold are their users' to
/// free. No lock: their users guard them.
#ifndef KORVANE_PLATFORM_CPTRARRAY_H
#define KORVANE_PLATFORM_CPTRARRAY_H

#include <korvane/KvnExport.h>
#include <korvane/platform/KvnTypes.h>

/// A growable array of pointers. Indexes outside 0..GetSize()-1 are refused:
/// GetAt answers null and the changing members do nothing.
class KVN_API CPtrArray {
public:
    /// An empty array.
    CPtrArray();
    /// Frees the array itself, not what its pointers point to.
    ~CPtrArray();

    CPtrArray(const CPtrArray&) = delete;
    CPtrArray& operator=(const CPtrArray&) = delete;

    /// The number of elements.
    int GetSize() const { return m_nSize; }
    /// The number of elements.
    int GetCount() const { return m_nSize; }
    /// Whether there is no element.
    bool IsEmpty() const { return m_nSize == 0; }

    /// The element at index, or null outside the array.
    void* GetAt(int index) const;
    /// Replaces the element at index; nothing outside the array.
    void SetAt(int index, void* p);
    /// GetAt.
    void* operator[](int index) const { return GetAt(index); }

    /// Appends; returns the new element's index, or -1 when memory ran out.
    int Add(void* p);
    /// Inserts before index (index == GetSize() appends); FALSE when refused.
    kvn::Bool InsertAt(int index, void* p);
    /// Removes count elements from index on (fewer at the end of the array).
    void RemoveAt(int index, int count = 1);
    /// Removes every element.
    void RemoveAll();

private:
    kvn::Bool Grow(int minimumSize);

    void** m_pData;
    int m_nSize;
    int m_nMaxSize;
};

struct CPtrListNode;
/// Where an element of a CPtrList is; null for none.
typedef CPtrListNode* POSITION;

/// A doubly linked list of pointers. A POSITION names an element until it is
/// removed.
class KVN_API CPtrList {
public:
    /// An empty list.
    CPtrList();
    /// Frees the list itself, not what its pointers point to.
    ~CPtrList();

    CPtrList(const CPtrList&) = delete;
    CPtrList& operator=(const CPtrList&) = delete;

    /// The number of elements.
    int GetCount() const { return m_nCount; }
    /// Whether there is no element.
    bool IsEmpty() const { return m_nCount == 0; }

    /// The first element; null when the list is empty.
    void* GetHead() const;
    /// The last element; null when the list is empty.
    void* GetTail() const;

    /// Puts p first; its POSITION, or null when memory ran out.
    POSITION AddHead(void* p);
    /// Puts p last; its POSITION, or null when memory ran out.
    POSITION AddTail(void* p);

    /// Removes the first element and returns it; null on an empty list.
    void* RemoveHead();
    /// Removes the element at pos (nothing for a null pos).
    void RemoveAt(POSITION pos);
    /// Removes every element.
    void RemoveAll();

    /// The first element's POSITION; null on an empty list.
    POSITION GetHeadPosition() const;
    /// Returns the element at pos and moves pos to the next one (null at the
    /// end).
    void* GetNext(POSITION& pos) const;

private:
    CPtrListNode* NewNode(CPtrListNode* next, CPtrListNode* prev, void* p);
    void FreeNode(CPtrListNode* node);

    CPtrListNode* m_pHead;
    CPtrListNode* m_pTail;
    int m_nCount;
    // Nodes of removed elements, kept for the next additions: a queue that
    // elements go through one by one (rows of a select) allocates nothing
    // once it has reached its largest size.
    CPtrListNode* m_pFree;
};

#endif
