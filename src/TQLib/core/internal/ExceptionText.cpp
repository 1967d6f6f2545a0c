#include "TQLib/core/internal/ExceptionText.h"

#include "TQLib/text/memory/TQStdExceptions.h"

#include <cwchar>
#include <new>
#include <utility>

namespace Quellan::Corvel {

ExceptionText::ExceptionText(const wchar_t* text) : ExceptionText() {
    if (text) Init(text, std::wcslen(text));
}

ExceptionText::ExceptionText(const ExceptionText& other) : ExceptionText() {
    Init(other.c_str(), other.m_length);
}

ExceptionText::~ExceptionText() {
    delete[] m_allocated;
}

ExceptionText& ExceptionText::operator=(ExceptionText&& other) noexcept {
    std::swap(m_allocated, other.m_allocated);
    std::swap(m_length, other.m_length);
    if (!m_allocated) std::wmemcpy(m_inPlace, other.m_inPlace, m_length + 1);
    return *this;
}

bool ExceptionText::operator==(const ExceptionText& other) const noexcept {
    return m_length == other.m_length && std::wmemcmp(c_str(), other.c_str(), m_length) == 0;
}

void ExceptionText::Init(const wchar_t* text, std::size_t length) {
    wchar_t* target = m_inPlace;
    if (length >= InPlaceCapacity) {
        target = m_allocated = new (std::nothrow) wchar_t[length + 1];
        if (!target) TQStdExceptions::ThrowReserved();
    }
    std::wmemcpy(target, text, length + 1);
    m_length = length;
}

}  // namespace Quellan::Corvel
