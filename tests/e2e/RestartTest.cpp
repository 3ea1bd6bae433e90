// korvaned stopped and started again on the same port while several threads
// run statements on several connections of one session: every call ends in
// success or in a documented failure within the library's bounds, and the
// session and its connections work again once the service is back.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "E2eSession.h"
#include "platform/Threads.h"
#include "support/TestUtil.h"

namespace {

constexpr int kWorkers = 4;
// A request that finds the link broken ends within the send wait (10 s) at
// worst; anything longer is a hang.
constexpr long long kLongestCallMs = 12000;
// How long the session may take to come back once the service listens again.
constexpr long long kRecoveryMs = 20000;

struct Worker {
    int hCnx = 0;
    std::atomic<int> calls{0}, successes{0}, successesAfterRestart{0};
    std::atomic<int> unexpected{KVN_NO_ERROR};  // a result other than success or a broken link
    std::atomic<long long> longestMs{0};
};

class E2eRestart : public e2e::E2eTest {};

}  // namespace

TEST_F(E2eRestart, ConnexionsSurviveARestartOfTheServiceUnderLoad) {
    // The database outlives the first service.
    TempDir data;
    const std::vector<std::string> arguments = ServiceArguments(7, {"--database", data.File("restart.db")});
    Start(arguments);
    if (HasFatalFailure()) return;
    ASSERT_TRUE(client.MainLinkSupervised()) << "nothing would notice the restart";
    const unsigned short port = service->Port();
    MustExecute(L"CREATE TABLE load (worker INTEGER, n INTEGER)");

    Worker workers[kWorkers];
    workers[0].hCnx = hCnx;
    for (int w = 1; w < kWorkers; ++w) {
        workers[w].hCnx = client.GetConnexion();
        ASSERT_GT(workers[w].hCnx, 0);
    }

    // What the application is told: taken now, so that only what the restart
    // brings is seen afterwards.
    KvnWaitForSingleObject(client.GetEventPerteComm(), 0);
    KvnWaitForSingleObject(client.GetEventCommOK(), 0);

    std::atomic<bool> stop{false};
    std::atomic<bool> restarted{false};
    std::vector<std::thread> threads;
    for (int w = 0; w < kWorkers; ++w) {
        threads.emplace_back([&, w] {
            Worker& me = workers[w];
            for (int n = 0; !stop; ++n) {
                const std::wstring sql =
                    L"INSERT INTO load VALUES (" + std::to_wstring(w) + L", " + std::to_wstring(n) + L")";
                const bool after = restarted;
                int resultat = 0;
                const auto start = kvntest::Clock::now();
                const int r = client.Execute(me.hCnx, sql.c_str(), resultat);
                me.longestMs = std::max(me.longestMs.load(), kvntest::MsSince(start));
                ++me.calls;
                if (r == KVN_NO_ERROR) {
                    ++me.successes;
                    if (after) ++me.successesAfterRestart;
                    continue;
                }
                if (r != KVN_ERROR_SEND && r != KVN_ERROR_SOCKET_CLOSED) me.unexpected = r;
                KvnSleep(10);  // refused at once while the link is down: do not hammer
            }
        });
    }

    // Load on the first service, then stop it and start another on the port.
    KvnSleep(400);
    service.reset();
    KvnSleep(300);
    std::vector<std::string> again = arguments;
    again.insert(again.end(), {"--port", std::to_string(port)});
    service = std::make_unique<RunningService>(again);
    restarted = true;
    EXPECT_EQ(port, service->Port());

    // Every connection must get statements through again.
    const auto back = kvntest::Clock::now();
    auto allBack = [&] {
        return std::all_of(workers, workers + kWorkers, [](Worker& w) { return w.successesAfterRestart >= 3; });
    };
    while (!allBack() && kvntest::MsSince(back) < kRecoveryMs) KvnSleep(50);
    const long long recoveryMs = kvntest::MsSince(back);
    stop = true;
    for (std::thread& t : threads) t.join();

    EXPECT_TRUE(allBack()) << "the connections did not work again within " << kRecoveryMs << " ms";
    std::printf("recovered after %lld ms\n", recoveryMs);
    int successes = 0, calls = 0;
    for (Worker& w : workers) {
        EXPECT_EQ(KVN_NO_ERROR, w.unexpected.load()) << "worker " << &w - workers;
        EXPECT_LT(w.longestMs.load(), kLongestCallMs) << "worker " << &w - workers;
        successes += w.successes;
        calls += w.calls;
    }

    EXPECT_EQ(WAIT_OBJECT_0, KvnWaitForSingleObject(client.GetEventPerteComm(), 0)) << "the loss was told";
    EXPECT_EQ(WAIT_OBJECT_0, KvnWaitForSingleObject(client.GetEventCommOK(), 0)) << "the return was told";

    // The session is whole again: every connection answers, and every
    // statement that reported success left its row (a statement whose answer
    // was lost with the service may have left one too).
    EXPECT_TRUE(client.IsAppliConnected());
    for (Worker& w : workers) {
        EXPECT_TRUE(client.IsConnexionConnected(w.hCnx));
        int resultat = -1;
        EXPECT_EQ(KVN_NO_ERROR, client.Execute(w.hCnx, L"UPDATE load SET n = n WHERE worker = -1", resultat));
    }
    const std::vector<long> count = SelectIds(L"SELECT COUNT(*) FROM load");
    const long rows = count.empty() ? -1 : count[0];
    EXPECT_GE(rows, successes);
    EXPECT_LE(rows, calls);
    EXPECT_GT(client.GetConnexion(), 0) << "a new connection opens on the new service too";
}
