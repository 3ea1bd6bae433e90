// The caller's side of every database operation on one logical connection.
//
// An operation that exchanges a request with the service runs CRequestFrame:
// look the connection up, test the link, take the connection's request lock
// mutexUseCnx, build the request in a message of its own, send it and get its
// answer stored, read the answer, and release the lock. The exchange runs on
// the caller's own thread, with the socket borrowed from the connection's
// thread (no hand-over, no wake-up of another thread); where a socket cannot
// be lent, the request is lent to the connection's thread instead
// (m_pMsgAEnvoyer + m_hEvtEnvoi) and the caller sleeps once until it was sent
// and its answer stored. The client's m_hEvtPerteCommInterne takes part in
// every wait for a send or an answer, so a loss of the link wakes every
// request in flight (one that is sending on its own thread first waits for
// its acknowledgement, whose limit is the service's nTimeOutAck).
//
// The operations differ only in a few points, gathered in a KvnFrameVariant;
// the variants of all operations are declared below (kFrameExecute, ...), so an
// operation's file holds only its builder and its reader:
//
//     int CKorvaneClient::IsTableExist(int hCnx, const wchar_t* table, int& existe) {
//         CRequestFrame frame(this, kFrameIsTableExist);
//         return frame.Run(hCnx,
//             [&](CMsgSocketClient& msg, CConnexionKorvane&) {
//                 return msg.CreateIsTableExist(table);
//             },
//             [&](CConnexionKorvane& cnx) {       // runs under mutexUseCnx
//                 if (cnx.m_nResultat != 0) return cnx.m_nCodeErreur.load();
//                 existe = cnx.m_tabParam[0].valNum.lVal != 0 ? 1 : 0;
//                 return KVN_NO_ERROR;
//             });
//     }
//
// The builder returns what the Create* call returned (non-zero: the frame
// answers KVN_ERROR_PARAMETER). The reader runs only when an answer was stored
// (outcome KVN_FRAME_ANSWERED), with the connection's request lock still held,
// and returns the operation's result code; without a reader the result is 0
// when m_nResultat is 0, else m_nCodeErreur. Out-arguments that a failure
// writes (e.g. Execute sets resultat to 0 after -58, -52, or a loss) are
// written by the operation after Run, from GetOutcome().
//
// Operations that do not exchange (column reads, parameter declarations) use
// only FindConnexion and CUseCnxLock:
//
//     CCnxRef cnx = CRequestFrame::FindConnexion(this, hCnx, 18);
//     if (!cnx) return KVN_ERROR_HANDLE_CNX;
//     CUseCnxLock lock(cnx.get(), L"CKorvaneClient::ClearStoredProcParams");
//     if (!lock.IsHeld()) return KVN_ERROR_HANDLE_CNX;
//     ... (unlocked when lock goes out of scope)
//
// Result codes of the frame, in the order in which they are decided after the
// waits (this order is what a caller sees when several conditions hold):
//   answer wait ran out            -63 KVN_FRAME_ANSWER_TIMEOUT
//   the send found the socket shut -53 KVN_FRAME_SOCKET_CLOSED (m_NotifyComLost)
//   [loss, variants that test it before the send failure]  -53 KVN_FRAME_COMM_LOST
//   [send wait ran out, variants for which that is a time-out]  -63
//   not sent in time / send failed -52 KVN_FRAME_SEND_FAILED
//   [sent, no answer awaited]        0 KVN_FRAME_SENT
//   loss (logged at level 4)       -53 KVN_FRAME_COMM_LOST
//   anything else: the answer      reader's result, KVN_FRAME_ANSWERED
#ifndef KORVANE_OPERATIONS_REQUESTFRAME_H
#define KORVANE_OPERATIONS_REQUESTFRAME_H

#include <type_traits>

#include <korvane/CKorvaneClient.h>
#include <korvane/CMsgSocketClient.h>
#include <korvane/KvnDefs.h>
#include <korvane/platform/KvnTypes.h>

#include "client/CConnexionKorvane.h"
#include "client/ClientTimings.h"

// ---- How an operation departs from the frame of Execute ----------------------

// Which comes first: the link test (m_bConnected and the client's
// m_bAllConnected) or the request lock. With KVN_LOCK_THEN_TEST a link that is
// down gives -53 after the lock was taken and released again.
enum KvnFrameOrder { KVN_TEST_THEN_LOCK, KVN_LOCK_THEN_TEST };

// What a wake-up by the client's m_hEvtPerteCommInterne leads to.
enum KvnFrameOnLoss {
    // -53 with the line "<prefix>(): perte de comm" at level 4, decided after
    // the send failure (a request that was not sent gives -52 first).
    KVN_LOSS_LOGGED,
    // -53 without a line, decided before the send failure.
    KVN_LOSS_SILENT,
    // No outcome of its own: once the request was sent, the connection's
    // stored answer is read as if it had arrived (GetLine).
    KVN_LOSS_READ_ANSWER
};

struct KvnFrameVariant {
    // Number written after "\r\nError KVN_ERROR_HANDLE_CNX " to the debugger
    // output when the handle is unknown; 0 for no line.
    int nSite;
    // "CKorvaneClient::Execute": starts the lock line (" mutexUseCnx.Lock()
    // ABANDON") and the failure lines ("(): erreur envoi", "(): perte de
    // comm", "(): time-out resultat").
    const wchar_t* szPrefix;
    KvnFrameOrder order;
    // Empties the connection's row buffer once the lock is held.
    bool bEmptiesSelectBuffer;
    // Clears m_bMsgSended before the hand-over. Without it the flag keeps the
    // previous hand-over's value until the connection's thread writes it.
    bool bResetsMsgSended;
    // Limit of the send wait, ms.
    DWORD dwSendWaitMs;
    // Waits for msgSended alone and awaits no answer: the request is done
    // once it was sent (LibereStatment).
    bool bNoAnswer;
    KvnFrameOnLoss onLoss;
    // A send wait that runs out is a time-out (-63, "(): time-out resultat")
    // rather than a send failure (ExecStoredProc, whose send wait is long).
    bool bSendTimeOutIsTimeOut;
    // Optional lines: at level 5 when the send wait ends on msgSended, at
    // level 20 when the answer wait ends on hEvtResultArrived; null for none.
    const wchar_t* szSentLine;
    const wchar_t* szArrivedLine;
};

// The variants of the operations that exchange a request, with their call
// sites (the table of their differences is in RequestFrame.cpp).
extern const KvnFrameVariant kFrameGetLastErrorConnexion;  // 1
extern const KvnFrameVariant kFrameExecute;                // 2
extern const KvnFrameVariant kFrameExecuteSelect;          // 3
extern const KvnFrameVariant kFrameGetLine;                // 5
extern const KvnFrameVariant kFrameLibereStatment;         // 6
extern const KvnFrameVariant kFrameIsTableExist;           // 15
extern const KvnFrameVariant kFrameIsColumnExist;          // 16
extern const KvnFrameVariant kFrameGetColumns;             // 17
extern const KvnFrameVariant kFrameExecStoredProc;         // 21
extern const KvnFrameVariant kFrameExecuteBind;            // 23
extern const KvnFrameVariant kFrameExecuteRequete;         // 24

// How a run of the frame ended.
enum KvnFrameOutcome {
    KVN_FRAME_NOT_RUN,
    KVN_FRAME_UNKNOWN_HANDLE,  // -62, debugger line with the call site
    KVN_FRAME_LINK_DOWN,       // -53, nothing logged
    KVN_FRAME_LOCK_FAILED,     // -62, lock line at level 15 and debugger line
    KVN_FRAME_BUILD_FAILED,    // -58, nothing sent
    KVN_FRAME_ANSWER_TIMEOUT,  // -63
    KVN_FRAME_SOCKET_CLOSED,   // -53, after m_NotifyComLost
    KVN_FRAME_SEND_FAILED,     // -52
    KVN_FRAME_COMM_LOST,       // -53
    KVN_FRAME_SENT,            // 0: sent and acknowledged, no answer awaited
    KVN_FRAME_ANSWERED         // the reader's result
};

// ---- Callbacks -------------------------------------------------------------------

// A non-owning reference to a callable (a lambda of the calling operation).
// It does not copy the callable, so it must not outlive the call it is passed
// to; nothing here allocates or throws.
template <class Sig>
class KvnCallbackRef;

template <class R, class... A>
class KvnCallbackRef<R(A...)> {
public:
    KvnCallbackRef() : m_pObj(nullptr), m_pCall(nullptr) {}
    template <class F, class = typename std::enable_if<!std::is_same<
                           typename std::decay<F>::type, KvnCallbackRef>::value>::type>
    KvnCallbackRef(F&& f)  // NOLINT: implicit on purpose, call sites pass lambdas
        : m_pObj(const_cast<void*>(static_cast<const void*>(&f))),
          m_pCall([](void* obj, A... args) -> R {
              return (*static_cast<typename std::remove_reference<F>::type*>(obj))(args...);
          }) {}
    explicit operator bool() const { return m_pCall != nullptr; }
    R operator()(A... args) const { return m_pCall(m_pObj, args...); }

private:
    void* m_pObj;
    R (*m_pCall)(void*, A...);
};

// Fills the request (a Create* call); 0 when built.
typedef KvnCallbackRef<int(CMsgSocketClient& msg, CConnexionKorvane& cnx)> KvnFrameBuilder;
// Reads the stored answer under the request lock; returns the result code.
typedef KvnCallbackRef<int(CConnexionKorvane& cnx)> KvnFrameReader;

// ---- The frame ---------------------------------------------------------------------

class CRequestFrame {
public:
    CRequestFrame(CKorvaneClient* client, const KvnFrameVariant& variant);

    CRequestFrame(const CRequestFrame&) = delete;
    CRequestFrame& operator=(const CRequestFrame&) = delete;

    // Runs the whole exchange on connection hCnx; returns the result code.
    // After it returns, the request lock is free and m_pMsgAEnvoyer clear.
    int Run(int hCnx, KvnFrameBuilder build, KvnFrameReader read = KvnFrameReader());

    KvnFrameOutcome GetOutcome() const { return m_outcome; }

    // ---- Shared steps, for the operations that do not exchange -------------------
    // The connection named hCnx, or null after writing
    // "\r\nError KVN_ERROR_HANDLE_CNX <nSite>" to the debugger output (two
    // spaces after the number, one for 11 and 13; no line when nSite is 0).
    // The connection is counted for the caller as long as the returned
    // reference lives.
    static CCnxRef FindConnexion(CKorvaneClient* client, int hCnx, int nSite);
    // The connection and the client's link are both up.
    static bool IsLinkUp(CKorvaneClient* client, CConnexionKorvane* cnx);
    // Lends msg to the connection's thread / takes it back, under m_mutexEnvoi.
    // Taking it back waits for a send in progress to end.
    static void PublishRequest(CConnexionKorvane* cnx, CMsgSocketClient* msg);
    static void WithdrawRequest(CConnexionKorvane* cnx);

private:
    // How far an exchange on the caller's own thread went: done (its outcome
    // is known), to be finished with the waits of a hand-over, or not tried
    // (the socket could not be lent: the request is handed over).
    enum Direct { kDone, kWaitAsBefore, kNotLent };
    Direct ExchangeDirect(CConnexionKorvane* cnx, CMsgSocketClient& msg, unsigned envois,
                          DWORD* w, bool* sent);
    Direct ReceiveAnswer(CConnexionKorvane* cnx, CMsgSocketClient& msg, HANDLE evt, DWORD* w);
    int Finish(KvnFrameOutcome outcome, int result);
    void LogLine(const wchar_t* suffix, int level);

    CKorvaneClient* m_pClient;
    const KvnFrameVariant& m_variant;
    KvnFrameOutcome m_outcome;
};

// ---- The request lock ------------------------------------------------------------

// Takes the connection's mutexUseCnx for the scope, waiting at most
// KVN_TIMEOUT_USE_CNX_MS. When the lock is not obtained, "<prefix>
// mutexUseCnx.Lock() ABANDON" is logged at level 15 and written to the
// debugger output (nothing when prefix is null), and IsHeld() is false: the
// operation returns KVN_ERROR_HANDLE_CNX. The lock is recursive for its
// holder, so an operation may call another on the same connection.
class CUseCnxLock {
public:
    CUseCnxLock(CConnexionKorvane* cnx, const wchar_t* prefix);
    ~CUseCnxLock();

    CUseCnxLock(const CUseCnxLock&) = delete;
    CUseCnxLock& operator=(const CUseCnxLock&) = delete;

    bool IsHeld() const { return m_bHeld; }
    // Releases early (e.g. before m_NotifyComLost); the destructor then does
    // nothing.
    void Unlock();

private:
    CConnexionKorvane* m_pCnx;
    bool m_bHeld;
};

#endif
