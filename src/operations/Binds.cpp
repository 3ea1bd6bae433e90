// Bound statements and direct requests. BindParameter stores a value at a
// position of the connection's value table; ExecuteBind sends a parameterised
// statement with the values bound from position 1 on; ExecuteRequete sends a
// text under the metabase function and returns only the service's status.
//
// The bound values share m_tabParam with the values of every answer: the next
// answer on the connection (ExecuteBind's own as well) replaces them, so the
// application binds all its values immediately before each ExecuteBind.
#include <korvane/CKorvaneClient.h>

#include "client/CConnexionKorvane.h"
#include "operations/DeclaredValue.h"
#include "operations/RequestFrame.h"
#include "protocol/ValueTypes.h"

int CKorvaneClient::BindParameter(int hCnx, int colonne, int type, void* valeur,
                                  unsigned int taille) {
    CCnxRef ref = CRequestFrame::FindConnexion(this, hCnx, 22);
    CConnexionKorvane* cnx = ref.get();
    if (cnx == nullptr) return KVN_ERROR_HANDLE_CNX;
    CUseCnxLock lock(cnx, L"CKorvaneClient::BindParameter");
    if (!lock.IsHeld()) return KVN_ERROR_HANDLE_CNX;
    if (colonne < 1 || colonne > KVN_NB_PARAM_CNX) return KVN_ERROR_UNKNOWN;
    // Position 1 starts a new list of bound values.
    if (colonne == 1) cnx->m_nNbResultats = 0;

    CParam& slot = cnx->m_tabParam[colonne - 1];
    // A type that cannot be bound is sent as a NULL text rather than refused.
    const bool bindable = IsDeclarableType(type);
    if (bindable && valeur != nullptr && taille != 0) {
        if (!StoreDeclaredValue(slot, TypeByte(type), valeur, taille)) return KVN_ERROR_MEMORY;
        slot.cType = static_cast<signed char>(type);
    } else {
        // Bound as NULL: the size stays as it was, it is not sent.
        delete[] slot.pszValeur;
        slot.pszValeur = nullptr;
        slot.cType = static_cast<signed char>(bindable ? type : SQL_C_CHAR);
        slot.bNull = 1;
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
