// kvnsql's command-line options and help texts.
#include "Options.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

bool ParseInt(const std::string& text, int minimum, int maximum, int& value) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < minimum || v > maximum) return false;
    value = static_cast<int>(v);
    return true;
}

// The library keeps the host in 20 characters and the application name in
// 128, terminators included, and would cut longer ones silently.
const std::size_t kMaxHost = 19;
const std::size_t kMaxApplication = 127;

std::size_t CodePoints(const std::string& utf8) {
    std::size_t n = 0;
    for (unsigned char c : utf8) n += (c & 0xC0) != 0x80;
    return n;
}

}  // namespace

OptionsResult ParseKvnsqlOptions(int argc, const char* const* argv, KvnsqlOptions& options,
                                 std::string& error) {
    for (int i = 1; i < argc; ++i) {
        std::string name = argv[i];
        std::string value;
        bool inlineValue = false;
        const std::size_t eq = name.find('=');
        if (name.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            value = name.substr(eq + 1);
            name.erase(eq);
            inlineValue = true;
        }
        auto takeValue = [&]() {
            if (inlineValue) return true;
            if (i + 1 >= argc) {
                error = "option " + name + " needs a value";
                return false;
            }
            value = argv[++i];
            return true;
        };
        auto takeInt = [&](int minimum, int maximum, int& field) {
            if (!takeValue()) return false;
            if (ParseInt(value, minimum, maximum, field)) return true;
            error = "bad value for " + name + ": '" + value + "' (" + std::to_string(minimum) +
                    " to " + std::to_string(maximum) + ")";
            return false;
        };
        auto noValue = [&]() {
            if (!inlineValue) return true;
            error = "option " + name + " takes no value";
            return false;
        };

        if (name == "--help") {
            return OptionsResult::Help;
        } else if (name == "--version") {
            return OptionsResult::Version;
        } else if (name == "-H" || name == "--host") {
            if (!takeValue()) return OptionsResult::Error;
            if (value.empty() || CodePoints(value) > kMaxHost) {
                error = "--host must have 1 to 19 characters";
                return OptionsResult::Error;
            }
            options.host = value;
        } else if (name == "-p" || name == "--port") {
            if (!takeInt(1, 65535, options.port)) return OptionsResult::Error;
        } else if (name == "-L" || name == "--loader-port") {
            if (!takeInt(0, 65535, options.loaderPort)) return OptionsResult::Error;
        } else if (name == "-a" || name == "--app") {
            if (!takeValue()) return OptionsResult::Error;
            if (value.empty() || CodePoints(value) > kMaxApplication) {
                error = "--app must have 1 to 127 characters";
                return OptionsResult::Error;
            }
            options.application = value;
        } else if (name == "--log-level") {
            if (!takeInt(0, INT_MAX, options.logLevel)) return OptionsResult::Error;
        } else if (name == "--log-file") {
            if (!takeValue()) return OptionsResult::Error;
            options.logFile = value;
        } else if (name == "-c" || name == "--command") {
            if (!takeValue()) return OptionsResult::Error;
            options.commands.push_back(value);
        } else if (name == "-f" || name == "--file") {
            if (!takeValue()) return OptionsResult::Error;
            options.file = value;
        } else if (name == "-e" || name == "--echo") {
            if (!noValue()) return OptionsResult::Error;
            options.echo = true;
        } else if (name == "--no-prompt") {
            if (!noValue()) return OptionsResult::Error;
            options.prompt = false;
        } else if (name == "--null") {
            if (!takeValue()) return OptionsResult::Error;
            options.nullText = value;
        } else {
            error = "unknown option '" + std::string(argv[i]) + "' (see --help)";
            return OptionsResult::Error;
        }
    }
    if (!options.commands.empty() && !options.file.empty()) {
        error = "-c and -f cannot be used together";
        return OptionsResult::Error;
    }
    if (options.logLevel > 0 && options.logFile.empty()) {
        error = "--log-level needs --log-file (the library logs only to a file)";
        return OptionsResult::Error;
    }
    return OptionsResult::Run;
}

std::string KvnsqlVersion() { return "kvnsql " KVN_VERSION "\n"; }

std::string CommandsHelp() {
    return "Commands (a line that starts with a backslash, or the rest of a line after a\n"
           "statement's ';'):\n"
           "  \\exists TABLE [COLUMN]   whether the table (or its column) exists\n"
           "  \\columns TABLE           the columns of a table with their types\n"
           "  \\call PROC(ARG, ...)     calls a stored procedure and shows its OUT values;\n"
           "                           ARG is DIR:TYPE:VALUE, DIR:VALUE or out:TYPE with DIR\n"
           "                           in, inout or out, e.g.\n"
           "                           \\call add_tax(in:double:100, inout:long:2, out:text)\n"
           "  \\bind VALUE ...          binds values to the markers (?) of the next statement,\n"
           "                           which then runs as a bound statement (no rows shown);\n"
           "                           VALUE is TYPE:VALUE, a bare VALUE or null, e.g.\n"
           "                           \\bind long:1 text:'pear' null 2.5\n"
           "  \\bind                    (alone) shows the pending values; \\unbind drops them\n"
           "  \\requete TEXT            sends TEXT as a direct request, shows its status\n"
           "  \\echo TEXT               prints TEXT\n"
           "  \\help                    this text\n"
           "  \\quit, \\q                ends the session\n"
           "Types: long (32-bit), bigint, double, text, char, timestamp\n"
           "('YYYY-MM-DD HH:MM:SS'). Values: a bare word or number, or a quoted text\n"
           "'it''s' (a doubled quote is a quote); without a type, a quoted text is text,\n"
           "an integer a long (a bigint when large), another number a double. A text of\n"
           "length 0 is bound as NULL.\n";
}

std::string KvnsqlHelp(const char* program) {
    const std::string p = program ? program : "kvnsql";
    return "Usage: " + p + " [options]\n"
           "A command-line client of the Korvane service: runs SQL statements and shows\n"
           "their results.\n"
           "\n"
           "Connection:\n"
           "  -H, --host HOST         service host (default 127.0.0.1, at most 19 characters)\n"
           "  -p, --port N            service TCP port (default 5151)\n"
           "  -L, --loader-port N     port of the service loader to wake when the service\n"
           "                          does not answer (default 0: none)\n"
           "  -a, --app NAME          application name given to the service (default kvnsql)\n"
           "Log of the library:\n"
           "      --log-level N       log threshold (default 0: no log)\n"
           "      --log-file PATH     log file (needed with --log-level)\n"
           "Statements:\n"
           "  -c, --command SQL       runs SQL (statements and backslash commands) and\n"
           "                          exits; may be given several times\n"
           "  -f, --file PATH         reads statements from PATH (- for standard input)\n"
           "                          without a prompt\n"
           "                          Without -c or -f, statements are read from standard\n"
           "                          input with a prompt on standard error.\n"
           "  -e, --echo              prints each statement before its result\n"
           "      --no-prompt         no prompt when reading standard input\n"
           "      --null TEXT         how NULL values are shown (default NULL)\n"
           "      --version           the version\n"
           "      --help              this text\n"
           "\n"
           "A statement ends with ';' (outside quotes, $$ bodies and comments), with an\n"
           "empty line, or at the end of the input. Statements that return rows (SELECT,\n"
           "WITH, VALUES, PRAGMA, EXPLAIN, SHOW) are shown as a table with the row count\n"
           "and the time taken; others show the number that the service returns (the\n"
           "rows affected).\n"
           "\n" +
           CommandsHelp() +
           "\n"
           "Exit status: 0 when every statement succeeded, 1 when one failed, 2 when the\n"
           "session could not be opened or the options are wrong.\n";
}
