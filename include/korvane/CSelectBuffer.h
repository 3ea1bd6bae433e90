/// \file
/// CLigneSelect and CSelectBuffer: the rows of a select between their arrival
/// from the service, in blocks, and their reading by the application, one row
/// at a time. The connection's thread appends rows while the application's
/// thread fetches and reads them, so both classes carry their own lock: a
/// recursive mutex of the process, never waited for with a time limit, which
/// thousands of rows a second can make and take without a system object each.
///
/// Each logical connection holds one CSelectBuffer; applications reach its
/// rows through CKorvaneClient::Fetch and GetData.
#ifndef KORVANE_CSELECTBUFFER_H
#define KORVANE_CSELECTBUFFER_H

#include <atomic>
#include <mutex>

#include <korvane/CParam.h>
#include <korvane/KvnExport.h>
#include <korvane/platform/CPtrArray.h>

/// One row of a select: one CParam per column, column 1 first. The row owns
/// its values: nobody frees a value handed to it or read from it. The members
/// that change the row take its lock; the readers do not, a row being
/// complete once it is queued.
class KVN_API CLigneSelect {
public:
    /// An empty row.
    CLigneSelect();
    /// A row holding copies of other's values, as the assignment makes them.
    CLigneSelect(CLigneSelect& other);
    /// Frees the values.
    ~CLigneSelect();

    /// Empties this row, then appends a copy of each of other's values
    /// (CParam's assignment), in order; other is read without its lock. When
    /// memory runs out the copies stop there.
    CLigneSelect& operator=(CLigneSelect& other);

    /// Appends p as the next column; the row takes ownership (a null p is
    /// ignored, one the row cannot hold for lack of memory is freed).
    void AddParam(CParam* p);
    /// Appends copies of the n values as the next columns; the values given
    /// stay their owner's. On an empty row the copies are made in one block
    /// of memory, texts included, instead of one allocation a value: so the
    /// receivers build the rows of a select. FALSE when memory ran out
    /// (nothing is then appended).
    kvn::Bool AddCopies(CParam* const* valeurs, int n);
    /// Frees every value; the row is then empty.
    void VideLigne();

    /// The number of columns, read without the row's lock: a row is complete
    /// once it is queued.
    int GetNbColonnes();
    /// The value of column col (1-based), still the row's; null outside 1 to
    /// GetNbColonnes.
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

/// The queue of rows of one connection. The head row is the current row once
/// Fetch has made it current; before that it is the next row to deliver. The
/// buffer owns its rows. The members that change or read the queue take the
/// buffer's lock; the flag accessors and GetNbLigne read without it.
class KVN_API CSelectBuffer {
public:
    /// An empty queue, no flag set.
    CSelectBuffer();
    /// Frees every row.
    ~CSelectBuffer();

    CSelectBuffer(const CSelectBuffer&) = delete;
    CSelectBuffer& operator=(const CSelectBuffer&) = delete;

    /// Appends row; the buffer takes ownership (a null row is ignored, one it
    /// cannot queue for lack of memory is freed). Always 0.
    int AddLigne(CLigneSelect* row);
    /// Makes the next row current, freeing the current one if any: 0
    /// (remaining = rows after it) or KVN_NO_DATA when no row follows
    /// (remaining untouched).
    int Fetch(int& remaining);
    /// *value = column col (1-based) of the head row: 0, or KVN_NO_DATA
    /// (*value untouched). The value belongs to the row: a late first block
    /// of a select, which empties the buffer from the connection's thread,
    /// can free it; LitData reads it under the lock instead.
    int GetData(int col, CParam** value);
    /// Rows not yet delivered (the current row not counted); read without the
    /// lock.
    int GetNbLigne();
    /// Frees the head row, if any.
    void SuppLigne();
    /// Frees every row and clears the current row and the end mark (not the
    /// reception flag, which belongs to a receiver).
    void VideBuffer();

    /// \name Flags, read and written without the lock
    ///@{

    /// Sets the end mark: the service has sent the last block of rows.
    void SetLastLigne() { m_bLastLigne = 1; }
    /// The end mark (1 or 0).
    int IsLastLigne() { return m_bLastLigne; }
    /// Sets (1) or clears (0) the reception flag: a block of rows is being
    /// received.
    void SetCurrentRecept(int on) { m_bCurrentRecept = on; }
    /// The reception flag (1 or 0).
    int IsCurrentReceptLine() { return m_bCurrentRecept; }
    ///@}

    /// \name The connection's reading side
    /// A receiver holds the buffer's lock for the whole of a block:
    /// BeginRecept locks, then sets the reception flag; EndRecept clears it,
    /// then unlocks. Whatever the block changes, the end mark included, is set
    /// in between, so whoever takes the lock after a block sees all of it.
    ///@{

    /// Takes the lock, then sets the reception flag.
    void BeginRecept();
    /// Clears the reception flag, then releases the lock.
    void EndRecept();
    ///@}

    /// What the application's Fetch does with the buffer, under one lock
    /// (which waits for a block in reception): 0 when the next undelivered
    /// row became current; KVN_NO_DATA when none is left and the end mark is
    /// set (the buffer is then emptied and the mark cleared); 1 when none is
    /// left and more rows are to be asked for.
    int FetchSuivante();
    /// True when, read without the lock, nothing can be delivered: no row
    /// left, no end mark, no block in reception. A Fetch that sees it asks the
    /// service for the next block without taking the lock first.
    bool IsADemander();

    /// Runs lire(value, contexte) on column col (1-based) of the head row
    /// while the buffer's lock is held, so that a block arriving meanwhile
    /// cannot free the value being read: 0, or KVN_NO_DATA (lire not run).
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
