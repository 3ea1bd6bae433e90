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
            options.nullGiven = true;
        } else if (name == "-A" || name == "--no-align") {
            if (!noValue()) return OptionsResult::Error;
            options.format = OutputFormat::Unaligned;
        } else if (name == "--csv") {
            if (!noValue()) return OptionsResult::Error;
            options.format = OutputFormat::Csv;
        } else if (name == "-t" || name == "--tuples-only") {
            if (!noValue()) return OptionsResult::Error;
            options.tuplesOnly = true;
        } else if (name == "-F" || name == "--field-separator") {
            if (!takeValue()) return OptionsResult::Error;
            if (value.empty()) {
                error = "the field separator cannot be empty";
                return OptionsResult::Error;
            }
            options.fieldSeparator = value;
        } else if (name == "-o" || name == "--output") {
            if (!takeValue()) return OptionsResult::Error;
            options.outputFile = value;
        } else if (name == "-q" || name == "--quiet") {
            if (!noValue()) return OptionsResult::Error;
            options.quiet = true;
        } else if (name == "--no-pager") {
            if (!noValue()) return OptionsResult::Error;
            options.pager = false;
        } else if (name == "--stop-on-error") {
            if (!noValue()) return OptionsResult::Error;
            options.stopOnError = true;
        } else if (name == "-v" || name == "--verbose") {
            if (!noValue()) return OptionsResult::Error;
            options.verbose = true;
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

const std::vector<std::string>& CommandNames() {
    static const std::vector<std::string> names = {"a", "bind", "call", "columns", "echo", "exists", "g",
                                                   "help", "pset", "q", "quit", "r", "requete", "reset",
                                                   "set", "t", "timing", "unbind"};
    return names;
}

std::string CommandsHelp() {
    return "Commands (a line that starts with a backslash, also inside a statement that\n"
           "goes on after it, or the rest of a line after a statement's ';'):\n"
           "  \\exists TABLE [COLUMN]   whether the table (or its column) exists\n"
           "  \\columns TABLE           the columns of a table with their types\n"
           "  \\call PROC(ARG, ...)     calls a stored procedure or function and shows its\n"
           "                           OUT values; ARG is DIR:TYPE:VALUE, DIR:VALUE or\n"
           "                           out:TYPE with DIR in, inout or out, e.g.\n"
           "                           \\call add_tax(in:double:100, inout:long:2, out:text);\n"
           "                           a function's return value comes back in an out\n"
           "                           argument after its own ones: \\call twice(in:long:21, out:long)\n"
           "  \\bind VALUE ...          binds values to the markers (?) of the next statement,\n"
           "                           which then runs as a bound statement (no rows shown);\n"
           "                           VALUE is TYPE:VALUE, a bare VALUE or null, e.g.\n"
           "                           \\bind long:1 text:'pear' null 2.5\n"
           "  \\bind                    (alone) shows the pending values; \\unbind drops them\n"
           "  \\requete TEXT            sends TEXT as a direct request, shows its status\n"
           "  \\g                       ends the statement being typed as ';' would\n"
           "  \\r, \\reset               clears the statement being typed\n"
           "  \\timing [on|off]         shows the time of each statement (standard error)\n"
           "  \\pset NAME [VALUE]       output: format aligned|unaligned|csv, tuples_only\n"
           "                           on|off, fieldsep TEXT, null TEXT, pager on|off\n"
           "  \\a, \\t                   toggle aligned/unaligned, tuples only\n"
           "  \\set ON_ERROR_STOP on|off  on: a failure ends a script (as --stop-on-error)\n"
           "  \\echo TEXT               prints TEXT\n"
           "  \\help                    this text\n"
           "  \\quit, \\q                ends the session (also alone on a line inside an\n"
           "                           open quote or comment, as \\r does)\n"
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
           "  -v, --verbose           when no session opens, also the library's own sentence\n"
           "Log of the library:\n"
           "      --log-level N       log threshold (default 0: no log)\n"
           "      --log-file PATH     log file (needed with --log-level)\n"
           "Input:\n"
           "  -c, --command SQL       runs SQL (statements and backslash commands) and\n"
           "                          exits; may be given several times\n"
           "  -f, --file PATH         reads statements from PATH (- for standard input);\n"
           "                          its errors start with PATH:LINE:\n"
           "                          Without -c or -f, statements are read from standard\n"
           "                          input; on a terminal with a prompt, line editing,\n"
           "                          tab completion of backslash commands and a history\n"
           "                          kept in ~/.kvnsql_history.\n"
           "  -e, --echo              prints each statement before its result\n"
           "      --no-prompt         no prompt, even on a terminal\n"
           "      --stop-on-error     the first failed statement ends kvnsql with status 3\n"
           "                          (on a terminal, input goes on)\n"
           "Output:\n"
           "  -A, --no-align          unaligned rows: cells joined by the separator\n"
           "      --csv               CSV rows (a header line unless -t)\n"
           "  -t, --tuples-only       rows only: no header, no row count\n"
           "  -F, --field-separator SEP  separator of unaligned and CSV rows (default | and ,)\n"
           "      --null TEXT         how NULL values are shown (default NULL; CSV: empty)\n"
           "  -o, --output FILE       results to FILE instead of standard output\n"
           "  -q, --quiet             no banner and no \"rows affected\" or confirmation lines\n"
           "      --no-pager          never a pager; otherwise a result longer or wider than\n"
           "                          the terminal goes through $PAGER (default less -SFX;\n"
           "                          empty: none) when standard output is a terminal\n"
           "      --version           the version\n"
           "      --help              this text\n"
           "\n"
           "A statement ends with ';' (outside quotes, $$ bodies and comments) or at the\n"
           "end of a file; blank lines inside it belong to it. Every statement runs as a\n"
           "select: the service says whether it brought rows (shown as a table, also\n"
           "for INSERT ... RETURNING and TABLE t) or affected rows (\"OK, 2 rows affected\").\n"
           "The row count \"(3 rows)\" and the times of \\timing go to standard error;\n"
           "the results, errors aside, to standard output.\n"
           "Column headers: the service sends none, so they are read from the statement:\n"
           "an item's alias, else its column name, else the expression as written (a\n"
           "guess); for *, t.* and TABLE t the table's column names as the service lists\n"
           "them; column1, column2... for VALUES; #1, #2... where the statement was not\n"
           "understood or the count differs from the result's.\n"
           "Ctrl-C at the prompt clears the statement being typed; while rows arrive it\n"
           "stops them; while a statement runs, the service finishes it and kvnsql goes\n"
           "on once its answer came. A second Ctrl-C within a second while waiting ends\n"
           "kvnsql.\n"
           "Errors: the library's text of the result code, then the database's own\n"
           "diagnostic when there is one.\n"
           "\n" +
           CommandsHelp() +
           "\n"
           "Exit status: 0 when every statement succeeded, 1 when one failed, 2 when the\n"
           "session could not be opened or the options are wrong, 3 when --stop-on-error\n"
           "(or ON_ERROR_STOP) ended a script.\n";
}
