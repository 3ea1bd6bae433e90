// kvnsql's parts that need no service: the command line, the UTF-8 codec,
// the \call and \bind syntax, statement boundaries and kinds, and the text of
// results.
#include <gtest/gtest.h>

#include <clocale>
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
    ASSERT_EQ(OptionsResult::Run, Parse({"-A", "--csv", "-t", "-F", ";", "--output=r.txt", "-q", "--no-pager",
                                         "--stop-on-error", "-v"},
                                        o, error))
        << error;
    EXPECT_EQ(std::make_tuple(OutputFormat::Csv, true, ";", "r.txt", true, false, true, true),
              std::tie(o.format, o.tuplesOnly, o.fieldSeparator, o.outputFile, o.quiet, o.pager, o.stopOnError,
                       o.verbose));
    KvnsqlOptions defaults;
    ASSERT_EQ(OptionsResult::Run, Parse({}, defaults, error));
    EXPECT_EQ(std::make_tuple("127.0.0.1", 5151, 0, true),
              std::tie(defaults.host, defaults.port, defaults.loaderPort, defaults.prompt));
    EXPECT_EQ(OptionsResult::Help, Parse({"-p", "1", "--help"}, defaults, error));
    const std::string help = KvnsqlHelp("kvnsql");
    for (const char* word : {"--host", "--port", "--loader-port", "--app", "--verbose", "--log-level",
                             "--log-file", "--command", "--file", "--echo", "--no-prompt", "--stop-on-error",
                             "--no-align", "--csv", "--tuples-only", "--field-separator", "--null", "--output",
                             "--quiet", "--no-pager", "$PAGER", "--help", "~/.kvnsql_history", "Ctrl-C",
                             "Column headers", "ON_ERROR_STOP"}) {
        EXPECT_NE(std::string::npos, help.find(word)) << word;
    }
    // Every command that completes is explained.
    for (const std::string& command : CommandNames()) {
        EXPECT_NE(std::string::npos, help.find("\\" + command)) << command;
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
        {{"--verbosity"}, "unknown option '--verbosity'"},
        {{"-F", ""}, "separator cannot be empty"},
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

TEST(ToolsUtf8, RoundTripsEveryLengthAndReplacesEachIllFormedPartOnce) {
    const std::string utf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";  // a é € 😀 z
    const std::wstring wide = FromUtf8(utf8);
    if (sizeof(wchar_t) == 4) {
        EXPECT_EQ((std::wstring{L'a', 0xE9, 0x20AC, static_cast<wchar_t>(0x1F600), L'z'}), wide);
    } else {
        EXPECT_EQ(6u, wide.size());  // the emoji as a surrogate pair
    }
    EXPECT_EQ(utf8, ToUtf8(wide));
    EXPECT_EQ(utf8, ToUtf8(wide.c_str()));
    EXPECT_EQ("", ToUtf8(static_cast<const wchar_t*>(nullptr)));
    // Text decoded from the wire may hold a pair where wchar_t is 32 bits.
    EXPECT_EQ("\xF0\x9F\x98\x80", ToUtf8(std::wstring{static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00)}));

    const wchar_t r = 0xFFFD;
    const struct {
        const char* bytes;
        std::wstring text;
    } bad[] = {
        {"a\xFF" "b", {L'a', r, L'b'}},             // not a lead byte
        {"\x80" "b", {r, L'b'}},                    // a continuation alone
        {"a\xE2\x82", {L'a', r}},                   // cut at the end: one
        {"\xF0\x9F" "z", {r, L'z'}},                // cut before a character that stays
        {"\xC0\xAF/", {r, r, L'/'}},                 // overlong '/': C0 is never a lead
        {"\xE0\x80\xAF", {r, r, r}},                 // overlong, refused at its second byte
        {"\xED\xA0\x80", {r, r, r}},                 // a surrogate
        {"\xF4\x90\x80\x80", {r, r, r, r}},          // beyond U+10FFFF
    };
    for (const auto& c : bad) EXPECT_EQ(c.text, FromUtf8(c.bytes)) << c.bytes;
    // A wide text with a lone surrogate still gives valid UTF-8.
    EXPECT_EQ("\xEF\xBF\xBD", ToUtf8(std::wstring(1, static_cast<wchar_t>(0xD800))));
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

TEST(KvnsqlBind, ValuesByBlanksOrCommasWithNullsAndTimestamps) {
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

    // Timestamps with and without their time and fraction.
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

TEST(KvnsqlStatements, BlankLinesContinueAndCommandsRunInsideAPendingStatement) {
    StatementSplitter s;
    s.AddLine(L"select 1,");
    EXPECT_TRUE(s.AddLine(L"").empty());
    // A command on a continuation line runs; the statement goes on after it.
    EXPECT_EQ((Strings{L"\\echo mid"}), Texts(s.AddLine(L"  \\echo mid")));
    EXPECT_TRUE(s.Pending());
    std::vector<InputItem> items = s.AddLine(L"2;");
    EXPECT_EQ((Strings{L"select 1,\n\n2"}), Texts(items));
    EXPECT_EQ(1, items[0].line) << "a statement counts from its first line";

    // \r clears, even inside an open quote or comment, and so does Clear.
    s.AddLine(L"select 'open");
    EXPECT_TRUE(s.AddLine(L"\\x").empty()) << "inside a quote, text";
    EXPECT_EQ((Strings{L"\\r"}), Texts(s.AddLine(L"\\r")));
    EXPECT_FALSE(s.Pending());
    s.AddLine(L"/* open");
    EXPECT_EQ((Strings{L"\\q"}), Texts(s.AddLine(L" \\q ")));
    s.Clear();
    // \g ends the statement as ';' would.
    s.AddLine(L"select 3");
    items = s.AddLine(L"\\g");
    EXPECT_EQ((Strings{L"select 3"}), Texts(items));
    EXPECT_EQ(10, items[0].line);

    EXPECT_EQ((Strings{L"create table t (a int)", L"\\exists t", L"select 1", L"\\columns t;"}),
              Texts(SplitText(L"create table t (a int);\n\\exists t\nselect 1; \\columns t;")));
    // Comments alone are no statement: never sent, and a statement's line is
    // that of its first word.
    items = SplitText(L"-- the table\n/* still */\n\\exists t\nselect 1; -- done\n\n-- end\n"
                      L"-- second\n select 2 /* two */;");
    EXPECT_EQ((Strings{L"\\exists t", L"select 1", L"select 2 /* two */"}), Texts(items));
    EXPECT_EQ(8, items[2].line);
    std::wstring name, arguments;
    SplitCommand(L"COLUMNS   fruit ; ", name, arguments);
    EXPECT_EQ((Strings{L"columns", L"fruit"}), (Strings{name, arguments}));
}

// The headers as one text: names, and "t.*" for the columns of table t.
std::wstring Guess(const wchar_t* sql) {
    std::wstring out;
    for (const HeaderItem& h : GuessHeaders(sql)) {
        out += (out.empty() ? L"" : L"|") + (h.starTable.empty() ? h.name : h.starTable + L".*");
    }
    return out;
}

TEST(KvnsqlStatements, HeadersFromTheStatementText) {
    EXPECT_EQ(L"id|name|total|n|Price Label|upper(name)|a + b|q",
              Guess(L"SELECT DISTINCT f.id, \"name\", sum(x) AS total, count(*) n, price \"Price Label\", "
                    L"upper(name), a + b, $$a,b$$ as q FROM fruit f WHERE a = ','"));
    EXPECT_EQ(L"1|s", Guess(L"select 1, 'x' as s;"));
    EXPECT_EQ(L"k|case when a then 1 else 2 end",
              Guess(L"select case when a then 1 else 2 end k, case when a then 1 else 2 end from t"));
    // Stars: the tables of the FROM clause, by name or alias, in order.
    EXPECT_EQ(L"my fruit.*", Guess(L"select * from \"my fruit\" where id > 2"));
    EXPECT_EQ(L"a.*|b.*", Guess(L"select * from a x left outer join b on x.id = b.id, "));
    EXPECT_EQ(L"a.*|b.*", Guess(L"select * from a, b as y order by 1"));
    EXPECT_EQ(L"b.*|id", Guess(L"select y.*, x.id from a x join b y using (id)"));
    EXPECT_EQ(L"main.fruit.*", Guess(L"-- c\n(SELECT main.fruit.* FROM main.fruit);"));
    EXPECT_EQ(L"x", Guess(L"with c(n) as (select 1), d as (select 2) select n as x from c, d"));
    EXPECT_EQ(L"fruit.*", Guess(L"TABLE fruit;"));
    EXPECT_EQ(L"column1|column2", Guess(L"values (1, 'a,b'), (2, 'c')"));
    EXPECT_EQ(L"fruit.*", Guess(L"insert into fruit values (1) returning *"));
    EXPECT_EQ(L"id|shout", Guess(L"update fruit set a = 1 where b = 'returning' returning id, upper(n) shout"));
    EXPECT_EQ(L"fruit.*", Guess(L"delete from fruit returning fruit.*"));
    // Not understood: no names at all.
    for (const wchar_t* sql : {L"select * from (select 1) s", L"select * from generate_series(1, 3)",
                               L"select z.* from t", L"select a,, b from t", L"update t set a = 1",
                               L"pragma table_info(t)", L"select *"}) {
        EXPECT_EQ(L"", Guess(sql)) << sql;
    }
}

TEST(KvnsqlTable, AlignedUnalignedAndCsvOutput) {
    ResultTable t;
    t.headers = {L"id", L"name", L"price"};
    t.rightAligned = {true, false, true};
    t.rows = {{{false, L"1"}, {false, L"p\u00e9ar"}, {false, L"1.5"}},
              {{false, L"10"}, {true, L""}, {false, L"12.25"}},
              {{false, L"3"}, {false, L"a\tb\nc"}},
              {{false, L"4"}, {false, L"\u68a8\U0001F350"}, {false, L""}}};
    OutputStyle style;
    ASSERT_NE(nullptr, std::setlocale(LC_CTYPE, "C.UTF-8"));
    // Cells padded by display width: the CJK character and the emoji take two each.
    EXPECT_EQ(L" id | name    | price\n"
              L"----+---------+-------\n"
              L"  1 | p\u00e9ar    |   1.5\n"
              L" 10 | NULL    | 12.25\n"
              L"  3 | a\\tb\\nc |\n"
              L"  4 | \u68a8\U0001F350    |\n",
              FormatResult(t, style));
    // Unaligned: as they are.
    style.format = OutputFormat::Unaligned;
    t.rows.resize(3);
    EXPECT_EQ(L"id|name|price\n1|p\u00e9ar|1.5\n10|NULL|12.25\n3|a\tb\nc|\n", FormatResult(t, style));
    style.format = OutputFormat::Csv;
    style.nullText = L"";
    t.rows = {{{false, L"1"}, {false, L"a,\"b\""}, {true, L""}}, {{false, L"2"}, {false, L""}, {false, L"x\ny"}}};
    EXPECT_EQ(L"id,name,price\n1,\"a,\"\"b\"\"\",\n2,\"\",\"x\ny\"\n", FormatResult(t, style));
    style.fieldSeparator = L";";
    style.tuplesOnly = true;
    EXPECT_EQ(L"1;\"a,\"\"b\"\"\";\n2;\"\";\"x\ny\"\n", FormatResult(t, style));

    // Lists the service separates with ';' (or ',' and blanks).
    EXPECT_EQ((Strings{L"id", L"name", L"price"}), SplitList(L"id;name; price;"));
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
