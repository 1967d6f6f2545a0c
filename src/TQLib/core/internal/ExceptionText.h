// The text inside an exception.
#pragma once

#include "TQLib/platform/Types.h"

#include <cstddef>
#include <string_view>

namespace Quellan::Corvel {

// A short text is kept in place, so that making, throwing and copying an exception allocates nothing; a
// longer one is allocated. An allocation that fails throws the exception kept in reserve
// (`TQStdExceptions::ThrowReserved`) and changes nothing.
class TQLIB_API ExceptionText {
  public:
    ExceptionText() noexcept { m_inPlace[0] = L'\0'; }
    explicit ExceptionText(const wchar_t* text);  // null is empty
    ExceptionText(const ExceptionText& other);
    ExceptionText& operator=(ExceptionText&& other) noexcept;
    ~ExceptionText();

    const wchar_t* c_str() const noexcept { return m_allocated ? m_allocated : m_inPlace; }
    std::size_t Length() const noexcept { return m_length; }
    std::wstring_view View() const noexcept { return {c_str(), m_length}; }
    bool operator==(const ExceptionText& other) const noexcept;

  private:
    static constexpr std::size_t InPlaceCapacity = 64;

    void Init(const wchar_t* text, std::size_t length);

    std::size_t m_length = 0;
    wchar_t* m_allocated = nullptr;
    wchar_t m_inPlace[InPlaceCapacity];
};

}  // namespace Quellan::Corvel
