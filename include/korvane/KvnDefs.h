/// \file
/// Constants shared by the library, its applications and the service: the
/// result codes, the function codes of the messages, the value type codes,
/// the directions of stored-procedure parameters and the names of the
/// notification messages.
#ifndef KORVANE_KVNDEFS_H
#define KORVANE_KVNDEFS_H

/// \name Result codes
/// Every operation of the library returns an int: 0 for success, a negative
/// code for a failure, and for the row and column operations the outcomes
/// KVN_NO_DATA, KVN_NULL_DATA and KVN_DATA_TRUNCATED, which are not failures.
/// CKorvaneClient::GetErrorTxt gives each code's English text. The codes also
/// travel on the wire in the service's answers, so their values are part of
/// the protocol, and an operation that carries a request returns the
/// service's own code when the service reports a failure.
///@{

/// Success.
#define KVN_NO_ERROR 0
/// A failure without a code of its own: Init failed (the reason is in
/// CKorvaneClient::GetLastError), GetConnexion was refused before the service
/// answered (no session, service unreachable, out of memory, thread not
/// started; reason in GetLastError), FreeConnexion found no such handle,
/// BindParameter was given a position outside 1 to 128.
#define KVN_ERROR_UNKNOWN (-2)
/// Memory ran out (the text of a declared or bound parameter, the copy of a
/// procedure name). It has no text of its own.
#define KVN_ERROR_MEMORY (-50)
/// The answer could not be read, or had not the shape the operation expects;
/// also Fetch when a block brought no whole row.
#define KVN_ERROR_RECEIVE (-51)
/// The request was not sent: the connection's thread did not send it within
/// the operation's send wait (10 s for most), as when the connection went
/// down meanwhile.
#define KVN_ERROR_SEND (-52)
/// The link is down: the connection or the session is not up again yet
/// after a loss, the request could not be sent (the loss of the link is then
/// declared), or the loss happened while the operation waited.
#define KVN_ERROR_SOCKET_CLOSED (-53)
/// Sent by the service: it serves no more applications or connections.
#define KVN_ERROR_MAX_CLIENT_ATTEINT (-54)
/// Sent by the service: no database server found.
#define KVN_ERROR_SERVER_NOT_FOUND (-55)
/// Sent by the service: it could not open the connection's database
/// connection.
#define KVN_ERROR_ODBC_CONNEXION (-56)
/// Sent by the service: it could not set the connection up.
#define KVN_ERROR_INIT_COMM (-57)
/// A refused argument (an empty statement, a declaration that is not valid,
/// a null buffer, a returned value whose type is not the declared one), or a
/// request the service could not read.
#define KVN_ERROR_PARAMETER (-58)
/// Sent by the service: no database available.
#define KVN_ERROR_NO_DATABASE (-59)
/// Sent by the service: a database error it cannot tell more about.
#define KVN_ERROR_DATABASE_UNKNOWN (-60)
/// Sent by the service: the statement is closed.
#define KVN_ERROR_STATEMENT_CLOSED (-61)
/// No connection has this handle (never given out, or freed), or the
/// connection stayed busy with another operation for 20 s.
#define KVN_ERROR_HANDLE_CNX (-62)
/// No answer within 240 s (the request may still have run); ExecStoredProc
/// and SendTest also when the request was not sent in time.
#define KVN_ERROR_TIMEOUT (-63)
/// GetData: the value cannot be converted to the type asked for.
#define KVN_ERROR_DATATYPE (-64)
/// Sent by the service: no such table.
#define KVN_ERROR_TABLE_NOT_FOUND (-65)
/// Sent by the service: the database refused the request;
/// CKorvaneClient::GetLastErrorConnexion gives the database's text.
#define KVN_ERROR_ODBC (-66)
/// The service's answer to the registration of the application was not well
/// formed (Init then fails with KVN_ERROR_UNKNOWN).
#define KVN_ERROR_INIT_NB_PARAM (-68)

/// Outcome of the row and column operations, not a failure: no row, no such
/// column, no more rows.
#define KVN_NO_DATA 100
/// Outcome of GetData, not a failure: the value is NULL.
#define KVN_NULL_DATA 101
/// Outcome of GetData into a buffer with its capacity: the text was cut to
/// fit the buffer.
#define KVN_DATA_TRUNCATED 102
///@}

/// \name Function codes
/// Byte 6 of every message header: what the message is. An answer carries
/// the code of the request it answers. Applications meet them only through
/// CMsgSocket and GetNomFonction.
///@{
#define KVN_INIT_OK 0     ///< Acceptance of a registration; in an acknowledgement, a refusal.
#define KVN_ACK 1         ///< An acknowledgement header accepting a message.
#define KVN_HEART_BEAT 5  ///< The service's sign of life.
#define KVN_GET_NB_CLIENT 6
#define KVN_GET_MAX_NB_CLIENT 7
#define KVN_DECONNEXION_WARNING 8
#define KVN_DECONNEXION 9
#define KVN_INIT_APPLICATION 20
#define KVN_INIT_CONNEXION 21
#define KVN_CLOSE_APPLICATION 25
#define KVN_CLOSE_CONNEXION 26
#define KVN_REINIT_APPLICATION 28
#define KVN_REINIT_CONNEXION 29
#define KVN_EXECUTE 101
#define KVN_EXECUTESELECT 102
#define KVN_FETCH 103
#define KVN_GETDATA 104
#define KVN_LIBERE_CNX_SELECT 105
#define KVN_GETLINE 106
#define KVN_EXISTTABLE 107
#define KVN_EXISTCOLUMN 108
#define KVN_GETCOLUMNS 109
#define KVN_EXECUTEBIND 110
#define KVN_EXECUTEPROC 111
#define KVN_NUMRESULTCOLS 112
#define KVN_PREPARE 113
#define KVN_ROWCOUNT 114
#define KVN_TRANSACT 115
#define KVN_PUTDATA 116
#define KVN_MORERESULT 117
#define KVN_BINDPARAMETER 118
#define KVN_GET_ODBC_ERROR_TEXT 119
#define KVN_REQUETE_METABASE 120
///@}

/// \name Value type codes
/// The ODBC C data type codes: the type of a CParam and of a declared or
/// bound parameter. A value holds its code in one byte, so a negative code is
/// also met as its unsigned byte (248 for -8). The ODBC headers define the
/// same names, with the same values, as macros: when they come first their
/// macros are used; when they come after, their macros take over from these
/// constants, which are constants rather than macros so that nothing is
/// defined twice.
///@{
#ifndef SQL_C_CHAR
constexpr int SQL_C_CHAR = 1;  ///< Text, held as wide characters (CParam::pszValeur).
#endif
#ifndef SQL_C_WCHAR
constexpr int SQL_C_WCHAR = -8;  ///< Text, held like SQL_C_CHAR.
#endif
#ifndef SQL_C_LONG
constexpr int SQL_C_LONG = 4;  ///< 32-bit integer (CValNum::lVal).
#endif
#ifndef SQL_C_DOUBLE
constexpr int SQL_C_DOUBLE = 8;  ///< Double (CValNum::dVal).
#endif
#ifndef SQL_C_TIMESTAMP
constexpr int SQL_C_TIMESTAMP = 11;  ///< Date and time (KvnTimestamp); the fraction is not sent.
#endif
#ifndef SQL_C_SBIGINT
constexpr int SQL_C_SBIGINT = -25;  ///< 64-bit integer (CValNum::llVal).
#endif
#ifndef SQL_C_UBIGINT
constexpr int SQL_C_UBIGINT = -27;  ///< Unsigned 64-bit integer: CMsgSocket::AddParametre only.
#endif
#ifndef SQL_C_GUID
constexpr int SQL_C_GUID = -11;  ///< GUID: sent, never received (a GUID column reads as text).
#endif
///@}

/// \name Directions of stored-procedure parameters
/// CKorvaneClient::SetStoredProcParams and CParamProc::nSens.
///@{
#define KVN_PARAM_IN 1     ///< The value is sent.
#define KVN_PARAM_INOUT 2  ///< The value is sent; the returned one is written back to the variable.
#define KVN_PARAM_OUT 4    ///< Sent as NULL; the returned value is written to the variable.
///@}

/// \name Registered notification messages
/// Names of the messages the library posts, with wParam and lParam 0, to the
/// window given to CKorvaneClient::Init. An application gets their
/// identifiers by registering the same names (KvnRegisterWindowMessage).
///@{

/// The link was lost (the main socket closed, the heartbeat late, or a
/// request could not be sent); also posted by Free when the session was open.
#define KVN_MSG_PERTE_COMM L"KVN_MSG_PERTE_COMM"
/// Init succeeded, or the main link was opened again after a loss. The
/// connections follow; requests are accepted again once the event of
/// CKorvaneClient::GetEventCommOK is set.
#define KVN_MSG_COMM_OK L"KVN_MSG_COMM_OK"
/// Registered, never posted by the library.
#define KVN_MSG_WARNING_FERMETURE L"KVN_MSG_WARNING_FERMETURE"
/// Registered, never posted by the library.
#define KVN_MSG_FERMETURE L"KVN_MSG_FERMETURE"
/// Registered, never posted by the library.
#define KVN_MSG_FERMETURE_KORVANE L"KVN_MSG_FERMETURE_KORVANE"
///@}

#endif
