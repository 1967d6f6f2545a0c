#include "TQLib/platform/linux/texts/MessageTable.h"

#include "TQLib/platform/Utf.h"
#include "TQLib/platform/linux/base/Bytes.h"
#include "TQLib/platform/linux/base/ErrorCodes.h"

namespace Quellan::Platform {

namespace {

constexpr std::size_t TableBlockSize = 12;  // first id, last id, offset of the first entry
constexpr std::size_t EntryHeaderSize = 4;  // length of the whole entry, flags
constexpr WORD EntryIsUtf16 = 0x0001;
constexpr wchar_t ReplacementUnit = 0xFFFD;

std::wstring FromUtf16(std::span<const std::byte> bytes) {
    std::wstring text;
    for (std::uint64_t at = 0; at + 2 <= bytes.size(); at += 2) {
        const char32_t unit = *ReadNumber<std::uint16_t>(bytes, at);
        if (unit == 0) break;
        const char32_t next = ReadNumber<std::uint16_t>(bytes, at + 2).value_or(0);
        if (unit >= 0xD800 && unit < 0xDC00 && next >= 0xDC00 && next < 0xE000) {
            text += static_cast<wchar_t>(0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
            at += 2;
        } else {
            text += unit >= 0xD800 && unit < 0xE000 ? ReplacementUnit : static_cast<wchar_t>(unit);
        }
    }
    return text;
}

std::wstring FromUtf8(std::span<const std::byte> bytes) {
    std::string narrow;
    for (std::size_t i = 0; i < bytes.size() && bytes[i] != std::byte{0}; ++i)
        narrow += std::to_integer<char>(bytes[i]);
    std::wstring text(narrow.size(), L'\0');
    text.resize(Utf8ToWide(narrow, text));
    return text;
}

// Entries follow each other without an index, so the one wanted is found by stepping over those before it.
DWORD ReadEntry(std::span<const std::byte> table, std::uint64_t at, DWORD skipped, std::wstring& text) {
    for (;; --skipped) {
        const auto length = ReadNumber<WORD>(table, at);
        const auto flags = ReadNumber<WORD>(table, at + 2);
        if (!length || !flags || *length < EntryHeaderSize) return ERROR_INVALID_DATA;
        const auto entry = Part(table, at, *length);
        if (!entry) return ERROR_INVALID_DATA;
        if (skipped == 0) {
            const auto body = entry->subspan(EntryHeaderSize);
            text = *flags & EntryIsUtf16 ? FromUtf16(body) : FromUtf8(body);
            return ERROR_SUCCESS;
        }
        at += *length;
    }
}

}  // namespace

DWORD FindMessage(std::span<const std::byte> table, DWORD id, std::wstring& text) {
    const auto blocks = ReadNumber<DWORD>(table, 0);
    if (!blocks || (table.size() - sizeof(DWORD)) / TableBlockSize < *blocks) return ERROR_INVALID_DATA;
    for (std::uint64_t i = 0; i < *blocks; ++i) {
        const std::uint64_t block = sizeof(DWORD) + i * TableBlockSize;
        const DWORD first = *ReadNumber<DWORD>(table, block);
        const DWORD last = *ReadNumber<DWORD>(table, block + 4);
        if (id >= first && id <= last)
            return ReadEntry(table, *ReadNumber<DWORD>(table, block + 8), id - first, text);
    }
    return ERROR_MR_MID_NOT_FOUND;
}

}  // namespace Quellan::Platform
