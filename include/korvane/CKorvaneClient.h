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
/// by destroying the object. The section "Threads and ownership" of the
/// \ref index "main page" sums up the rules below for the whole library.
///
/// Results: every operation returns an int result code (KvnDefs.h): 0 for
/// success, a negative code for a failure, and for the row and column
/// operations the outcomes KVN_NO_DATA (100), KVN_NULL_DATA (101) and
/// KVN_DATA_TRUNCATED (102). Nothing throws. Texts are wide strings
/// (wchar_t) on every platform.
///
/// Threads: Init, Free and the destructor run on one application thread and
/// never at the same time as any other call on the object. Between them any
/// thread may call the other members; the operations on one connection
/// handle run one at a time (a second caller waits for the first, up to
/// 20 s), so threads that work in parallel each use a connection of their
/// own. The object runs threads of its own (the main link, one per
/// connection, the heartbeat and its receiver), which own the sockets,
/// receive the answers and re-open the links; the application's calls never
/// run there.
///
/// Ownership: the application owns the object, the texts it passes (read
/// during the call only), and the variables it lends to stored-procedure
/// parameters (until ExecStoredProc returns). The object owns the
/// connections, the rows of their selects and the event handles it hands out
/// (wait on them, never close them). Texts returned as DStr or CString, and
/// values read with GetData, are copies that belong to the caller.
///
/// Operations on a connection take the handle hCnx that GetConnexion
/// returned; an unknown handle gives KVN_ERROR_HANDLE_CNX. Those that ask the
/// service something (Execute, the selects, stored procedures, binds, schema
/// queries, error texts) share these outcomes besides their own:
/// - KVN_ERROR_SOCKET_CLOSED at once while the connection or the session is
///   down, or when the link is lost during the call;
/// - KVN_ERROR_HANDLE_CNX when the connection stays busy with another
///   operation for 20 s;
/// - KVN_ERROR_SEND when the request is not sent within 10 s;
/// - KVN_ERROR_TIMEOUT when no answer comes within 240 s;
/// - the service's own code when it reports a failure (KVN_ERROR_ODBC for a
///   statement the database refused: GetLastErrorConnexion gives its text).
///
/// Notifications of the link's loss and return: the events of the
/// GetEvent... members, and the registered messages "KVN_MSG_PERTE_COMM" and
/// "KVN_MSG_COMM_OK" posted to the window given to Init (on Linux a queue,
/// see NotifyWindow.h). The library reconnects by itself. Between a loss and
/// the return of every link, the operations that ask the service and the
/// column reads fail at once with KVN_ERROR_SOCKET_CLOSED; declarations of
/// parameters still work, and Fetch still delivers the rows already
/// received.
class KVN_API CKorvaneClient {
public:
    /// Creates the object's events; no session yet, no thread started.
    CKorvaneClient();
    /// Free, then releases the events: the handles given out become invalid
    /// and their descriptors (KvnGetEventFd) are closed. On the thread that
    /// called Init.
    virtual ~CKorvaneClient();

    CKorvaneClient(const CKorvaneClient&) = delete;
    CKorvaneClient& operator=(const CKorvaneClient&) = delete;

    /// \name Session
    ///@{

    /// Opens the session with the service at host:port and returns 0, or
    /// KVN_ERROR_UNKNOWN when the service was not found or refused the
    /// application (GetLastError says why; for a refusal only at log level 3
    /// or more, when the log also gets the code). Closes any earlier session
    /// of the object first.
    ///
    /// portServiceLoader is the port of the loader next to the service (0 or
    /// less for none): without one, one connect attempt is made; with one, up
    /// to three, the loader being woken after the first failure and each
    /// failure followed by a 5 s pause. dbType receives the database type the
    /// service announces (on success only). logLevel and logPath set the log
    /// up, once per process: the first Init with a level above 0 decides, and
    /// a null logPath means no log. hWnd receives the notification messages
    /// (may be null); it must stay valid until Free. host is cut to 19
    /// characters and nomApplication to 127.
    ///
    /// The socket layer must be started (SockInitWinSock). On success the
    /// main link's and the heartbeat's threads run, "KVN_MSG_COMM_OK" is
    /// posted and the event of GetEventCommOK is set.
    int Init(const wchar_t* host, int port, int portServiceLoader, const wchar_t* nomApplication,
             int& dbType, int logLevel, const wchar_t* logPath, kvn::HWND hWnd);
    /// Closes the session: tells the service, deletes every connection
    /// (their handles become unknown) and stops the object's threads, each
    /// waited for at most 40 s. When the main link was open,
    /// "KVN_MSG_PERTE_COMM" is posted and, if every link was up, the event of
    /// GetEventPerteComm is set. Init may open a new session afterwards. Never
    /// on a thread of the library; not at the same time as another call on
    /// the object.
    void Free();

    /// The service's port given to Init.
    int GetPortHost();
    /// Copies the service's host, as Init kept it, into buffer (room for 20
    /// characters); does nothing when buffer is null.
    void GetAdresseHost(wchar_t* buffer);
    /// Whether the main link to the service is up now.
    kvn::Bool IsAppliConnected();
    /// The database type the service announced at the last successful Init;
    /// 0 before.
    int GetDBType();
    ///@}

    /// \name Events of the link to the service
    /// All auto-reset: a set wakes one waiting thread, and a set that nobody
    /// waits for stays until the next wait. They belong to the object and
    /// live as long as it does (Init and Free neither reset nor re-create
    /// them): wait on them from any thread, never close them.
    /// kvn::WaitForSingleObject and kvn::WaitForMultipleObjects (KvnWait.h)
    /// take them on every system; on Linux, KvnGetEventFd gives for each a
    /// descriptor readable while it is set, for poll, epoll, libuv, Qt or
    /// asio loops.
    ///@{

    /// Set when the link is lost (the main socket closed, the heartbeat late,
    /// a request that could not be sent), and by Free when every link was up.
    kvn::HANDLE GetEventPerteComm();
    /// Set when every link is up: by Init, and after a loss once the main
    /// link and every connection are back. Requests are accepted from then on.
    kvn::HANDLE GetEventCommOK();
    /// Set when a connection opens, closes, goes down or is re-opened, and
    /// when a loss marks the connections down.
    kvn::HANDLE GetEventCommModified();
    /// Set for each heartbeat datagram received from the service.
    kvn::HANDLE GetEventHB();
    /// Never set by the library.
    kvn::HANDLE GetEventWarningFermetureForcee();
    /// Never set by the library.
    kvn::HANDLE GetEventFermetureForcee();
    /// Never set by the library.
    kvn::HANDLE GetEventKorvaneClosed();
    ///@}

    /// \name Result codes and error texts
    ///@{

    /// The English text of a result code (a general text for the outcomes,
    /// KVN_ERROR_MEMORY and unknown codes); always KVN_NO_ERROR. Any thread,
    /// also before Init and after Free.
    int GetErrorTxt(int code, DStr& text);
    /// As the DStr overload.
    int GetErrorTxt(int code, CString& text);
    /// As the DStr overload, writing into a caller buffer of at least 90
    /// characters (nothing when text is null).
    int GetErrorTxt(int code, wchar_t* text);
    /// The French sentence of the last failure of Init or GetConnexion; it
    /// stays until the next such failure (empty when there was none). Read
    /// without a lock: not while another thread is in Init or GetConnexion.
    DStr GetLastError();
    ///@}

    /// \name Logical connections
    ///@{

    /// Opens a logical connection (a socket and a thread of its own) and
    /// returns its handle, 1 or more, never given out again by this object.
    /// Otherwise a negative code: KVN_ERROR_UNKNOWN when there is no session,
    /// the service cannot be reached, or memory or the thread failed; the
    /// service's refusal (KVN_ERROR_MAX_CLIENT_ATTEINT, KVN_ERROR_INIT_COMM
    /// ...); in both cases GetLastError says why. A failed exchange gives its
    /// own code (KVN_ERROR_SOCKET_CLOSED, KVN_ERROR_RECEIVE) and leaves
    /// GetLastError alone. Any thread once Init succeeded; calls run one at a
    /// time. The connection belongs to the object until FreeConnexion or
    /// Free.
    int GetConnexion();
    /// Deletes the connection, stopping its thread (waiting up to 10 s); the
    /// service sees its socket close. 0, or KVN_ERROR_UNKNOWN for a handle
    /// that names no connection. Call it once no other thread uses the
    /// handle: an operation still in progress on it ends first (waited for
    /// up to 20 s, as a second operation would be), and one started later
    /// finds the handle unknown.
    int FreeConnexion(int hCnx);
    /// Whether the connection's own link to the service is up now (false for
    /// an unknown handle).
    kvn::Bool IsConnexionConnected(int hCnx);
    ///@}

    /// \name Statements
    ///@{

    /// Runs a statement that returns no rows. 0, and resultat receives the
    /// integer the service returns beside its status (korvaned: the rows
    /// affected). KVN_ERROR_PARAMETER for an empty statement. resultat is set
    /// to 0 after KVN_ERROR_PARAMETER, KVN_ERROR_SEND, a loss of the link
    /// while the call waited, and a failure reported by the service; it is
    /// left alone otherwise. Empties the connection's rows.
    int Execute(int hCnx, const wchar_t* requete, int& resultat);
    ///@}

    /// \name Selects
    /// ExecuteSelect, then Fetch and the GetData readers for each row until
    /// Fetch gives KVN_NO_DATA, then LibereStatment. The rows arrive in
    /// blocks, which Fetch asks for as the application consumes them; they
    /// belong to the connection and stay until the next Execute,
    /// ExecuteSelect or ExecuteBind on it. Run a select's calls from one
    /// thread.
    ///@{

    /// Runs a select; its first block of rows replaces any rows the
    /// connection held, and no row is current yet. 0 also for an empty result
    /// (the first Fetch then answers KVN_NO_DATA); KVN_ERROR_PARAMETER for an
    /// empty statement. resultat receives the integer the service returns
    /// beside the rows (korvaned: the number of columns; for a statement
    /// without result set, -1 minus the rows it affected). It is set to 0
    /// after KVN_ERROR_PARAMETER, KVN_ERROR_TIMEOUT, a loss of the link while
    /// the call waited, and a failure reported by the service; it is left
    /// alone otherwise.
    int ExecuteSelect(int hCnx, const wchar_t* requete, int& resultat);
    /// As the wchar_t* overload, with the string's text.
    int ExecuteSelect(int hCnx, DStr& requete, int& resultat);
    /// As the wchar_t* overload, with the string's text.
    int ExecuteSelect(int hCnx, CString& requete, int& resultat);
    /// Makes the next row current: 0 when a new row is current, KVN_NO_DATA
    /// when there are no more rows (or after a block the service answered
    /// with an error), else a result code. Fetch never answers 0 without a new
    /// current row. It does not test the link: rows already received are
    /// delivered while the link is down. When the buffered rows are used up
    /// it asks the service for the next block (GetLine with 0); if that
    /// request fails before an answer is stored (not sent, link down or lost,
    /// no answer in time), Fetch returns GetLine's own code (-52, -53, -63
    /// ...) and no row is current; an answer that claims success yet brings
    /// no whole row gives KVN_ERROR_RECEIVE (-53 when the link went down
    /// meanwhile). After KVN_NO_DATA at the end of the rows, a further Fetch
    /// asks the service again.
    int Fetch(int hCnx);
    /// Asks the service for its next block of rows (nbLignes rows; 0 for the
    /// service's own block size) and appends it to the rows not yet fetched.
    /// 0 when a block was appended, KVN_NO_DATA when the service has no more
    /// rows, else a result code. A loss of the link during the wait gives the
    /// result of the connection's previous answer. Fetch calls it by itself.
    int GetLine(int hCnx, int nbLignes);
    /// Tells the service to release the select's statement: 0 once the
    /// request was sent, KVN_ERROR_SEND when it was not within 1 s. No
    /// answer is awaited, and the rows still buffered are kept.
    int LibereStatment(int hCnx);
    ///@}

    /// \name Columns of the current row
    /// GetData reads column col (from 1) of the current row (before the first
    /// Fetch of a select, its first row) without asking the service, and
    /// converts it to the type of valeur. The results:
    /// - 0;
    /// - KVN_NO_DATA: no row (none received, or all fetched), or no such
    ///   column; valeur unchanged;
    /// - KVN_NULL_DATA: the value is NULL; valeur receives the overload's
    ///   NULL value;
    /// - KVN_ERROR_DATATYPE: the value cannot become that type (logged at
    ///   level 4); valeur unchanged;
    /// - KVN_ERROR_SOCKET_CLOSED while the link is down (the row is held
    ///   locally all the same), KVN_ERROR_HANDLE_CNX.
    ///
    /// A text converts to a number only when it is made of decimal digits
    /// alone (no sign, blank, point or exponent); an empty text gives 0 and
    /// leaves valeur unchanged.
    ///@{

    /// A 32-bit integer; a 64-bit integer gives its low 32 bits, a double is
    /// truncated toward zero. NULL: 101.
    int GetData(int hCnx, int col, long& valeur);
    /// The long overload's value, cut to its low 16 bits; valeur is written
    /// only when that gives 0 (not for NULL).
    int GetData(int hCnx, int col, short& valeur);
    /// A 64-bit integer; a double is truncated toward zero. NULL: 101.
    int GetData(int hCnx, int col, long long& valeur);  // 64-bit integer (__int64)
    /// A double; integers are converted. NULL: 101.0.
    int GetData(int hCnx, int col, double& valeur);
    /// A text in the 36-character form 8-4-4-4-12 of hexadecimal digits (a
    /// GUID column arrives as text). NULL: the nil GUID.
    int GetData(int hCnx, int col, kvn::GUID& valeur);
    /// A timestamp (milliseconds: its fraction as received; day of the week
    /// 0). No type test: another type gives all zeros and 0. NULL: all zeros.
    int GetData(int hCnx, int col, kvn::SYSTEMTIME& valeur);
    /// A copy of the value itself, with its own copy of the text: 0 also for
    /// a NULL value, which its bNull tells.
    int GetData(int hCnx, int col, CParam& valeur);
    /// The value as text: an integer in decimal, a double with six decimals,
    /// a text as it is, a timestamp as the platform's date text (Windows: the
    /// user's locale; elsewhere "YYYY-MM-DD hh:mm:ss", the date alone at
    /// midnight). An impossible date, or a type without a text form, leaves
    /// valeur unchanged (result 0). NULL: the empty text.
    int GetData(int hCnx, int col, CString& valeur);
    /// As the CString overload.
    int GetData(int hCnx, int col, DStr& valeur);
    /// As the CString overload, into the caller's buffer. No length is
    /// passed: the buffer must hold the longest text of the column plus its
    /// terminator (the overload below takes the buffer's capacity). The
    /// library never writes more than the value's own text and one
    /// terminating zero (a value without a text form leaves the buffer
    /// untouched). A null valeur is refused with KVN_ERROR_PARAMETER.
    int GetData(int hCnx, int col, wchar_t* valeur);
    /// As the CString overload, into a buffer of capacite wide characters,
    /// its terminator included: at most capacite - 1 characters of the text
    /// are written, then the terminator, never more (where wchar_t is 16 bits
    /// a surrogate pair is not split). KVN_DATA_TRUNCATED when the text was
    /// cut. longueur, when not null, receives the whole text's length in
    /// characters (0 for NULL), so that a cut text can be read again with room
    /// for it. A null valeur or a capacity below 1 is refused with
    /// KVN_ERROR_PARAMETER.
    int GetData(int hCnx, int col, wchar_t* valeur, int capacite, int* longueur = nullptr);
    ///@}

    /// \name Stored procedures
    /// The parameters are declared one by one in the connection's table, then
    /// ExecStoredProc sends the procedure's name and every declared parameter.
    /// The table belongs to the connection and survives the call, so a
    /// procedure can be run again with the same parameters. Declarations only
    /// touch the table (nothing is sent, the link is not tested); declare a
    /// procedure's parameters from one thread.
    ///@{

    /// Empties the connection's parameter table. 0, or KVN_ERROR_HANDLE_CNX.
    int ClearStoredProcParams(int hCnx);
    /// Declares the parameter at position colonne (from 1, in order; 1
    /// empties the table first, even when the declaration is refused). sens:
    /// KVN_PARAM_IN, KVN_PARAM_INOUT or KVN_PARAM_OUT. type: SQL_C_CHAR or
    /// SQL_C_WCHAR (a wide text), SQL_C_LONG (4 bytes), SQL_C_DOUBLE,
    /// SQL_C_SBIGINT (8 bytes) or SQL_C_TIMESTAMP (a KvnTimestamp). valeur
    /// points to the application's variable: an IN or IN/OUT value is copied
    /// now (a text up to taille characters); for IN/OUT and OUT the variable
    /// receives the returned value and must stay valid until ExecStoredProc
    /// returns. Declaring an already declared position again replaces it and
    /// leaves the count of parameters as it was; a full table (64) refuses
    /// only new positions.
    ///
    /// 0; KVN_ERROR_PARAMETER (logged at level 3) for a null valeur, a
    /// position outside 1 to the count plus one, a full table, another type
    /// (a GUID among them) or another direction; KVN_ERROR_MEMORY;
    /// KVN_ERROR_HANDLE_CNX.
    int SetStoredProcParams(int hCnx, int colonne, int sens, int type, void* valeur,
                            unsigned int taille);
    /// SetStoredProcParams at the next position.
    int AddStoredProcParams(int hCnx, int sens, int type, void* valeur, unsigned int taille);
    /// Runs the procedure nomProc with the declared parameters; nOptionProc
    /// goes to the service unchanged. On success the values returned for the
    /// OUT and IN/OUT parameters are copied, in order, into their variables:
    /// 4 bytes for a long, 8 for a double or a 64-bit integer, the 16-byte
    /// timestamp, a text with its terminator (no length limit: the variable
    /// must hold the longest text the procedure returns). A NULL value writes
    /// zero, or the empty text. A value whose type is not the parameter's
    /// stops the copy with KVN_ERROR_PARAMETER; an answer with fewer values
    /// than OUT and IN/OUT parameters gives KVN_ERROR_RECEIVE. In both cases
    /// the variables before the failing one have been written and the others
    /// are left alone. The table's IN values are not changed.
    ///
    /// The send may wait up to 1000 s (the service may still be running an
    /// earlier request of the connection); running out gives
    /// KVN_ERROR_TIMEOUT rather than KVN_ERROR_SEND.
    int ExecStoredProc(int hCnx, const wchar_t* nomProc, int nOptionProc);
    /// As the wchar_t* overload; an empty name gives KVN_ERROR_PARAMETER
    /// without asking the service, a failed copy of it KVN_ERROR_MEMORY.
    int ExecStoredProc(int hCnx, DStr& nomProc, int nOptionProc);
    /// As the DStr overload.
    int ExecStoredProc(int hCnx, CString& nomProc, int nOptionProc);
    ///@}

    /// \name Bound parameters and direct requests
    ///@{

    /// Binds the value at position colonne (1 to 128) of the next
    /// ExecuteBind. The value is copied now: a SQL_C_LONG (4 bytes),
    /// SQL_C_DOUBLE or SQL_C_SBIGINT (8 bytes), SQL_C_TIMESTAMP (a
    /// KvnTimestamp), or a text (SQL_C_CHAR, SQL_C_WCHAR) read up to taille
    /// characters. A null valeur, or taille 0 whatever the type, binds a
    /// NULL; a type that cannot be bound binds a NULL text. Bound values last
    /// until the next answer on the connection: bind in order from position 1
    /// immediately before each ExecuteBind, from the thread that runs it. No
    /// link test.
    ///
    /// 0; KVN_ERROR_UNKNOWN for a position outside 1 to 128;
    /// KVN_ERROR_MEMORY; KVN_ERROR_HANDLE_CNX.
    int BindParameter(int hCnx, int colonne, int type, void* valeur, unsigned int taille);
    /// Runs a statement with the values bound from position 1 on, in order.
    /// Results, resultat and the emptied rows as Execute.
    int ExecuteBind(int hCnx, const wchar_t* requete, int& resultat);
    /// Sends a text to the service under the direct-request function and
    /// returns the service's status: 0, or its code; KVN_ERROR_PARAMETER for
    /// an empty text. The connection's rows are kept.
    int ExecuteRequete(int hCnx, const wchar_t* requete);
    ///@}

    /// \name Schema
    /// The names are passed to the service unchanged. Out-arguments are
    /// written only on success.
    ///@{

    /// existe = 1 when the service's value is non-zero, else 0.
    int IsTableExist(int hCnx, const wchar_t* table, int& existe);
    /// As IsTableExist, for the column nomColonne of table.
    int IsColumnExist(int hCnx, const wchar_t* table, const wchar_t* nomColonne, int& existe);
    /// nbColonnes, then the names and the types as the service laid them out
    /// in two texts (korvaned: separated by ';'; KVN_ERROR_TABLE_NOT_FOUND for
    /// a table it does not know). A NULL text reads as empty. An answer with
    /// fewer than three values, or whose count is not an integer or whose
    /// names or types are not texts, is refused with KVN_ERROR_RECEIVE and
    /// nothing is written.
    int GetColumns(int hCnx, const wchar_t* table, int& nbColonnes, DStr& noms, DStr& types);
    ///@}

    /// \name Service error text and test request
    ///@{

    /// The text of the connection's last database error, as the service
    /// keeps it (a NULL text reads as empty): 0 and text set, else a result
    /// code and text unchanged. The send may take up to 30 s.
    int GetLastErrorConnexion(int hCnx, DStr& text);
    /// Sends the service one large fixed request (500 groups of a long, a
    /// text, a double, a timestamp and a NULL timestamp) to exercise the
    /// transport, and waits only for its send: KVN_NO_ERROR about 500 ms after
    /// it went out, KVN_ERROR_TIMEOUT when it did not within 1 s,
    /// KVN_ERROR_SOCKET_CLOSED with the link down. Its answer replaces the
    /// connection's last answer and its bound values. It takes no request
    /// lock: not while another operation runs on the connection.
    int SendTest(int hCnx);
    ///@}

    /// \cond INTERNAL
protected:
    int m_GetIdApplication();
    int m_SendToServiceLoader(const char* host, int port);
    // Free, telling the end of the session to hWndNotice.
    void m_FreeSession(kvn::HWND hWndNotice);
    void m_CloseThreads();
    // Declares the main link lost, once: nothing happens when it is already
    // down, or when nGeneration (a value of m_nLienGeneration that the caller
    // saw) names a link that has been re-opened since.
    void m_NotifyComLost(int nGeneration = -1);
    void m_ClearConnexionList();

    // The main link, under m_mutexConnected: up or down, with its event.
    void m_SetLienPrincipal(kvn::Bool bUp);
    // The main link's thread, owner of the main socket, closes it.
    void m_FermeSockPrincipale();
    // Threads that outlived their stop time-out still use this object: they
    // are kept here, and waited for before Init takes new arguments and
    // before the object goes.
    void m_GardeThread(kvn::HANDLE hThread);
    void m_AttendThreadsRestants();

    // Connection registry. With bReference the connection found is counted
    // for the caller, who releases it (CCnxRef).
    int m_AddConnexionList(CConnexionKorvane* cnx);
    CConnexionKorvane* m_GetConnexionByIdList(int hCnx, bool bReference = false);
    CConnexionKorvane* m_GetLastConnexionList();
    int m_DelConnexionList(int hCnx);
    void m_DeconnecteAllConnexionList();
    // Asks the threads of the connections that are down to look at the main
    // link again (it is back).
    void m_ReveilleConnexions();
    // The count of links up. m_IncConnected() for the main link,
    // m_IncConnected(cnx) for a connection re-opened by its thread,
    // m_DecConnected() after a connection's socket closed.
    void m_IncConnected();
    void m_IncConnected(CConnexionKorvane* cnx);
    void m_DecConnected();
    // Counts the links up and, when they all are, completes the
    // communication; under m_mutexConnected.
    void m_CompteLiens();
    // Stops a connection's thread (waiting up to waitThreadMs) and lets go of
    // the registry's reference.
    void m_DetruitConnexion(CConnexionKorvane* cnx, kvn::DWORD waitThreadMs);

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
    CMutex m_mutexThreadsRestants;  // guards m_listThreadsRestants
    CPtrArray m_listThreadsRestants;
    kvn::HANDLE m_hEvtPerteComm;
    kvn::HANDLE m_hEvtCommOK;
    kvn::HANDLE m_hEvtCommModified;
    kvn::HANDLE m_hEvtWarningFermetureForcee;
    kvn::HANDLE m_hEvtFermetureForcee;
    kvn::HANDLE m_hEvtKorvaneClosed;
    kvn::HANDLE m_hEvtHB;
    // Manual reset: set by a loss, reset when the main link is back, so that
    // a loss wakes every request in flight at that moment.
    kvn::HANDLE m_hEvtPerteCommInterne;
    // Manual reset, set while the main link is down (under m_mutexConnected,
    // with m_bSockPrincipaleConnected): the main link's thread and the
    // heartbeat supervision sleep on it.
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
    // Counts the openings of the main link (Init, each re-opening), so that
    // a loss seen on a link that is gone is not declared for the new one.
    std::atomic<int> m_nLienGeneration;

    friend unsigned ThreadSockPrincipale(void* arg);
    friend unsigned ThreadHeartBeat(void* arg);
    friend unsigned ThreadSockClient(void* arg);
    friend void EnvoiRequeteCnx(CConnexionKorvane* cnx);
    friend class CRequestFrame;
    friend class CThreadSockClient;
    friend class CThreadSockPrincipale;
    /// \endcond
};

#endif
