// Execute: runs one SQL statement that delivers no rows on a logical
// connection and returns the integer that the service gives beside its
// status. The exchange itself is the request frame's (RequestFrame.h); this
// file says only what the statement sends and what the caller gets back.
#include <korvane/CKorvaneClient.h>

#include "operations/RequestFrame.h"

int CKorvaneClient::Execute(int hCnx, const wchar_t* requete, int& resultat) {
    CRequestFrame frame(this, kFrameExecute);
    int r = frame.Run(
        hCnx,
        [&](CMsgSocketClient& msg, CConnexionKorvane&) { return msg.CreateExec(requete); },
        [&](CConnexionKorvane& cnx) {
            if (cnx.m_nResultat == 0) {
                resultat = cnx.m_tabParam[0].valNum.lVal;
                return KVN_NO_ERROR;
            }
            // The service's error code for status -2, -51 for a malformed
            // answer, 0 for any other status of the service.
            resultat = 0;
            return cnx.m_nCodeErreur.load();
        });

    // resultat is cleared by the failures that happen once the request was
    // built or sent; a refusal before that (unknown handle, link down, lock),
    // a closed socket and an answer time-out leave it alone.
    switch (frame.GetOutcome()) {
    case KVN_FRAME_BUILD_FAILED:
    case KVN_FRAME_SEND_FAILED:
    case KVN_FRAME_COMM_LOST: resultat = 0; break;
    default: break;
    }
    return r;
}
