// What the heads of records say of the moment and of the thread.
#pragma once

#include "TQLib/platform/Types.h"

#include <forward_list>
#include <optional>
#include <string>
#include <string_view>

namespace Quellan::Corvel {

// The process's names, as heads have them. Those of one number are the same.
struct LogNames {
    ULONGLONG number;
    std::string application;
    std::string module;
};

// Of now and of the calling thread, which keeps the texts from record to record until they change: the time of
// day each second (time zones and the ways of writing it are looked at then), the writer with the process, the
// user when the thread acts as somebody else. What the system says of an account is kept for all threads: to ask for it may take seconds.
// Texts are as heads have them, and valid as long as the thread makes no other one.
class LogHead {
  public:
    // Throws as `TQTime::FormatTimeTo` does, or std::bad_alloc. A user who can't be found is none.
    explicit LogHead(const LogNames& names);
    LogHead(const LogHead&) = delete;
    LogHead& operator=(const LogHead&) = delete;

    std::string_view Time() const noexcept { return m_time; }  // 14:03:27
    unsigned Millisecond() const noexcept { return m_millisecond; }
    std::string_view Writer() const noexcept { return m_writer; }  // [Monitor : 2316 (monitor.exe){4410}]
    // NAME {S-1-...}, as whom the thread acts.
    std::optional<std::string_view> User() const noexcept { return m_user; }

  private:
    unsigned m_millisecond;
    std::string_view m_time;
    std::string_view m_writer;
    std::optional<std::string_view> m_user;
    std::forward_list<std::string> m_longTexts;  // too long for the thread to keep
};

}  // namespace Quellan::Corvel
