#include "TQLib/text/TQString.h"
#include "text/Cases.h"

#include <absl/strings/str_replace.h>
#include <cstring>
#include <cwchar>
#include <fnmatch.h>
#include <glib.h>
#include <memory>
#include <string>

namespace Quellan::Corvel::Bench {
namespace {

// A text of a thousand characters with what is looked for at its end.
struct Text {
    Text() {
        while (narrow.Length() < 1000)
            narrow += "The service could not open its log file, so it writes to the system log. ";
        narrow += "Access Denied";
        wide = TQString::FromUtf8(narrow);
    }

    _TQaString narrow;
    TQString wide;
};

}  // namespace

void AddSearches(Contest& contest) {
    const auto t = std::make_shared<Text>();

    contest.Add("find in 1000", "TQString", [t] { Keep(t->wide.Find(L"Access Denied")); });
    contest.Add("find in 1000", "wcsstr", [t] { Keep(std::wcsstr(t->wide.c_str(), L"Access Denied")); });

    contest.Add("find in 1000, no case", "_TQaString", [t] { Keep(t->narrow.FindNoCase("access denied")); });
    contest.Add("find in 1000, no case", "strcasestr",
                [t] { Keep(strcasestr(t->narrow.c_str(), "access denied")); });

    contest.Add("find in 1000 wide, no case", "TQString",
                [t] { Keep(t->wide.FindNoCase(L"access denied")); });
    contest.Add("find in 1000 wide, no case", "find in upper case",
                [t] { Keep(t->wide.ToUpper().Find(TQString(L"access denied").ToUpper())); });

    contest.Add("find any in 1000", "_TQaString", [t] { Keep(t->narrow.FindAny("!?#\"")); });
    contest.Add("find any in 1000", "strpbrk", [t] { Keep(std::strpbrk(t->narrow.c_str(), "!?#\"")); });

    contest.Add("find any in 1000 wide", "TQString", [t] { Keep(t->wide.FindAny(L"!?#\"")); });
    contest.Add("find any in 1000 wide", "wcspbrk", [t] { Keep(std::wcspbrk(t->wide.c_str(), L"!?#\"")); });

    contest.Add("replace in 1000", "_TQaString", [t] {
        _TQaString text = t->narrow;
        Keep(text.Replace("log", "journal"));
    });
    contest.Add("replace in 1000", "absl::StrReplaceAll", [t] {
        Keep(absl::StrReplaceAll({t->narrow.c_str(), t->narrow.Length()}, {{"log", "journal"}}).c_str());
    });

    contest.Add("match a pattern", "_TQaString", [t] { Keep(t->narrow.Matches("The*log file*Denie?")); });
    contest.Add("match a pattern", "g_pattern_match_simple",
                [t] { Keep(g_pattern_match_simple("The*log file*Denie?", t->narrow.c_str())); });
    contest.Add("match a pattern", "fnmatch",
                [t] { Keep(fnmatch("The*log file*Denie?", t->narrow.c_str(), 0)); });
}

}  // namespace Quellan::Corvel::Bench
