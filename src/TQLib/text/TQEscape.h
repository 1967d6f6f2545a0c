// Text as a part of other text: escaped for it, and back.
//
// | form                | for what                                      | stays as it is                            |
// |---------------------|-----------------------------------------------|-------------------------------------------|
// | JSON                | between the quotation marks of a string       | all but " \ and controls                  |
// | XML text, attribute | between tags, between quotation marks         | all but & < >; in attributes also no " '  |
// | URL                 | a name or value within a URL                  | letters and digits of ASCII, - . _ ~      |
// | C                   | between the quotation marks of a string       | what ASCII prints, but " \                |
// | Windows, shell      | an argument of a command line                 | see each                                  |
//
// Narrow text is UTF-8. What is no character, an unpaired surrogate or invalid UTF-8, becomes U+FFFD when it is escaped,
// but for C, whose narrow form keeps every byte.
//
// Failures: what cannot be escaped, and in the way back all that the form does not allow, throws 13 (ERROR_INVALID_DATA)
// with the offset in the message, counted in units of the text given; exhausted memory as the strings.
// Any thread may call these.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/TQSplit.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/TQStringArray.h"

#include <ranges>

namespace Quellan::Corvel {

[[nodiscard]] TQLIB_API TQString TQEscapeJson(_TQTextT<wchar_t> text);
[[nodiscard]] TQLIB_API _TQaString TQEscapeJson(_TQTextT<char> text);
[[nodiscard]] TQLIB_API TQString TQUnescapeJson(_TQTextT<wchar_t> text);
[[nodiscard]] TQLIB_API _TQaString TQUnescapeJson(_TQTextT<char> text);

// Characters that XML 1.0 cannot have, most controls among them, are refused. Line ends in attributes and carriage
// returns become references, since a reader would change them.
[[nodiscard]] TQLIB_API TQString TQEscapeXmlText(_TQTextT<wchar_t> text);
[[nodiscard]] TQLIB_API _TQaString TQEscapeXmlText(_TQTextT<char> text);
[[nodiscard]] TQLIB_API TQString TQEscapeXmlAttribute(_TQTextT<wchar_t> text);
[[nodiscard]] TQLIB_API _TQaString TQEscapeXmlAttribute(_TQTextT<char> text);
// Knows the five entities that need no declaration, and numbers.
[[nodiscard]] TQLIB_API TQString TQUnescapeXml(_TQTextT<wchar_t> text);
[[nodiscard]] TQLIB_API _TQaString TQUnescapeXml(_TQTextT<char> text);

// By the bytes of UTF-8. A plus sign stands for itself in the way back too.
[[nodiscard]] TQLIB_API TQString TQEscapeUrl(_TQTextT<wchar_t> text);
[[nodiscard]] TQLIB_API _TQaString TQEscapeUrl(_TQTextT<char> text);
[[nodiscard]] TQLIB_API TQString TQUnescapeUrl(_TQTextT<wchar_t> text);
[[nodiscard]] TQLIB_API _TQaString TQUnescapeUrl(_TQTextT<char> text);

// The result is ASCII: wide text has \u and \U, narrow text its bytes in octal.
[[nodiscard]] TQLIB_API TQString TQEscapeC(_TQTextT<wchar_t> text);
[[nodiscard]] TQLIB_API _TQaString TQEscapeC(_TQTextT<char> text);
[[nodiscard]] TQLIB_API TQString TQUnescapeC(_TQTextT<wchar_t> text);
[[nodiscard]] TQLIB_API _TQaString TQUnescapeC(_TQTextT<char> text);

// An argument as Windows programs take it apart: in quotation marks where it is empty or has white space or a quotation
// mark; backslashes count twice in front of a quotation mark. For any argument but a command line's first, the
// program, which knows no escapes. A zero character is refused.
[[nodiscard]] TQLIB_API TQString TQQuoteWindowsArgument(_TQTextT<wchar_t> argument);
// The same for a program, always in quotation marks; refuses a zero character and a quotation mark.
[[nodiscard]] TQLIB_API TQString TQQuoteWindowsProgram(_TQTextT<wchar_t> program);
// The program and the arguments, as `CommandLineToArgvW` has them; none of an empty text. Refuses a zero character. A
// failure of the system throws its code.
[[nodiscard]] TQLIB_API TQStringArray TQSplitWindowsCommandLine(_TQTextT<wchar_t> text);

// A word as POSIX shells take it apart: in apostrophes where it is empty or has a character that is not a letter or a
// digit of ASCII or one of @ % _ + : , . / -. A zero character is refused.
[[nodiscard]] TQLIB_API TQString TQQuoteShellWord(_TQTextT<wchar_t> word);
// The words between blanks, tabs and line feeds, without their apostrophes, quotation marks and backslashes. Nothing is
// expanded: all other characters stand for themselves. Refuses quotes that are not closed and a backslash at the end.
[[nodiscard]] TQLIB_API TQStringArray TQSplitShellCommandLine(_TQTextT<wchar_t> text);

// A whole command line: the program or first word, then the others.
template <_TQTexts<wchar_t> R>
[[nodiscard]] TQString TQWindowsCommandLine(_TQTextT<wchar_t> program, R&& arguments) {
    TQString line = TQQuoteWindowsProgram(program);
    for (auto&& argument : arguments)
        (line += L' ') += TQQuoteWindowsArgument(argument);
    return line;
}
template <_TQTexts<wchar_t> R>
[[nodiscard]] TQString TQShellCommandLine(R&& words) {
    TQString line;
    for (auto&& word : words) {
        if (!line.IsEmpty()) line += L' ';
        line += TQQuoteShellWord(word);
    }
    return line;
}

}  // namespace Quellan::Corvel
