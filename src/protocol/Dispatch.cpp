// AnalyseFonction and the receivers of the answers to the database requests.
// They run on the connection's thread; see Dispatch.h for the conventions.
#include "protocol/Dispatch.h"

#include <korvane/CMsgSocketClient.h>
#include <korvane/CSelectBuffer.h>

#include <new>

#include "client/CConnexionKorvane.h"
#include "diag/Log.h"
#include "platform/Kernel.h"

namespace {

const int kStatutErreur = -2;

// Parameter i of msg, or null when the answer has none.
CParam* Param(CMsgSocketClient& msg, int i) {
    CParam* p = nullptr;
    return msg.GetParametre(i, &p) ? p : nullptr;
}

// The 32-bit value of parameter i, types not checked; 0 when it is missing.
int Valeur(CMsgSocketClient& msg, int i) {
    CParam* p = Param(msg, i);
    return p ? p->valNum.lVal : 0;
}

bool StatutLong(CMsgSocketClient& msg) { return msg.GetTypeParametre(0) == SQL_C_LONG; }

// Before reading: an answer that does not have the expected shape reads as
// error -51.
void PrepareLecture(CConnexionKorvane* cnx) {
    cnx->m_nNbResultats = 0;
    cnx->m_nResultat = kStatutErreur;
    cnx->m_nCodeErreur = KVN_ERROR_RECEIVE;
}

// Appends to cnx's row buffer the rows that the cells from parameter
// `premiere` on fill, `colonnes` cells a row. A last row that did not get all
// its cells is discarded: a block that cannot be completed loses it. Each
// row is one block of memory (CLigneSelect::AddCopies); a row that cannot be
// allocated is skipped, never half-stored.
void ConstruitLignes(CMsgSocketClient& msg, CConnexionKorvane* cnx, int premiere, int colonnes) {
    const int nb = msg.GetNbParametre();
    if (nb - premiere < colonnes) return;  // not one whole row
    // The cells of one row, handed over together.
    const int kColonnesSurPile = 64;
    CParam* surPile[kColonnesSurPile];
    CParam** cellules = surPile;
    if (colonnes > kColonnesSurPile) {
        cellules = new (std::nothrow) CParam*[colonnes];
        if (!cellules) return;
    }
    for (int debut = premiere; nb - debut >= colonnes; debut += colonnes) {
        for (int c = 0; c < colonnes; ++c) cellules[c] = Param(msg, debut + c);
        CLigneSelect* ligne = new (std::nothrow) CLigneSelect;
        if (ligne && !ligne->AddCopies(cellules, colonnes)) {
            delete ligne;
            ligne = nullptr;
        }
        if (ligne) cnx->m_selectBuffer.AddLigne(ligne);
    }
    if (cellules != surPile) delete[] cellules;
}

void Signale(CConnexionKorvane* cnx) { KvnSetEvent(cnx->hEvtResultArrived); }

}  // namespace

int KvnHasReceiver(int fonction) {
    switch (fonction) {
    case KVN_EXECUTE:
    case KVN_EXECUTESELECT:
    case KVN_FETCH:
    case KVN_GETDATA:
    case KVN_GETLINE:
    case KVN_EXISTTABLE:
    case KVN_EXISTCOLUMN:
    case KVN_GETCOLUMNS:
    case KVN_EXECUTEBIND:
    case KVN_EXECUTEPROC:
    case KVN_GET_ODBC_ERROR_TEXT:
    case KVN_REQUETE_METABASE: return 1;
    default: return 0;
    }
}

int CMsgSocketClient::AnalyseFonction(CConnexionKorvane* cnx) {
    const int fonction = GetFonction();
    int r = -2;
    if (fonction == KVN_HEART_BEAT) {
        r = 0;
    } else if (cnx != nullptr) {
        switch (fonction) {
        case KVN_EXECUTE: r = m_ReceiveResultExec(cnx); break;
        case KVN_EXECUTESELECT: r = m_ReceiveResultExecuteSelect(cnx); break;
        case KVN_FETCH: r = m_ReceiveResultFetch(cnx); break;
        case KVN_GETDATA: r = m_ReceiveResultGetData(cnx); break;
        case KVN_GETLINE: r = m_ReceiveResultGetLine(cnx); break;
        case KVN_EXISTTABLE: r = m_ReceiveResultIsTableExist(cnx); break;
        case KVN_EXISTCOLUMN: r = m_ReceiveResultIsColumnExist(cnx); break;
        case KVN_GETCOLUMNS: r = m_ReceiveResultGetColumns(cnx); break;
        case KVN_EXECUTEBIND: r = m_ReceiveResultExecBind(cnx); break;
        case KVN_EXECUTEPROC: r = m_ReceiveResultExecStoredProc(cnx); break;
        case KVN_GET_ODBC_ERROR_TEXT: r = m_ReceiveResultGetErrorText(cnx); break;
        case KVN_REQUETE_METABASE: r = m_ReceiveResultExecRequete(cnx); break;
        default: break;  // no receiver: dropped, nothing stored, no event
        }
    }
    ClearMessage();
    return r;
}

namespace {

// Answers of exactly two parameters: status, then one value.
int ReceiveValeurUnique(CMsgSocketClient& msg, CConnexionKorvane* cnx) {
    PrepareLecture(cnx);
    if (msg.GetNbParametre() == 2 && StatutLong(msg)) {
        const int statut = Valeur(msg, 0);
        cnx->m_nResultat = statut;
        if (statut == kStatutErreur) {
            cnx->m_nCodeErreur = Valeur(msg, 1);
        } else {
            cnx->m_nCodeErreur = 0;
            cnx->m_tabParam[0] = *Param(msg, 1);
            cnx->m_nNbResultats = 1;
        }
    }
    Signale(cnx);
    return 0;
}

// Answers of a status and up to `limite` values.
int ReceiveListeValeurs(CMsgSocketClient& msg, CConnexionKorvane* cnx, int limite) {
    PrepareLecture(cnx);
    const int nb = msg.GetNbParametre();
    if (nb >= 2 && StatutLong(msg)) {
        const int statut = Valeur(msg, 0);
        cnx->m_nResultat = statut;
        if (statut == kStatutErreur) {
            cnx->m_nCodeErreur = Valeur(msg, 1);
        } else {
            cnx->m_nCodeErreur = 0;
            for (int i = 1; i < nb && i <= limite; ++i) {
                CParam* p = Param(msg, i);
                if (!p) break;
                cnx->m_tabParam[i - 1] = *p;
                ++cnx->m_nNbResultats;
            }
        }
    }
    Signale(cnx);
    return 0;
}

}  // namespace

int CMsgSocketClient::m_ReceiveResultExec(CConnexionKorvane* cnx) {
    return ReceiveValeurUnique(*this, cnx);
}

int CMsgSocketClient::m_ReceiveResultExecBind(CConnexionKorvane* cnx) {
    return ReceiveValeurUnique(*this, cnx);
}

int CMsgSocketClient::m_ReceiveResultGetData(CConnexionKorvane* cnx) {
    return ReceiveValeurUnique(*this, cnx);
}

int CMsgSocketClient::m_ReceiveResultIsTableExist(CConnexionKorvane* cnx) {
    return ReceiveValeurUnique(*this, cnx);
}

int CMsgSocketClient::m_ReceiveResultIsColumnExist(CConnexionKorvane* cnx) {
    return ReceiveValeurUnique(*this, cnx);
}

int CMsgSocketClient::m_ReceiveResultGetErrorText(CConnexionKorvane* cnx) {
    return ReceiveValeurUnique(*this, cnx);
}

int CMsgSocketClient::m_ReceiveResultGetColumns(CConnexionKorvane* cnx) {
    return ReceiveListeValeurs(*this, cnx, KVN_NB_VALEURS_GETCOLUMNS);
}

int CMsgSocketClient::m_ReceiveResultExecStoredProc(CConnexionKorvane* cnx) {
    return ReceiveListeValeurs(*this, cnx, KVN_NB_VALEURS_PROC);
}

// Status only; the number of values of the previous answer is kept.
int CMsgSocketClient::m_ReceiveResultFetch(CConnexionKorvane* cnx) {
    cnx->m_nResultat = kStatutErreur;
    cnx->m_nCodeErreur = KVN_ERROR_RECEIVE;
    if (StatutLong(*this)) {
        const int statut = Valeur(*this, 0);
        cnx->m_nResultat = statut;
        if (statut != kStatutErreur)
            cnx->m_nCodeErreur = 0;
        else if (Param(*this, 1))
            cnx->m_nCodeErreur = Valeur(*this, 1);
    }
    Signale(cnx);
    return 0;
}

// Status only. A status other than -2 leaves the code at -51: the operation
// reads the status alone.
int CMsgSocketClient::m_ReceiveResultExecRequete(CConnexionKorvane* cnx) {
    PrepareLecture(cnx);
    if (GetNbParametre() >= 1 && StatutLong(*this)) {
        const int statut = Valeur(*this, 0);
        cnx->m_nResultat = statut;
        if (statut == kStatutErreur && Param(*this, 1)) cnx->m_nCodeErreur = Valeur(*this, 1);
    }
    Signale(cnx);
    return 0;
}

// First block of a select: status, first value, second status, rows in the
// block, columns, more-rows flag, then the cells. Starts a new result.
int CMsgSocketClient::m_ReceiveResultExecuteSelect(CConnexionKorvane* cnx) {
    PrepareLecture(cnx);
    WriteLog(L"Début de m_ReceiveResultExecuteSelect", 20000);
    const int nb = GetNbParametre();
    if (nb >= 2 && StatutLong(*this)) {
        const int statut = Valeur(*this, 0);
        cnx->m_nResultat = statut;
        if (statut == kStatutErreur) {
            if (Param(*this, 1)) cnx->m_nCodeErreur = Valeur(*this, 1);
        } else if (Param(*this, 1)) {
            cnx->m_tabParam[0] = *Param(*this, 1);
            cnx->m_nCodeErreur = 0;
            cnx->m_nNbResultats = 1;
            if (nb >= 4) {
                CSelectBuffer& buffer = cnx->m_selectBuffer;
                if (Param(*this, 2) && Valeur(*this, 2) != kStatutErreur) {
                    const int lignes = Valeur(*this, 3);
                    const int colonnes = Valeur(*this, 4);
                    const int encore = Valeur(*this, 5);
                    buffer.BeginRecept();
                    buffer.VideBuffer();
                    if (lignes < 1 || colonnes < 1) {
                        cnx->m_nCodeErreur = KVN_NO_DATA;
                        cnx->m_nResultat = 0;
                    } else {
                        ConstruitLignes(*this, cnx, KVN_PREMIERE_CELLULE_SELECT, colonnes);
                    }
                    // Inside the block: a reader that sees the block ended
                    // sees its end mark too.
                    if (cnx->m_nCodeErreur == KVN_NO_DATA || encore == 0) buffer.SetLastLigne();
                    buffer.EndRecept();
                } else {
                    // The second status -2 means no rows at all: the result
                    // ends here.
                    buffer.SetLastLigne();
                }
            }
        }
    }
    WriteLog(L"Fin de m_ReceiveResultExecuteSelect", 20000);
    Signale(cnx);
    return 0;
}

// Next block of a select: status, rows in the block, columns, more-rows flag,
// then the cells, appended after the rows not yet fetched.
int CMsgSocketClient::m_ReceiveResultGetLine(CConnexionKorvane* cnx) {
    CSelectBuffer& buffer = cnx->m_selectBuffer;
    const int nb = GetNbParametre();
    if (nb < 2) {
        cnx->m_nResultat = kStatutErreur;
        cnx->m_nCodeErreur = KVN_ERROR_RECEIVE;
    } else if (nb == 2) {
        cnx->m_nResultat = Valeur(*this, 0);
        cnx->m_nCodeErreur = Valeur(*this, 1);
    } else {
        const int statut = Valeur(*this, 0);
        cnx->m_nResultat = statut;
        if (statut == kStatutErreur) {
            cnx->m_nCodeErreur = Valeur(*this, 1);
        } else {
            const int lignes = Valeur(*this, 1);
            const int colonnes = Valeur(*this, 2);
            const int encore = Valeur(*this, 3);
            buffer.BeginRecept();
            if (lignes < 1 || colonnes < 1) {
                // An empty later block ends the rows: the readers take 100 as
                // the end.
                cnx->m_nCodeErreur = KVN_NO_DATA;
                cnx->m_nResultat = kStatutErreur;
            } else {
                ConstruitLignes(*this, cnx, KVN_PREMIERE_CELLULE_GETLINE, colonnes);
            }
            // Inside the block, as for the first one.
            if (cnx->m_nCodeErreur == KVN_NO_DATA || encore == 0) buffer.SetLastLigne();
            buffer.EndRecept();
            Signale(cnx);
            return 0;
        }
    }
    // Every answer that does not announce more rows ends the result, errors
    // included.
    buffer.SetLastLigne();
    Signale(cnx);
    return 0;
}
