// Escaped text from outside: refused, or else what it becomes comes back from being escaped again. And any text is the
// same after both ways.
#include "Require.h"
#include "TQLib/core/TQException.h"
#include "TQLib/platform/Utf.h"
#include "TQLib/text/TQEscape.h"

#include <cstdint>
#include <initializer_list>
#include <string>

using namespace Quellan::Corvel;

namespace {

template <class String, class Text>
void Check(String (*escape)(Text), String (*unescape)(Text), const String& text, bool mayRefuse) {
    const auto back = [&](const String& plain) {
        String escaped;
        try {
            escaped = escape(plain);
        } catch (const TQCoreException& refused) {
            return Require(mayRefuse && refused.COMErrCode() == 13);
        }
        Require(unescape(escaped) == plain);
    };
    back(text);
    String plain;
    try {
        plain = unescape(text);
    } catch (const TQCoreException& refused) {
        return Require(refused.COMErrCode() == 13);
    }
    back(plain);
}

// `text` is valid, as all but C's form becomes.
template <class String, class Text>
void CheckForms(const String& text) {
    Check<String, Text>(&TQEscapeJson, &TQUnescapeJson, text, false);
    Check<String, Text>(&TQEscapeXmlText, &TQUnescapeXml, text, true);
    Check<String, Text>(&TQEscapeXmlAttribute, &TQUnescapeXml, text, true);
    Check<String, Text>(&TQEscapeUrl, &TQUnescapeUrl, text, false);
}

void CheckCommandLines(const TQString& text) {
    try {
        const TQStringArray words = TQSplitShellCommandLine(text);
        Require(TQSplitShellCommandLine(TQShellCommandLine(words)) == words);
    } catch (const TQCoreException& refused) {
        Require(refused.COMErrCode() == 13);
    }
    try {
        const TQStringArray words = TQSplitWindowsCommandLine(text);
        if (words.IsEmpty()) return;
        TQStringArray arguments = words;
        arguments.Remove(0);
        Require(TQSplitWindowsCommandLine(TQWindowsCommandLine(words[0], arguments)) == words);
    } catch (const TQCoreException& refused) {
        Require(refused.COMErrCode() == 13);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const _TQaString bytes(std::string(data, data + size));
    Check<_TQaString, _TQTextT<char>>(&TQEscapeC, &TQUnescapeC, bytes, false);
    const TQString text = TQString::FromUtf8(bytes);
    CheckForms<TQString, _TQTextT<wchar_t>>(text);
    CheckForms<_TQaString, _TQTextT<char>>(text.ToUtf8());
    CheckCommandLines(text);
    // Bytes that are no UTF-8 are refused or become valid; they do not come back.
    for (_TQaString (*const change)(_TQTextT<char>) : std::initializer_list<_TQaString (*)(_TQTextT<char>)>{
             &TQEscapeJson, &TQEscapeXmlText, &TQEscapeUrl, &TQUnescapeJson, &TQUnescapeXml,
             &TQUnescapeUrl}) {
        try {
            Require(Quellan::Platform::IsValidText(change(bytes).View()));
        } catch (const TQCoreException& refused) {
            Require(refused.COMErrCode() == 13);
        }
    }
    return 0;
}
