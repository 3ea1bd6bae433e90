// The service's own pieces that need no running service: its configuration
// from file, environment and command line, its access list, how it makes a
// data source read-only, its UTF-8 conversions, and the rows of a select
// encoded as they travel.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "AccessList.h"
#include "Options.h"
#include "ReadOnly.h"
#include "RunningService.h"
#include "Utf8.h"
#include "Values.h"
#include "platform/Sockets.h"

namespace {

ParseResult Parse(std::vector<std::string> args, ServiceOptions& options, std::string& error) {
    args.insert(args.begin(), "korvaned");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    return ParseOptions(static_cast<int>(argv.size()), argv.data(), options, error);
}

}  // namespace

TEST(ServiceOptions, ReadsValuesInBothSpellingsRefusesBadOnesAndDefaultsToLoopback) {
    ServiceOptions o;
    std::string error;
    ASSERT_EQ(ParseResult::Run, Parse({"-p", "6000", "--block-rows=50", "--hb-mode", "multicast", "-v",
                                       "--read-only"}, o, error))
        << error;
    EXPECT_EQ(6000, o.port);
    EXPECT_EQ(50, o.blockRows);
    EXPECT_EQ(2, o.logLevel);
    EXPECT_TRUE(o.readOnly);
    EXPECT_EQ("239.255.51.51", HeartbeatAddress(o));

    const std::vector<std::vector<std::string>> bad = {
        {"--port", "65536"}, {"--block-rows", "0"}, {"--hb-port", "12x"}, {"--hb-mode", "sideways"},
        {"--retry"},         {"--nonsense"},        {"--hb-address", "01234567890123456789"},
        {"--allow", "10.0.0.0/33"}, {"--read-only=maybe"}, {"stray"}};
    for (const auto& args : bad) {
        ServiceOptions other;
        error.clear();
        EXPECT_EQ(ParseResult::Error, Parse(args, other, error)) << args[0];
        EXPECT_FALSE(error.empty());
    }
    ServiceOptions help;
    EXPECT_EQ(ParseResult::Help, Parse({"--port", "1", "-h"}, help, error));
    EXPECT_EQ(ParseResult::Version, Parse({"--version"}, help, error));
    EXPECT_NE(std::string::npos, OptionsHelp("korvaned").find("--max-clients"));

    // Loopback unless told: the listening address, the networks allowed in,
    // and a heartbeat that no other machine hears but every local one does.
    ServiceOptions defaults, wide, unicast;
    ASSERT_EQ(ParseResult::Run, Parse({}, defaults, error));
    EXPECT_EQ("127.0.0.1", defaults.listenAddress);
    ASSERT_EQ(1u, defaults.allowed.size());
    EXPECT_EQ("127.0.0.0/8", NetworkText(defaults.allowed[0]));
    EXPECT_EQ("127.255.255.255", HeartbeatAddress(defaults));
    ASSERT_EQ(ParseResult::Run, Parse({"--listen", "0.0.0.0"}, wide, error));
    EXPECT_EQ("255.255.255.255", HeartbeatAddress(wide));
    EXPECT_EQ("127.0.0.0/8", NetworkText(wide.allowed.at(0))) << "listening wide does not let everybody in";
    ASSERT_EQ(ParseResult::Run, Parse({"--hb-mode", "unicast"}, unicast, error));
    EXPECT_EQ("127.0.0.1", HeartbeatAddress(unicast));
}

TEST(ServiceOptions, TheCommandLineWinsOverTheEnvironmentWhichWinsOverTheFile) {
    TempDir dir;
    const std::string file = dir.File("korvaned.conf");
    std::ofstream(file) << "# korvaned\n[korvaned]\nport = 7000\nlisten = 0.0.0.0\nallow = 10.0.0.0/8\n"
                           "allow = 192.168.1.0/24\nread-only = yes\nhb-period = 900\nlog-file = /tmp/k.log\n";
    ServiceOptions o;
    std::string error;
    setenv("KORVANED_HB_PERIOD", "800", 1);
    setenv("KORVANED_PORT", "7100", 1);
    const ParseResult r = Parse({"--config", file, "--port", "7200"}, o, error);
    unsetenv("KORVANED_HB_PERIOD");
    unsetenv("KORVANED_PORT");
    ASSERT_EQ(ParseResult::Run, r) << error;
    EXPECT_EQ(7200, o.port);
    EXPECT_EQ(800, o.hbPeriodMs);
    EXPECT_EQ("0.0.0.0", o.listenAddress);
    EXPECT_TRUE(o.readOnly);
    EXPECT_EQ("/tmp/k.log", o.logFile);
    ASSERT_EQ(2u, o.allowed.size()) << "one file's networks add up";
    EXPECT_EQ("192.168.1.0/24", NetworkText(o.allowed[1]));

    // A later source's networks replace the earlier list rather than add to it.
    setenv("KORVANED_ALLOW", "172.16.0.0/12, 127.0.0.1", 1);
    ServiceOptions fromEnvironment, fromCommandLine;
    ASSERT_EQ(ParseResult::Run, Parse({"--config", file}, fromEnvironment, error)) << error;
    ASSERT_EQ(ParseResult::Run, Parse({"--config", file, "--allow", "0.0.0.0/0"}, fromCommandLine, error));
    unsetenv("KORVANED_ALLOW");
    ASSERT_EQ(2u, fromEnvironment.allowed.size());
    EXPECT_EQ("127.0.0.1/32", NetworkText(fromEnvironment.allowed[1]));
    ASSERT_EQ(1u, fromCommandLine.allowed.size());
    EXPECT_EQ("0.0.0.0/0", NetworkText(fromCommandLine.allowed[0]));

    // Errors name the line, the variable or the file.
    std::ofstream(dir.File("bad.conf")) << "port = 7000\n\nhb-period = soon\nport = x\n";
    std::ofstream(dir.File("unknown.conf")) << "colour = blue\n";
    std::ofstream(dir.File("garbage.conf")) << "just words\n";
    for (const auto& c : std::vector<std::pair<std::string, std::string>>{
             {"bad.conf", "bad.conf:3: bad value for hb-period"}, {"unknown.conf", "unknown.conf:1: unknown option"},
             {"garbage.conf", "garbage.conf:1: not a"}, {"missing.conf", "cannot read"}}) {
        ServiceOptions other;
        error.clear();
        EXPECT_EQ(ParseResult::Error, Parse({"--config", dir.File(c.first)}, other, error));
        EXPECT_NE(std::string::npos, error.find(c.second)) << error;
    }
    setenv("KORVANED_MAX_CLIENTS", "lots", 1);
    ServiceOptions other;
    EXPECT_EQ(ParseResult::Error, Parse({}, other, error));
    unsetenv("KORVANED_MAX_CLIENTS");
    EXPECT_NE(std::string::npos, error.find("KORVANED_MAX_CLIENTS")) << error;
}

TEST(ServiceAccess, NetworksParseStrictlyAndMatchByTheirPrefix) {
    for (const char* bad : {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.4/", "1.2.3.4/33", " 1.2.3.4",
                            "1.2.3.4 ", "1.2.3.-4", "1.2.3.4/8x", "a.b.c.d", "1..2.3"}) {
        Network n;
        EXPECT_FALSE(ParseNetwork(bad, &n)) << "'" << bad << "'";
    }
    Network lan, one, any;
    ASSERT_TRUE(ParseNetwork("192.168.77.9/16", &lan));
    ASSERT_TRUE(ParseNetwork("10.1.2.3", &one));
    ASSERT_TRUE(ParseNetwork("0.0.0.0/0", &any));
    EXPECT_EQ("192.168.0.0/16", NetworkText(lan)) << "host bits are cleared";
    // Addresses as the socket layer gives them: network byte order.
    auto address = [](const char* text) { return static_cast<std::uint32_t>(KvnInetAddr(text)); };
    const std::vector<Network> allowed = {lan, one};
    EXPECT_TRUE(IsAllowed(allowed, address("192.168.255.1")));
    EXPECT_FALSE(IsAllowed(allowed, address("192.169.0.1")));
    EXPECT_TRUE(IsAllowed(allowed, address("10.1.2.3")));
    EXPECT_FALSE(IsAllowed(allowed, address("10.1.2.4")));
    EXPECT_TRUE(IsAllowed({any}, address("203.0.113.5")));
    EXPECT_FALSE(IsAllowed({}, address("127.0.0.1")));
    EXPECT_EQ("192.168.255.1", AddressText(address("192.168.255.1")));
}

TEST(ServiceReadOnly, EachKindOfDataSourceIsMadeReadOnlyByTheDatabaseOrRefused) {
    EXPECT_EQ("file:/data/a%20b%3F%23%25.db?mode=ro", ReadOnlySqliteFile("/data/a b?#%.db"));
    std::string how;
    const std::string pg = ReadOnlyOdbcConnection("DRIVER={PostgreSQL Unicode};Servername=db", &how);
    EXPECT_EQ("DRIVER={PostgreSQL Unicode};Servername=db;"
              "ConnSettings={SET SESSION CHARACTERISTICS AS TRANSACTION READ ONLY};", pg);
    EXPECT_FALSE(ReadOnlyOdbcConnection("DRIVER=/usr/lib/odbc/psqlodbcw.so;", &how).empty());
    EXPECT_EQ("", ReadOnlyOdbcConnection("DSN=sales", &how)) << "a data source the service cannot judge";
    EXPECT_NE(std::string::npos, how.find("may only read"));
}

// The rows of a select are encoded by the service itself; the bytes must be
// those that the message encoder gives the same values, whatever they hold.
TEST(ServiceRows, CellsAreEncodedAsTheMessageEncoderEncodesTheSameValues) {
    std::vector<DbValue> cells;
    auto add = [&](DbValue::Kind kind, bool null) -> DbValue& {
        cells.emplace_back();
        cells.back().kind = kind;
        cells.back().null = null;
        return cells.back();
    };
    for (DbValue::Kind kind : {DbValue::Kind::Integer, DbValue::Kind::BigInt, DbValue::Kind::Double,
                               DbValue::Kind::Timestamp, DbValue::Kind::Text})
        add(kind, true);
    add(DbValue::Kind::Integer, false).integer = -2147483647 - 1;
    add(DbValue::Kind::BigInt, false).integer = -5000000000LL;
    add(DbValue::Kind::Double, false).real = -2.5e-300;
    add(DbValue::Kind::Timestamp, false).timestamp = {2024, 2, 29, 23, 59, 58, 123};
    add(DbValue::Kind::Timestamp, false).timestamp = {12345, 123, 7, 100, 0, 0, 0};  // fields past their digits
    add(DbValue::Kind::Timestamp, false).timestamp = {-1, 0, 0, 0, 0, 0, 0};
    for (const std::string& text : {std::string(), std::string("plain"), std::string("caf\xc3\xa9 \xf0\x9f\x98\x80"),
                                    std::string("cut\0after", 9), std::string("bad \xe2\x82"),
                                    std::string(40000, 'a'), std::string(20000, 'a') + "\xc3\xa9" + std::string(20000, 'b')})
        add(DbValue::Kind::Text, false).text = text;

    WireRows rows;
    CMsgSocket expected;
    expected.SetEntete(7, KVN_GETLINE, 1);
    for (const DbValue& v : cells) {
        rows.Value(v);
        AddDbValue(expected, v);
    }
    rows.EndRow();
    ASSERT_EQ(1, expected.CreateMessage(-1));
    int length = 0;
    const BYTE* wire = expected.GetMessage(&length);
    ASSERT_EQ(static_cast<std::size_t>(length) - KVN_TAILLE_ENTETE, rows.BytesOf(1));
    for (std::size_t at = 0; at < rows.BytesOf(1); ++at) {
        ASSERT_EQ(wire[KVN_TAILLE_ENTETE + at], rows.Data()[at]) << "first difference at byte " << at;
    }
}
