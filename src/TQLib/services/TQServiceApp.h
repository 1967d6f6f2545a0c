// The main function of a program with services.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"

namespace Quellan::Corvel {

// Static functions only.
class TQLIB_API TQServiceApp {
  public:
    TQServiceApp() = delete;

    // Runs the program: the registered services (`TQServiceMgr::RegisterService`), as the command line and
    // whoever has started the process say. Returns the exit code for `main`.
    //
    //     first argument          what it does
    //     install [ARGUMENT...]   installs the services with this program, to be started with the arguments
    //     uninstall               stops and removes them
    //     start [ARGUMENT...]     has the manager start them, and waits until they run
    //     stop                    has it stop them, and waits until they have stopped
    //     status                  tells what they are doing
    //     none                    runs them: for the manager or systemd where one of these has started the
    //                             process, else in the foreground; Ctrl+C or a request to end the process
    //                             stops them
    //     any other               as none, with all arguments of the program as those of the services, if
    //                             `takesArguments` says that they take some
    //
    // Where they take none, what the table has in brackets and any other first argument is a wrong command
    // line; --help then prints the words.
    //
    // On Linux `install --systemd[=FILE] [ARGUMENT...]` writes a unit file for systemd in place of
    // installing; systemd then runs all services together, under the name of the first. Without a file it is
    // /etc/systemd/system/NAME.service.
    //
    // The words print what they did; the exit code is 0, 1 where it failed, 2 for a wrong command line. In
    // the foreground the changes of the states are printed. Where services have run, it is 1 if the last run
    // of one ended with an exit code. Any other exception is logged to the system event log and gives
    // 0x8000FFFF.
    static DWORD Run(bool takesArguments = false);

    // Whether it is one of the words above.
    [[nodiscard]] static bool IsWord(const TQString& argument);
};

}  // namespace Quellan::Corvel
