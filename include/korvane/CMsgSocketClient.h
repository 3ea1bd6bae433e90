// CMsgSocketClient: the client-side message. It knows the application id, the
// connection id and the socket it belongs to, and has one builder for every
// request that the library sends.
//
// The link requests (Send*) send, wait for the acknowledgement and, where one
// is expected, read the answer. The database request builders (Create*) only
// fill the message, which a connection's thread then sends; their answers are
// read into the connection by AnalyseFonction.
#ifndef KORVANE_CMSGSOCKETCLIENT_H
#define KORVANE_CMSGSOCKETCLIENT_H

#include <korvane/CMsgSocket.h>

class CConnexionKorvane;

class KVN_API CMsgSocketClient : public CMsgSocket {
public:
    CMsgSocketClient();
    virtual ~CMsgSocketClient();

    void Init(int idApplication, int idConnexion, kvn::SOCKET sock, CParamComm* paramComm);
    int GetIdApplication();
    int GetDBType();

    // ---- Link requests ----------------------------------------------------
    int SendInitApplication(const wchar_t* nomApplication);
    int SendReInitApplication(const wchar_t* nomApplication);
    int SendInitConnexion();
    int SendReInitConnexion();
    int SendCloseApplication();
    int SendHeartBeat();

    // ---- Database requests: 0, -2 (not initialised) or -58 ------------------
    int CreateExec(const wchar_t* requete);
    int CreateExecSelect(const wchar_t* requete);
    int CreateFetch();
    int CreateGetData(int nValeur1, int nValeur2);
    int CreateLibereConnexionSelect();
    int CreateGetLine(int nbLignes);
    int CreateIsTableExist(const wchar_t* table);
    int CreateIsColumnExist(const wchar_t* table, const wchar_t* nomColonne);
    int CreateGetColumns(const wchar_t* table);
    int CreateExecBind(const wchar_t* requete, int nbParam, CParam* tabParam);
    int CreateExecStoredProc(const wchar_t* nomProc, int nbParam, CParamProc* tabParam,
                             int nOptionProc);
    int CreateGetErrorText();
    int CreateExecRequete(const wchar_t* requete);

    // ---- Answers ------------------------------------------------------------
    // Hands the answer held by this message to the receiver of its function
    // code, which stores it in cnx and sets cnx's hEvtResultArrived. Always
    // clears the message. 0, or -2 for a code without receiver.
    int AnalyseFonction(CConnexionKorvane* cnx);

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
};

#endif
