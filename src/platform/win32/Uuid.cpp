// Text form of GUIDs on Windows: the RPC run-time's own conversions.
#include "platform/Uuid.h"

#include <rpc.h>

#include <cwchar>

namespace {

// 8-4-4-4-12 hexadecimal digits and four hyphens.
const size_t kUuidTextLength = 36;

}  // namespace

BOOL KvnUuidToString(const GUID* guid, wchar_t* text) {
    if (!guid || !text) return FALSE;
    RPC_WSTR rpcText = nullptr;
    // UuidToStringW takes a non-const pointer but does not write through it.
    if (UuidToStringW(const_cast<GUID*>(guid), &rpcText) != RPC_S_OK || !rpcText) return FALSE;
    const wchar_t* produced = reinterpret_cast<const wchar_t*>(rpcText);
    BOOL ok = std::wcslen(produced) == kUuidTextLength ? TRUE : FALSE;
    if (ok) std::wmemcpy(text, produced, kUuidTextLength + 1);
    RpcStringFreeW(&rpcText);
    return ok;
}

BOOL KvnUuidFromString(const wchar_t* text, GUID* guid) {
    // UuidFromStringW reads a null text as the nil GUID; the interface wants
    // a failure for it.
    if (!text || !guid) return FALSE;
    GUID parsed;
    if (UuidFromStringW(reinterpret_cast<RPC_WSTR>(const_cast<wchar_t*>(text)), &parsed) !=
        RPC_S_OK)
        return FALSE;
    *guid = parsed;
    return TRUE;
}

void KvnUuidCreateNil(GUID* guid) {
    if (guid) UuidCreateNil(guid);
}
