// The request frame shared by the database operations: the caller's half of
// the hand-off whose other half is ThreadSockClient (src/client/).
//
// Lock order: mutexUseCnx, then m_mutexEnvoi. Whoever holds m_mutexEnvoi has
// the connection's socket: the caller for the whole of an exchange on its own
// thread, the connection's thread while it sends a handed-over request,
// receives, closes or replaces the socket. Withdrawing a handed-over request
// therefore waits for a send in progress: the request never dies while being
// sent.
#include "operations/RequestFrame.h"

#include <cwchar>

#include "diag/Log.h"
#include "platform/DebugOutput.h"
#include "client/ClientThreads.h"
#include "platform/Kernel.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

// How each exchanging operation departs from Execute. Fields: call site,
// prefix, order, empties the row buffer, clears m_bMsgSended, send wait, no
// answer, on a loss, send time-out is a time-out, optional lines.
const KvnFrameVariant kFrameGetLastErrorConnexion = {
    1, L"CKorvaneClient::GetLastErrorConnexion", KVN_TEST_THEN_LOCK,
    false, false, KVN_SEND_WAIT_ERROR_TEXT_MS, false, KVN_LOSS_LOGGED, false, nullptr, nullptr};
const KvnFrameVariant kFrameExecute = {
    2, L"CKorvaneClient::Execute", KVN_TEST_THEN_LOCK,
    true, true, KVN_SEND_WAIT_MS, false, KVN_LOSS_LOGGED, false, nullptr, nullptr};
const KvnFrameVariant kFrameExecuteSelect = {
    3, L"CKorvaneClient::ExecuteSelect", KVN_TEST_THEN_LOCK,
    true, true, KVN_SEND_WAIT_MS, false, KVN_LOSS_LOGGED, false,
    L"CKorvaneClient::ExecuteSelect reception evt msgSended",
    L"CKorvaneClient::ExecuteSelect(): reception evt hEvtResultArrived"};
const KvnFrameVariant kFrameGetLine = {
    5, L"CKorvaneClient::GetLine", KVN_TEST_THEN_LOCK,
    false, false, KVN_SEND_WAIT_MS, false, KVN_LOSS_READ_ANSWER, false, nullptr, nullptr};
const KvnFrameVariant kFrameLibereStatment = {
    6, L"CKorvaneClient::LibereStatment", KVN_TEST_THEN_LOCK,
    false, false, KVN_SEND_WAIT_LIBERE_MS, true, KVN_LOSS_LOGGED, false, nullptr, nullptr};
const KvnFrameVariant kFrameIsTableExist = {
    15, L"CKorvaneClient::IsTableExist", KVN_LOCK_THEN_TEST,
    false, false, KVN_SEND_WAIT_MS, false, KVN_LOSS_LOGGED, false, nullptr, nullptr};
const KvnFrameVariant kFrameIsColumnExist = {
    16, L"CKorvaneClient::IsColumnExist", KVN_LOCK_THEN_TEST,
    false, false, KVN_SEND_WAIT_MS, false, KVN_LOSS_LOGGED, false, nullptr, nullptr};
const KvnFrameVariant kFrameGetColumns = {
    17, L"CKorvaneClient::GetColumns", KVN_LOCK_THEN_TEST,
    false, false, KVN_SEND_WAIT_MS, false, KVN_LOSS_SILENT, false, nullptr, nullptr};
const KvnFrameVariant kFrameExecStoredProc = {
    21, L"CKorvaneClient::ExecStoredProc", KVN_LOCK_THEN_TEST,
    false, false, KVN_SEND_WAIT_PROC_MS, false, KVN_LOSS_SILENT, true, nullptr, nullptr};
const KvnFrameVariant kFrameExecuteBind = {
    23, L"CKorvaneClient::ExecuteBind", KVN_LOCK_THEN_TEST,
    true, true, KVN_SEND_WAIT_MS, false, KVN_LOSS_LOGGED, false, nullptr, nullptr};
const KvnFrameVariant kFrameExecuteRequete = {
    24, L"CKorvaneClient::ExecuteRequete", KVN_LOCK_THEN_TEST,
    false, false, KVN_SEND_WAIT_MS, false, KVN_LOSS_LOGGED, false, nullptr, nullptr};

namespace {

// Outcomes of the waits, as the frame names them.
const DWORD kWaitFirst = 0;      // msgSended, or hEvtResultArrived
const DWORD kWaitLoss = 1;       // the client's m_hEvtPerteCommInterne
const DWORD kWaitTimeOut = 258;  // the limit ran out

// The caller's wait for its answer, one sleep per request: until the answer
// is stored, the link is lost, or a limit runs out. The send is not waited
// for on its own: the connection's thread counts each acknowledged send
// (m_nEnvois, which stood at `envois` when the request was published) and
// records its time, and the answer's limit counts from it, so the outcomes
// and their limits are those of a wait for msgSended followed by a wait for
// the answer (a hand-over that ends without a send, the connection having
// gone down meanwhile, is seen when the send's limit runs out, as a failed
// send always was). *sent tells whether the request was sent when the wait
// ended: a time-out is then the answer's, otherwise the send's. A wait that
// fails (an event closed under a connection being deleted) counts as running
// out.
DWORD WaitForAnswer(CConnexionKorvane* cnx, unsigned envois, HANDLE loss, DWORD sendWaitMs,
                    bool* sent) {
    HANDLE handles[2] = {cnx->hEvtResultArrived, loss};
    const DWORD start = KvnGetTickCount();
    const DWORD answerWaitMs = KvnGetAnswerWaitMs();
    for (;;) {
        *sent = cnx->m_nEnvois != envois;
        const DWORD now = KvnGetTickCount();
        DWORD left;
        if (*sent) {
            const DWORD since = now - cnx->m_dwTickEnvoi;
            if (since >= answerWaitMs) return kWaitTimeOut;
            left = answerWaitMs - since;
        } else {
            const DWORD since = now - start;
            if (since >= sendWaitMs) return kWaitTimeOut;
            left = sendWaitMs - since;
            // A send that this wait does not see moves the limit to the
            // answer's: look again by then at the latest.
            if (answerWaitMs < left) left = answerWaitMs;
        }
        const DWORD r = KvnWaitForMultipleObjects(2, handles, left);
        if (r == WAIT_OBJECT_0 + 1) {
            *sent = cnx->m_nEnvois != envois;
            return kWaitLoss;
        }
        if (r == WAIT_OBJECT_0) {
            // The thread stores this request's answer only after it counted
            // the send: an answer stored before is an earlier one's, arrived
            // late, and is not waited for.
            *sent = cnx->m_nEnvois != envois;
            if (*sent) return kWaitFirst;
            continue;
        }
        if (r != WAIT_TIMEOUT) return kWaitTimeOut;
    }
}

}  // namespace

// ---- Shared steps --------------------------------------------------------------

CCnxRef CRequestFrame::FindConnexion(CKorvaneClient* client, int hCnx, int nSite) {
    CCnxRef cnx(client->m_GetConnexionByIdList(hCnx, true));
    if (!cnx && nSite > 0) {
        wchar_t line[64];
        std::swprintf(line, sizeof(line) / sizeof(line[0]),
                      (nSite == 11 || nSite == 13) ? L"\r\nError KVN_ERROR_HANDLE_CNX %d "
                                                   : L"\r\nError KVN_ERROR_HANDLE_CNX %d  ",
                      nSite);
        KvnDebugOutput(line);
    }
    return cnx;
}

bool CRequestFrame::IsLinkUp(CKorvaneClient* client, CConnexionKorvane* cnx) {
    return cnx->m_bConnected != 0 && client->m_bAllConnected != 0;
}

void CRequestFrame::PublishRequest(CConnexionKorvane* cnx, CMsgSocketClient* msg) {
    cnx->m_mutexEnvoi.Lock(INFINITE);
    cnx->m_pMsgAEnvoyer = msg;
    cnx->m_mutexEnvoi.Unlock();
}

void CRequestFrame::WithdrawRequest(CConnexionKorvane* cnx) {
    cnx->m_mutexEnvoi.Lock(INFINITE);
    cnx->m_pMsgAEnvoyer = nullptr;
    cnx->m_mutexEnvoi.Unlock();
}

CUseCnxLock::CUseCnxLock(CConnexionKorvane* cnx, const wchar_t* prefix)
    : m_pCnx(cnx), m_bHeld(false) {
    m_bHeld = cnx->mutexUseCnx.Lock(KVN_TIMEOUT_USE_CNX_MS) != FALSE;
    if (!m_bHeld && prefix != nullptr) {
        wchar_t line[128];
        std::swprintf(line, sizeof(line) / sizeof(line[0]), L"%ls mutexUseCnx.Lock() ABANDON",
                      prefix);
        WriteLog(line, 15);
        KvnDebugOutput(line);
    }
}

CUseCnxLock::~CUseCnxLock() { Unlock(); }

void CUseCnxLock::Unlock() {
    if (m_bHeld) {
        m_bHeld = false;
        m_pCnx->mutexUseCnx.Unlock();
    }
}

// ---- The frame --------------------------------------------------------------------

CRequestFrame::CRequestFrame(CKorvaneClient* client, const KvnFrameVariant& variant)
    : m_pClient(client), m_variant(variant), m_outcome(KVN_FRAME_NOT_RUN) {}

int CRequestFrame::Finish(KvnFrameOutcome outcome, int result) {
    m_outcome = outcome;
    return result;
}

void CRequestFrame::LogLine(const wchar_t* suffix, int level) {
    if (level > g_logLevel.load()) return;
    wchar_t line[160];
    std::swprintf(line, sizeof(line) / sizeof(line[0]), L"%ls%ls", m_variant.szPrefix, suffix);
    WriteLog(line, level);
}

// The exchange on the caller's own thread: the connection's thread lends its
// socket (it is then told of nothing on it, and does not wake), the request
// is sent as that thread would send it, and the answer is received and
// stored here. Two wake-ups fewer per request than a hand-over to the
// connection's thread, with the same bytes on the wire and the same limits.
// m_mutexEnvoi is held throughout: the thread holds it too whenever it
// receives on, closes or replaces the socket.
CRequestFrame::Direct CRequestFrame::ExchangeDirect(CConnexionKorvane* cnx, CMsgSocketClient& msg,
                                                    unsigned envois, DWORD* w, bool* sent) {
    // The thread may be receiving something else: the send's limit applies
    // to the wait for its turn, as to a hand-over not picked up.
    if (!cnx->m_mutexEnvoi.Lock(m_variant.dwSendWaitMs)) {
        *w = kWaitTimeOut;
        return kDone;
    }
    HANDLE evt = cnx->m_hEvtSocket;
    if (evt == nullptr || cnx->m_bConnected != 1 || !KvnLendSocketEvent(evt)) {
        cnx->m_mutexEnvoi.Unlock();
        return kNotLent;
    }
    cnx->m_pMsgAEnvoyer = &msg;
    EnvoiRequeteCnx(cnx);
    *sent = cnx->m_nEnvois != envois;
    Direct result = kWaitAsBefore;
    if (!*sent) {
        // The send step closed the socket: its thread re-opens the connection.
        KvnSetEvent(cnx->m_hEvtReveil);
    } else if (m_variant.bNoAnswer) {
        *w = kWaitFirst;
        result = kDone;
    } else {
        result = ReceiveAnswer(cnx, msg, evt, w);
    }
    KvnReturnSocketEvent(evt);
    cnx->m_mutexEnvoi.Unlock();
    return result;
}

// Receives until the answer is stored, the link is lost or the answer's
// limit runs out. The socket goes back to the connection's thread at once
// (kWaitAsBefore) when it closes, and when that thread is asked to end (a
// FreeConnexion past its wait for this request, Free): the thread closes it,
// the answer will not come, and is waited for as after a hand-over.
CRequestFrame::Direct CRequestFrame::ReceiveAnswer(CConnexionKorvane* cnx, CMsgSocketClient& msg,
                                                   HANDLE evt, DWORD* w) {
    const DWORD answerWaitMs = KvnGetAnswerWaitMs();
    const HANDLE handles[4] = {evt, m_pClient->m_hEvtPerteCommInterne, cnx->m_hEvtFermeture,
                               m_pClient->m_hEvtStopThreads};
    for (;;) {
        const DWORD since = KvnGetTickCount() - cnx->m_dwTickEnvoi;
        *w = kWaitTimeOut;
        if (since >= answerWaitMs) return kDone;
        const DWORD r = KvnWaitForMultipleObjects(4, handles, answerWaitMs - since);
        if (r == WAIT_TIMEOUT) continue;
        if (r == WAIT_OBJECT_0 + 1) *w = kWaitLoss;
        if (r == WAIT_OBJECT_0 + 2 || r == WAIT_OBJECT_0 + 3) return kWaitAsBefore;
        if (r != WAIT_OBJECT_0) return kDone;
        if (KvnPeekNetworkEvents(evt) & FD_CLOSE) return kWaitAsBefore;
        long events = 0;
        KvnEnumNetworkEvents(cnx->m_sock, evt, &events, nullptr);
        // Anything the service sends is taken in as the thread would take it;
        // the answer is what stores a result.
        if (events == FD_READ && msg.ReceiveMessage(cnx->m_sock) > 0) msg.AnalyseFonction(cnx);
        if (KvnWaitForSingleObject(cnx->hEvtResultArrived, 0) == WAIT_OBJECT_0) {
            *w = kWaitFirst;
            return kDone;
        }
    }
}

int CRequestFrame::Run(int hCnx, KvnFrameBuilder build, KvnFrameReader read) {
    const KvnFrameVariant& v = m_variant;
    // The request belongs to this call; the connection's thread only borrows
    // it between PublishRequest and WithdrawRequest.
    CMsgSocketClient msg;

    // Counted for this call: FreeConnexion on another thread cannot destroy
    // the connection under it.
    CCnxRef ref = FindConnexion(m_pClient, hCnx, v.nSite);
    CConnexionKorvane* cnx = ref.get();
    if (cnx == nullptr) return Finish(KVN_FRAME_UNKNOWN_HANDLE, KVN_ERROR_HANDLE_CNX);
    // The opening of the main link this request runs on: a closed socket
    // found by its send is a loss of that link only.
    const int generation = m_pClient->m_nLienGeneration;

    if (v.order == KVN_TEST_THEN_LOCK && !IsLinkUp(m_pClient, cnx))
        return Finish(KVN_FRAME_LINK_DOWN, KVN_ERROR_SOCKET_CLOSED);
    CUseCnxLock lock(cnx, v.szPrefix);
    if (!lock.IsHeld()) return Finish(KVN_FRAME_LOCK_FAILED, KVN_ERROR_HANDLE_CNX);
    if (v.order == KVN_LOCK_THEN_TEST && !IsLinkUp(m_pClient, cnx))
        return Finish(KVN_FRAME_LINK_DOWN, KVN_ERROR_SOCKET_CLOSED);

    if (v.bEmptiesSelectBuffer) cnx->m_selectBuffer.VideBuffer();
    msg.Init(m_pClient->m_nIdApplication, hCnx, cnx->m_sock, &m_pClient->m_paramComm);
    // Answers carry no request identity: whatever set these before belongs to
    // an earlier request. The loss event is the link's: it stays set from a
    // loss until the link is back, for every request in flight.
    KvnResetEvent(cnx->hEvtResultArrived);
    KvnResetEvent(cnx->msgSended);
    if (v.bResetsMsgSended) cnx->m_bMsgSended = 0;
    if (build(msg, *cnx) != 0) return Finish(KVN_FRAME_BUILD_FAILED, KVN_ERROR_PARAMETER);

    const unsigned envois = cnx->m_nEnvois;
    DWORD w = kWaitTimeOut;
    bool sent = false;
    const Direct direct = ExchangeDirect(cnx, msg, envois, &w, &sent);
    if (direct == kNotLent) {
        PublishRequest(cnx, &msg);
        KvnSetEvent(cnx->m_hEvtEnvoi);
    }
    if (direct != kDone) {
        // The hand-over to the connection's thread, or the end of a direct
        // exchange that did not get its answer: waited for with the same
        // limits either way.
        if (v.bNoAnswer) {
            w = KvnWaitForSingleObject(cnx->msgSended, v.dwSendWaitMs) == WAIT_OBJECT_0
                    ? kWaitFirst
                    : kWaitTimeOut;
            sent = w == kWaitFirst;
        } else {
            w = WaitForAnswer(cnx, envois, m_pClient->m_hEvtPerteCommInterne, v.dwSendWaitMs,
                              &sent);
        }
    }
    if (sent && v.szSentLine != nullptr) WriteLog(v.szSentLine, 5);
    const bool answerTimedOut = !v.bNoAnswer && sent && w == kWaitTimeOut;
    if (!v.bNoAnswer && w == kWaitFirst && v.szArrivedLine != nullptr) WriteLog(v.szArrivedLine, 20);
    // Not picked up (thread stuck or gone): the request must not be sent
    // later by a hand-over meant for the next one.
    KvnResetEvent(cnx->m_hEvtEnvoi);
    WithdrawRequest(cnx);
    if (answerTimedOut) {
        LogLine(L"(): time-out resultat", 2);
        return Finish(KVN_FRAME_ANSWER_TIMEOUT, KVN_ERROR_TIMEOUT);
    }

    // The order of these tests decides the result when several hold at once.
    if (cnx->m_bMsgSended == 0 && cnx->m_nCodeErreur == KVN_ERROR_SOCKET_CLOSED) {
        // The send found the socket closed: the link is lost for every
        // connection. The lock goes first: the loss routine takes the registry.
        lock.Unlock();
        m_pClient->m_NotifyComLost(generation);
        return Finish(KVN_FRAME_SOCKET_CLOSED, KVN_ERROR_SOCKET_CLOSED);
    }
    if (w == kWaitLoss && v.onLoss == KVN_LOSS_SILENT)
        return Finish(KVN_FRAME_COMM_LOST, KVN_ERROR_SOCKET_CLOSED);
    if (w == kWaitTimeOut && v.bSendTimeOutIsTimeOut) {
        LogLine(L"(): time-out resultat", 2);
        return Finish(KVN_FRAME_ANSWER_TIMEOUT, KVN_ERROR_TIMEOUT);
    }
    if (w == kWaitTimeOut || cnx->m_bMsgSended == 0) {
        LogLine(L"(): erreur envoi", 2);
        return Finish(KVN_FRAME_SEND_FAILED, KVN_ERROR_SEND);
    }
    if (v.bNoAnswer) return Finish(KVN_FRAME_SENT, KVN_NO_ERROR);
    if (w == kWaitLoss && v.onLoss == KVN_LOSS_LOGGED) {
        LogLine(L"(): perte de comm", 4);
        return Finish(KVN_FRAME_COMM_LOST, KVN_ERROR_SOCKET_CLOSED);
    }

    // The answer is stored in the connection; read it while the lock keeps
    // other operations away from it.
    m_outcome = KVN_FRAME_ANSWERED;
    if (read) return read(*cnx);
    return cnx->m_nResultat == 0 ? KVN_NO_ERROR : cnx->m_nCodeErreur.load();
}
