// The public headers after unixODBC's: its BOOL macro and HWND typedef must
// not meet the library's types.
#include <sql.h>
#include <sqlext.h>

#include <korvane/KorvaneClient.h>

int OdbcFirstTypeCodes() {
    CParam p;
    p.bNull = SQL_TRUE;
    kvn::SYSTEMTIME st = {};
    return SQL_C_WCHAR + SQL_C_SBIGINT + st.wYear;
}
