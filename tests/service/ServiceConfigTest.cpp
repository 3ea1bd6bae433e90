// The service's own pieces that need no running service: its command line
// and its UTF-8 conversions.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Options.h"
#include "Text.h"

namespace {

ParseResult Parse(std::vector<std::string> args, ServiceOptions& options, std::string& error) {
    args.insert(args.begin(), "korvaned");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    return ParseOptions(static_cast<int>(argv.size()), argv.data(), options, error);
}

}  // namespace

TEST(ServiceOptions, ReadsValuesInBothSpellingsRefusesBadOnesAndDefaultsTheHeartbeatAddress) {
    ServiceOptions o;
    std::string error;
    ASSERT_EQ(ParseResult::Run, Parse({"-p", "6000", "--block-rows=50", "--hb-mode", "multicast", "-v"}, o, error))
        << error;
    EXPECT_EQ(6000, o.port);
    EXPECT_EQ(50, o.blockRows);
    EXPECT_EQ(2, o.logLevel);
    EXPECT_EQ("239.255.51.51", HeartbeatAddress(o));

    const std::vector<std::vector<std::string>> bad = {
        {"--port", "65536"}, {"--block-rows", "0"}, {"--hb-port", "12x"}, {"--hb-mode", "sideways"},
        {"--retry"},         {"--nonsense"},        {"--hb-address", "01234567890123456789"}};
    for (const auto& args : bad) {
        ServiceOptions other;
        error.clear();
        EXPECT_EQ(ParseResult::Error, Parse(args, other, error)) << args[0];
        EXPECT_FALSE(error.empty());
    }
    ServiceOptions help;
    EXPECT_EQ(ParseResult::Help, Parse({"--port", "1", "-h"}, help, error));
    EXPECT_NE(std::string::npos, OptionsHelp("korvaned").find("--max-clients"));

    // Without an address the heartbeat goes to loopback in unicast, to everybody by default.
    ServiceOptions unicast, broadcast;
    ASSERT_EQ(ParseResult::Run, Parse({"--hb-mode", "unicast"}, unicast, error));
    EXPECT_EQ("127.0.0.1", HeartbeatAddress(unicast));
    ASSERT_EQ(ParseResult::Run, Parse({}, broadcast, error));
    EXPECT_EQ("255.255.255.255", HeartbeatAddress(broadcast));
}

TEST(ServiceText, Utf8RoundTripAndInvalidBytes) {
    const std::wstring text = L"caf\u00e9 \u20ac \U0001F600";
    EXPECT_EQ("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", ToUtf8(text.c_str()));
    EXPECT_EQ(text, FromUtf8(ToUtf8(text.c_str())));
    EXPECT_EQ("", ToUtf8(nullptr));
    // A cut sequence, a stray continuation byte, an overlong form, a surrogate.
    EXPECT_EQ(L"a\uFFFD", FromUtf8("a\xe2\x82"));
    EXPECT_EQ(L"\uFFFDb", FromUtf8("\x80" "b"));
    EXPECT_EQ(L"\uFFFD/", FromUtf8("\xc0\xaf/"));
    EXPECT_EQ(L"\uFFFD", FromUtf8("\xed\xa0\x80"));
    EXPECT_EQ(L"\uFFFDz", FromUtf8("\xf0\x9f" "z"));
}
