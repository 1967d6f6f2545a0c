// Error codes by the platform's names: every name of SystemCodes.def, the facilities of an HRESULT, and what
// takes an HRESULT apart.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Platform {

#define TQ_WIN32(code, name, text) inline constexpr DWORD name = code;
#define TQ_HRESULT(code, name, text) inline constexpr HRESULT name = static_cast<HRESULT>(code);
#define TQ_NTSTATUS(code, name, text) inline constexpr DWORD name = code;
#include "TQLib/platform/SystemCodes.def"
#undef TQ_WIN32
#undef TQ_HRESULT
#undef TQ_NTSTATUS

// Second names of a number.
inline constexpr DWORD NO_ERROR = ERROR_SUCCESS;
inline constexpr DWORD STATUS_WAIT_0 = STATUS_SUCCESS;

inline constexpr HRESULT FACILITY_NULL = 0;
inline constexpr HRESULT FACILITY_RPC = 1;
inline constexpr HRESULT FACILITY_DISPATCH = 2;
inline constexpr HRESULT FACILITY_STORAGE = 3;
inline constexpr HRESULT FACILITY_ITF = 4;
inline constexpr HRESULT FACILITY_WIN32 = 7;
inline constexpr HRESULT FACILITY_WINDOWS = 8;
inline constexpr HRESULT FACILITY_SECURITY = 9;
inline constexpr HRESULT FACILITY_SSPI = 9;
inline constexpr HRESULT FACILITY_CONTROL = 10;
inline constexpr HRESULT FACILITY_CERT = 11;
inline constexpr HRESULT FACILITY_INTERNET = 12;
inline constexpr HRESULT FACILITY_MEDIASERVER = 13;
inline constexpr HRESULT FACILITY_MSMQ = 14;
inline constexpr HRESULT FACILITY_SETUPAPI = 15;
inline constexpr HRESULT FACILITY_SCARD = 16;
inline constexpr HRESULT FACILITY_COMPLUS = 17;
inline constexpr HRESULT FACILITY_AAF = 18;
inline constexpr HRESULT FACILITY_URT = 19;
inline constexpr HRESULT FACILITY_ACS = 20;
inline constexpr HRESULT FACILITY_DPLAY = 21;
inline constexpr HRESULT FACILITY_UMI = 22;
inline constexpr HRESULT FACILITY_SXS = 23;
inline constexpr HRESULT FACILITY_WINDOWS_CE = 24;
inline constexpr HRESULT FACILITY_HTTP = 25;
inline constexpr HRESULT FACILITY_BACKGROUNDCOPY = 32;
inline constexpr HRESULT FACILITY_CONFIGURATION = 33;
inline constexpr HRESULT FACILITY_STATE_MANAGEMENT = 34;
inline constexpr HRESULT FACILITY_METADIRECTORY = 35;
inline constexpr HRESULT FACILITY_WINDOWSUPDATE = 36;
inline constexpr HRESULT FACILITY_DIRECTORYSERVICE = 37;

constexpr bool SUCCEEDED(HRESULT result) noexcept {
    return result >= 0;
}
constexpr bool FAILED(HRESULT result) noexcept {
    return result < 0;
}
constexpr DWORD HRESULT_CODE(HRESULT result) noexcept {
    return static_cast<DWORD>(result) & 0xFFFF;
}
constexpr DWORD HRESULT_FACILITY(HRESULT result) noexcept {
    return (static_cast<DWORD>(result) >> 16) & 0x1FFF;
}
// A code that is zero or already an HRESULT of failure stays as it is.
constexpr HRESULT HRESULT_FROM_WIN32(DWORD code) noexcept {
    const HRESULT result = static_cast<HRESULT>(code);
    return result <= 0 ? result : static_cast<HRESULT>((code & 0xFFFF) | 0x80070000);
}

}  // namespace Quellan::Platform
