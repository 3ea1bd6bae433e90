// Stored procedures: the application declares the parameters one by one in the
// connection's parameter table (SetStoredProcParams, AddStoredProcParams,
// ClearStoredProcParams), then ExecStoredProc sends the procedure's name and
// every declared parameter, and copies the values that the service returns for
// the OUT and IN/OUT parameters into the application's variables.
//
// The table survives the call: a procedure can be run again with the same
// parameters. Declarations only touch the connection object; nothing is sent
// before ExecStoredProc.
#include <korvane/CKorvaneClient.h>

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <new>

#include "client/CConnexionKorvane.h"
#include "diag/Log.h"
#include "operations/DeclaredValue.h"
#include "operations/RequestFrame.h"
#include "operations/StoredProcs.h"
#include "protocol/ValueTypes.h"

namespace {

// Fills a parameter slot from the application's declaration. False when
// the text cannot be allocated.
bool FillSlot(CParamProc& slot, int sens, int type, const void* valeur, unsigned int taille) {
    slot.nSens = sens;
    slot.pVariable = sens == KVN_PARAM_IN ? nullptr : const_cast<void*>(valeur);
    slot.bVariableAllouee = 0;
    if (sens != KVN_PARAM_OUT) {
        if (!StoreDeclaredValue(slot, TypeByte(type), valeur, taille)) return false;
    } else {
        // An OUT parameter travels as NULL: the service only needs its type.
        delete[] slot.pszValeur;
        slot.pszValeur = nullptr;
        slot.valNum.llVal = 0;
        slot.dateValeur = KvnTimestamp();
        slot.bNull = 1;
        slot.nTaille = IsTextType(type) ? 0 : TypeByte(type) == TypeByte(SQL_C_TIMESTAMP) ? 18 : 8;
    }
    slot.cType = static_cast<signed char>(type);
    return true;
}

// Writes a returned value to the application's variable of its parameter. A
// NULL value writes the type's zero (the empty text).
void CopyBack(const CParam& value, CParamProc& param) {
    void* dst = param.pVariable;
    if (dst == nullptr) return;
    unsigned char t = TypeByte(param.cType);
    if (IsTextType(t)) {
        const wchar_t* text = (!value.bNull && value.pszValeur) ? value.pszValeur : L"";
        std::wmemcpy(static_cast<wchar_t*>(dst), text, std::wcslen(text) + 1);
        return;
    }
    switch (t) {
    case TypeByte(SQL_C_LONG): {
        std::int32_t v = value.bNull ? 0 : value.valNum.lVal;
        std::memcpy(dst, &v, 4);
        break;
    }
    case TypeByte(SQL_C_DOUBLE):
    case TypeByte(SQL_C_SBIGINT): {
        std::int64_t v = value.bNull ? 0 : value.valNum.llVal;
        std::memcpy(dst, &v, 8);
        break;
    }
    case TypeByte(SQL_C_TIMESTAMP): {
        KvnTimestamp ts = value.bNull ? KvnTimestamp() : value.dateValeur;
        std::memcpy(dst, &ts, sizeof(ts));
        break;
    }
    default:
        break;
    }
}

} // namespace

// ---- Declarations ------------------------------------------------------------------

int CKorvaneClient::ClearStoredProcParams(int hCnx) {
    CCnxRef ref = CRequestFrame::FindConnexion(this, hCnx, 18);
    CConnexionKorvane* cnx = ref.get();
    if (cnx == nullptr) return KVN_ERROR_HANDLE_CNX;
    CUseCnxLock lock(cnx, L"CKorvaneClient::ClearStoredProcParams");
    if (!lock.IsHeld()) return KVN_ERROR_HANDLE_CNX;
    cnx->m_nNbParamProc = 0;
    return KVN_NO_ERROR;
}

int CKorvaneClient::SetStoredProcParams(int hCnx, int colonne, int sens, int type, void* valeur,
                                        unsigned int taille) {
    CCnxRef ref = CRequestFrame::FindConnexion(this, hCnx, 20);
    CConnexionKorvane* cnx = ref.get();
    if (cnx == nullptr) return KVN_ERROR_HANDLE_CNX;
    CUseCnxLock lock(cnx, L"CKorvaneClient::SetStoredProcParams");
    if (!lock.IsHeld()) return KVN_ERROR_HANDLE_CNX;

    // Position 1 starts a new table, even when the declaration is refused.
    if (colonne == 1) cnx->m_nNbParamProc = 0;

    // The first failing check is the one reported.
    int nb = cnx->m_nNbParamProc;
    if (valeur == nullptr) {
        WriteLog(L"CKorvaneClient::SetStoredProcParams(): erreur parametre 5 = NULL", 3);
        return KVN_ERROR_PARAMETER;
    }
    if (colonne < 1 || colonne > nb + 1) {
        WriteLogF(3, L"CKorvaneClient::SetStoredProcParams(): erreur parametre \"colonne\" = %d",
                  colonne);
        return KVN_ERROR_PARAMETER;
    }
    // A full table refuses a new position; a declared one may be declared again.
    if (colonne == nb + 1 && nb >= KVN_NB_PARAM_PROC_MAX) {
        WriteLogF(3,
                  L"CKorvaneClient::SetStoredProcParams(): erreur nb de parametres max atteint (%d)",
                  KVN_NB_PARAM_PROC_MAX);
        return KVN_ERROR_PARAMETER;
    }
    if (!IsDeclarableType(type)) {
        WriteLog(L"CKorvaneClient::SetStoredProcParams(): erreur type inconnu (parametre 4)", 3);
        return KVN_ERROR_PARAMETER;
    }
    if (sens != KVN_PARAM_IN && sens != KVN_PARAM_INOUT && sens != KVN_PARAM_OUT) {
        WriteLog(L"CKorvaneClient::SetStoredProcParams(): erreur sens inconnu (parametre 3)", 3);
        return KVN_ERROR_PARAMETER;
    }

    if (!FillSlot(cnx->m_tabParamProc[colonne - 1], sens, type, valeur, taille)) return KVN_ERROR_MEMORY;
    // Declaring a position again replaces it: the count is the number of
    // distinct positions, never more.
    if (colonne == nb + 1) cnx->m_nNbParamProc = nb + 1;
    return KVN_NO_ERROR;
}

int CKorvaneClient::AddStoredProcParams(int hCnx, int sens, int type, void* valeur,
                                        unsigned int taille) {
    CCnxRef ref = CRequestFrame::FindConnexion(this, hCnx, 19);
    CConnexionKorvane* cnx = ref.get();
    if (cnx == nullptr) return KVN_ERROR_HANDLE_CNX;
    return SetStoredProcParams(hCnx, cnx->m_nNbParamProc + 1, sens, type, valeur, taille);
}

// ---- The call ---------------------------------------------------------------------------

int CKorvaneClient::ExecStoredProc(int hCnx, const wchar_t* nomProc, int nOptionProc) {
    CRequestFrame frame(this, kFrameExecStoredProc);
    return frame.Run(
        hCnx,
        [&](CMsgSocketClient& msg, CConnexionKorvane& cnx) {
            return msg.CreateExecStoredProc(nomProc, cnx.m_nNbParamProc, cnx.m_tabParamProc,
                                            nOptionProc);
        },
        [&](CConnexionKorvane& cnx) {
            if (cnx.m_nResultat != 0) return cnx.m_nCodeErreur.load();
            return CopyBackOutValues(cnx);
        });
}

int CopyBackOutValues(CConnexionKorvane& cnx) {
    // The answer's values follow the OUT and IN/OUT parameters in order; IN
    // parameters have none.
    int nbValeurs = cnx.m_nNbResultats;
    int k = 0;
    for (int i = 0; i < cnx.m_nNbParamProc; i++) {
        CParamProc& param = cnx.m_tabParamProc[i];
        if (param.nSens == KVN_PARAM_IN) continue;
        // A short answer: the variables already written keep their values,
        // the others are left alone.
        if (k >= nbValeurs || k >= KVN_NB_PARAM_CNX) return KVN_ERROR_RECEIVE;
        const CParam& value = cnx.m_tabParam[k++];
        if (TypeByte(value.cType) != TypeByte(param.cType)) return KVN_ERROR_PARAMETER;
        CopyBack(value, param);
    }
    return KVN_NO_ERROR;
}

namespace {

// The name of a DStr or CString given to the wchar_t* overload, in a copy of
// its own. 0, or the result code.
template <class Call>
int WithNameCopy(const wchar_t* text, int length, Call call) {
    if (length <= 0) return KVN_ERROR_PARAMETER;
    wchar_t* copy = new (std::nothrow) wchar_t[static_cast<std::size_t>(length) + 2];
    if (copy == nullptr) return KVN_ERROR_MEMORY;
    std::wmemcpy(copy, text, static_cast<std::size_t>(length) + 1);
    int r = call(copy);
    delete[] copy;
    return r;
}

} // namespace

int CKorvaneClient::ExecStoredProc(int hCnx, DStr& nomProc, int nOptionProc) {
    return WithNameCopy(nomProc.GetString(), nomProc.Length(),
                        [&](const wchar_t* nom) { return ExecStoredProc(hCnx, nom, nOptionProc); });
}

int CKorvaneClient::ExecStoredProc(int hCnx, CString& nomProc, int nOptionProc) {
    return WithNameCopy(nomProc.GetString(), nomProc.GetLength(),
                        [&](const wchar_t* nom) { return ExecStoredProc(hCnx, nom, nOptionProc); });
}
