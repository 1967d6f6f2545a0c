// Processes that a test starts, talks to and ends.
#pragma once

#include "TQLib/platform/Types.h"

#include <memory>
#include <string>
#include <vector>

namespace Quellan::Corvel::Test {

// A program started by the test. Arguments hold no blanks and no quotation marks. One thread at a time.
class ChildProcess {
  public:
    // `Inherited`: the standard files are the test's own. `Piped`: the test writes the child's standard input
    // and reads its standard output and error together; on Windows it also has a console of its own, which
    // `Interrupt` needs.
    enum class Files { Inherited, Piped };

    // `program` is the name, without extension, of a program beside the test program; the empty name is the
    // test program itself.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments, Files files);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    // Kills the process if it still runs.
    ~ChildProcess();

    DWORD Id() const;
    // Without warning; returns when nothing of the process is left.
    void Kill();
    // As Ctrl+C at its console does. Not where the thread sanitizer runs: it keeps a signal back until the
    // thread that got it makes a call that the sanitizer knows, which a waiting thread does not.
    void Interrupt();
    static bool CanInterrupt();
    // Waits for the end of the process. On Linux one that a signal ended has 128 + the signal's number.
    int ExitCode();

    // The rest for piped files only.
    void Write(const std::string& text);
    // The end of the child's input.
    void CloseInput();
    // Reads up to the end of the next line that has `part` in it and returns all that was read. Fails the
    // test when the output ends before.
    std::string ReadTo(const std::string& part);
    // Reads to the end of the output.
    std::string ReadAll();

  private:
    struct Native;
    // The next bytes of the output; none at its end.
    std::string ReadSome();
    // Appends them to the output; false at its end.
    bool ReadMore();

    std::unique_ptr<Native> m_native;
    std::string m_output;  // read and not yet asked for
};

}  // namespace Quellan::Corvel::Test
