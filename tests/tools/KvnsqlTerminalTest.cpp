// kvnsql at a terminal (a pseudo-terminal driven key by key): line editing
// with the history kept across sessions, completion of commands, the pager,
// and Ctrl-C at the prompt, while rows arrive and while the service runs a
// statement.
#include <gtest/gtest.h>

#include <signal.h>

#include <fstream>

#include "KvnsqlRun.h"

using kvnsqltest::kCtrlC;
using kvnsqltest::kUp;
using kvnsqltest::Terminal;

namespace {

class KvnsqlTerminal : public ::testing::Test {
protected:
    void SetUp() override {
        // A row a block: a long result takes many exchanges to arrive; every
        // message logged, so that the test sees them come.
        service = std::make_unique<RunningService>(ServiceArguments(1, {"--log-level", "3"}));
        ASSERT_NE(0, service->Port());
    }

    TempDir home;
    std::unique_ptr<RunningService> service;
};

}  // namespace

TEST_F(KvnsqlTerminal, HistoryRecallBlankLinesCompletionAndPager) {
    {
        Terminal t(service->Port(), home.File(""), "sed s/^/paged:/");
        ASSERT_TRUE(t.Expect("kvnsql> "));
        // A blank line inside a statement is part of it.
        t.Type("select 1 as a,\r");
        ASSERT_TRUE(t.Expect("     -> "));
        t.Type("\r");
        ASSERT_TRUE(t.Expect("     -> "));
        t.Type("2 as b;\r");
        ASSERT_TRUE(t.Expect(" a | b\r\n---+---\r\n 1 | 2\r\n"));
        // The Up arrow brings the last line back.
        t.Type("select 'again' as word;\r");
        ASSERT_TRUE(t.Expect(" again\r\n"));
        t.Type(kUp);
        t.Type("\r");
        ASSERT_TRUE(t.Expect(" word\r\n"));
        ASSERT_TRUE(t.Expect(" again\r\n"));
        // Completion of a backslash command.
        t.Type("\\tim\t");
        t.Type("on\r");
        ASSERT_TRUE(t.Expect("timing is on"));
        // Taller than the terminal: through the pager, unless it is off.
        t.Type("with recursive c(x) as (select 1 union all select x + 1 from c where x < 30) select x from c;\r");
        ASSERT_TRUE(t.Expect("paged: 30\r\n"));
        t.Type("\\pset pager off\r");
        t.Type("with recursive c(x) as (select 1 union all select x + 1 from c where x < 30) select x from c;\r");
        ASSERT_TRUE(t.Expect("\r\n 30\r\n"));
        t.Type("\\q\r");
        EXPECT_EQ(0, t.WaitForExit(10000)) << t.Pending();
    }
    std::ifstream history(home.File(".kvnsql_history"));
    ASSERT_TRUE(history.good()) << "no history file";
    // A new session recalls what the last one typed.
    Terminal t(service->Port(), home.File(""));
    ASSERT_TRUE(t.Expect("kvnsql> "));
    for (int i = 0; i < 4; ++i) t.Type(kUp);  // back past \q, two selects and \pset
    t.Type("\r");
    ASSERT_TRUE(t.Expect("\r\n 30\r\n"));
}

TEST_F(KvnsqlTerminal, CtrlCClearsTheLineAndStopsALongSelect) {
    Terminal t(service->Port(), home.File(""));
    ASSERT_TRUE(t.Expect("kvnsql> "));
    // At the prompt: what was typed is dropped, the session stays.
    t.Type("select 'half");
    t.Type(kCtrlC);
    ASSERT_TRUE(t.Expect("kvnsql> "));
    // While twenty thousand rows arrive one by one (the service's log shows
    // the requests for the next rows): the fetch stops, the statement is
    // released, and the prompt works again.
    t.Type("with recursive c(x) as (select 1 union all select x + 1 from c where x < 20000) "
           "select x from c;\r");
    ASSERT_TRUE(WaitForText(service->File("korvaned.log"), "message 106 "));
    t.Type(kCtrlC);
    ASSERT_TRUE(t.Expect("cancelled after "));
    ASSERT_TRUE(t.Expect("kvnsql> "));
    t.Type("select 42 as answer;\r");
    ASSERT_TRUE(t.Expect(" answer\r\n--------\r\n     42\r\n"));
}

TEST(KvnsqlTerminalPostgres, CtrlCWhileTheServiceRunsWaitsForItsAnswerAndASecondOneEnds) {
    PostgresServer& postgres = SharedPostgres();
    if (!postgres.skipReason.empty()) GTEST_SKIP() << postgres.skipReason;
    auto service = std::make_unique<RunningService>(ServiceArguments(50, {"--odbc", postgres.connection}));
    ASSERT_NE(0, service->Port());
    TempDir home;
    Terminal t(service->Port(), home.File(""));
    ASSERT_TRUE(t.Expect("kvnsql> "));
    t.Type("select pg_sleep(1), 'slept' as done;\r");
    ASSERT_TRUE(WaitForText(service->File("korvaned.log"), "as done"));
    t.Type(kCtrlC);
    ASSERT_TRUE(t.Expect("the service cannot stop a statement; it finishes it"));
    ASSERT_TRUE(t.Expect("cancelled: the statement ran, its rows are not shown"));
    t.Type("select 7 as seven;\r");
    ASSERT_TRUE(t.Expect(" seven\r\n-------\r\n     7\r\n"));

    t.Type("select pg_sleep(3);\r");
    ASSERT_TRUE(WaitForText(service->File("korvaned.log"), "pg_sleep(3)"));
    t.Type(kCtrlC);
    ASSERT_TRUE(t.Expect("it finishes it"));
    t.Type(kCtrlC);
    ASSERT_TRUE(t.Expect("ended by a second Ctrl-C"));
    EXPECT_EQ(128 + SIGINT, t.WaitForExit(10000));
}
