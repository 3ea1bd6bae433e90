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

#include <cstring>
#include <cwchar>
#include <new>

namespace {

// The buffer's and the row's locks are held only for a few list operations
// (or, by a receiver, for one block): their waits are unlimited.
using ScopedLock = std::lock_guard<std::recursive_mutex>;

} // namespace

// ---- CLigneSelect -------------------------------------------------------------

namespace {

bool IsTexte(const CParam& p) {
    const unsigned char type = static_cast<unsigned char>(p.cType);
    return type == static_cast<unsigned char>(SQL_C_CHAR) || type == static_cast<unsigned char>(SQL_C_WCHAR);
}

// What a copy by CParam's assignment keeps of a text: none for a NULL value,
// the source's text (the empty text when it has none) otherwise.
const wchar_t* TexteCopie(const CParam& p) {
    if (p.bNull || !IsTexte(p)) return nullptr;
    return p.pszValeur ? p.pszValeur : L"";
}

}  // namespace

CLigneSelect::CLigneSelect() : m_pBloc(nullptr), m_nBloc(0) {}

CLigneSelect::CLigneSelect(CLigneSelect& other) : m_pBloc(nullptr), m_nBloc(0) { *this = other; }

// A row being destroyed has no other user: its values go without its lock.
CLigneSelect::~CLigneSelect() { Libere(); }

CLigneSelect& CLigneSelect::operator=(CLigneSelect& other) {
    if (this == &other) return *this;
    ScopedLock lock(m_mutexLigne);
    VideLigne();
    // The source row is read without its lock: a row is copied only once it
    // is complete, and complete rows no longer change.
    for (int col = 1; col <= other.GetNbColonnes(); col++) {
        const CParam* src = other.GetParam(col);
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

BOOL CLigneSelect::AddCopies(CParam* const* valeurs, int n) {
    if (n <= 0) return TRUE;
    ScopedLock lock(m_mutexLigne);
    if (m_nBloc > 0 || m_arrayParam.GetSize() > 0) {
        // Columns already there: one value at a time after them.
        for (int i = 0; i < n; i++) {
            CParam* copy = new (std::nothrow) CParam();
            if (!copy) return FALSE;
            if (valeurs[i]) *copy = *valeurs[i];
            if (m_arrayParam.Add(copy) < 0) {
                delete copy;
                return FALSE;
            }
        }
        return TRUE;
    }
    // One block: the values, then their texts.
    std::size_t caracteres = 0;
    for (int i = 0; i < n; i++) {
        const wchar_t* texte = valeurs[i] ? TexteCopie(*valeurs[i]) : nullptr;
        if (texte) caracteres += std::wcslen(texte) + 1;
    }
    const std::size_t debutTextes =
        (n * sizeof(CParam) + alignof(wchar_t) - 1) / alignof(wchar_t) * alignof(wchar_t);
    BYTE* bloc = new (std::nothrow) BYTE[debutTextes + caracteres * sizeof(wchar_t)];
    if (!bloc) return FALSE;
    CParam* params = reinterpret_cast<CParam*>(bloc);
    wchar_t* textes = reinterpret_cast<wchar_t*>(bloc + debutTextes);
    for (int i = 0; i < n; i++) {
        CParam* copy = new (params + i) CParam();
        if (!valeurs[i]) continue;
        const CParam& src = *valeurs[i];
        // What CParam's assignment keeps, the text placed in the block.
        copy->cType = src.cType;
        copy->nTaille = src.nTaille;
        copy->bNull = src.bNull;
        if (src.bNull) continue;
        if (const wchar_t* texte = TexteCopie(src)) {
            const std::size_t len = std::wcslen(texte) + 1;
            std::wmemcpy(textes, texte, len);
            copy->pszValeur = textes;
            textes += len;
        } else if (static_cast<unsigned char>(src.cType) == 0x0B) {
            copy->dateValeur = src.dateValeur;
        } else {
            copy->valNum = src.valNum;
            std::memcpy(&copy->guidValeur, &src.guidValeur, sizeof(GUID));  // packed field
        }
    }
    m_pBloc = bloc;
    m_nBloc = n;
    return TRUE;
}

void CLigneSelect::VideLigne() {
    ScopedLock lock(m_mutexLigne);
    Libere();
}

void CLigneSelect::Libere() {
    for (int i = 0; i < m_arrayParam.GetSize(); i++) delete static_cast<CParam*>(m_arrayParam.GetAt(i));
    m_arrayParam.RemoveAll();
    if (m_pBloc) {
        // The values' texts lie in the block and go with it.
        CParam* params = reinterpret_cast<CParam*>(m_pBloc);
        for (int i = 0; i < m_nBloc; i++) {
            params[i].pszValeur = nullptr;
            params[i].~CParam();
        }
        delete[] m_pBloc;
        m_pBloc = nullptr;
        m_nBloc = 0;
    }
}

// The readers take no lock, as the copy reads its source: a row is complete
// before it is queued and does not change afterwards.
int CLigneSelect::GetNbColonnes() { return m_nBloc + m_arrayParam.GetSize(); }

CParam* CLigneSelect::GetParam(int col) {
    if (col < 1 || col > GetNbColonnes()) return nullptr;
    if (col <= m_nBloc) return reinterpret_cast<CParam*>(m_pBloc) + (col - 1);
    return static_cast<CParam*>(m_arrayParam.GetAt(col - 1 - m_nBloc));
}

// ---- CSelectBuffer ------------------------------------------------------------

CSelectBuffer::CSelectBuffer() : m_bFetched(0), m_bLastLigne(0), m_bCurrentRecept(0), m_nNonLues(0) {}

CSelectBuffer::~CSelectBuffer() { VideBuffer(); }

// Under the lock: the count of undelivered rows follows the list and the
// current-row flag.
void CSelectBuffer::Recompte() {
    int n = m_listLigne.GetCount() - (m_bFetched ? 1 : 0);
    m_nNonLues = n < 0 ? 0 : n;
}

int CSelectBuffer::AddLigne(CLigneSelect* row) {
    if (!row) return 0;
    ScopedLock lock(m_mutexBuffer);
    // The buffer owns what it was given: a row it cannot queue is freed here.
    if (!m_listLigne.AddTail(row)) delete row;
    Recompte();
    return 0;
}

// Under the lock: drops the current row, if any, and makes the next one
// current. 0, or KVN_NO_DATA when no row follows.
int CSelectBuffer::Avance() {
    if (m_bFetched && !m_listLigne.IsEmpty()) delete static_cast<CLigneSelect*>(m_listLigne.RemoveHead());
    int r = 0;
    if (m_listLigne.IsEmpty()) {
        m_bFetched = 0;
        r = KVN_NO_DATA;
    } else {
        m_bFetched = 1;
    }
    Recompte();
    return r;
}

int CSelectBuffer::Fetch(int& remaining) {
    ScopedLock lock(m_mutexBuffer);
    if (Avance() != 0) return KVN_NO_DATA;
    remaining = m_listLigne.GetCount() - 1;
    return 0;
}

int CSelectBuffer::FetchSuivante() {
    ScopedLock lock(m_mutexBuffer);
    if (m_nNonLues > 0) return Avance();
    if (!m_bLastLigne) return 1;
    Vide();
    return KVN_NO_DATA;
}

bool CSelectBuffer::IsADemander() {
    // The reception flag first: a receiver sets everything else before it
    // clears it, so a clear flag followed by no row and no end mark is a
    // state that no block has begun to change.
    return !m_bCurrentRecept && m_nNonLues == 0 && !m_bLastLigne;
}

int CSelectBuffer::GetData(int col, CParam** value) {
    ScopedLock lock(m_mutexBuffer);
    CParam* p = Colonne(col);
    if (!p) return KVN_NO_DATA;
    if (value) *value = p;
    return 0;
}

int CSelectBuffer::LitData(int col, void (*lire)(const CParam& valeur, void* contexte), void* contexte) {
    ScopedLock lock(m_mutexBuffer);
    const CParam* p = Colonne(col);
    if (!p) return KVN_NO_DATA;
    lire(*p, contexte);
    return 0;
}

// Under the lock: column col of the head row, or null.
CParam* CSelectBuffer::Colonne(int col) {
    CLigneSelect* head = static_cast<CLigneSelect*>(m_listLigne.GetHead());
    if (!head) {
        m_bFetched = 0;
        return nullptr;
    }
    return head->GetParam(col);
}

int CSelectBuffer::GetNbLigne() { return m_nNonLues; }

void CSelectBuffer::SuppLigne() {
    ScopedLock lock(m_mutexBuffer);
    if (!m_listLigne.IsEmpty()) delete static_cast<CLigneSelect*>(m_listLigne.RemoveHead());
    if (m_listLigne.IsEmpty()) m_bFetched = 0;
    Recompte();
}

void CSelectBuffer::BeginRecept() {
    m_mutexBuffer.lock();
    m_bCurrentRecept = 1;
}

void CSelectBuffer::EndRecept() {
    m_bCurrentRecept = 0;
    m_mutexBuffer.unlock();
}

void CSelectBuffer::VideBuffer() {
    ScopedLock lock(m_mutexBuffer);
    Vide();
}

// Under the lock. m_bCurrentRecept belongs to the receiver that may be
// adding a block.
void CSelectBuffer::Vide() {
    while (!m_listLigne.IsEmpty()) delete static_cast<CLigneSelect*>(m_listLigne.RemoveHead());
    m_bFetched = 0;
    m_bLastLigne = 0;
    m_nNonLues = 0;
}
