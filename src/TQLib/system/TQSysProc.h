// This process and its modules.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/TQStringArray.h"
#include "TQLib/text/memory/TQHandle.h"

namespace Quellan::Sarvek {
class SecID;
}

namespace Quellan::Corvel {

// An owned module: unloaded when its last copy goes.
using TQModule = TQHandle<_TQModuleClose>;

// Static functions only; all may be called from any thread.
class TQLIB_API TQSysProc {
  public:
    TQSysProc() = delete;

    // The command line of this process: the program, then its arguments.
    [[nodiscard]] static TQStringArray CommandLine();

    // The user as whom the calling thread acts: the one that it impersonates, else that of the process.
    // Throws `TQSysException` with the platform's code, 1332 (ERROR_NONE_MAPPED) for a user without an
    // identifier.
    [[nodiscard]] static Sarvek::SecID CurrentUser();

    // Loads the module in the file `name`. A bare name is searched for beside the executable first; on Linux
    // a name that ends in ".dll" stands for the file with ".so" in its place. Throws `TQSysException` with
    // the platform's code: 126 (ERROR_MOD_NOT_FOUND) where there is no such file, 193 (ERROR_BAD_EXE_FORMAT)
    // where it is no module.
    [[nodiscard]] static TQModule LoadModule(const TQString& name);

    // The loaded module whose file name without folder and extension is `baseName`, whatever the case; null
    // where there is none. The module is borrowed.
    [[nodiscard]] static HMODULE FindLoadedModule(const TQString& baseName);

    // The application's own module, the executable; borrowed.
    [[nodiscard]] static HMODULE GetAppModule() noexcept;

    // The path of a module's file, and that file's name without folder and extension. A null module is the
    // executable. Throws `TQSysException` with the platform's code for what is no module.
    [[nodiscard]] static TQString ModuleFileName(HMODULE module);
    [[nodiscard]] static TQString ModuleBaseName(HMODULE module);
    // The file's name without folder.
    [[nodiscard]] static TQString ModuleName(HMODULE module);

    // The file name, without folder, of the module that holds `address`; empty where none does.
    [[nodiscard]] static TQString ModuleAt(const void* address);
};

}  // namespace Quellan::Corvel
