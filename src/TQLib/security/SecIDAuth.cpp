#include "TQLib/security/SecIDAuth.h"

#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQStdExceptions.h"

namespace Quellan::Sarvek {

SecIDAuth::SecIDAuth(ULONGLONG value)
    : m_high(static_cast<DWORD>(value >> 16)), m_low(static_cast<WORD>(value & 0xFFFF)) {
    if (value >> 48) Corvel::TQStdExceptions::ThrowParameterInvalidError(L"SecIDAuth::SecIDAuth");
}

SecIDAuth::SecIDAuth(const SID_IDENTIFIER_AUTHORITY& authority) noexcept {
    for (unsigned i = 0; i < 4; ++i)
        m_high = m_high << 8 | authority.Value[i];
    m_low = static_cast<WORD>(authority.Value[4] << 8 | authority.Value[5]);
}

SecIDAuth::~SecIDAuth() = default;

SecIDAuth SecIDAuth::NullSecIDAuth() noexcept {
    return SecIDAuth(0);
}
SecIDAuth SecIDAuth::WorldSecIDAuth() noexcept {
    return SecIDAuth(1);
}
SecIDAuth SecIDAuth::LocalSecIDAuth() noexcept {
    return SecIDAuth(2);
}
SecIDAuth SecIDAuth::CreatorSecIDAuth() noexcept {
    return SecIDAuth(3);
}
SecIDAuth SecIDAuth::NonUniqueSecIDAuth() noexcept {
    return SecIDAuth(4);
}
SecIDAuth SecIDAuth::NTSecIDAuth() noexcept {
    return SecIDAuth(5);
}

std::array<BYTE, 6> SecIDAuth::Values() const noexcept {
    std::array<BYTE, 6> bytes;
    for (unsigned i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<BYTE>(Value() >> 8 * (bytes.size() - 1 - i) & 0xFF);
    return bytes;
}

}  // namespace Quellan::Sarvek
