// CMsgSocketClient: the client's requests.
//
// The link requests (INIT/REINIT of the application and of a connection,
// close, heartbeat) are sent and, where an answer is expected, waited for
// here. The database requests (Create*) only fill the message; a connection's
// thread sends them and the dispatch (Dispatch.cpp) reads their answers.
#include <korvane/CMsgSocketClient.h>

#include <cstring>
#include <cwchar>
#include <new>

#include "diag/Log.h"
#include "platform/SystemInfo.h"
#include "protocol/ValueTypes.h"

namespace {

// Room for the computer's name; "Unknow" stands in when it cannot be had.
const DWORD kComputerNameRoom = 1024;

bool IsEmptyText(const wchar_t* text) { return text == nullptr || text[0] == L'\0'; }

// The answer parameter i when it exists and holds a 32-bit integer.
bool LongParam(CMsgSocket& msg, int i, int& value) {
    CParam* p = nullptr;
    if (!msg.GetParametre(i, &p) || p == nullptr) return false;
    if (TypeByte(p->cType) != TypeByte(SQL_C_LONG)) return false;
    value = p->valNum.lVal;
    return true;
}

}  // namespace

CMsgSocketClient::CMsgSocketClient()
    : m_nIdApplication(0), m_nIdConnexion(0), m_sock(0), m_bInit(FALSE), m_nDBType(-1) {}

CMsgSocketClient::~CMsgSocketClient() {}

void CMsgSocketClient::Init(int idApplication, int idConnexion, SOCKET sock,
                            CParamComm* paramComm) {
    m_nIdApplication = idApplication;
    m_nIdConnexion = idConnexion;
    m_sock = sock;
    m_bInit = TRUE;
    if (paramComm) SetParamComm(paramComm);
}

int CMsgSocketClient::GetIdApplication() { return m_nIdApplication; }

int CMsgSocketClient::GetDBType() { return m_nDBType; }

int CMsgSocketClient::m_AddTexte(const wchar_t* texte) {
    if (texte == nullptr) texte = L"";
    return AddParametre(SQL_C_WCHAR, static_cast<unsigned int>(std::wcslen(texte)), texte);
}

// The 10 parameters of a positive answer to INIT/REINIT_APPLICATION, each
// taken over only when it exists and has the expected type.
void CMsgSocketClient::m_ReprendParamComm() {
    int* const longs[10] = {&m_paramComm.nPeriodeHB,  &m_paramComm.nNbPeriodeHB,
                            &m_paramComm.nPortHB,     &m_paramComm.bMulticastHB,
                            nullptr,                  &m_paramComm.nParam3,
                            &m_paramComm.nNbRetrySend, &m_paramComm.nTimeOutConnect,
                            &m_paramComm.nTimeOutAck, &m_nDBType};
    for (int i = 0; i < 10; ++i) {
        if (i == 4) {
            CParam* p = nullptr;
            if (!GetParametre(4, &p) || p == nullptr) continue;
            if (!IsTextType(p->cType)) continue;
            // The address field holds 20 characters. A longer text is kept to
            // its first 20 characters without a terminator, which the
            // heartbeat supervision refuses as an erroneous parameter rather
            // than listening to a cut address; nothing is written beyond it.
            const int room = static_cast<int>(sizeof(m_paramComm.szAdresseHB) / sizeof(wchar_t));
            const wchar_t* text = p->pszValeur ? p->pszValeur : L"";
            int i2 = 0;
            for (; i2 < room && text[i2] != L'\0'; ++i2) m_paramComm.szAdresseHB[i2] = text[i2];
            if (i2 < room) m_paramComm.szAdresseHB[i2] = L'\0';
            continue;
        }
        int value = 0;
        if (LongParam(*this, i, value)) *longs[i] = value;
    }
}

int CMsgSocketClient::SendInitApplication(const wchar_t* nomApplication) {
    if (!m_bInit) return KVN_ERROR_UNKNOWN;
    SetEntete(0, KVN_INIT_APPLICATION, 0);

    wchar_t computer[kComputerNameRoom];
    DWORD size = kComputerNameRoom;
    if (!KvnGetComputerName(computer, &size)) std::wcscpy(computer, L"Unknow");
    m_AddTexte(computer);
    if (IsEmptyText(nomApplication)) AddParametre(SQL_C_WCHAR, 0, nullptr);  // a NULL name
    else m_AddTexte(nomApplication);
    int one = 1;
    AddParametre(SQL_C_LONG, sizeof(one), &one);

    m_nIdApplication = -1;
    int r = SendMessage(m_sock, -1, -1);
    if (r != 1) return r;
    if (ReceiveMessage(m_sock) == 0) return KVN_ERROR_RECEIVE;

    // An answer that did not come is an empty message: function -1 and no
    // parameter, hence -68.
    int code = GetFonction();
    int nb = GetNbParametre();
    int result;
    if (code == KVN_INIT_OK && nb == 10) {
        m_ReprendParamComm();
        m_nIdApplication = m_entete.nIdApplication;
        result = code;
    } else if (nb == 1) {
        // The service reports a refusal (e.g. -54) as one value, whatever its type.
        CParam* p = nullptr;
        GetParametre(0, &p);
        result = p ? p->valNum.lVal : KVN_ERROR_INIT_NB_PARAM;
    } else if (nb != 10) {
        result = KVN_ERROR_INIT_NB_PARAM;
    } else {
        result = code;
    }
    m_bInit = m_nIdApplication > 0 ? TRUE : FALSE;
    return result;
}

int CMsgSocketClient::SendReInitApplication(const wchar_t* nomApplication) {
    if (!m_bInit || m_nIdApplication < 1) return KVN_ERROR_UNKNOWN;
    SetEntete(m_nIdApplication, KVN_REINIT_APPLICATION, 0);

    wchar_t computer[kComputerNameRoom];
    DWORD size = kComputerNameRoom;
    if (!KvnGetComputerName(computer, &size)) std::wcscpy(computer, L"Unknow");
    m_AddTexte(computer);
    if (!IsEmptyText(nomApplication)) m_AddTexte(nomApplication);  // no parameter at all otherwise
    int one = 1;
    AddParametre(SQL_C_LONG, sizeof(one), &one);

    int r = SendMessage(m_sock, -1, -1);
    if (r != 1) return r;
    if (ReceiveMessage(m_sock) == 0) return KVN_ERROR_RECEIVE;

    int code = GetFonction();
    m_bInit = code == KVN_INIT_OK ? TRUE : FALSE;
    if (code == KVN_INIT_OK && GetNbParametre() == 10) m_ReprendParamComm();
    m_nIdApplication = m_entete.nIdApplication;
    return code;
}

int CMsgSocketClient::SendInitConnexion() {
    if (!m_bInit || m_nIdApplication < 1) return KVN_ERROR_UNKNOWN;
    SetEntete(m_nIdApplication, KVN_INIT_CONNEXION, m_nIdConnexion);
    int r = SendMessage(m_sock, -1, -1);
    if (r != 1) return r;
    if (ReceiveMessage(m_sock) == 0) return KVN_ERROR_RECEIVE;
    return GetFonction();  // 0 accepted; -1 when no answer came
}

int CMsgSocketClient::SendReInitConnexion() {
    if (!m_bInit || m_nIdApplication < 1) return KVN_ERROR_UNKNOWN;
    SetEntete(m_nIdApplication, KVN_REINIT_CONNEXION, m_nIdConnexion);
    int r = SendMessage(m_sock, -1, -1);
    if (r != 1) return r;
    if (ReceiveMessage(m_sock) == 0) return KVN_ERROR_RECEIVE;
    return GetFonction();
}

int CMsgSocketClient::SendCloseApplication() {
    if (!m_bInit || m_nIdApplication < 1) return KVN_ERROR_UNKNOWN;
    WriteLog(L"CMsgSocketClient::SendCloseApplication()", 15);
    SetEntete(m_nIdApplication, KVN_CLOSE_APPLICATION, 0);
    // The application is going away: its acknowledgement is awaited briefly.
    int r = SendMessage(m_sock, -1, 100);
    if (r == 1) return 0;
    WriteLogF(5, L"CMsgSocketClient::SendCloseApplication() Failed code : %d", r);
    return r;
}

int CMsgSocketClient::SendHeartBeat() {
    if (!m_bInit || m_nIdApplication < 1) return KVN_ERROR_UNKNOWN;
    SetEntete(m_nIdApplication, KVN_HEART_BEAT, 0);
    int r = SendMessage(m_sock, -1, -1);
    return r == 1 ? 0 : r;
}

// ---- Database requests ------------------------------------------------------------
// Each sets the header (which clears the message) and adds its parameters.

#define KVN_CHECK_INIT()                                              \
    do {                                                              \
        if (!m_bInit || m_nIdApplication < 1) return KVN_ERROR_UNKNOWN; \
    } while (0)

int CMsgSocketClient::CreateExec(const wchar_t* requete) {
    KVN_CHECK_INIT();
    SetEntete(m_nIdApplication, KVN_EXECUTE, m_nIdConnexion);
    if (IsEmptyText(requete)) return KVN_ERROR_PARAMETER;
    m_AddTexte(requete);
    return 0;
}

int CMsgSocketClient::CreateExecSelect(const wchar_t* requete) {
    KVN_CHECK_INIT();
    SetEntete(m_nIdApplication, KVN_EXECUTESELECT, m_nIdConnexion);
    if (IsEmptyText(requete)) return KVN_ERROR_PARAMETER;
    m_AddTexte(requete);
    return 0;
}

int CMsgSocketClient::CreateFetch() {
    KVN_CHECK_INIT();
    SetEntete(m_nIdApplication, KVN_FETCH, m_nIdConnexion);
    return 0;
}

int CMsgSocketClient::CreateGetData(int nValeur1, int nValeur2) {
    KVN_CHECK_INIT();
    SetEntete(m_nIdApplication, KVN_GETDATA, m_nIdConnexion);
    AddParametre(SQL_C_LONG, sizeof(int), &nValeur1);
    AddParametre(SQL_C_LONG, sizeof(int), &nValeur2);
    return 0;
}

int CMsgSocketClient::CreateLibereConnexionSelect() {
    KVN_CHECK_INIT();
    SetEntete(m_nIdApplication, KVN_LIBERE_CNX_SELECT, m_nIdConnexion);
    return 0;
}

int CMsgSocketClient::CreateGetLine(int nbLignes) {
    KVN_CHECK_INIT();
    SetEntete(m_nIdApplication, KVN_GETLINE, m_nIdConnexion);
    AddParametre(SQL_C_LONG, sizeof(int), &nbLignes);
    return 0;
}

int CMsgSocketClient::CreateIsTableExist(const wchar_t* table) {
    KVN_CHECK_INIT();
    SetEntete(m_nIdApplication, KVN_EXISTTABLE, m_nIdConnexion);
    m_AddTexte(table);
    return 0;
}

int CMsgSocketClient::CreateIsColumnExist(const wchar_t* table, const wchar_t* nomColonne) {
    KVN_CHECK_INIT();
    SetEntete(m_nIdApplication, KVN_EXISTCOLUMN, m_nIdConnexion);
    m_AddTexte(table);
    m_AddTexte(nomColonne);
    return 0;
}

int CMsgSocketClient::CreateGetColumns(const wchar_t* table) {
    KVN_CHECK_INIT();
    SetEntete(m_nIdApplication, KVN_GETCOLUMNS, m_nIdConnexion);
    m_AddTexte(table);
    return 0;
}

int CMsgSocketClient::CreateExecBind(const wchar_t* requete, int nbParam, CParam* tabParam) {
    KVN_CHECK_INIT();
    SetEntete(m_nIdApplication, KVN_EXECUTEBIND, m_nIdConnexion);
    m_AddTexte(requete);
    // Each bound value travels as a copy with its own size (a SQL_C_LONG bound
    // by the application carries size 8).
    for (int i = 0; tabParam != nullptr && i < nbParam; ++i) {
        CParam* copy = new (std::nothrow) CParam(tabParam[i]);
        if (copy) AddParametre(copy);
    }
    return 0;
}

int CMsgSocketClient::CreateExecStoredProc(const wchar_t* nomProc, int nbParam,
                                           CParamProc* tabParam, int nOptionProc) {
    KVN_CHECK_INIT();
    SetEntete(m_nIdApplication, KVN_EXECUTEPROC, m_nIdConnexion);
    m_AddTexte(nomProc);
    AddParametre(SQL_C_LONG, sizeof(int), &nOptionProc);
    for (int i = 0; tabParam != nullptr && i < nbParam; ++i) {
        int sens = tabParam[i].nSens;
        AddParametre(SQL_C_LONG, sizeof(int), &sens);
        CParam* copy = new (std::nothrow) CParam(static_cast<const CParam&>(tabParam[i]));
        if (copy) AddParametre(copy);
    }
    return 0;
}

int CMsgSocketClient::CreateGetErrorText() {
    KVN_CHECK_INIT();
    SetEntete(m_nIdApplication, KVN_GET_ODBC_ERROR_TEXT, m_nIdConnexion);
    return 0;
}

int CMsgSocketClient::CreateExecRequete(const wchar_t* requete) {
    KVN_CHECK_INIT();
    SetEntete(m_nIdApplication, KVN_REQUETE_METABASE, m_nIdConnexion);
    if (IsEmptyText(requete)) return KVN_ERROR_PARAMETER;
    m_AddTexte(requete);
    return 0;
}
