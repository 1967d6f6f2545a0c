// What a process of services is told: to run a service, or to hand it a control.
#pragma once

#include "EventLoop.h"
#include "Settings.h"
#include "TQLib/platform/Win32.h"

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tqscm {

struct Command {
    std::string key;  // of the service
    std::string name;
    std::optional<DWORD> control;
    std::vector<std::string> arguments;
    // Who waits for the answer: called once at most, with the handler's or 1053
    // (ERROR_SERVICE_REQUEST_TIMEOUT), 1062 (ERROR_SERVICE_NOT_ACTIVE), 1067 (ERROR_PROCESS_ABORTED).
    std::function<void(DWORD code)> done;
    Clock::time_point deadline = {};
    bool isLate = false;  // who waited has been told so
};

// The commands of one process, which is told one at a time, as it serves them. Each has the limit of a request to be
// answered; who waits longer hears 1053. What the process is at then it may still end, and what it was not told it is
// not told any more.
class Commands {
  public:
    // `finish` gets each with the process's answer, and each that was not told in time.
    Commands(EventLoop& loop, const Settings& settings,
             std::function<void(const Command& command, DWORD code)> finish)
        : m_settings(settings), m_finish(std::move(finish)), m_limit(loop) {}

    // The limits count from now on. Before, the process has one to connect.
    void BeginLimits();
    void Add(Command command);
    bool AreEmpty() const { return m_commands.empty(); }
    // Whether the process has not answered yet what it was told.
    bool IsBusy() const { return m_isBusy; }
    // Whether it is to be told to run the service.
    bool WillRun(const std::string& key) const;

    // The first, which the process is told now. There is one, and it is not busy.
    const Command& Tell();
    // It has answered.
    void Answer(DWORD code);
    // It does not know any more what it was told.
    void Forget();
    // What it was not told yet of the service it is not told any more.
    void Drop(const std::string& key);
    // It has ended: who waits hears the code.
    void End(DWORD code);

  private:
    Command TakeFirst();
    void SetLimit();
    void OnLate();

    const Settings& m_settings;
    const std::function<void(const Command& command, DWORD code)> m_finish;
    std::deque<Command> m_commands;  // the first was told when `m_isBusy`
    bool m_isBusy = false;
    bool m_haveLimits = false;
    Timer m_limit;  // of the first that was not answered in time
};

}  // namespace tqscm
