// Schema questions answered by the service: whether a table exists, whether a
// column of a table exists, and the columns of a table. The client passes the
// names through and the answers back; how the service lays out the names and
// types of GetColumns is its own.
//
// Unlike Execute, these operations write their out-arguments only on success.
#include <korvane/CKorvaneClient.h>

#include "client/CConnexionKorvane.h"
#include "operations/RequestFrame.h"
#include "protocol/ValueTypes.h"

namespace {

// The text of a value that GetColumns expects to be a text (a NULL text is
// empty); false for a value of another type.
bool TextValue(const CParam& v, DStr& text) {
    if (!IsTextType(v.cType)) return false;
    text = (v.bNull || v.pszValeur == nullptr) ? L"" : v.pszValeur;
    return true;
}

// existe = 1 when the answer's value is non-zero.
int ReadExiste(CConnexionKorvane& cnx, int& existe) {
    if (cnx.m_nResultat != 0) return cnx.m_nCodeErreur.load();
    existe = cnx.m_tabParam[0].valNum.lVal != 0 ? 1 : 0;
    return KVN_NO_ERROR;
}

} // namespace

int CKorvaneClient::IsTableExist(int hCnx, const wchar_t* table, int& existe) {
    CRequestFrame frame(this, kFrameIsTableExist);
    return frame.Run(
        hCnx, [&](CMsgSocketClient& msg, CConnexionKorvane&) { return msg.CreateIsTableExist(table); },
        [&](CConnexionKorvane& cnx) { return ReadExiste(cnx, existe); });
}

int CKorvaneClient::IsColumnExist(int hCnx, const wchar_t* table, const wchar_t* nomColonne,
                                  int& existe) {
    CRequestFrame frame(this, kFrameIsColumnExist);
    return frame.Run(
        hCnx,
        [&](CMsgSocketClient& msg, CConnexionKorvane&) {
            return msg.CreateIsColumnExist(table, nomColonne);
        },
        [&](CConnexionKorvane& cnx) { return ReadExiste(cnx, existe); });
}

int CKorvaneClient::GetColumns(int hCnx, const wchar_t* table, int& nbColonnes, DStr& noms,
                               DStr& types) {
    CRequestFrame frame(this, kFrameGetColumns);
    return frame.Run(
        hCnx, [&](CMsgSocketClient& msg, CConnexionKorvane&) { return msg.CreateGetColumns(table); },
        [&](CConnexionKorvane& cnx) {
            if (cnx.m_nResultat != 0) return cnx.m_nCodeErreur.load();
            // The answer is a count and two texts. Slots the answer did not
            // fill still hold an older answer's values: a shorter or
            // differently typed answer is refused as malformed, and nothing
            // is written.
            if (cnx.m_nNbResultats < 3) return KVN_ERROR_RECEIVE;
            const CParam& count = cnx.m_tabParam[0];
            if (TypeByte(count.cType) != TypeByte(SQL_C_LONG)) return KVN_ERROR_RECEIVE;
            DStr n, t;
            if (!TextValue(cnx.m_tabParam[1], n) || !TextValue(cnx.m_tabParam[2], t))
                return KVN_ERROR_RECEIVE;
            nbColonnes = count.bNull ? 0 : count.valNum.lVal;
            noms = n;
            types = t;
            return KVN_NO_ERROR;
        });
}
