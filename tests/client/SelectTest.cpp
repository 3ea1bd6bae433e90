// Selects: the first block delivered with ExecuteSelect, the rows walked with
// Fetch, the next blocks asked for with GetLine only once the buffered rows
// are used up and never after the last one, and what Fetch reports when the
// rows end or the next block cannot be had.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>

#include "ClientTestUtil.h"
#include "client/ClientTimings.h"
#include "peer/WireCodec.h"
#include "support/OperationSession.h"
#include "support/TestUtil.h"
#include "support/ServiceSession.h"

namespace {

using peer::Long;
using peer::Value;

// `head`, then the more-rows flag and the cells of rows of two columns (an id
// and a text).
std::vector<Value> Block(std::vector<Value> head, int firstId, int rows, int more) {
    head.push_back(Long(more));
    for (int i = 0; i < rows; i++) {
        head.push_back(Long(firstId + i));
        head.push_back(peer::Text((L"ligne " + std::to_wstring(firstId + i)).c_str()));
    }
    return head;
}
// The answer to KVN_EXECUTESELECT: status 0, the value beside it, a second
// status, then the block.
std::vector<Value> FirstBlock(int resultat, int firstId, int rows, int more) {
    return Block({Long(0), Long(resultat), Long(0), Long(rows), Long(2)}, firstId, rows, more);
}
// The answer to KVN_GETLINE: status 0, then the block.
std::vector<Value> NextBlock(int firstId, int rows, int more) {
    return Block({Long(0), Long(rows), Long(2)}, firstId, rows, more);
}

class Select : public OperationSession {
protected:
    // Fetches and returns the id of the new current row, or the result code
    // of Fetch as a negative id - 1000 (so that 0 and 100 are told apart).
    int FetchId() {
        int r = client.Fetch(hCnx);
        if (r != 0) return -1000 - r;
        long id = 0;
        EXPECT_EQ(0, client.GetData(hCnx, 1, id));
        DStr text;
        EXPECT_EQ(0, client.GetData(hCnx, 2, text));
        EXPECT_EQ(L"ligne " + std::to_wstring(id), std::wstring(text.GetString()));
        return static_cast<int>(id);
    }
    int GetLineRequests() {
        std::vector<peer::Message> found = clienttest::OfFunction(Requests(), KVN_GETLINE);
        for (const peer::Message& m : found) {
            EXPECT_EQ(1, m.Count());
            EXPECT_EQ(0, m.Param(0).AsLong()) << "Fetch asks with 0";
        }
        return static_cast<int>(found.size());
    }
    static constexpr int kNoData = -1000 - KVN_NO_DATA;

    // Hands an answer to the connection as its thread does with one that
    // arrives when no request waits for it.
    void DeliverLate(const peer::Bytes& answer) {
        CMsgSocketClient msg;
        ASSERT_EQ(1, msg.AnalyseMessageComplet(const_cast<BYTE*>(answer.data())));
        msg.AnalyseFonction(client.Connexion(hCnx));
    }
};

TEST_F(Select, ZeroRowsOrOneBlockAreWalkedWithoutAskingForMoreAndAFetchAfterTheEndAsksAgain) {
    Open([](peer::Connection& c) {
        peer::Message m = Serve(c, KVN_EXECUTESELECT, FirstBlock(12, 0, 0, 0));
        EXPECT_EQ(1, m.Count());
        EXPECT_EQ(L"select * from vide", m.Param(0).AsWide());
        Serve(c, KVN_EXECUTESELECT, FirstBlock(3, 1, 3, 0));
        c.Await("relance");
        Serve(c, KVN_GETLINE, {Long(-2), Long(KVN_NO_DATA)});
    });
    int resultat = -1;
    EXPECT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"select * from vide", resultat));
    EXPECT_EQ(12, resultat);
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx));

    DStr requete(L"select id, nom from t");
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, requete, resultat));
    EXPECT_EQ(3, resultat);
    for (int id = 1; id <= 3; id++) EXPECT_EQ(id, FetchId());
    EXPECT_EQ(kNoData, FetchId());
    long v = 9;
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, 1, v)) << "the buffer is empty after the end";
    EXPECT_EQ(9, v);

    // No GetLine so far: the rows of each block ended their result.
    EXPECT_EQ(0, GetLineRequests());
    service.Signal("relance");
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx));
    Finish();
    EXPECT_EQ(1, GetLineRequests());
}

TEST_F(Select, ServiceErrorsAndRefusalsOfExecuteSelect) {
    Open([](peer::Connection& c) { Serve(c, KVN_EXECUTESELECT, {Long(-2), Long(KVN_ERROR_ODBC)}); });
    int resultat = 44;
    CString requete(L"select faux");
    EXPECT_EQ(KVN_ERROR_ODBC, client.ExecuteSelect(hCnx, requete, resultat));
    EXPECT_EQ(0, resultat);
    resultat = 44;
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.ExecuteSelect(hCnx, L"", resultat));
    EXPECT_EQ(0, resultat);

    resultat = 44;
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.ExecuteSelect(hCnx + 1, L"select", resultat));
    EXPECT_EQ(44, resultat);
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.Fetch(hCnx + 1));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.LibereStatment(hCnx + 1));
    for (const wchar_t* line : {L"\r\nError KVN_ERROR_HANDLE_CNX 3  ",
                                L"\r\nError KVN_ERROR_HANDLE_CNX 4  ",
                                L"\r\nError KVN_ERROR_HANDLE_CNX 6  "})
        EXPECT_EQ(1, debugger.Count(line)) << std::wstring(line).substr(2).c_str();
}

// An error in the next block ends the rows. Fetch answers 0 only with a new
// current row: when the next block cannot be had, the failure of GetLine is
// what it reports, whatever status an earlier answer left.
TEST_F(Select, AnErrorInTheNextBlockEndsTheRowsAndAFailedGetLineIsWhatFetchReports) {
    Open([](peer::Connection& c) {
        Serve(c, KVN_EXECUTESELECT, FirstBlock(0, 1, 1, 1));
        Serve(c, KVN_GETLINE, {Long(-2), Long(KVN_ERROR_ODBC), Long(0)});
        Serve(c, KVN_EXECUTESELECT, FirstBlock(0, 1, 1, 1));
        c.Ack(c.Expect(KVN_GETLINE));  // and never answers
    });
    int resultat = 0;
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"select", resultat));
    EXPECT_EQ(1, FetchId());
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx));
    // The end mark that the error set is consumed here, without a request.
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx));

    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"select", resultat));
    EXPECT_EQ(1, FetchId());
    KvnSetAnswerWaitForTests(300);
    EXPECT_EQ(KVN_ERROR_TIMEOUT, client.Fetch(hCnx));
    KvnSetAnswerWaitForTests(0);

    // With the link down, the GetLine is refused before anything is sent.
    client.SetAllConnected(FALSE);
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.Fetch(hCnx));
    client.SetAllConnected(TRUE);
}

TEST_F(Select, LibereStatmentIsSentWithoutWaitingForAnAnswer) {
    SessionAnswer oneTry;
    oneTry.nbRetrySend = 1;
    Open(oneTry, [](peer::Connection& c) {
        Serve(c, KVN_EXECUTESELECT, FirstBlock(0, 1, 2, 0));
        peer::Message m = c.Expect(KVN_LIBERE_CNX_SELECT);
        EXPECT_EQ(0, m.Count());
        c.Ack(m);
        c.Expect(KVN_LIBERE_CNX_SELECT);  // not acknowledged: the send fails
    });
    int resultat = 0;
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"select", resultat));
    EXPECT_EQ(1, FetchId());
    EXPECT_EQ(KVN_NO_ERROR, client.LibereStatment(hCnx));
    EXPECT_EQ(2, FetchId()) << "the local rows are not touched";

    // A send that is never acknowledged ends as a closed socket: the link is
    // declared lost.
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.LibereStatment(hCnx));
    EXPECT_FALSE(client.IsConnexionConnected(hCnx));
}

// Over many selects of every shape, Fetch asks for exactly the blocks that
// the service said were there, one GETLINE per exhausted block: never one
// after the block that carried the end, whether that block held rows or none.
TEST_F(Select, ManySelectsAskForEveryBlockAndNeverPastTheEnd) {
    const int kSelects = 12;  // every shape twice
    // Blocks of select i: i % 3 + 1, of two rows; a later last one holds one
    // row, or none for odd i.
    auto lastRows = [](int i) { return i % 2 == 1 ? 0 : 1; };
    Open([lastRows](peer::Connection& c) {
        for (int i = 0; i < kSelects; i++) {
            const int blocks = i % 3 + 1;
            int id = 1;
            Serve(c, KVN_EXECUTESELECT, FirstBlock(0, id, 2, blocks > 1));
            id += 2;
            for (int b = 2; b <= blocks; b++, id += 2)
                Serve(c, KVN_GETLINE, NextBlock(id, b == blocks ? lastRows(i) : 2, b < blocks));
        }
        c.ExpectSilence(200);
    });
    int expectedGetLines = 0;
    for (int i = 0; i < kSelects; i++) {
        const int blocks = i % 3 + 1;
        const int rows = blocks == 1 ? 2 : 2 * (blocks - 1) + lastRows(i);
        expectedGetLines += blocks - 1;
        int resultat = -1;
        ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"select id, nom from t", resultat));
        for (int id = 1; id <= rows; id++) ASSERT_EQ(id, FetchId()) << "select " << i;
        ASSERT_EQ(kNoData, FetchId()) << "select " << i;
    }
    Finish();
    EXPECT_EQ(expectedGetLines, GetLineRequests());
}

// A Fetch decides to ask for the next block, without taking the buffer's
// lock, when it sees no block in reception, no row and no end mark. A block
// that carries the end sets its mark before its reception ends, so that no
// reader can see the reception over and the end not yet there. Here the
// connection's side receives last blocks again and again while the
// application's side watches the flags as closely as it can (a stress loop:
// it sees the moment a block ends only when both sides run at once, so it is
// bounded in rounds and in time rather than required to see a given number).
TEST_F(Select, ABlockThatCarriesTheEndIsNeverSeenEndedWithoutItsEndMark) {
    Open([](peer::Connection&) {});
    CSelectBuffer& buffer = client.Connexion(hCnx)->m_selectBuffer;
    // An empty last block: it brings no row, only the end.
    const peer::Bytes lastBlock = peer::Encode(peer::Msg(KVN_GETLINE, 7, hCnx, NextBlock(1, 0, 0)));

    const int kRounds = 40000;
    std::atomic<int> round{0};
    std::atomic<bool> received{false};
    std::thread connexion([&] {
        for (int i = 1; i <= kRounds; i++) {
            while (round.load() < i) std::this_thread::yield();
            if (round.load() > kRounds) break;
            DeliverLate(lastBlock);
            received = true;
        }
    });
    const kvntest::Clock::time_point start = kvntest::Clock::now();
    int seenEnding = 0, missed = 0;
    for (int i = 1; i <= kRounds && missed == 0 && kvntest::MsSince(start) < 2000; i++) {
        buffer.VideBuffer();  // no row, no end mark: a Fetch now would ask
        received = false;
        round = i;
        bool inReception = false;
        while (!received.load() || inReception) {
            if (buffer.IsCurrentReceptLine()) {
                inReception = true;
            } else if (inReception) {
                seenEnding++;
                if (buffer.IsADemander()) missed++;
                break;
            }
        }
        while (!received.load()) std::this_thread::yield();
    }
    round = kRounds + 1;
    connexion.join();
    EXPECT_EQ(0, missed) << "a reader saw the block ended without its end mark (" << seenEnding
                         << " endings seen)";
}

// A late first block of a select empties the buffer from the connection's
// thread, with no regard for the application's request lock. The value that
// GetData reads is copied while the buffer's lock keeps the block out, so it
// is never read after being freed (the address sanitizer watches) and always
// whole.
TEST_F(Select, ALateFirstBlockNeverFreesTheValueThatGetDataReads) {
    const std::wstring longText(2000, L'x');
    std::vector<peer::Value> values = {peer::Long(0), peer::Long(0), peer::Long(0), peer::Long(1),
                                       peer::Long(2), peer::Long(0), peer::Long(1),
                                       peer::Text(longText.c_str())};
    Open([values](peer::Connection& c) { Serve(c, KVN_EXECUTESELECT, values); });
    int resultat = 0;
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"select", resultat));
    ASSERT_EQ(KVN_NO_ERROR, client.Fetch(hCnx));

    const peer::Bytes late = peer::Encode(peer::Msg(KVN_EXECUTESELECT, 7, hCnx, values));
    std::atomic<bool> stop{false};
    std::thread connexion([&] {
        for (int i = 0; i < 3000 && !stop; i++) DeliverLate(late);
        stop = true;
    });
    int reads = 0, wrong = 0;
    while (!stop) {
        DStr text;
        // Old row or new one, the head row is always there and whole.
        if (client.GetData(hCnx, 2, text) != KVN_NO_ERROR || longText != text.GetString()) wrong++;
        reads++;
    }
    connexion.join();
    EXPECT_EQ(0, wrong) << "of " << reads << " reads";
}

}  // namespace
