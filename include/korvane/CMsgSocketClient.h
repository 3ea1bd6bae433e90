/// \file
/// CMsgSocketClient, the client-side message.
#ifndef KORVANE_CMSGSOCKETCLIENT_H
#define KORVANE_CMSGSOCKETCLIENT_H

#include <korvane/CMsgSocket.h>

class CConnexionKorvane;

/// The client-side message: a CMsgSocket that knows the application id, the
/// connection id and the socket it belongs to, and has one builder for every
/// request that the library sends.
///
/// The link requests (Send*) send, wait for the acknowledgement and, where one
/// is expected, read the answer: they block the calling thread, which must be
/// the only one using the socket. The database request builders (Create*)
/// only fill the message, which a connection's thread then sends; their
/// answers are read into the connection by AnalyseFonction. One thread at a
/// time, as for CMsgSocket.
class KVN_API CMsgSocketClient : public CMsgSocket {
public:
    /// No ids, no socket; the requests refuse until Init.
    CMsgSocketClient();
    virtual ~CMsgSocketClient();

    /// Sets the application id, the connection id and the socket of the
    /// requests, and copies *paramComm (when not null) into the message.
    void Init(int idApplication, int idConnexion, kvn::SOCKET sock, CParamComm* paramComm);
    /// The application id: Init's, or the one the service gave in its answer
    /// to a registration.
    int GetIdApplication();
    /// The database type of the service's last positive answer to a
    /// registration; -1 before.
    int GetDBType();

    /// \name Link requests
    /// Each returns KVN_ERROR_UNKNOWN without Init (or, but for
    /// SendInitApplication, without an application id above 0),
    /// KVN_ERROR_SOCKET_CLOSED when the send failed, and, where an answer is
    /// read, KVN_ERROR_RECEIVE when the answer's header was refused. An answer
    /// stays in the message.
    ///@{

    /// Registers the application (the computer's name, nomApplication, 1):
    /// 0 when the service accepted, the communication parameters, database
    /// type and application id of its answer then taken over (GetParamComm,
    /// GetDBType, GetIdApplication); the service's refusal code when it
    /// answered with one value (KVN_ERROR_MAX_CLIENT_ATTEINT ...);
    /// KVN_ERROR_INIT_NB_PARAM for an answer of another shape, or none in
    /// time.
    int SendInitApplication(const wchar_t* nomApplication);
    /// Registers the application again on a re-opened main link: the
    /// answer's function code (0 accepted, -1 no answer in time); the
    /// application id becomes the answer's.
    int SendReInitApplication(const wchar_t* nomApplication);
    /// Opens the connection of Init's connection id on this socket: the
    /// answer's function code (0 accepted, the service's negative code for a
    /// refusal, -1 no answer in time).
    int SendInitConnexion();
    /// As SendInitConnexion, re-attaching the connection on a re-opened
    /// socket.
    int SendReInitConnexion();
    /// Announces the end of the application, waiting 100 ms for the
    /// acknowledgement and reading no answer: 0, or the send's result.
    int SendCloseApplication();
    /// Sends a sign of life on the main link: 0, or the send's result. The
    /// library itself never sends it.
    int SendHeartBeat();
    ///@}

    /// \name Database requests
    /// Each clears the message and fills it with the request for Init's
    /// connection; nothing is sent. 0; KVN_ERROR_UNKNOWN without Init or
    /// application id; KVN_ERROR_PARAMETER for an empty statement (CreateExec,
    /// CreateExecSelect, CreateExecRequete). Texts and arrays are read during
    /// the call: the message keeps copies.
    ///@{

    /// KVN_EXECUTE: the statement.
    int CreateExec(const wchar_t* requete);
    /// KVN_EXECUTESELECT: the statement.
    int CreateExecSelect(const wchar_t* requete);
    /// KVN_FETCH, no parameter (the library never sends it).
    int CreateFetch();
    /// KVN_GETDATA: two longs (the library never sends it).
    int CreateGetData(int nValeur1, int nValeur2);
    /// KVN_LIBERE_CNX_SELECT, no parameter.
    int CreateLibereConnexionSelect();
    /// KVN_GETLINE: the number of rows asked (0: the service's block size).
    int CreateGetLine(int nbLignes);
    /// KVN_EXISTTABLE: the table's name.
    int CreateIsTableExist(const wchar_t* table);
    /// KVN_EXISTCOLUMN: the table's name, the column's name.
    int CreateIsColumnExist(const wchar_t* table, const wchar_t* nomColonne);
    /// KVN_GETCOLUMNS: the table's name.
    int CreateGetColumns(const wchar_t* table);
    /// KVN_EXECUTEBIND: the statement, then a copy of each of the nbParam
    /// values of tabParam, with its own size.
    int CreateExecBind(const wchar_t* requete, int nbParam, CParam* tabParam);
    /// KVN_EXECUTEPROC: the procedure's name, nOptionProc, then for each of
    /// the nbParam parameters its direction and a copy of its value.
    int CreateExecStoredProc(const wchar_t* nomProc, int nbParam, CParamProc* tabParam,
                             int nOptionProc);
    /// KVN_GET_ODBC_ERROR_TEXT, no parameter.
    int CreateGetErrorText();
    /// KVN_REQUETE_METABASE: the text.
    int CreateExecRequete(const wchar_t* requete);
    ///@}

    /// Hands the answer held by this message to the receiver of its function
    /// code, which stores it in cnx and sets cnx's hEvtResultArrived. Always
    /// clears the message. 0, or -2 for a code without receiver. The
    /// connection's thread calls it; a connection is the library's own.
    int AnalyseFonction(CConnexionKorvane* cnx);

    /// \cond INTERNAL
protected:
    // Adds a SQL_C_WCHAR text parameter whose size is the text's length.
    int m_AddTexte(const wchar_t* texte);
    // Shared by SendInitApplication and SendReInitApplication: takes the 10
    // communication parameters of an answer over.
    void m_ReprendParamComm();

    int m_ReceiveResultExec(CConnexionKorvane* cnx);
    int m_ReceiveResultExecuteSelect(CConnexionKorvane* cnx);
    int m_ReceiveResultFetch(CConnexionKorvane* cnx);
    int m_ReceiveResultGetData(CConnexionKorvane* cnx);
    int m_ReceiveResultGetLine(CConnexionKorvane* cnx);
    int m_ReceiveResultIsTableExist(CConnexionKorvane* cnx);
    int m_ReceiveResultIsColumnExist(CConnexionKorvane* cnx);
    int m_ReceiveResultGetColumns(CConnexionKorvane* cnx);
    int m_ReceiveResultExecBind(CConnexionKorvane* cnx);
    int m_ReceiveResultExecStoredProc(CConnexionKorvane* cnx);
    int m_ReceiveResultGetErrorText(CConnexionKorvane* cnx);
    int m_ReceiveResultExecRequete(CConnexionKorvane* cnx);

    int m_nIdApplication;
    int m_nIdConnexion;
    kvn::SOCKET m_sock;
    kvn::Bool m_bInit;
    int m_nDBType;
    /// \endcond
};

#endif
