// The message trace: the lines a message dump writes at each log level, as
// they reach the request log, and the names of the function codes.
#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include <korvane/CMsgSocket.h>

#include "UnitUtil.h"
#include "diag/Log.h"

namespace {

using Lines = std::vector<std::string>;

class TracedMsg : public CMsgSocket {
public:
    using CMsgSocket::AfficheMessage;
};

// The request log of one test, read back line by line.
class MessageTrace : public ::testing::Test {
protected:
    void StartLog(int level) { InitLog(level, path_.wstring().c_str(), 0); }
    void TearDown() override { KvnResetLogForTests(); }
    std::string Raw() { return kvnunit::ReadFile(path_); }

    // The logged lines, without the request log's leading blank and line ends.
    Lines Logged() {
        Lines lines;
        std::stringstream s(Raw());
        for (std::string line; std::getline(s, line, '\n');) {
            std::string text;
            for (char c : line)
                if (c != '\r') text += c;
            if (text.empty()) continue;
            lines.push_back(text[0] == ' ' ? text.substr(1) : text);
        }
        return lines;
    }

    kvnunit::TempDir dir_;
    std::filesystem::path path_ = dir_.path / "trace.log";
};

Lines Join(std::vector<Lines> parts) {
    Lines all;
    for (auto& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

const std::string kRule = "----------------------------------------";

}  // namespace

TEST(FunctionNames, WithAndWithoutPrefix) {
    wchar_t nom[29];
    EXPECT_STREQ(L"KVN_EXECUTE", GetNomFonction(101, nom, 1));
    EXPECT_STREQ(L"EXECUTE", GetNomFonction(101, nom, 0));
    EXPECT_STREQ(L"KVN_ERROR_MAX_CLIENT_ATTEINT", GetNomFonction(-54, nom, 1));
    EXPECT_STREQ(L"KVN_INIT_OK", GetNomFonction(0, nom, 1));
    EXPECT_STREQ(L"REQUETE_METABASE", GetNomFonction(120, nom, 0));
    EXPECT_STREQ(L"INCONNUE", GetNomFonction(1, nom, 1));  // the acknowledgement has no name
    EXPECT_STREQ(L"INCONNUE", GetNomFonction(121, nom, 0));
}

TEST_F(MessageTrace, NothingBelowLevelSixTheFirstFourValuesAtSixEveryParameterAtSeven) {
    StartLog(5);
    // Five parameters, encoded so that the header is complete.
    TracedMsg m;
    m.SetEntete(7, KVN_EXECUTE, 3);
    std::int32_t twelve = 12, five = 5;
    double d = 2.5;
    m.AddParametre(SQL_C_WCHAR, 8, L"SELECT 1");
    m.AddParametre(SQL_C_LONG, 0, &twelve);
    m.AddParametre(SQL_C_LONG, 0, nullptr);
    m.AddParametre(SQL_C_DOUBLE, 0, &d);
    m.AddParametre(SQL_C_LONG, 0, &five);
    m.CreateMessage(-1);
    m.AfficheMessage(L"envoi");
    EXPECT_TRUE(Logged().empty());

    g_logLevel = 6;
    m.AfficheMessage(L"envoi");
    g_logLevel = 7;
    m.AfficheMessage(nullptr);
    const Lines header = {"   Id Application = 7",    "   Id Connexion = 3",
                          "   Fonction = 101 (KVN_EXECUTE)", "   Nb param = 5",
                          "   Taille data = 47 bytes", "   unicode = 1"};
    EXPECT_EQ(Join({{kRule + " envoi"}, header,
                    {"      Param 0: valeur = SELECT 1", "      Param 1: valeur = 12",
                     "      Param 2: valeur = NULL", "      Param 3: valeur = 2.500000", kRule},
                    header,
                    {"      Param 0: type = 248 (SQL_C_CHAR)", "      Param 0: taille = 8",
                     "      Param 0: valeur = SELECT 1",
                     "      Param 1: type = 4 (SQL_C_LONG)", "      Param 1: taille = 4",
                     "      Param 1: valeur = 12",
                     // the encoder set the NULL value's size to -1
                     "      Param 2: type = 4 (SQL_C_LONG)", "      Param 2: taille = -1",
                     "      Param 2: valeur = NULL",
                     "      Param 3: type = 8 (SQL_C_DOUBLE)", "      Param 3: taille = 8",
                     "      Param 3: valeur = 2.500000",
                     "      Param 4: type = 4 (SQL_C_LONG)", "      Param 4: taille = 4",
                     "      Param 4: valeur = 5"}}),
              Logged());
}

TEST_F(MessageTrace, FortyParametersShowThirtyOneThenASqueezeLine) {
    StartLog(7);
    TracedMsg forty;
    forty.SetEntete(7, KVN_GETLINE, 3);
    for (std::int32_t i = 0; i < 40; ++i) forty.AddParametre(SQL_C_LONG, 0, &i);
    forty.AfficheMessage(nullptr);
    const Lines lines = Logged();
    ASSERT_EQ(6u + 31 * 3 + 1, lines.size());
    EXPECT_EQ("   Taille data = 0 bytes", lines[4]);  // not encoded yet
    EXPECT_EQ("      Param 30: valeur = 30", lines[lines.size() - 2]);
    EXPECT_EQ("ETC...squeeze de 9 param...", lines.back());
}

// A value longer than the 32000-character value buffer shows the characters
// it really has, up to 32000, then "...".
TEST_F(MessageTrace, AVeryLongValueIsCutWithAnEllipsis) {
    StartLog(6);
    TracedMsg m;
    m.SetEntete(7, KVN_EXECUTE, 3);
    m.AddParametre(SQL_C_CHAR, 32500, std::wstring(32500, L'x').c_str());
    m.AfficheMessage(nullptr);
    // Long lines reach the file in chunks: join them back.
    std::string joined;
    for (char c : Raw())
        if (c != '\r' && c != '\n') joined += c;
    EXPECT_NE(std::string::npos, joined.find("Param 0: valeur = " + std::string(32000, 'x') + "..."));
    EXPECT_EQ(std::string::npos, joined.find(std::string(32001, 'x')));
}
