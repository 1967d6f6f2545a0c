// tq log: what stands in log files.
#include "Command.h"
#include "LogHead.h"
#include "LogReader.h"

#include <algorithm>
#include <chrono>
#include <memory>

using namespace Quellan::Corvel;

namespace tq {

namespace {

constexpr const wchar_t* LogHelp =
    L"usage: tq log [OPTION...] FILE...\n"
    L"\n"
    L"Prints the records of log files, several files merged in the order of their times.\n"
    L"\n"
    L"  --level LEVEL,...   only these: names (warning,error) or marks (W,E)\n"
    L"  --from TIME         not before, --to TIME not after: HH:MM[:SS[.mmm]] of any day, or with the day "
    L"before\n"
    L"                      it, YYYY-MM-DDTHH:MM\n"
    L"  --process ID        only from this process, --thread ID from this thread\n"
    L"  --user TEXT         only with this text in the user's name or identifier, --source TEXT in the "
    L"source,\n"
    L"                      --text TEXT in the message; case does not matter\n"
    L"  --follow            wait for more, in new files too when the log is rolled over, until interrupted\n"
    L"  --json              one JSON object a line\n"
    L"\n"
    L"Of a line or message over 1 MiB the beginning is shown and searched, with the number of bytes left "
    L"out. "
    L"Control\n"
    L"characters are shown as \\xHH on a terminal, and in the first lines of records always.\n"
    L"What can't be read as a record is shown with its file and line. Records tell the time of day; their "
    L"days are\n"
    L"counted back from when the file was last written. Ends with 1 when there was no such record.\n";

constexpr std::string_view Marks = "RsLioDASTIWEX#";
constexpr DWORD FollowPauseMs = 200;

const wchar_t* LevelName(char mark) {
    const std::size_t level = Marks.find(mark);
    return level == Marks.npos ? L"Unknown" : TQLog::LevelName(static_cast<TQLogLevel>(level));
}

TQString Wide(std::string_view text) {
    return TQString::FromAnsi(text);
}

// The beginning of the day of a time, in milliseconds; all times here are local.
long long DayOf(TQTime time) {
    const long long ms = (time - TQTime()).Milliseconds();
    return ms - ms % MsInDay;
}

// A bound of the records' time: of any day, or absolute.
struct Bound {
    bool isOfAnyDay;
    long long ms;

    long long Beyond(long long recordMs) const { return (isOfAnyDay ? recordMs % MsInDay : recordMs) - ms; }
};

Bound ParseBound(const TQString& text) {
    const auto wrong = [&] {
        return UsageError(TQString::Format(L"'%s' is no time; HH:MM or YYYY-MM-DDTHH:MM", text.c_str()));
    };
    const std::string narrow(text.ToUtf8().View());
    TQTime::Fields fields{1601, 1, 1};
    const std::size_t clockAt = narrow.find('T') == narrow.npos ? 0 : narrow.find('T') + 1;
    int end = 0;
    if (clockAt != 0 &&
        (std::sscanf(narrow.c_str(), "%4d-%2d-%2dT%n", &fields.year, &fields.month, &fields.day, &end) != 3 ||
         end != static_cast<int>(clockAt)))
        throw wrong();
    const char* const clock = narrow.c_str() + clockAt;
    const auto left = static_cast<int>(narrow.size() - clockAt);
    const auto fits = [&](const char* last) { return last == clock + left; };
    int minuteEnd = 0, secondEnd = 0, msEnd = 0;
    const int count = std::sscanf(clock, "%2d:%2d%n:%2d%n.%3d%n", &fields.hour, &fields.minute, &minuteEnd,
                                  &fields.second, &secondEnd, &fields.millisecond, &msEnd);
    const int ends[] = {0, 0, minuteEnd, secondEnd, msEnd};
    if (count < 2 || !fits(clock + ends[count])) throw wrong();
    try {
        return {clockAt == 0, (TQTime(fields) - TQTime()).Milliseconds()};
    } catch (const TQCoreException&) {
        throw wrong();
    }
}

std::string ParseLevels(const TQString& text) {
    std::string marks;
    std::wstring_view rest = text.View();
    while (!rest.empty()) {
        const std::wstring_view name = rest.substr(0, rest.find(L','));
        rest.remove_prefix(std::min(name.size() + 1, rest.size()));
        const auto found = std::ranges::find_if(Marks, [&](char mark) {
            return TQString(LevelName(mark)).CompareNoCase(name) == 0 ||
                   (name.size() == 1 && name[0] == static_cast<wchar_t>(mark));
        });
        if (found != Marks.end())
            marks += *found;
        else if (name == L"?")
            marks += '?';
        else
            throw UsageError(TQString::Format(L"'%s' is no level", TQString(name).c_str()));
    }
    return marks;
}

// What is asked for.
struct LogQuery {
    std::vector<TQFileName> files;
    std::optional<std::string> marks;
    std::optional<Bound> from, to;
    std::optional<DWORD> process, thread;
    TQString user, source, text;
    bool isFollowing = false;
    bool isJson = false;

    // To find them out takes reading the files once more.
    bool NeedsDays() const {
        const auto isAbsolute = [](const std::optional<Bound>& bound) { return bound && !bound->isOfAnyDay; };
        return isJson || files.size() > 1 || isAbsolute(from) || isAbsolute(to);
    }

    bool Matches(const LogHead& head, const LogEntry& entry, long long time) const {
        const auto has = [](const std::optional<std::string_view>& part, const TQString& wanted) {
            return wanted.IsEmpty() || (part && Wide(*part).FindNoCase(wanted) != TQString::NotFound);
        };
        const bool isKnown = Marks.find(head.mark) != Marks.npos;
        if (marks && marks->find(isKnown ? head.mark : '?') == marks->npos) return false;
        if ((process && head.process != *process) || (thread && head.thread != *thread)) return false;
        if ((from && from->Beyond(time) < 0) || (to && to->Beyond(time) > 0)) return false;
        return has(head.user, user) && has(head.source, source) && has(entry.message, text);
    }
};

LogQuery ParseQuery(Arguments arguments) {
    LogQuery query;
    while (!arguments.AtEnd()) {
        const TQString argument = arguments.Next();
        if (argument == L"--level")
            query.marks = ParseLevels(arguments.ValueOf(argument));
        else if (argument == L"--from")
            query.from = ParseBound(arguments.ValueOf(argument));
        else if (argument == L"--to")
            query.to = ParseBound(arguments.ValueOf(argument));
        else if (argument == L"--process")
            query.process = ParseNumber(arguments.ValueOf(argument), L"id", ~0U);
        else if (argument == L"--thread")
            query.thread = ParseNumber(arguments.ValueOf(argument), L"id", ~0U);
        else if (argument == L"--user")
            query.user = arguments.ValueOf(argument);
        else if (argument == L"--source")
            query.source = arguments.ValueOf(argument);
        else if (argument == L"--text")
            query.text = arguments.ValueOf(argument);
        else if (argument == L"--follow")
            query.isFollowing = true;
        else if (argument == L"--json")
            query.isJson = true;
        else if (argument.StartsWith(L"--"))
            throw UsageError(TQString::Format(L"'%s' is no option of tq log", argument.c_str()));
        else
            query.files.emplace_back(argument);
    }
    if (query.files.empty()) throw UsageError(L"name at least one log file; tq log --help tells how");
    return query;
}

// Prints what a query is for.
class Printer {
  public:
    Printer(const LogQuery& query, TQConsole& out)
        : m_query(query), m_out(out), m_isColoured(!query.isJson && out.IsStyled()) {}

    bool HasPrinted() const { return m_hasPrinted; }

    void Print(const TQFileName& file, const LogEntry& entry, long long time) {
        if (!entry.isRecord) return PrintUnreadable(file, entry);
        const LogHead head = *ParseLogHead(entry.first);
        if (!m_query.Matches(head, entry, time)) return;
        m_hasPrinted = true;
        if (m_query.isJson)
            AddJson(file, head, entry, time);
        else
            AddText(file, head, entry);
        constexpr std::size_t Enough = 32 * 1024;
        if (m_text.Length() >= Enough) Flush();
    }

    void Flush() {
        if (!m_text.IsEmpty()) m_out.Write(m_text);
        m_text.Clear();
    }

  private:
    void PrintUnreadable(const TQFileName& file, const LogEntry& entry) {
        const TQString& name = file.FullName();
        const TQString first = Wide(entry.first);
        if (m_query.isJson) {
            m_text.AppendFormat(L"{\"file\": %s, \"line\": %zu, ", JsonString(name), entry.line);
            m_text.Append(L"\"unreadable\": ").Append(JsonString(first));
            AddJsonEnd(entry);
        } else {
            m_text.AppendFormat(L"%s:%zu: no record: ", m_out.Shown(name), entry.line);
            m_text.Append(m_out.Shown(first));
            AddTextEnd(entry);
        }
    }

    void AddJsonEnd(const LogEntry& entry) {
        if (entry.omitted) m_text.AppendFormat(L", \"omittedBytes\": %I64u", entry.omitted);
        m_text.Append(L"}\n");
    }

    void AddTextEnd(const LogEntry& entry) {
        if (entry.omitted) m_text.AppendFormat(L"... and %I64u bytes more", entry.omitted);
        m_text.Append(L"\n");
    }

    int ColourOf(char mark) const {
        constexpr std::string_view Red = "EX#", Yellow = "W", Green = "IS", Grey = "RsLioDT";
        const auto has = [mark](std::string_view marks) { return marks.find(mark) != marks.npos; };
        return has(Red) ? 31 : has(Yellow) ? 33 : has(Green) ? 32 : has(Grey) ? 90 : 0;
    }

    void AddText(const TQFileName& file, const LogHead& head, const LogEntry& entry) {
        const int colour = m_isColoured ? ColourOf(head.mark) : 0;
        const std::string_view clock = ClockOf(entry.first);
        const auto visible = [](std::string_view part) { return TQConsole::Visible(Wide(part)); };
        if (m_query.files.size() > 1) m_text.AppendFormat(L"%s: ", TQConsole::Visible(file.Name()));
        if (colour) m_text.AppendFormat(L"\x1b[%dm", colour);
        m_text.AppendFormat(L"%s %-11s", Wide(clock).c_str(), LevelName(head.mark));
        if (colour) m_text.Append(L"\x1b[0m");
        m_text.AppendFormat(L" %s %u.%u", visible(head.application), head.process, head.thread);
        if (head.source) m_text.AppendFormat(L" [%s]", visible(*head.source));
        if (head.user) m_text.AppendFormat(L" %s", visible(*head.user));
        TQString message = m_out.Shown(Wide(entry.message));
        message.Replace(L"\n", L"\n    ");
        m_text.Append(L"\n    ").Append(message);
        AddTextEnd(entry);
    }

    void AddJson(const TQFileName& file, const LogHead& head, const LogEntry& entry, long long time) {
        const auto text = [](std::string_view part) { return JsonString(Wide(part)); };
        const auto optional = [&](const std::optional<std::string_view>& part) {
            return part ? text(*part) : TQString(L"null");
        };
        const TQTime::Fields at = (TQTime() + TQTimeSpan::FromMilliseconds(time)).ToFields();
        const wchar_t mark = static_cast<wchar_t>(static_cast<unsigned char>(head.mark));
        m_text.AppendFormat(L"{\"file\": %s, \"line\": %zu, ", JsonString(file.FullName()).c_str(),
                            entry.line);
        m_text.AppendFormat(L"\"time\": \"%04d-%02d-%02dT%02d:%02d:%02d.%03d\", ", at.year, at.month, at.day,
                            at.hour, at.minute, at.second, at.millisecond);
        m_text.AppendFormat(L"\"level\": \"%s\", \"mark\": %s, ", LevelName(head.mark),
                            JsonString({&mark, 1}).c_str());
        m_text.AppendFormat(L"\"application\": %s, \"process\": %u, \"module\": %s, \"thread\": %u, ",
                            text(head.application).c_str(), head.process, text(head.module).c_str(),
                            head.thread);
        m_text.AppendFormat(L"\"source\": %s, \"user\": %s, \"message\": ", optional(head.source),
                            optional(head.user));
        m_text.Append(text(entry.message));
        AddJsonEnd(entry);
    }

    // As it stands in the line.
    static std::string_view ClockOf(std::string_view line) { return line.substr(2, line.find(" [") - 2); }

    const LogQuery& m_query;
    TQConsole& m_out;
    const bool m_isColoured;
    bool m_hasPrinted = false;
    TQString m_text;
};

// One file of a merge: its reader, and the entry it is at.
struct Source {
    Source(const TQFileName& name, bool needsDay) : reader(name), firstDay(needsDay ? FirstDayOf(name) : 0) {}

    // What can't be read as a record goes with what was before it.
    bool Advance(bool isFollowing) {
        entry = reader.Next(isFollowing);
        if (entry && entry->isRecord) time = firstDay + entry->time;
        return entry.has_value();
    }

    LogReader reader;
    long long firstDay;  // the beginning of the day of the first record, where it counts
    std::optional<LogEntry> entry;
    long long time = 0;

  private:
    // Counted back from the day on which the file was last written to.
    static long long FirstDayOf(const TQFileName& name) {
        LogReader reader(name);
        long long last = 0;
        while (const auto each = reader.Next(false))
            if (each->isRecord) last = std::max(last, each->time);
        return DayOf(LastWriteOf(name)) - (last - last % MsInDay);
    }

    static TQTime LastWriteOf(const TQFileName& name) {
        WIN32_FILE_ATTRIBUTE_DATA data;
        if (!GetFileAttributesExW(name.FullName().c_str(), GetFileExInfoStandard, &data))
            TQSysException::ThrowLastError(name.FullName().c_str());
        const auto steps = static_cast<LONGLONG>(ULONGLONG{data.ftLastWriteTime.dwHighDateTime} << 32 |
                                                 data.ftLastWriteTime.dwLowDateTime);
        const TQTimeSpan local = TQTime::CurrentTime() - TQTime::CurrentUTCTime();
        return TQTime() + TQTimeSpan::FromSteps(steps) + local;
    }
};

using Sources = std::vector<std::unique_ptr<Source>>;

// Prints everything that the sources have, each record when none of them has an earlier one.
void PrintAll(Sources& sources, bool isFollowing, Printer& printer) {
    for (const auto& source : sources)
        source->Advance(isFollowing);
    for (;;) {
        Source* next = nullptr;
        for (const auto& source : sources)
            if (source->entry && (!next || source->time < next->time)) next = source.get();
        if (!next) break;
        printer.Print(next->reader.Name(), *next->entry, next->time);
        next->Advance(isFollowing);
    }
    printer.Flush();
}

[[noreturn]] void Follow(Sources& sources, Printer& printer) {
    for (;;) {
        PrintAll(sources, true, printer);
        for (const auto& source : sources) {
            if (!source->reader.FindNewFile()) continue;
            while (source->Advance(false))
                printer.Print(source->reader.Name(), *source->entry, source->time);
            source->reader.TakeNewFile();
        }
        printer.Flush();
        Sleep(FollowPauseMs);
    }
}

}  // namespace

int RunLog(Arguments arguments, TQConsole& out) {
    if (Arguments first = arguments; !first.AtEnd() && first.Next() == L"--help") {
        out.Write(LogHelp);
        return ExitOk;
    }
    const LogQuery query = ParseQuery(arguments);
    Sources sources;
    for (const TQFileName& file : query.files)
        sources.push_back(std::make_unique<Source>(file, query.NeedsDays()));
    Printer printer(query, out);
    if (query.isFollowing) Follow(sources, printer);
    PrintAll(sources, false, printer);
    return printer.HasPrinted() ? ExitOk : ExitNotFound;
}

}  // namespace tq
