// Select queries: ExecuteSelect sends the query and receives the first block
// of rows into the connection's row buffer, Fetch walks the rows and asks for
// the next block (GetLine) once the buffered ones are used up, LibereStatment
// tells the service to release the statement.
//
// Rows are paged by the service: the client asks for the next block only when
// the application has consumed the buffered rows, and never after a block
// that carried the end mark. This file does not decode rows: the result
// receivers store them in the row buffer on the connection's thread.
#include <korvane/CKorvaneClient.h>

#include "client/CConnexionKorvane.h"
#include "diag/Log.h"
#include "operations/RequestFrame.h"

namespace {

// Fetch: nothing buffered to deliver, the next block is to be asked for.
const int kADemander = 1;

// Asks the service for the next block of rows. outcome tells Fetch whether an
// answer was stored at all.
int RunGetLine(CKorvaneClient* client, int hCnx, int nbLignes, KvnFrameOutcome& outcome) {
    CRequestFrame frame(client, kFrameGetLine);
    int r = frame.Run(hCnx, [&](CMsgSocketClient& msg, CConnexionKorvane&) {
        return msg.CreateGetLine(nbLignes);
    });
    outcome = frame.GetOutcome();
    return r;
}

} // namespace

// ---- ExecuteSelect -------------------------------------------------------------

int CKorvaneClient::ExecuteSelect(int hCnx, const wchar_t* requete, int& resultat) {
    WriteLog(L"Début de ExecuteSelect", 20000);
    CRequestFrame frame(this, kFrameExecuteSelect);
    int r = frame.Run(
        hCnx, [&](CMsgSocketClient& msg, CConnexionKorvane&) { return msg.CreateExecSelect(requete); },
        [&](CConnexionKorvane& cnx) {
            WriteLog(L"Fin de ExecuteSelect", 20000);
            // An empty result (status 0, code 100) is a success: the first
            // Fetch then answers KVN_NO_DATA.
            int status = cnx.m_nResultat;
            if (status == 0 || status == KVN_NO_DATA) {
                resultat = cnx.m_tabParam[0].valNum.lVal;
                return KVN_NO_ERROR;
            }
            resultat = 0;
            return cnx.m_nCodeErreur.load();
        });
    switch (frame.GetOutcome()) {
    case KVN_FRAME_BUILD_FAILED:
    case KVN_FRAME_ANSWER_TIMEOUT:
    case KVN_FRAME_COMM_LOST:
        resultat = 0;
        break;
    default:
        // Unknown handle, link down, lock, socket closed and send failure
        // leave it alone; an answer was read above.
        break;
    }
    return r;
}

int CKorvaneClient::ExecuteSelect(int hCnx, DStr& requete, int& resultat) {
    return ExecuteSelect(hCnx, requete.GetString(), resultat);
}

int CKorvaneClient::ExecuteSelect(int hCnx, CString& requete, int& resultat) {
    return ExecuteSelect(hCnx, requete.GetString(), resultat);
}

// ---- GetLine -----------------------------------------------------------------------

int CKorvaneClient::GetLine(int hCnx, int nbLignes) {
    KvnFrameOutcome outcome;
    return RunGetLine(this, hCnx, nbLignes, outcome);
}

// ---- Fetch -------------------------------------------------------------------------

// Fetch answers 0 only when a new row became current. The decisions after the
// buffered rows are used up, in order:
//   end mark already set                 -> KVN_NO_DATA, buffer emptied
//   a block is arriving                  -> wait for it, then as above or below
//   GetLine failed, nothing was stored   -> GetLine's code (-52, -53, -63 ...)
//   GetLine brought a row                -> 0
//   status 0 but no row (loss, or a block without a whole row)
//                                        -> -53 when the link is down, else
//                                           KVN_NO_DATA at the end mark, else -51
//   error status                         -> KVN_NO_DATA when the answer set
//                                           the end mark or said "no data",
//                                           else the service's code
//
// The row buffer is locked once per Fetch: to make the next row current, or,
// after the GetLine answer, to make its first row current. Whether to ask is
// read without the lock; a block in reception holds the lock, so a Fetch that
// meets one waits for it on the lock and decides on the whole block.
int CKorvaneClient::Fetch(int hCnx) {
    CCnxRef ref = CRequestFrame::FindConnexion(this, hCnx, 4);
    CConnexionKorvane* cnx = ref.get();
    if (cnx == nullptr) return KVN_ERROR_HANDLE_CNX;
    // No link test here: when the link is down, the GetLine below fails.
    CUseCnxLock lock(cnx, L"CKorvaneClient::Fetch");
    if (!lock.IsHeld()) return KVN_ERROR_HANDLE_CNX;

    CSelectBuffer& buffer = cnx->m_selectBuffer;
    const int pret = buffer.IsADemander() ? kADemander : buffer.FetchSuivante();
    if (pret == KVN_NO_ERROR) return KVN_NO_ERROR;

    CRequestFrame::WithdrawRequest(cnx);
    if (pret == KVN_NO_DATA) {
        cnx->m_nCodeErreur = KVN_NO_DATA;
        cnx->m_nResultat = KVN_ERROR_UNKNOWN;
        return KVN_NO_DATA;
    }

    // The request lock is recursive: GetLine takes it again on this thread.
    KvnFrameOutcome outcome = KVN_FRAME_NOT_RUN;
    int r = RunGetLine(this, hCnx, 0, outcome);
    if (outcome != KVN_FRAME_ANSWERED) return r;
    // FetchSuivante empties the buffer when it meets the end mark.
    bool lastLigne = false;
    if (r == KVN_NO_ERROR) {
        const int apres = buffer.FetchSuivante();
        if (apres == KVN_NO_ERROR) return KVN_NO_ERROR;
        lastLigne = apres == KVN_NO_DATA;
    } else {
        lastLigne = buffer.IsLastLigne() != 0;
    }

    if (cnx->m_nResultat == 0) {
        // The status says rows came, yet none is current: either a loss woke
        // GetLine and the status is an older answer's, or the block held no
        // whole row.
        if (!CRequestFrame::IsLinkUp(this, cnx)) return KVN_ERROR_SOCKET_CLOSED;
        return lastLigne ? KVN_NO_DATA : KVN_ERROR_RECEIVE;
    }
    int code = cnx->m_nCodeErreur;
    if (code == KVN_NO_DATA) buffer.VideBuffer();
    return (lastLigne || code == KVN_NO_DATA) ? KVN_NO_DATA : code;
}

// ---- LibereStatment ------------------------------------------------------------------

int CKorvaneClient::LibereStatment(int hCnx) {
    // No answer is awaited and the local rows are not touched.
    CRequestFrame frame(this, kFrameLibereStatment);
    return frame.Run(hCnx, [&](CMsgSocketClient& msg, CConnexionKorvane&) {
        return msg.CreateLibereConnexionSelect();
    });
}
