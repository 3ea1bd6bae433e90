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
#include <vector>

#include <korvane/CMsgSocket.h>

#include "Odbc.h"
#include "Values.h"

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
    // The fuzz target of the requests hands them to Handle without a socket.
    friend class FuzzedSession;

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
    void AnswerExecuteSelect(CMsgSocket& request, EncodedAnswer& answer);
    void AnswerGetLine(CMsgSocket& request, EncodedAnswer& answer);
    void AnswerTableExists(CMsgSocket& request, CMsgSocket& answer);
    void AnswerColumnExists(CMsgSocket& request, CMsgSocket& answer);
    void AnswerColumns(CMsgSocket& request, CMsgSocket& answer);
    void AnswerExecuteBind(CMsgSocket& request, CMsgSocket& answer);
    void AnswerStoredProc(CMsgSocket& request, CMsgSocket& answer);
    void AnswerErrorText(CMsgSocket& answer);
    void AnswerRequete(CMsgSocket& request, CMsgSocket& answer);
    // ---- The rows of a select (DatabaseRequests.cpp) --------------------------
    // Rows in a block: those asked (0: the service's block size), within
    // what a message holds.
    int BlockRows(int asked) const;
    // Reads rows of the open select into rows_ until it holds `wanted`, more
    // than a message's bytes, or the select ends, asking the database for at
    // most `rowsets` rowsets (0: as many as it takes). false on a database
    // error.
    bool FillRows(int wanted, int rowsets);
    // Answers `fonction` with the values of `head`, then rows, columns,
    // more-rows flag and the cells of the next block. false on a database
    // error (the select is then over).
    bool AnswerBlock(EncodedAnswer& answer, int fonction, std::vector<int> head, int asked);
    // One step of making the next block ready while the link is quiet.
    void PrepareNextBlock();
    void EndSelect();

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
    // The open select: rows read and encoded but not sent yet, its column
    // count, whether the next block is still being made ready, and whether
    // reading it failed (the next GETLINE then answers the error).
    WireRows rows_;
    int selectColumns_ = 0;
    bool preparing_ = false;
    bool selectFailed_ = false;
    bool answeredError_;  // ErrorAnswer was used since the request came
};

#endif
