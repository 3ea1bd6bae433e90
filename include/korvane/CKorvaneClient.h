/// \file
/// CKorvaneClient, the library's facade.

#ifndef KORVANE_CKORVANECLIENT_H
#define KORVANE_CKORVANECLIENT_H

#include <atomic>

#include <korvane/CMsgSocketClient.h>
#include <korvane/CParam.h>
#include <korvane/CParamComm.h>
#include <korvane/KvnDefs.h>
#include <korvane/KvnExport.h>
#include <korvane/platform/CMutex.h>
#include <korvane/platform/CPtrArray.h>
#include <korvane/platform/CString.h>
#include <korvane/platform/DStr.h>
#include <korvane/platform/KvnTypes.h>

class CConnexionKorvane;

/// The library's facade: one application session with the Korvane service.
///
/// An application creates one object, opens its session with the service
/// with Init, opens logical database connections (integer handles) with
/// GetConnexion, runs its database operations on them, and ends with Free or
/// by destroying the object.
///
/// Results: every operation returns an int result code (KvnDefs.h): 0 for
/// success, a negative code for a failure, and for the row and column
/// operations the outcomes KVN_NO_DATA (100) and KVN_NULL_DATA (101).
/// Nothing throws. Texts are wide strings (wchar_t) on every platform.
///
/// Threads: Init, Free and the destructor run on one application thread and
/// never at the same time as any other call on the object. Between them any
/// thread may call the other members; the operations on one connection
/// handle run one at a time (a second caller waits for the first, up to
/// 20 s), so threads that work in parallel each use a connection of their
/// own. The object runs threads of its own (the main link, one per
/// connection, the heartbeat), which own the sockets.
///
/// Ownership: the application owns the object, and the variables it lends to
/// stored-procedure parameters (until ExecStoredProc returns). The object owns
/// the connections, the rows of their selects and the event handles it hands
/// out (wait on them, never close them). Texts returned as DStr are copies
/// that belong to the caller.
///
/// Notifications of the link's loss and return: the events of the
/// GetEvent... members, and the registered messages "KVN_MSG_PERTE_COMM" and
/// "KVN_MSG_COMM_OK" posted to the window given to Init (on Linux a queue,
/// see NotifyWindow.h). Between a loss and the return of every link the
/// database operations fail at once with KVN_ERROR_SOCKET_CLOSED; the library
/// reconnects by itself.
class KVN_API CKorvaneClient {
public:
    /// Creates the object's events; no session yet, no thread started.
    CKorvaneClient();
    /// Free, then releases the events. On the thread that called Init.
    virtual ~CKorvaneClient();

    CKorvaneClient(const CKorvaneClient&) = delete;
    CKorvaneClient& operator=(const CKorvaneClient&) = delete;

    // ---- Session ----------------------------------------------------------
    /// Opens the session with the service at host:port (portServiceLoader: the
    /// loader next to it, 0 or less for none). dbType receives the database
    /// type of the service. logLevel and logPath set up the log, once per
    /// process. hWnd receives the notification messages (may be null).
    /// 0, or -2 (the reason is in GetLastError and, at log level 3, the log).
    /// host is cut to 19 characters and nomApplication to 127. Closes any
    /// earlier session of the object first. The socket layer must be started
    /// (SockInitWinSock). Starts the main link's and the heartbeat's threads.
    int Init(const wchar_t* host, int port, int portServiceLoader, const wchar_t* nomApplication,
             int& dbType, int logLevel, const wchar_t* logPath, kvn::HWND hWnd);
    /// Closes the session: tells the service, deletes every connection and
    /// stops the object's threads (each wait bounded). Never on a thread of
    /// the library; not at the same time as another call on the object.
    void Free();

    /// The service's port given to Init.
    int GetPortHost();
    /// Copies the service's host into buffer (room for 20 characters); does
    /// nothing when buffer is null.
    void GetAdresseHost(wchar_t* buffer);
    /// Whether the main link to the service is up now.
    kvn::Bool IsAppliConnected();
    /// The database type the service announced at Init (unspecified before).
    int GetDBType();

    /// Events of the link to the service; all auto-reset. They belong to the
    /// object: wait on them, never close them.
    kvn::HANDLE GetEventPerteComm();
    kvn::HANDLE GetEventCommOK();
    kvn::HANDLE GetEventCommModified();
    kvn::HANDLE GetEventHB();
    kvn::HANDLE GetEventWarningFermetureForcee();
    kvn::HANDLE GetEventFermetureForcee();
    kvn::HANDLE GetEventKorvaneClosed();

    // ---- Result codes and error texts ---------------------------------------
    /// The English text of a result code; always KVN_NO_ERROR. The wchar_t*
    /// overload writes into a caller buffer of at least 90 characters.
    int GetErrorTxt(int code, DStr& text);
    int GetErrorTxt(int code, CString& text);
    int GetErrorTxt(int code, wchar_t* text);
    /// The French sentence of the last failure of Init or GetConnexion.
    DStr GetLastError();

    // ---- Logical connections ---------------------------------------------------
    /// A new handle (1 or more), or a negative result code.
    /// Any thread, once Init succeeded. The connection belongs to the object
    /// until FreeConnexion or Free.
    int GetConnexion();
    /// 0 when the connection was found and deleted, -2 otherwise.
    int FreeConnexion(int hCnx);
    /// Whether the connection's own link to the service is up now.
    kvn::Bool IsConnexionConnected(int hCnx);

    // ---- Statements ----------------------------------------------------------
    /// resultat receives the integer the service returns beside its status.
    int Execute(int hCnx, const wchar_t* requete, int& resultat);

    // ---- Selects -------------------------------------------------------------
    /// resultat receives the integer the service returns beside the rows. An
    /// empty result is a success; the first Fetch then answers KVN_NO_DATA.
    int ExecuteSelect(int hCnx, const wchar_t* requete, int& resultat);
    int ExecuteSelect(int hCnx, DStr& requete, int& resultat);
    int ExecuteSelect(int hCnx, CString& requete, int& resultat);
    /// 0 when a new row is current, KVN_NO_DATA when there are no more rows,
    /// else a result code. Fetch never answers 0 without a new current row.
    /// When the buffered rows are used up it asks the service for the next
    /// block (GetLine with 0); if that request fails before an answer is
    /// stored (not sent, link down or lost, no answer in time), Fetch returns
    /// GetLine's own code (-52, -53, -63 ...) and no row is current; an answer
    /// that claims success yet brings no whole row gives KVN_ERROR_RECEIVE
    /// (-53 when the link went down meanwhile). After KVN_NO_DATA at the end
    /// of the rows, a further Fetch asks the service again.
    int Fetch(int hCnx);
    /// 0 when a block was appended, KVN_NO_DATA when the service has no more
    /// rows, else a result code.
    int GetLine(int hCnx, int nbLignes);
    /// 0 once the request was sent; no answer is awaited and the rows still
    /// buffered are kept.
    int LibereStatment(int hCnx);

    // ---- Columns of the current row (col from 1) ----------------------------------
    /// 0, KVN_NO_DATA (no row or no such column), KVN_NULL_DATA (NULL value),
    /// KVN_ERROR_DATATYPE (not convertible), or a result code.
    int GetData(int hCnx, int col, long& valeur);
    int GetData(int hCnx, int col, short& valeur);
    int GetData(int hCnx, int col, long long& valeur);  // 64-bit integer (__int64)
    int GetData(int hCnx, int col, double& valeur);
    int GetData(int hCnx, int col, kvn::GUID& valeur);
    int GetData(int hCnx, int col, kvn::SYSTEMTIME& valeur);
    int GetData(int hCnx, int col, CParam& valeur);
    int GetData(int hCnx, int col, CString& valeur);
    int GetData(int hCnx, int col, DStr& valeur);
    /// No length is passed: the caller's buffer must hold the longest text of
    /// the column plus its terminator. The library never writes more than the
    /// value's own text and one terminating zero (a value without a text form
    /// leaves the buffer untouched). A null valeur is refused with
    /// KVN_ERROR_PARAMETER.
    int GetData(int hCnx, int col, wchar_t* valeur);
    /// The same into a buffer of `capacite` wide characters, its terminator
    /// included: at most capacite - 1 characters of the text are written,
    /// then the terminator, never more (where wchar_t is 16 bits a surrogate
    /// pair is not split). KVN_DATA_TRUNCATED when the text was cut;
    /// `longueur`, when not null, then receives the whole text's length in
    /// characters, so that the caller can read it again with room for it
    /// (it receives the length written otherwise, 0 for a NULL value). A null
    /// valeur or a capacity below 1 is refused with KVN_ERROR_PARAMETER.
    int GetData(int hCnx, int col, wchar_t* valeur, int capacite, int* longueur = nullptr);

    // ---- Stored procedures ------------------------------------------------------
    int ClearStoredProcParams(int hCnx);
    /// colonne from 1, in order; sens KVN_PARAM_IN/INOUT/OUT; type SQL_C_...;
    /// valeur the application's variable (for IN/OUT and OUT it receives the
    /// returned value and must stay valid until ExecStoredProc returns);
    /// taille the length of a text (an IN text is read up to taille
    /// characters). Declaring an already declared position again replaces it
    /// and leaves the count of parameters as it was; a full table (64) refuses
    /// only new positions.
    int SetStoredProcParams(int hCnx, int colonne, int sens, int type, void* valeur,
                            unsigned int taille);
    int AddStoredProcParams(int hCnx, int sens, int type, void* valeur, unsigned int taille);
    /// On success the values returned for the OUT and IN/OUT parameters are
    /// copied, in order, into their variables: 4 bytes for a long, 8 for a
    /// double or a 64-bit integer, the 16-byte timestamp, a text with its
    /// terminator (no length limit: the variable must hold the longest text
    /// the procedure returns). A NULL value writes zero, or the empty text.
    /// A value whose type is not the parameter's stops the copy with
    /// KVN_ERROR_PARAMETER; an answer with fewer values than OUT and IN/OUT
    /// parameters gives KVN_ERROR_RECEIVE. In both cases the variables before
    /// the failing one have been written and the others are left alone.
    int ExecStoredProc(int hCnx, const wchar_t* nomProc, int nOptionProc);
    int ExecStoredProc(int hCnx, DStr& nomProc, int nOptionProc);
    int ExecStoredProc(int hCnx, CString& nomProc, int nOptionProc);

    // ---- Bound parameters and direct requests -----------------------------------
    /// colonne 1 to 128; a null valeur or taille 0 binds a NULL, a type that
    /// cannot be bound a NULL text; a text is read up to taille characters.
    /// Bound values last until the next answer on the connection: bind from
    /// position 1 immediately before each ExecuteBind.
    int BindParameter(int hCnx, int colonne, int type, void* valeur, unsigned int taille);
    int ExecuteBind(int hCnx, const wchar_t* requete, int& resultat);
    int ExecuteRequete(int hCnx, const wchar_t* requete);

    // ---- Schema ---------------------------------------------------------------------
    /// existe = 1 when the service's value is non-zero, else 0. Out-arguments
    /// are written only on success.
    int IsTableExist(int hCnx, const wchar_t* table, int& existe);
    int IsColumnExist(int hCnx, const wchar_t* table, const wchar_t* nomColonne, int& existe);
    /// GetColumns: nbColonnes, then the names and the types as the service
    /// laid them out in two texts (a NULL text reads as empty). An answer
    /// with fewer than three values, or whose count is not an integer or
    /// whose names or types are not texts, is refused with KVN_ERROR_RECEIVE
    /// and nothing is written.
    int GetColumns(int hCnx, const wchar_t* table, int& nbColonnes, DStr& noms, DStr& types);

    // ---- Service error text and test request ---------------------------------------
    int GetLastErrorConnexion(int hCnx, DStr& text);
    int SendTest(int hCnx);

protected:
    int m_GetIdApplication();
    int m_SendToServiceLoader(const char* host, int port);
    void m_CloseThreads();
    void m_NotifyComLost();
    // Brings the two events that mirror the main link in line with
    // m_bSockPrincipaleConnected and m_bAppliInitialisee; called after every
    // change of them.
    void m_SignaleLienPrincipal();
    void m_ClearConnexionList();

    // Connection registry.
    int m_AddConnexionList(CConnexionKorvane* cnx);
    CConnexionKorvane* m_GetConnexionByIdList(int hCnx);
    CConnexionKorvane* m_GetLastConnexionList();
    int m_DelConnexionList(int hCnx);
    void m_DeconnecteAllConnexionList();
    void m_IncConnected();
    void m_DecConnected();

    // Copies column col of the current row into valeur; sets the connection's
    // status (0 found, -2/100 not found). Always 0.
    int m_GetData(CConnexionKorvane* cnx, int hCnx, int col, CParam& valeur);

    // ---- Fields -----------------------------------------------------------------------
    // Fields that background threads and the application's threads share are
    // atomic; the others are written only while no thread of the object runs.
    DStr m_lastError;
    kvn::HWND m_hWnd;
    std::atomic<kvn::DWORD> m_dwLastHeartBeat;
    CPtrArray m_listConnexion;
    CMutex m_mutexConnected;
    CMutex m_mutexAccesList;
    CMutex m_mutexGetConnexion;
    CMutex m_mutexReInit;
    kvn::HANDLE m_hEvtPerteComm;
    kvn::HANDLE m_hEvtCommOK;
    kvn::HANDLE m_hEvtCommModified;
    kvn::HANDLE m_hEvtWarningFermetureForcee;
    kvn::HANDLE m_hEvtFermetureForcee;
    kvn::HANDLE m_hEvtKorvaneClosed;
    kvn::HANDLE m_hEvtHB;
    kvn::HANDLE m_hEvtPerteCommInterne;
    // Manual reset, one of the two set: "up" while the main link is open and
    // the application registered, "down" otherwise. The threads that depend
    // on the main link sleep on the one that ends their wait.
    kvn::HANDLE m_hEvtLienPrincipalUp;
    kvn::HANDLE m_hEvtLienPrincipalDown;
    wchar_t m_szAdresseHost[20];
    int m_nPortHost;
    int m_nPortServiceLoader;
    std::atomic<kvn::SOCKET> m_sockPrincipale;
    std::atomic<kvn::Bool> m_bSockPrincipaleConnected;
    std::atomic<kvn::Bool> m_bAppliInitialisee;
    kvn::HANDLE m_hWsaEvtPrincipale;
    kvn::HANDLE m_hEvtStopThreads;
    kvn::HANDLE m_hEvtStopSockPrincipale;
    kvn::HANDLE m_hEvtThreadCnxStarted;
    CParamComm m_paramComm;
    std::atomic<int> m_nIdApplication;
    std::atomic<kvn::Bool> m_bInit;
    wchar_t m_szNomApplication[128];
    kvn::HANDLE m_hThreadSockPrincipale;
    std::atomic<kvn::HANDLE> m_hThreadHeartBeat;
    std::atomic<int> m_nNbConnected;
    int m_nNextIdConnexion;
    std::atomic<kvn::Bool> m_bAllConnected;
    std::atomic<int> m_nDBType;

    friend unsigned ThreadSockPrincipale(void* arg);
    friend unsigned ThreadHeartBeat(void* arg);
    friend unsigned ThreadSockClient(void* arg);
    friend void EnvoiRequeteCnx(CConnexionKorvane* cnx);
    friend class CRequestFrame;
    friend class CThreadSockClient;
    friend class CThreadSockPrincipale;
};

#endif
