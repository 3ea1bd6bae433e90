// CLigneSelect and CSelectBuffer: the rows of a select between their arrival
// from the service, in blocks, and their reading by the application, one row
// at a time. The connection's thread appends rows while the application's
// thread fetches and reads them, so both classes carry their own lock.
#ifndef KORVANE_CSELECTBUFFER_H
#define KORVANE_CSELECTBUFFER_H

#include <atomic>

#include <korvane/CParam.h>
#include <korvane/KvnExport.h>
#include <korvane/platform/CMutex.h>
#include <korvane/platform/CPtrArray.h>

// One row: one CParam per column, column 1 first. The row owns its values.
class KVN_API CLigneSelect {
public:
    CLigneSelect();
    CLigneSelect(CLigneSelect& other);
    ~CLigneSelect();

    CLigneSelect& operator=(CLigneSelect& other);

    // Appends p as the next column; the row takes ownership.
    void AddParam(CParam* p);
    void VideLigne();

    int GetNbColonnes();
    // The value of column col (1-based), or null.
    CParam* GetParam(int col);

private:
    CMutex m_mutexLigne;
    CPtrArray m_arrayParam;
};

// The queue of rows of one connection. The head row is the current row once
// Fetch has made it current.
class KVN_API CSelectBuffer {
public:
    CSelectBuffer();
    ~CSelectBuffer();

    CSelectBuffer(const CSelectBuffer&) = delete;
    CSelectBuffer& operator=(const CSelectBuffer&) = delete;

    // Appends row; the buffer takes ownership. Always 0.
    int AddLigne(CLigneSelect* row);
    // Makes the next row current: 0 (remaining = rows after it) or
    // KVN_NO_DATA (remaining untouched).
    int Fetch(int& remaining);
    // *value = column col (1-based) of the head row: 0, or KVN_NO_DATA.
    int GetData(int col, CParam** value);
    // Rows not yet fetched.
    int GetNbLigne();
    void SuppLigne();
    void VideBuffer();

    void SetLastLigne() { m_bLastLigne = 1; }
    int IsLastLigne() { return m_bLastLigne; }
    void SetCurrentRecept(int on) { m_bCurrentRecept = on; }
    int IsCurrentReceptLine() { return m_bCurrentRecept; }

    // The receiver holds the buffer's lock for the whole of a block and sets
    // the reception flag inside it: BeginRecept locks, then sets the flag;
    // EndRecept clears it, then unlocks. While the flag is seen set, the lock
    // is held, so a reader waits for the block on the lock (WaitRecept).
    void BeginRecept();
    void EndRecept();
    // Returns once no block is being appended.
    void WaitRecept();

private:
    CMutex m_mutexBuffer;
    CPtrList m_listLigne;
    int m_bFetched;
    // Written by the connection's thread, read by the application's without
    // the lock.
    std::atomic<int> m_bLastLigne;
    std::atomic<int> m_bCurrentRecept;
};

#endif
