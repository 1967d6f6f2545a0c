// The text inside an exception.
#pragma once

#include "TQLib/core/internal/CommonValue.h"
#include "TQLib/platform/Types.h"

#include <cstddef>
#include <memory>
#include <string_view>

namespace Quellan::Corvel {

// A short text is kept in place, so that making and throwing an exception allocates nothing; a longer one is
// allocated, which throws the exception kept in reserve where it fails (`TQStdExceptions::ThrowReserved`).
// Copies share it.
class TQLIB_API ExceptionText {
  public:
    ExceptionText() noexcept { m_inPlace[0] = L'\0'; }
    explicit ExceptionText(const wchar_t* text);  // null is empty
    ExceptionText(const ExceptionText& other) noexcept;
    ExceptionText& operator=(const ExceptionText& other) noexcept;
    ~ExceptionText() = default;

    const wchar_t* c_str() const noexcept { return m_allocated.Get() ? m_allocated.Get()->get() : m_inPlace; }
    std::size_t Length() const noexcept { return m_length; }
    std::wstring_view View() const noexcept { return {c_str(), m_length}; }
    bool operator==(const ExceptionText& other) const noexcept;

  private:
    static constexpr std::size_t InPlaceCapacity = 64;

    std::size_t m_length = 0;
    CommonValue<std::unique_ptr<const wchar_t[]>> m_allocated;
    wchar_t m_inPlace[InPlaceCapacity];
};

}  // namespace Quellan::Corvel
