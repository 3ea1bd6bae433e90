// A service that drops every link again and again while several application
// threads run requests on several connections: every request ends, in 0 or
// one of the failure codes of a lost link, and once the service stays up the
// session is whole again and every connection works.
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ClientProbe.h"
#include "client/ClientTimings.h"
#include "support/RestartingService.h"

namespace {

using kvntest::Clock;
using kvntest::MsSince;

// What a request may end in while the links come and go: success, the link
// found down (-53), a send that failed (-52), an answer that never came
// because its link broke (-63), or the connection busy for too long (-62).
bool IsAnExpectedOutcome(int r) {
    return r == KVN_NO_ERROR || r == KVN_ERROR_SOCKET_CLOSED || r == KVN_ERROR_SEND ||
           r == KVN_ERROR_TIMEOUT || r == KVN_ERROR_HANDLE_CNX;
}

TEST(SupervisionStress, RequestsOnSeveralConnectionsWhileTheServiceKeepsRestarting) {
    probe::WinSock winsock;
    // An answer lost with its link is given up after this long instead of
    // the library's four minutes.
    KvnSetAnswerWaitForTests(3000);
    {
        // A missed acknowledgement is one more loss, which this test can
        // take but need not provoke on a loaded machine.
        SessionAnswer answer;
        answer.timeOutAck = 3000;
        RestartingService service(answer);
        probe::Client client;
        ASSERT_EQ(KVN_NO_ERROR, client.Open(service.Port(), nullptr, L"Stock"));
        const int kConnexions = 3;
        const int kThreads = 6;  // two threads share each connection
        for (int i = 1; i <= kConnexions; ++i) ASSERT_EQ(i, client.GetConnexion());
        auto whole = [&] { return client.MainLinkUp() && client.AllConnected(); };

        std::atomic<bool> stop{false};
        std::atomic<int> finished{0};
        std::atomic<int> successes{0};
        std::atomic<long long> longest{0};
        std::vector<std::vector<int>> results(kThreads);
        std::vector<std::thread> workers;
        for (int t = 0; t < kThreads; ++t) {
            workers.emplace_back([&, t] {
                while (!stop) {
                    int resultat = 0;
                    const Clock::time_point start = Clock::now();
                    const int r = client.Execute(t % kConnexions + 1, L"UPDATE STOCK SET N = N + 1",
                                                 resultat);
                    if (MsSince(start) > longest) longest = MsSince(start);
                    results[t].push_back(r);
                    if (r == KVN_NO_ERROR) ++successes;
                    else KvnSleep(5);  // a refused request comes back at once
                }
                ++finished;
            });
        }

        for (int restart = 0; restart < 5; ++restart) {
            KvnSleep(restart % 2 == 0 ? 1500 : 700);
            service.Restart();
        }
        // The service stays up from now on. A request handed over while its
        // connection was down waits out its send limit (10 s) unless the loss
        // event, which wakes one waiter only, was its own; it then reports
        // one more loss, and the re-opening that follows takes 3 to 4 s.
        EXPECT_TRUE(probe::WaitUntil(whole, 20000));
        const int before = successes;
        probe::WaitUntil([&] { return successes >= before + 20; }, 30000);
        EXPECT_GE(successes, before + 20) << "requests succeed again";

        stop = true;
        probe::WaitUntil([&] { return finished == kThreads; }, 60000);
        ASSERT_EQ(kThreads, finished.load()) << "a request never ended";
        for (std::thread& w : workers) w.join();
        for (const auto& list : results)
            for (int r : list) EXPECT_TRUE(IsAnExpectedOutcome(r)) << r;
        // The longest a request may take: the connection's request lock
        // (20 s, behind another request), the hand-over (10 s), the answer.
        EXPECT_LT(longest.load(), 35000) << "no request waits beyond its own limits";

        // Each connection works. A first request may still meet what the
        // chaos left behind (a send acknowledged for a caller that had
        // already given up makes the next caller report -52).
        EXPECT_TRUE(probe::WaitUntil(whole, 20000));
        for (int h = 1; h <= kConnexions; ++h) {
            int resultat = 0;
            int r = client.Execute(h, L"SELECT 1", resultat);
            if (r == KVN_ERROR_SEND) r = client.Execute(h, L"SELECT 1", resultat);
            EXPECT_EQ(KVN_NO_ERROR, r) << "connection " << h;
        }
        const Clock::time_point start = Clock::now();
        client.Free();
        EXPECT_LT(MsSince(start), 5000);
    }
    KvnSetAnswerWaitForTests(0);
}

}  // namespace
