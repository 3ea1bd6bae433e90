// GetLastErrorConnexion asks the service for the text of the last ODBC error
// of a connection. SendTest sends the service one large fixed request (500
// groups of five values) and waits only until it went out: it exercises the
// transport and the service's decoder, its answer is not awaited.
#include <korvane/CKorvaneClient.h>

#include <cwchar>
#include <new>

#include "client/CConnexionKorvane.h"
#include "operations/RequestFrame.h"
#include "platform/DateTime.h"
#include "platform/Kernel.h"
#include "platform/Threads.h"

namespace {

// The test request: 500 groups of a long, a text, a double, a timestamp and
// a NULL timestamp.
const int kTestGroups = 500;
// Each text lives in a buffer of this many characters.
const int kTestTextLen = 255;
// SendTest waits this long for the send, then lets the service read the
// request for a while before the message it borrowed is destroyed.
const DWORD kTestSendWaitMs = 1000;
const DWORD kTestPauseMs = 500;

KvnTimestamp SystemTimeToTimestamp(const SYSTEMTIME& st) {
    KvnTimestamp ts;
    ts.year = static_cast<std::int16_t>(st.wYear);
    ts.month = st.wMonth;
    ts.day = st.wDay;
    ts.hour = st.wHour;
    ts.minute = st.wMinute;
    ts.second = st.wSecond;
    ts.fraction = st.wMilliseconds;  // unscaled
    return ts;
}

// Appends one value; the message owns it.
void Append(CMsgSocketClient& msg, CParam* p) {
    if (p != nullptr) msg.AddParametre(p);
}

void AppendTestGroup(CMsgSocketClient& msg, int n) {
    CParam* p = new (std::nothrow) CParam();
    if (p) {
        p->cType = SQL_C_LONG;
        p->nTaille = 8;  // what the request carries for this long, not 4
        p->valNum.lVal = 10000 * n;
    }
    Append(msg, p);

    p = new (std::nothrow) CParam();
    if (p) {
        p->cType = SQL_C_CHAR;
        p->pszValeur = new (std::nothrow) wchar_t[kTestTextLen];
        if (p->pszValeur) {
            std::swprintf(p->pszValeur, kTestTextLen, L"Toto et le texte qui tue %d", n);
            p->nTaille = static_cast<short>(std::wcslen(p->pszValeur));
        }
    }
    Append(msg, p);

    p = new (std::nothrow) CParam();
    if (p) {
        p->cType = SQL_C_DOUBLE;
        p->nTaille = 8;
        p->valNum.dVal = n * 100.0;
    }
    Append(msg, p);

    p = new (std::nothrow) CParam();
    if (p) {
        SYSTEMTIME st;
        KvnGetLocalTime(&st);
        p->cType = SQL_C_TIMESTAMP;
        p->nTaille = 18;
        p->dateValeur = SystemTimeToTimestamp(st);
    }
    Append(msg, p);

    p = new (std::nothrow) CParam();
    if (p) {
        p->cType = SQL_C_TIMESTAMP;
        p->nTaille = 0;
        p->bNull = 1;
    }
    Append(msg, p);
}

} // namespace

int CKorvaneClient::GetLastErrorConnexion(int hCnx, DStr& text) {
    CRequestFrame frame(this, kFrameGetLastErrorConnexion);
    return frame.Run(
        hCnx,
        [&](CMsgSocketClient& msg, CConnexionKorvane&) { return msg.CreateGetErrorText(); },
        [&](CConnexionKorvane& cnx) {
            if (cnx.m_nResultat != 0) return cnx.m_nCodeErreur.load();
            const CParam& v = cnx.m_tabParam[0];
            text = (v.bNull || v.pszValeur == nullptr) ? L"" : v.pszValeur;
            return KVN_NO_ERROR;
        });
}

int CKorvaneClient::SendTest(int hCnx) {
    CCnxRef ref = CRequestFrame::FindConnexion(this, hCnx, 14);
    CConnexionKorvane* cnx = ref.get();
    if (cnx == nullptr) return KVN_ERROR_HANDLE_CNX;
    if (!CRequestFrame::IsLinkUp(this, cnx)) return KVN_ERROR_SOCKET_CLOSED;

    // No request lock: the test request only borrows the hand-over.
    CMsgSocketClient msg;
    msg.Init(m_nIdApplication, hCnx, cnx->m_sock, &m_paramComm);
    KvnResetEvent(cnx->hEvtResultArrived);
    // A send reported late for an earlier request must not pass for this one's.
    KvnResetEvent(cnx->msgSended);
    msg.SetEntete(m_nIdApplication, KVN_EXECUTE, hCnx);
    for (int n = 1; n <= kTestGroups; n++) AppendTestGroup(msg, n);

    CRequestFrame::PublishRequest(cnx, &msg);
    KvnSetEvent(cnx->m_hEvtEnvoi);
    DWORD w = KvnWaitForSingleObject(cnx->msgSended, kTestSendWaitMs);
    KvnResetEvent(cnx->m_hEvtEnvoi);
    KvnSleep(kTestPauseMs);
    CRequestFrame::WithdrawRequest(cnx);
    return w == WAIT_OBJECT_0 ? KVN_NO_ERROR : KVN_ERROR_TIMEOUT;
}
