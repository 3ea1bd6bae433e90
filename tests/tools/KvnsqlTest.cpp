// kvnsql's parts that need no service: the command line, the UTF-8 codec,
// the \call and \bind syntax, statement boundaries and kinds, and the text of
// results.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include <korvane/CParam.h>

#include "Options.h"
#include "Params.h"
#include "Statements.h"
#include "TableOutput.h"
#include "Utf8.h"

namespace {

using Strings = std::vector<std::wstring>;

OptionsResult Parse(std::vector<const char*> args, KvnsqlOptions& options, std::string& error) {
    args.insert(args.begin(), "kvnsql");
    return ParseKvnsqlOptions(static_cast<int>(args.size()), args.data(), options, error);
}

Strings Texts(const std::vector<InputItem>& items) {
    Strings texts;
    for (const InputItem& item : items) texts.push_back((item.command ? L"\\" : L"") + item.text);
    return texts;
}

// "type:value" of a parsed value ("null" for a NULL).
std::wstring Describe(const TypedValue& v) {
    return v.null ? L"null" : std::wstring(TypeName(v.type)) + L":" + ValueText(v);
}

TEST(KvnsqlOptions, EveryOptionInShortLongAndInlineSpelling) {
    KvnsqlOptions o;
    std::string error;
    ASSERT_EQ(OptionsResult::Run,
              Parse({"-H", "db.local", "--port=6000", "-L", "6001", "-a", "reports", "--log-level", "3",
                     "--log-file", "/tmp/k.log", "-c", "select 1", "--command", "\\exists t", "-e",
                     "--no-prompt", "--null", "<null>"},
                    o, error))
        << error;
    EXPECT_EQ(std::make_tuple("db.local", 6000, 6001, "reports", 3, "/tmp/k.log", true, false, "<null>"),
              std::tie(o.host, o.port, o.loaderPort, o.application, o.logLevel, o.logFile, o.echo, o.prompt,
                       o.nullText));
    EXPECT_EQ((std::vector<std::string>{"select 1", "\\exists t"}), o.commands);
    KvnsqlOptions defaults;
    ASSERT_EQ(OptionsResult::Run, Parse({}, defaults, error));
    EXPECT_EQ(std::make_tuple("127.0.0.1", 5151, 0, true),
              std::tie(defaults.host, defaults.port, defaults.loaderPort, defaults.prompt));
    EXPECT_EQ(OptionsResult::Help, Parse({"-p", "1", "--help"}, defaults, error));
    const std::string help = KvnsqlHelp("kvnsql");
    for (const char* word : {"--host", "--port", "--loader-port", "--app", "--log-level", "--log-file",
                             "--command", "--file", "--echo", "--no-prompt", "--null", "--help", "\\exists",
                             "\\columns", "\\call", "\\bind", "\\unbind", "\\requete", "\\echo", "\\help", "\\quit"}) {
        EXPECT_NE(std::string::npos, help.find(word)) << word;
    }
}

TEST(KvnsqlOptions, RefusesWhatTheLibraryWouldCutOrCannotUse) {
    struct Case {
        std::vector<const char*> args;
        const char* why;
    };
    const Case cases[] = {
        {{"--port", "0"}, "bad value for --port"},
        {{"-p", "65536"}, "bad value for -p"},
        {{"-p", "12x"}, "bad value for -p"},
        {{"-p"}, "needs a value"},
        {{"-H", "a-host-name-longer-than-19"}, "1 to 19 characters"},
        {{"-H", ""}, "1 to 19 characters"},
        {{"--log-level", "2"}, "needs --log-file"},
        {{"-c", "select 1", "-f", "x.sql"}, "cannot be used together"},
        {{"--echo=yes"}, "takes no value"},
        {{"--verbose"}, "unknown option '--verbose'"},
    };
    for (const Case& c : cases) {
        KvnsqlOptions o;
        std::string error;
        EXPECT_EQ(OptionsResult::Error, Parse(c.args, o, error)) << c.why;
        EXPECT_NE(std::string::npos, error.find(c.why)) << error;
    }
    // Nineteen characters fit, counted as characters, not bytes.
    KvnsqlOptions o;
    std::string error;
    std::string nineteen = "h";
    for (int i = 0; i < 9; ++i) nineteen += "\xC3\xA9h";  // "é" is two bytes
    EXPECT_EQ(OptionsResult::Run, Parse({"-H", nineteen.c_str()}, o, error)) << error;
}

TEST(KvnsqlUtf8, RoundTripsEveryLengthAndReplacesMalformedBytes) {
    const std::string utf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";  // a é € 😀 z
    const std::wstring wide = Utf8ToWide(utf8);
    if (sizeof(wchar_t) == 4) {
        EXPECT_EQ((std::wstring{L'a', 0xE9, 0x20AC, static_cast<wchar_t>(0x1F600), L'z'}), wide);
    } else {
        EXPECT_EQ(6u, wide.size());  // the emoji as a surrogate pair
    }
    EXPECT_EQ(utf8, WideToUtf8(wide));
    EXPECT_EQ("", WideToUtf8(static_cast<const wchar_t*>(nullptr)));

    const wchar_t r = 0xFFFD;
    EXPECT_EQ((std::wstring{L'a', r, L'b'}), Utf8ToWide("a\xFF" "b"));        // not a lead byte
    EXPECT_EQ((std::wstring{L'a', r, r}), Utf8ToWide("a\xE2\x82"));           // cut at the end
    EXPECT_EQ((std::wstring{r, r}), Utf8ToWide("\xC0\xAF"));                  // overlong '/'
    EXPECT_EQ((std::wstring{r, r, r}), Utf8ToWide("\xED\xA0\x80"));           // a surrogate
    EXPECT_EQ((std::wstring{r, r, r, r}), Utf8ToWide("\xF4\x90\x80\x80"));    // beyond U+10FFFF
    // A wide text with a lone surrogate still gives valid UTF-8.
    EXPECT_EQ("\xEF\xBF\xBD", WideToUtf8(std::wstring(1, static_cast<wchar_t>(0xD800))));
}

TEST(KvnsqlCall, EveryDirectionWithTypedAndInferredValues) {
    ProcCall call;
    std::wstring error;
    ASSERT_TRUE(ParseCall(L"add_tax( in:double:100.5, inout:long:-2, out:text, in:'it''s, (x)',"
                          L" in:7, in:5000000000, in:timestamp:'2024-02-29 13:45:07', out:bigint )",
                          call, error))
        << error;
    EXPECT_EQ(L"add_tax", call.name);
    Strings arguments;
    for (const ProcArgument& a : call.arguments) {
        const wchar_t* direction = a.direction == KVN_PARAM_IN ? L"in " : a.direction == KVN_PARAM_OUT ? L"out " : L"inout ";
        arguments.push_back(direction + (a.direction == KVN_PARAM_OUT ? TypeName(a.value.type) : Describe(a.value)));
    }
    EXPECT_EQ((Strings{L"in double:100.5", L"inout long:-2", L"out text", L"in text:it's, (x)", L"in long:7",
                       L"in bigint:5000000000", L"in timestamp:2024-02-29 13:45:07", L"out bigint"}),
              arguments);
    for (const wchar_t* bare : {L"refresh", L"refresh ( )"}) {
        ASSERT_TRUE(ParseCall(bare, call, error)) << bare;
        EXPECT_EQ(L"refresh", call.name);
        EXPECT_TRUE(call.arguments.empty());
    }
}

TEST(KvnsqlCall, SyntaxErrorsSayWhichArgumentAndWhy) {
    struct Case {
        const wchar_t* text;
        const wchar_t* why;
    };
    const Case cases[] = {
        {L"", L"missing procedure name"},
        {L"p x", L"expected '('"},
        {L"p(in 1)", L"argument 1: expected ':'"},
        {L"p(in:1, both:2)", L"argument 2: expected in:, inout: or out:"},
        {L"p(in:number:1)", L"unknown type 'number'"},
        {L"p(in:long)", L"missing value after long"},
        {L"p(in:long:2147483648)", L"is not a long"},
        {L"p(in:timestamp:'2024-13-01')", L"is not a timestamp"},
        {L"p(out:long:5)", L"an out argument takes a type, not a value"},
        {L"p(out:)", L"missing type"},
        {L"p(in:'open)", L"missing closing quote"},
        {L"p(in:1", L"expected ',' or ')' after argument 1"},
        {L"p(in:1) extra", L"unexpected text after ')'"},
    };
    for (const Case& c : cases) {
        ProcCall call;
        std::wstring error;
        EXPECT_FALSE(ParseCall(c.text, call, error)) << c.text;
        EXPECT_NE(std::wstring::npos, error.find(c.why)) << c.text << L" -> " << error;
    }
}

TEST(KvnsqlBind, ValuesByBlanksOrCommasWithNulls) {
    std::vector<TypedValue> values;
    std::wstring error;
    ASSERT_TRUE(ParseBind(L"long:1 'pear', NULL  double:2.25,char:abc 3.5 bigint:-9 text:'' word", values, error))
        << error;
    Strings described;
    for (const TypedValue& v : values) described.push_back(Describe(v));
    EXPECT_EQ((Strings{L"long:1", L"text:pear", L"null", L"double:2.25", L"char:abc", L"double:3.5", L"bigint:-9",
                       L"text:", L"text:word"}),
              described);
    EXPECT_FALSE(ParseBind(L"long:1 long:x", values, error));
    EXPECT_NE(std::wstring::npos, error.find(L"value 2")) << error;
    EXPECT_TRUE(values.empty());
    EXPECT_TRUE(ParseBind(L"  ", values, error));
    EXPECT_TRUE(values.empty());
}

TEST(KvnsqlBind, TimestampsWithAndWithoutTimeAndFraction) {
    KvnTimestamp t{};
    ASSERT_TRUE(ParseTimestamp(L"2024-02-29T23:59:58.25", t));
    EXPECT_EQ(std::make_tuple(2024, 2, 29, 23, 59, 58, 250000000),
              std::make_tuple(+t.year, +t.month, +t.day, +t.hour, +t.minute, +t.second, +t.fraction));
    ASSERT_TRUE(ParseTimestamp(L"1999-12-31", t));
    EXPECT_EQ(0u, +t.hour);
    EXPECT_EQ(0u, +t.fraction);
    ASSERT_TRUE(ParseTimestamp(L"1999-12-31 08:30", t));
    EXPECT_EQ(30u, +t.minute);
    for (const wchar_t* bad : {L"1999-12-3", L"1999-00-10", L"1999-01-32", L"1999-01-01 24:00",
                               L"1999-01-01 10:00:60", L"1999-01-01 10:00:00.", L"1999-01-01x",
                               L"1999-01-01 10:00:00.1234567890"}) {
        EXPECT_FALSE(ParseTimestamp(bad, t)) << bad;
    }
}

TEST(KvnsqlStatements, SemicolonsOutsideQuotesCommentsAndDollarBodiesEndStatements) {
    StatementSplitter s;
    EXPECT_TRUE(s.AddLine(L"insert into t values ('a;b', \"c;d\", 'it''s;') -- x; y").empty());
    EXPECT_TRUE(s.Pending());
    EXPECT_TRUE(s.AddLine(L"/* a; */ ").empty());
    EXPECT_EQ((Strings{L"insert into t values ('a;b', \"c;d\", 'it''s;') -- x; y\n/* a; */"}),
              Texts(s.AddLine(L";")));
    EXPECT_FALSE(s.Pending());
    // Several on one line, the last one left pending until the end of input.
    EXPECT_EQ((Strings{L"select 1", L"select 2"}), Texts(s.AddLine(L"select 1; ;select 2; select")));
    EXPECT_TRUE(s.AddLine(L"3").empty());
    EXPECT_EQ((Strings{L"select\n3"}), Texts(s.Finish()));
    EXPECT_TRUE(s.Finish().empty());

    const std::wstring body =
        L"create function f(inout q int) as $body$ begin q := q * 2; end $body$ language plpgsql";
    EXPECT_EQ((Strings{body, L"select $1, a$b$ from t", L"select $$;$$"}),
              Texts(SplitText(body + L";\nselect $1, a$b$ from t; select $$;$$;")));
    EXPECT_TRUE(s.AddLine(L"do $$ begin").empty());
    EXPECT_TRUE(s.AddLine(L"").empty());
    EXPECT_TRUE(s.AddLine(L"  perform 1;").empty());
    EXPECT_EQ((Strings{L"do $$ begin\n\n  perform 1;\nend $$"}), Texts(s.AddLine(L"end $$;")));
}

TEST(KvnsqlStatements, BlankLinesAndBackslashCommandsCountOnlyOutsideQuotesAndComments) {
    StatementSplitter s;
    s.AddLine(L"select 'two");
    EXPECT_TRUE(s.AddLine(L"").empty());
    EXPECT_TRUE(s.AddLine(L"lines'").empty());
    EXPECT_EQ((Strings{L"select 'two\n\nlines'"}), Texts(s.AddLine(L"  ")));
    s.AddLine(L"delete /* a");
    EXPECT_TRUE(s.AddLine(L"").empty());
    EXPECT_EQ((Strings{L"delete /* a\n\n*/ from t"}), Texts(s.AddLine(L"*/ from t;")));

    EXPECT_EQ((Strings{L"\\bind long:1"}), Texts(s.AddLine(L"  \\bind long:1  ")));
    s.AddLine(L"select '");
    EXPECT_TRUE(s.AddLine(L"\\x").empty());  // inside a quote: text
    EXPECT_EQ((Strings{L"select '\n\\x\n'"}), Texts(s.AddLine(L"';")));
    EXPECT_EQ((Strings{L"create table t (a int)", L"\\exists t", L"select 1", L"\\columns t;"}),
              Texts(SplitText(L"create table t (a int);\n\\exists t\nselect 1; \\columns t;")));
    // Comments alone are no statement: never sent, and no obstacle to a command.
    EXPECT_EQ((Strings{L"\\exists t", L"select 1", L"select 2 /* two */"}),
              Texts(SplitText(L"-- the table\n/* still */\n\\exists t\nselect 1; -- done\n\n-- end\n"
                              L"-- second\n select 2 /* two */;")));
    std::wstring name, arguments;
    SplitCommand(L"COLUMNS   fruit ; ", name, arguments);
    EXPECT_EQ((Strings{L"columns", L"fruit"}), (Strings{name, arguments}));
    SplitCommand(L"quit", name, arguments);
    EXPECT_EQ((Strings{L"quit", L""}), (Strings{name, arguments}));
}

TEST(KvnsqlStatements, StatementsThatReturnRowsAndTheirColumnNames) {
    for (const wchar_t* sql : {L"select 1", L"  SELECT * from t", L"-- note\n/* c */ (select 1)",
                               L"with x as (select 1) select * from x", L"values (1)",
                               L"pragma table_info(t)", L"explain select 1", L"show tables"}) {
        EXPECT_TRUE(ReturnsRows(sql)) << sql;
    }
    for (const wchar_t* sql : {L"insert into t select * from u", L"update t set a = 1", L"selected", L"",
                               L"-- select"}) {
        EXPECT_FALSE(ReturnsRows(sql)) << sql;
    }

    std::wstring table;
    EXPECT_EQ((Strings{L"id", L"name", L"total", L"n", L"Price Label", L"upper(name)", L"a + b"}),
              SelectColumnNames(L"SELECT DISTINCT f.id, \"name\", sum(x) AS total, count(*) n, "
                                L"price \"Price Label\", upper(name), a + b FROM fruit f WHERE a = ','",
                                table));
    EXPECT_EQ(L"", table);
    EXPECT_EQ((Strings{L"1", L"s"}), SelectColumnNames(L"select 1, 'x' as s;", table));
    EXPECT_EQ((Strings{L"k", L"case when a then 1 else 2 end"}),
              SelectColumnNames(L"select case when a then 1 else 2 end k, case when a then 1 else 2 end "
                                L"from t", table));
    EXPECT_TRUE(SelectColumnNames(L"select * from \"my fruit\" where id > 2", table).empty());
    EXPECT_EQ(L"my fruit", table);
    EXPECT_TRUE(SelectColumnNames(L"SELECT * FROM main.fruit;", table).empty());
    EXPECT_EQ(L"main.fruit", table);
    // Joins, several tables and t.* are beyond this reading: no names.
    for (const wchar_t* sql : {L"select * from a join b on a.id = b.id", L"select * from a, b",
                               L"select t.* from t", L"select id, * from t",
                               L"with x as (select 1) select * from x", L"select a,, b from t"}) {
        EXPECT_TRUE(SelectColumnNames(sql, table).empty()) << sql;
        EXPECT_EQ(L"", table) << sql;
    }
}

TEST(KvnsqlTable, AlignedColumnsWithNullsNumbersRightAndEscapedControls) {
    ResultTable t;
    t.headers = {L"id", L"name", L"price"};
    t.rightAligned = {true, false, true};
    t.rows = {{{false, L"1"}, {false, L"p\u00e9ar"}, {false, L"1.5"}},
              {{false, L"10"}, {true, L""}, {false, L"12.25"}},
              {{false, L"3"}, {false, L"a\tb\nc"}}};
    EXPECT_EQ(L" id | name    | price\n"
              L"----+---------+-------\n"
              L"  1 | p\u00e9ar    |   1.5\n"
              L" 10 | NULL    | 12.25\n"
              L"  3 | a\\tb\\nc |\n",
              FormatTable(t, L"NULL"));
    EXPECT_EQ(L"(1 row, 2.5 ms)", RowCountLine(1, 2.46));
    EXPECT_EQ(L"(0 rows, 0.0 ms)", RowCountLine(0, 0));
    // Lists the service separates with ';' (or ',' and blanks).
    EXPECT_EQ((Strings{L"id", L"name", L"price"}), SplitList(L"id;name; price;"));
    EXPECT_EQ((Strings{L"INTEGER", L"VARCHAR(20)"}), SplitList(L"INTEGER,VARCHAR(20)"));
    EXPECT_EQ((Strings{L"a b", L"c"}), SplitList(L"a b\tc"));
    EXPECT_TRUE(SplitList(L"").empty());
}

TEST(KvnsqlTable, CellTextOfEveryValueType) {
    auto cell = [](int type, auto set) {
        CParam v;
        v.cType = static_cast<signed char>(type);
        set(v);
        return CellText(v);
    };
    EXPECT_EQ(L"-42", cell(SQL_C_LONG, [](CParam& v) { v.valNum.lVal = -42; }));
    EXPECT_EQ(L"9007199254740993", cell(SQL_C_SBIGINT, [](CParam& v) { v.valNum.llVal = 9007199254740993LL; }));
    EXPECT_EQ(L"0.1", cell(SQL_C_DOUBLE, [](CParam& v) { v.valNum.dVal = 0.1; }));
    EXPECT_EQ(L"2024-02-29 07:05:09",
              cell(SQL_C_TIMESTAMP, [](CParam& v) { v.dateValeur = KvnTimestamp{2024, 2, 29, 7, 5, 9, 0}; }));
    EXPECT_EQ(L"2024-02-29 07:05:09.12", cell(SQL_C_TIMESTAMP, [](CParam& v) {
                  v.dateValeur = KvnTimestamp{2024, 2, 29, 7, 5, 9, 120000000};
              }));
    EXPECT_EQ(L"", cell(SQL_C_WCHAR, [](CParam&) {}));  // no text at all
    for (int type : {SQL_C_WCHAR, SQL_C_CHAR}) {
        EXPECT_EQ(L"hi", cell(type, [](CParam& v) { v.pszValeur = new wchar_t[3]{L'h', L'i', 0}; }));
    }
    EXPECT_TRUE(IsNumericType(SQL_C_DOUBLE));
    EXPECT_FALSE(IsNumericType(SQL_C_TIMESTAMP));
}

}  // namespace
