// A value that an application declares to BindParameter or SetStoredProcParams,
// stored in the CParam that goes out in the request. Both operations read the
// application's variable in the same way.
#ifndef KORVANE_OPERATIONS_DECLAREDVALUE_H
#define KORVANE_OPERATIONS_DECLAREDVALUE_H

#include <korvane/CParam.h>

// Stores the value of type byte t (of a declarable type) read at valeur:
// 4 bytes for a long, sent in a field of 8; 8 bytes for a double or a 64-bit
// integer; the 16-byte timestamp, sent as 18 digits; a text up to its
// terminator or `taille` characters, whichever comes first, whose size counts
// the UTF-16 code units of the `taille` characters declared. The slot's
// numeric and date slots are cleared first and its old text released.
// False when the text cannot be allocated: the slot then holds a NULL.
bool StoreDeclaredValue(CParam& slot, unsigned char t, const void* valeur, unsigned int taille);

#endif
