// One accepted link, served on a thread of its own: the main link of an
// application (INIT/REINIT_APPLICATION, CLOSE_APPLICATION) or the link of one
// logical connection (INIT/REINIT_CONNEXION, then the database requests,
// which run on a database connection of the link's own).
//
// Every message is received, checked and acknowledged by the library's own
// exchange (CMsgSocket::ReceiveMessage); every answer is sent with
// acknowledgement (CMsgSocket::SendMessageW). Bad input ends in a refused
// message or a closed link, never in a read outside a buffer.
#ifndef KORVANED_SESSION_H
#define KORVANED_SESSION_H

#include <memory>
#include <string>

#include <korvane/CMsgSocket.h>

#include "Odbc.h"

class Server;

class Session {
public:
    Session(Server& server, SOCKET sock, unsigned long serial);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Thread body: serves the link until it closes or the service stops,
    // then hands the session back to the server, which deletes it.
    static void Run(void* session);
    // Shuts the link down (from any thread): the session's thread sees it
    // closed and ends. The socket stays the session's to close.
    void Interrupt();
    // The socket is no longer the session's (its thread never started).
    void DetachSocket() { sock_ = INVALID_SOCKET; }

    // A request is under way; guarded by the server's lock.
    bool busy = false;

private:
    enum class Role { Unknown, Application, Connexion, Closed };

    void Serve();
    // Handles one accepted message; false ends the link.
    bool Handle(CMsgSocket& request);
    bool OnRegisterApplication(CMsgSocket& request, bool reinit);
    bool OnOpenConnexion(CMsgSocket& request, bool reinit);
    void OnCloseApplication();
    void Release();

    // ---- Database requests (DatabaseRequests.cpp) ----------------------------
    bool OnDatabaseRequest(CMsgSocket& request);
    // Opens the link's database connection when it is not open yet.
    bool EnsureDatabase();
    void AnswerExecute(CMsgSocket& request, CMsgSocket& answer);
    void AnswerExecuteSelect(CMsgSocket& request, CMsgSocket& answer);
    void AnswerGetLine(CMsgSocket& request, CMsgSocket& answer);
    void AnswerTableExists(CMsgSocket& request, CMsgSocket& answer);
    void AnswerColumnExists(CMsgSocket& request, CMsgSocket& answer);
    void AnswerColumns(CMsgSocket& request, CMsgSocket& answer);
    void AnswerExecuteBind(CMsgSocket& request, CMsgSocket& answer);
    void AnswerStoredProc(CMsgSocket& request, CMsgSocket& answer);
    void AnswerErrorText(CMsgSocket& answer);
    void AnswerRequete(CMsgSocket& request, CMsgSocket& answer);
    // Adds rows, columns, more-rows flag and the cells of the select's next block.
    bool AddBlock(CMsgSocket& answer, int rowsAsked);

    // Starts an answer to `fonction` on this link (header set, no parameter).
    void StartAnswer(CMsgSocket& answer, int fonction);
    // An answer reporting an error: status -2, then the code.
    void ErrorAnswer(CMsgSocket& answer, int fonction, int code);
    // Sends with acknowledgement; false when the link is lost.
    bool Send(CMsgSocket& answer);
    // A database request timed and counted in the service's statistics.
    bool CountedDatabaseRequest(CMsgSocket& request);

    Server& server_;
    SOCKET sock_;
    unsigned long serial_;
    Role role_;
    int idApplication_;
    int idConnexion_;
    std::unique_ptr<OdbcConnexion> db_;
    bool answeredError_;  // ErrorAnswer was used since the request came
};

#endif
