// Bound statements and direct requests. BindParameter stores a value at a
// position of the connection's value table; ExecuteBind sends a parameterised
// statement with the values bound from position 1 on; ExecuteRequete sends a
// text under the metabase function and returns only the service's status.
//
// The bound values share m_tabParam with the values of every answer: the next
// answer on the connection (ExecuteBind's own as well) replaces them, so the
// application binds all its values immediately before each ExecuteBind.
#include <korvane/CKorvaneClient.h>

#include <cstring>
#include <cwchar>
#include <new>

#include "client/CConnexionKorvane.h"
#include "operations/RequestFrame.h"
#include "protocol/WireText.h"

namespace {

constexpr unsigned char TypeByte(int type) { return static_cast<unsigned char>(type & 0xFF); }

// Length of text, reading at most max characters.
std::size_t BoundedLength(const wchar_t* text, std::size_t max) {
    std::size_t n = 0;
    while (n < max && text[n] != L'\0') n++;
    return n;
}

// The type a value is bound with; 0 for a type that cannot be bound.
unsigned char BindableType(int type) {
    switch (TypeByte(type)) {
    case TypeByte(SQL_C_LONG):
    case TypeByte(SQL_C_DOUBLE):
    case TypeByte(SQL_C_SBIGINT):
    case TypeByte(SQL_C_TIMESTAMP):
    case TypeByte(SQL_C_CHAR):
    case TypeByte(SQL_C_WCHAR):
        return TypeByte(type);
    default:
        return 0;
    }
}

} // namespace

int CKorvaneClient::BindParameter(int hCnx, int colonne, int type, void* valeur,
                                  unsigned int taille) {
    CConnexionKorvane* cnx = CRequestFrame::FindConnexion(this, hCnx, 22);
    if (cnx == nullptr) return KVN_ERROR_HANDLE_CNX;
    CUseCnxLock lock(cnx, L"CKorvaneClient::BindParameter");
    if (!lock.IsHeld()) return KVN_ERROR_HANDLE_CNX;
    if (colonne < 1 || colonne > KVN_NB_PARAM_CNX) return KVN_ERROR_UNKNOWN;
    // Position 1 starts a new list of bound values.
    if (colonne == 1) cnx->m_nNbResultats = 0;

    CParam& slot = cnx->m_tabParam[colonne - 1];
    unsigned char t = BindableType(type);
    delete[] slot.pszValeur;
    slot.pszValeur = nullptr;
    // A type that cannot be bound is sent as a NULL text rather than refused.
    slot.cType = static_cast<signed char>(t != 0 ? t : TypeByte(SQL_C_CHAR));
    slot.bNull = (valeur == nullptr || taille == 0 || t == 0) ? 1 : 0;
    if (!slot.bNull) {
        switch (t) {
        case TypeByte(SQL_C_LONG):
            slot.valNum.llVal = 0;
            std::memcpy(&slot.valNum.lVal, valeur, 4);
            slot.nTaille = 8;
            break;
        case TypeByte(SQL_C_DOUBLE):
        case TypeByte(SQL_C_SBIGINT):
            std::memcpy(&slot.valNum.llVal, valeur, 8);
            slot.nTaille = 8;
            break;
        case TypeByte(SQL_C_TIMESTAMP):
            std::memcpy(&slot.dateValeur, valeur, sizeof(KvnTimestamp));
            slot.nTaille = 18;
            break;
        default: {
            // A text: at most taille characters are read, the text ends at
            // its terminator or there.
            const wchar_t* text = static_cast<const wchar_t*>(valeur);
            std::size_t n = BoundedLength(text, taille);
            slot.pszValeur = new (std::nothrow) wchar_t[n + 1];
            if (slot.pszValeur == nullptr) {
                slot.bNull = 1;
                return KVN_ERROR_MEMORY;
            }
            std::wmemcpy(slot.pszValeur, text, n);
            slot.pszValeur[n] = L'\0';
            // The record's size counts UTF-16 code units, not wide characters.
            slot.nTaille = static_cast<short>(WireDeclaredUnits(text, taille) & 0xFFFF);
            break;
        }
        }
    }
    cnx->m_nNbResultats = cnx->m_nNbResultats + 1;
    return KVN_NO_ERROR;
}

int CKorvaneClient::ExecuteBind(int hCnx, const wchar_t* requete, int& resultat) {
    CRequestFrame frame(this, kFrameExecuteBind);
    int r = frame.Run(
        hCnx,
        [&](CMsgSocketClient& msg, CConnexionKorvane& cnx) {
            return msg.CreateExecBind(requete, cnx.m_nNbResultats, cnx.m_tabParam);
        },
        [&](CConnexionKorvane& cnx) {
            if (cnx.m_nResultat != 0) {
                resultat = 0;
                return cnx.m_nCodeErreur.load();
            }
            resultat = cnx.m_tabParam[0].valNum.lVal;
            return KVN_NO_ERROR;
        });
    switch (frame.GetOutcome()) {
    case KVN_FRAME_BUILD_FAILED:
    case KVN_FRAME_SEND_FAILED:
    case KVN_FRAME_COMM_LOST:
        resultat = 0;
        break;
    default:
        break;
    }
    return r;
}

int CKorvaneClient::ExecuteRequete(int hCnx, const wchar_t* requete) {
    // The answer carries a status only.
    CRequestFrame frame(this, kFrameExecuteRequete);
    return frame.Run(hCnx, [&](CMsgSocketClient& msg, CConnexionKorvane&) {
        return msg.CreateExecRequete(requete);
    });
}
