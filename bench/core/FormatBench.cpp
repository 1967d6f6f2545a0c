#include "TQLib/text/TQFormat.h"
#include "core/Cases.h"

#include <cwchar>
#include <string>

namespace Quellan::Corvel::Bench {

namespace {

// What the first line of a log record tells.
struct Record {
    wchar_t level = L'E';
    const wchar_t* time = L"2031-05-07 11:13:17";
    unsigned short milliseconds = 19;
    const wchar_t* application = L"monitor";
    unsigned int process = 23456;
    const wchar_t* thread = L"worker";
    unsigned int threadId = 23461;
};

}  // namespace

void AddFormatting(Contest& contest) {
    const char* const work = "format a record header";
    contest.Add(work, "FormatTo", [r = Record()] {
        Keep(r);
        wchar_t out[128];
        FormatTo(out, L"%c %s.%03hu [%s : %lu (%s){%lu}]", r.level, r.time, r.milliseconds, r.application,
                 r.process, r.thread, r.threadId);
        Keep(out);
    });
    contest.Add(work, "swprintf", [r = Record()] {
        Keep(r);
        wchar_t out[128];
        std::swprintf(out, std::size(out), L"%lc %ls.%03hu [%ls : %u (%ls){%u}]",
                      static_cast<std::wint_t>(r.level), r.time, r.milliseconds, r.application, r.process,
                      r.thread, r.threadId);
        Keep(out);
    });
    contest.Add(work, "std::to_wstring, appended", [r = Record(), out = std::wstring()]() mutable {
        Keep(r);
        out.clear();
        const std::wstring milliseconds = std::to_wstring(r.milliseconds);
        out.append(1, r.level).append(L" ").append(r.time).append(L".").append(3 - milliseconds.size(), L'0');
        out.append(milliseconds)
            .append(L" [")
            .append(r.application)
            .append(L" : ")
            .append(std::to_wstring(r.process));
        out.append(L" (").append(r.thread).append(L"){").append(std::to_wstring(r.threadId)).append(L"}]");
        Keep(out.data());
    });
}

}  // namespace Quellan::Corvel::Bench
