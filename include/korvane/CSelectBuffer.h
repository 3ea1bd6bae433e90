// CLigneSelect and CSelectBuffer: the rows of a select between their arrival
// from the service, in blocks, and their reading by the application, one row
// at a time. The connection's thread appends rows while the application's
// thread fetches and reads them, so both classes carry their own lock: a
// recursive mutex of the process, never waited for with a time limit, which
// thousands of rows a second can make and take without a system object each.
#ifndef KORVANE_CSELECTBUFFER_H
#define KORVANE_CSELECTBUFFER_H

#include <atomic>
#include <mutex>

#include <korvane/CParam.h>
#include <korvane/KvnExport.h>
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
    // Appends copies of the n values as the next columns. On an empty row
    // they are made in one block of memory, texts included, instead of one
    // allocation a value: so the receivers build the rows of a select.
    // FALSE when memory ran out (nothing is then appended).
    kvn::Bool AddCopies(CParam* const* valeurs, int n);
    void VideLigne();

    // Read without the row's lock: a row is complete once it is queued.
    int GetNbColonnes();
    // The value of column col (1-based), or null.
    CParam* GetParam(int col);

private:
    // Frees the values, without the lock.
    void Libere();

    std::recursive_mutex m_mutexLigne;
    CPtrArray m_arrayParam;
    // The values made by AddCopies on an empty row, in one block (new[]):
    // columns 1 to m_nBloc; m_arrayParam holds the columns after them. The
    // texts of these values lie in the block too: such a value is read or
    // copied, never assigned to.
    kvn::BYTE* m_pBloc;
    int m_nBloc;
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
    // *value = column col (1-based) of the head row: 0, or KVN_NO_DATA. The
    // value belongs to the row: a late first block of a select, which empties
    // the buffer from the connection's thread, can free it; LitData reads it
    // under the lock instead.
    int GetData(int col, CParam** value);
    // Rows not yet fetched; read without the lock.
    int GetNbLigne();
    void SuppLigne();
    void VideBuffer();

    void SetLastLigne() { m_bLastLigne = 1; }
    int IsLastLigne() { return m_bLastLigne; }
    void SetCurrentRecept(int on) { m_bCurrentRecept = on; }
    int IsCurrentReceptLine() { return m_bCurrentRecept; }

    // ---- The connection's reading side ------------------------------------
    // A receiver holds the buffer's lock for the whole of a block: BeginRecept
    // locks, then sets the reception flag; EndRecept clears it, then unlocks.
    // Whatever the block changes, the end mark included, is set in between,
    // so whoever takes the lock after a block sees all of it.
    void BeginRecept();
    void EndRecept();

    // What the application's Fetch does with the buffer, under one lock
    // (which waits for a block in reception): 0 when the next undelivered
    // row became current; KVN_NO_DATA when none is left and the end mark is
    // set (the buffer is then emptied and the mark cleared); 1 when none is
    // left and more rows are to be asked for.
    int FetchSuivante();
    // True when, read without the lock, nothing can be delivered: no row
    // left, no end mark, no block in reception. A Fetch that sees it asks the
    // service for the next block without taking the lock first.
    bool IsADemander();

    // Runs lire(value, contexte) on column col (1-based) of the head row
    // while the buffer's lock is held, so that a block arriving meanwhile
    // cannot free the value being read: 0, or KVN_NO_DATA (lire not run).
    int LitData(int col, void (*lire)(const CParam& valeur, void* contexte), void* contexte);

private:
    // Under the lock.
    int Avance();
    void Vide();
    void Recompte();
    CParam* Colonne(int col);

    std::recursive_mutex m_mutexBuffer;
    CPtrList m_listLigne;
    int m_bFetched;
    // Written by the connection's thread, read by the application's without
    // the lock.
    std::atomic<int> m_bLastLigne;
    std::atomic<int> m_bCurrentRecept;
    // Rows not yet delivered (GetNbLigne), kept under the lock beside the
    // list so that it can be read without it.
    std::atomic<int> m_nNonLues;
};

#endif
