#include "Samples.h"

#include <TQLib/TQLib.h>

using namespace Quellan::Corvel;

void TextSample() {
    TQString name = L"Report 7.TXT";
    const bool isText = name.MatchesNoCase(L"report*.txt");
    name.ReplaceNoCase(L".txt", L".log");
    name.PadLeft(14, L'_');
    Expect(isText && name == L"__Report 7.log", name.c_str());

    const int port = TQParse<int>(L"8080");                        // the whole text, or an exception
    const TQParsed<double> size = TQTryParse<double>(L"12.5 MB");  // what the text begins with
    const auto mask = TQTryParse<unsigned char>("0x1FF", 0);       // the base by its prefix
    Expect(port == 8080 && size.value == 12.5 && size.length == 4, L"numbers");
    Expect(mask.value == 255 && mask.fault == TQNumberFault::Overflow, L"too large a number");

    TQString line = L"port ";
    line += TQNumberText(port);
    line += L", 0x";
    line += TQNumberText(port, 16);
    const TQString count(TQNumberText::Grouped(1234567));    // 1,234,567
    const TQString memory(TQNumberText::Bytes(1610612736));  // 1.5 GB
    Expect(line == L"port 8080, 0x1f90", line.c_str());
    Expect(count == L"1,234,567" && memory == L"1.5 GB", memory.c_str());

    std::size_t words = 0;
    for (const std::wstring_view word : TQSplitAt(line, L' ', {.skipEmpty = true}))
        words += word.empty() ? 0 : 1;
    TQStringArray keys(TQSplitAtAny(L"b,a;B", L",;"));
    keys.SortNoCase();
    keys.UniqueNoCase();
    const TQString joined = TQJoin(keys, L" and ");
    Expect(words == 3 && joined == L"a and b", joined.c_str());

    std::wstring sum;
    TQFieldReader reader(L"name;note\r\n\"a;b\";\"say \"\"no\"\"\"\r\n", {.separator = L';'});
    while (reader.NextRecord())
        while (const auto field = reader.NextField())
            (sum += *field) += L'|';
    const TQString record = TQJoinFields(TQStringArray{L"a,b", L"c"});
    Expect(sum == L"name|note|a;b|say \"no\"|" && record == L"\"a,b\",c", sum.c_str());

    const TQString json = TQEscapeJson(L"say \"no\"\n");
    const TQString url = L"https://example.com/?q=" + TQEscapeUrl(L"caf\u00E9 & bar");
    const TQString command =
        TQWindowsCommandLine(L"C:\\Program Files\\a.exe", TQStringArray{L"C:\\my path\\", L"x"});
    Expect(json == L"say \\\"no\\\"\\n" && url.EndsWith(L"?q=caf%C3%A9%20%26%20bar"), url.c_str());
    Expect(command == L"\"C:\\Program Files\\a.exe\" \"C:\\my path\\\\\" x", command.c_str());
}
