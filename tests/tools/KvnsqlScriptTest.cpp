// kvnsql run on scripts against korvaned: statement boundaries and commands
// in files, errors with their file and line, stopping at the first error,
// the output formats on real results, and rows of statements that are no
// select (PostgreSQL: INSERT ... RETURNING, TABLE, procedures).
#include <gtest/gtest.h>

#include <fstream>

#include "KvnsqlRun.h"

using kvnsqltest::Outcome;
using kvnsqltest::RunKvnsql;

namespace {

class KvnsqlScript : public ::testing::Test {
protected:
    void SetUp() override {
        service = std::make_unique<RunningService>(ServiceArguments(3));
        ASSERT_NE(0, service->Port());
        port = service->Port();
        const Outcome made = RunKvnsql(port, {"-q", "-c",
                                          "create table fruit (id integer primary key, name varchar(20), price double);"
                                          "insert into fruit values (1, 'pear', 1.5), (2, 'a,\"b\"', NULL), "
                                          "(3, '\xE6\xA2\xA8', 3)"});
        ASSERT_EQ(0, made.status) << made.err;
    }

    std::string Script(const std::string& text) {
        const std::string path = dir.File("script.sql");
        std::ofstream(path) << text;
        return path;
    }

    TempDir dir;
    std::unique_ptr<RunningService> service;
    unsigned short port = 0;
};

const char* const kScript =
    "select id, name\n"               // 1
    "\n"                              // 2  a blank line does not end it
    "from fruit\n"                    // 3
    "\\echo inside\n"                 // 4  a command on a continuation line
    "where id = 1;\n"                 // 5
    "select 'never\n"                 // 6
    "\\r\n"                           // 7  clears even an open quote
    "update fruit set price = 9\n"    // 8
    "  where missing_column = 1;\n"   // 9  fails: line 8
    "select count(*) as n from fruit;\n";

}  // namespace

TEST_F(KvnsqlScript, FilesEndStatementsAtSemicolonsAndNameTheLineOfTheirErrors) {
    const std::string file = Script(kScript);
    Outcome run = RunKvnsql(port, {"-f", file});
    EXPECT_EQ(1, run.status) << run.err;
    EXPECT_EQ("inside\n"
              " id | name\n"
              "----+------\n"
              "  1 | pear\n"
              "buffer cleared\n"
              " n\n"
              "---\n"
              " 3\n",
              run.out);
    // Footers and errors on standard error; no prompt without a terminal.
    EXPECT_NE(std::string::npos, run.err.find("(1 row)")) << run.err;
    EXPECT_NE(std::string::npos, run.err.find(file + ":8: ERROR -66 (ExecuteSelect): Database ODBC error\n  "))
        << run.err;
    EXPECT_NE(std::string::npos, run.err.find("no such column: missing_column")) << run.err;
    EXPECT_EQ(std::string::npos, run.err.find("kvnsql>")) << run.err;

    // Stopping at the first failure, from the option or from the script.
    run = RunKvnsql(port, {"--stop-on-error", "-f", file});
    EXPECT_EQ(3, run.status);
    EXPECT_EQ(std::string::npos, run.out.find(" n\n")) << "nothing after the failure runs:\n" << run.out;
    run = RunKvnsql(port, {}, std::string("\\set ON_ERROR_STOP on\n") + kScript);
    EXPECT_EQ(3, run.status);
    run = RunKvnsql(port, {"-c", "select nothing from fruit", "-c", "select 1", "--stop-on-error"});
    EXPECT_EQ(3, run.status);
    EXPECT_EQ("", run.out);
}

TEST_F(KvnsqlScript, OutputFormatsOnRealRows) {
    const std::string query = "select id, name, price from fruit order by id";
    Outcome run = RunKvnsql(port, {"--csv", "-c", query});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ("id,name,price\n1,pear,1.5\n2,\"a,\"\"b\"\"\",\n3,\xE6\xA2\xA8,3\n", run.out);
    EXPECT_EQ("", run.err) << "CSV has no footer";

    run = RunKvnsql(port, {"-A", "-t", "-c", query});
    EXPECT_EQ("1|pear|1.5\n2|a,\"b\"|NULL\n3|\xE6\xA2\xA8|3\n", run.out);
    EXPECT_EQ("", run.err) << "tuples only: no footer";
    run = RunKvnsql(port, {"--no-align", "--field-separator", ";", "--null", "-", "-c", query + " limit 2"});
    EXPECT_EQ("id;name;price\n1;pear;1.5\n2;a,\"b\";-\n", run.out);

    // Aligned by display cells: the CJK character takes two.
    run = RunKvnsql(port, {"-c", "select name, id from fruit where id <> 2 order by id"});
    EXPECT_EQ(" name | id\n"
              "------+----\n"
              " pear |  1\n"
              " \xE6\xA2\xA8   |  3\n",
              run.out);

    // Results into a file; -q leaves out the lines that only confirm.
    const std::string output = dir.File("out.txt");
    run = RunKvnsql(port, {"-q", "-t", "-o", output, "-c", "update fruit set price = 2 where id = 1; select 7"});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ("", run.out);
    std::ifstream written(output);
    EXPECT_EQ(" 7\n", std::string(std::istreambuf_iterator<char>(written), {}));
    run = RunKvnsql(port, {"-c", "update fruit set price = 2 where id <= 2", "-c", "\\timing on", "-c", "select 1"});
    EXPECT_EQ("OK, 2 rows affected\ntiming is on\n 1\n---\n 1\n", run.out);
    EXPECT_NE(std::string::npos, run.err.find("Time: ")) << run.err;
}

TEST(KvnsqlErrors, EnglishUnlessVerboseAsksForTheLibrarysSentence) {
    const unsigned short nobody = FreeTcpPort();
    Outcome run = RunKvnsql(nobody, {"-c", "select 1"});
    EXPECT_EQ(2, run.status);
    EXPECT_EQ("kvnsql: no session with the service at 127.0.0.1:" + std::to_string(nobody) +
                  ": Unable to find the database server\n",
              run.err);
    run = RunKvnsql(nobody, {"--verbose", "-c", "select 1"});
    EXPECT_NE(std::string::npos, run.err.find("\n  Impossible de trouver Korvane")) << run.err;
}

TEST(KvnsqlPostgres, StatementsThatReturnRowsShowThemWhateverTheirFirstWord) {
    PostgresServer& postgres = SharedPostgres();
    if (!postgres.skipReason.empty()) GTEST_SKIP() << postgres.skipReason;
    RunningService service(ServiceArguments(2, {"--odbc", postgres.connection}));
    ASSERT_NE(0, service.Port());
    const Outcome run = RunKvnsql(service.Port(), {"-f", "-"},
                              "drop table if exists kq_fruit;\n"
                              "create table kq_fruit (id integer, name varchar(20));\n"
                              "insert into kq_fruit values (1, 'pear') returning *;\n"
                              "insert into kq_fruit values (2, 'kiwi'), (3, 'fig') returning id, upper(name) as shout;\n"
                              "table kq_fruit;\n"
                              "select a.*, b.name from kq_fruit a join kq_fruit b on b.id = a.id where a.id = 3;\n"
                              "select * from kq_fruit where id < 0;\n"
                              "delete from kq_fruit where id > 2;\n"
                              "create or replace procedure kq_tax(in price numeric, inout total numeric, out note text)\n"
                              "as $$ begin total := total + price * 0.2; note := 'taxed'; end $$ language plpgsql;\n"
                              "\\call public.kq_tax(in:double:100, inout:double:1, out:text)\n"
                              "create or replace function kq_twice(n integer) returns integer\n"
                              "  as $$ select n * 2 $$ language sql;\n"
                              "\\call KQ_TWICE(in:long:21, out:long)\n");
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ("OK\n"
              "OK, 0 rows affected\n"
              " id | name\n----+------\n  1 | pear\n"
              " id | shout\n----+-------\n  2 | KIWI\n  3 | FIG\n"
              " id | name\n----+------\n  1 | pear\n  2 | kiwi\n  3 | fig\n"
              " id | name | name\n----+------+------\n  3 | fig  | fig\n"
              " id | name\n----+------\n"
              "OK, 1 row affected\n"
              "OK, 0 rows affected\n"
              " parameter | direction | type   | value\n-----------+-----------+--------+-------\n"
              "         2 | inout     | double | 21\n"
              "         3 | out       | text   | taxed\n"
              "OK, public.kq_tax called\n"
              "OK, 0 rows affected\n"
              " parameter | direction | type | value\n-----------+-----------+------+-------\n"
              "         2 | out       | long | 42\n"
              "OK, KQ_TWICE called\n",
              run.out);
    EXPECT_NE(std::string::npos, run.err.find("(0 rows)")) << run.err;
}
