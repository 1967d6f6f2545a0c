// Where the layer keeps what outlives a process.
//
// Below one root folder: the one that the environment variable TQLIB_ROOT names; without it /var/lib/tqlib
// and /run/tqlib for root, and for everybody else the folder tqlib in the folders for state and for run-time
// files that the environment variables XDG_STATE_HOME and XDG_RUNTIME_DIR name (~/.local/state when the first
// is not set; when the second is not, /run/user/<user id>, or a folder in the first where there is none).
//
// The place is that of the process, whomever the calling thread impersonates; what it may do there is that
// user's affair. Nothing is trusted that another user could have written: each folder from the root down must
// be a real one, belong to the caller or to root, and be writable for its owner alone.
#pragma once

#include "TQLib/platform/linux/base/Descriptor.h"

#include <string_view>

namespace Quellan::Platform {

// Machine is the lasting state of root for everybody, who can only read it as a rule.
enum class StateKind { Lasting, Runtime, Machine };

// Opens the folder `name` in the state of one kind and makes what is missing of it, 0700, for root's
// system-wide state 0755. 5 (ERROR_ACCESS_DENIED) where something cannot be trusted. May throw
// std::bad_alloc.
DWORD OpenStateFolder(StateKind kind, std::string_view name, Descriptor& folder);

// The same for a folder that is there already: 2 (ERROR_FILE_NOT_FOUND) or 3 (ERROR_PATH_NOT_FOUND)
// otherwise.
DWORD OpenExistingStateFolder(StateKind kind, std::string_view name, Descriptor& folder);

// Opens the folder `name` in root's state of this boot, where everybody may make files and nobody take away
// those of others (1777). Root makes it where it is missing; 5 (ERROR_ACCESS_DENIED) where nobody has, or it
// is not root's. With TQLIB_ROOT it is a folder of that root like any other.
DWORD OpenFolderForAll(std::string_view name, Descriptor& folder);

// What is done where a folder is missing. A lasting one is on the disk when it is opened.
enum class Make { Nothing, Passing, Lasting };

// Opens the folder `name` in such a folder, made with `mode` where it is missing and `make` says so. The same
// is asked of it; 2 (ERROR_FILE_NOT_FOUND).
DWORD OpenTrustedFolder(const Descriptor& in, const char* name, Make make, unsigned mode,
                        Descriptor& folder) noexcept;

// Opens a file in such a folder for reading and writing and makes it with `mode` where it is missing, with a
// name that does not last yet. The same is asked of it, and that it is a plain file.
DWORD OpenStateFile(const Descriptor& folder, const char* name, unsigned mode, Descriptor& file) noexcept;

// The same for a file that is there already, for reading: 2 (ERROR_FILE_NOT_FOUND) otherwise.
DWORD OpenExistingStateFile(const Descriptor& folder, const char* name, Descriptor& file) noexcept;

}  // namespace Quellan::Platform
