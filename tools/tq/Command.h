// What the words of `tq` have in common: how they read their arguments, how they fail and how they print.
#pragma once

#include "TQLib/TQLib.h"
#include "TQLib/platform/Win32.h"

#include <string_view>
#include <vector>

namespace tq {

// Exit codes: all went well; something asked for was not found; the command line is wrong.
constexpr int ExitOk = 0;
constexpr int ExitNotFound = 1;
constexpr int ExitUsage = 2;
constexpr int ExitFailure = 3;

// A wrong command line; the text becomes the one line that `tq` says about it.
class UsageError {
  public:
    explicit UsageError(Quellan::Corvel::TQString text) : m_text(std::move(text)) {}
    const Quellan::Corvel::TQString& Text() const { return m_text; }

  private:
    Quellan::Corvel::TQString m_text;
};

// The arguments after the word, read from left to right.
class Arguments {
  public:
    Arguments(const Quellan::Corvel::TQStringArray& all, std::size_t first) : m_all(all), m_next(first) {}

    bool AtEnd() const { return m_next >= m_all.Count(); }
    const Quellan::Corvel::TQString& Next() { return m_all[m_next++]; }
    // The value that has to follow `option`; throws `UsageError` without one.
    const Quellan::Corvel::TQString& ValueOf(const Quellan::Corvel::TQString& option);

  private:
    const Quellan::Corvel::TQStringArray& m_all;
    std::size_t m_next;
};

// Lines up columns; the last one runs on. Cells that name a level are coloured where the output is styled.
class Table {
  public:
    using Row = std::vector<Quellan::Corvel::TQString>;
    void Add(Row row) { m_rows.push_back(std::move(row)); }
    void Print(Quellan::Corvel::TQConsole& out) const;

  private:
    std::vector<Row> m_rows;
};

// A number in base 10 that is at most `last`; throws `UsageError`, which calls it `what`.
DWORD ParseNumber(const Quellan::Corvel::TQString& text, const wchar_t* what, DWORD last);

// What a table shows of a text that may be empty.
Quellan::Corvel::TQString OrDash(const Quellan::Corvel::TQString& text);
// A text as a JSON string with its quotation marks.
Quellan::Corvel::TQString JsonString(std::wstring_view text);

// The identifier that a name or a text S-1-... stands for; throws `UsageError` for what is none.
Quellan::Sarvek::SecID ParseAccount(const Quellan::Corvel::TQString& text);

// The words. Each prints to standard output and returns the exit code.
int RunAcl(Arguments arguments, Quellan::Corvel::TQConsole& out);
int RunError(Arguments arguments, Quellan::Corvel::TQConsole& out);
int RunLog(Arguments arguments, Quellan::Corvel::TQConsole& out);
int RunService(Arguments arguments, Quellan::Corvel::TQConsole& out);
int RunSid(Arguments arguments, Quellan::Corvel::TQConsole& out);
int RunToken(Arguments arguments, Quellan::Corvel::TQConsole& out);

}  // namespace tq
