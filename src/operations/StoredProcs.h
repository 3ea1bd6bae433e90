// The copy of a stored procedure's returned values into the application's
// variables, apart from the call that receives them.
#ifndef KORVANE_OPERATIONS_STOREDPROCS_H
#define KORVANE_OPERATIONS_STOREDPROCS_H

#include "client/CConnexionKorvane.h"

// Writes the values of the answer stored in cnx (m_tabParam, m_nNbResultats)
// to the variables of its OUT and IN/OUT parameters, in order: 0;
// KVN_ERROR_PARAMETER at the first value whose type is not its parameter's,
// KVN_ERROR_RECEIVE when the answer has fewer values than such parameters
// (the variables before have been written, the others are left alone).
int CopyBackOutValues(CConnexionKorvane& cnx);

#endif
