// What the forms of bytes as text have in common.
#pragma once

#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/TQDataBuf.h"
#include "TQLib/text/memory/TQStdExceptions.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>

namespace Quellan::Corvel {

// What stands for characters that are no ASCII: no form has it.
constexpr char NoAscii = '\x80';

template <class C>
constexpr bool IsSpace(C character) {
    return character == ' ' || character == '\t' || character == '\r' || character == '\n';
}

// ASCII as wide text.
inline TQString Widened(std::string_view ascii) {
    return std::wstring(ascii.begin(), ascii.end());
}

inline std::string Narrowed(std::wstring_view text) {
    std::string narrow(text.size(), '\0');
    std::ranges::transform(text, narrow.begin(), [](wchar_t c) {
        return static_cast<std::size_t>(c) < 0x80 ? static_cast<char>(c) : NoAscii;
    });
    return narrow;
}

// `decode` fills the buffer from the text and returns how far it came: to the end, or to what it refuses.
template <class Decode>
BYTEBuf DecodedBytes(const wchar_t* where, std::string_view text, bool skipsSpace, Decode decode) {
    BYTEBuf bytes;
    std::string packed;
    std::string_view read = text;
    if (skipsSpace && std::ranges::any_of(text, &IsSpace<char>)) {
        packed.reserve(text.size());
        std::ranges::remove_copy_if(text, std::back_inserter(packed), &IsSpace<char>);
        read = packed;
    }
    std::size_t place = 0;
    if (decode(read, bytes, place)) return bytes;
    if (skipsSpace)
        for (std::size_t i = 0; i <= place && i < text.size(); ++i)
            place += IsSpace(text[i]);
    const std::wstring message = std::wstring(where) + L": character " + std::to_wstring(place);
    TQStdExceptions::ThrowDataInvalidError(message.c_str());
}

}  // namespace Quellan::Corvel
