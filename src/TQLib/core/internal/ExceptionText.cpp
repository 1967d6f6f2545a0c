#include "TQLib/core/internal/ExceptionText.h"

#include "TQLib/text/memory/TQStdExceptions.h"

#include <cwchar>
#include <new>
#include <utility>

namespace Quellan::Corvel {

ExceptionText::ExceptionText(const wchar_t* text) : ExceptionText() {
    if (!text) return;
    const std::size_t length = std::wcslen(text);
    if (length < InPlaceCapacity) {
        std::wmemcpy(m_inPlace, text, length + 1);
    } else {
        std::unique_ptr<wchar_t[]> copy(new (std::nothrow) wchar_t[length + 1]);
        if (!copy) TQStdExceptions::ThrowReserved();
        std::wmemcpy(copy.get(), text, length + 1);
        m_allocated = CommonValue<std::unique_ptr<const wchar_t[]>>(std::move(copy));
    }
    m_length = length;
}

ExceptionText::ExceptionText(const ExceptionText& other) noexcept
    : m_length(other.m_length), m_allocated(other.m_allocated) {
    if (!m_allocated.Get()) std::wmemcpy(m_inPlace, other.m_inPlace, m_length + 1);
}

ExceptionText& ExceptionText::operator=(const ExceptionText& other) noexcept {
    m_length = other.m_length;
    m_allocated = other.m_allocated;
    if (this != &other && !m_allocated.Get()) std::wmemcpy(m_inPlace, other.m_inPlace, m_length + 1);
    return *this;
}

bool ExceptionText::operator==(const ExceptionText& other) const noexcept {
    return m_length == other.m_length && std::wmemcmp(c_str(), other.c_str(), m_length) == 0;
}

}  // namespace Quellan::Corvel
