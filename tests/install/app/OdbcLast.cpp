// The public headers before unixODBC's: its macros then take over from the
// library's type-code constants without anything being defined twice.
#include <korvane/KorvaneClient.h>

#include <sql.h>
#include <sqlext.h>

int OdbcLastTypeCodes() {
    HWND window = nullptr;  // unixODBC's own
    (void)window;
    return SQL_C_WCHAR + SQL_C_SBIGINT;
}
