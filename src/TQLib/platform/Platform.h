// The one door to the platform for the library: its sources call the platform by its own names. On Windows
// these are the system's calls; on Linux they are the layer's, with the same documented behaviour, in
// `Quellan::Platform`. Only what the layer implements is declared there.
#pragma once

#include "TQLib/platform/Types.h"

#if defined(_WIN32)
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0A00
#endif
#include <windows.h>
// These need <windows.h> before them.
#include <combaseapi.h>
#include <lm.h>
#include <ntsecapi.h>
#include <psapi.h>
#include <sddl.h>
#include <shellapi.h>
#include <winsvc.h>
#else
#include "TQLib/platform/linux/accounts/Accounts.h"
#include "TQLib/platform/linux/accounts/NetAccounts.h"
#include "TQLib/platform/linux/accounts/Policy.h"
#include "TQLib/platform/linux/accounts/Privileges.h"
#include "TQLib/platform/linux/accounts/Sids.h"
#include "TQLib/platform/linux/base/CriticalSections.h"
#include "TQLib/platform/linux/base/Environment.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/base/Memory.h"
#include "TQLib/platform/linux/base/Process.h"
#include "TQLib/platform/linux/base/Version.h"
#include "TQLib/platform/linux/eventlog/EventLog.h"
#include "TQLib/platform/linux/files/Files.h"
#include "TQLib/platform/linux/files/SecurityDescriptors.h"
#include "TQLib/platform/linux/files/Volumes.h"
#include "TQLib/platform/linux/objects/CompletionPorts.h"
#include "TQLib/platform/linux/objects/Events.h"
#include "TQLib/platform/linux/objects/Handles.h"
#include "TQLib/platform/linux/objects/Messages.h"
#include "TQLib/platform/linux/objects/Mutexes.h"
#include "TQLib/platform/linux/objects/Semaphores.h"
#include "TQLib/platform/linux/objects/Threads.h"
#include "TQLib/platform/linux/objects/Waits.h"
#include "TQLib/platform/linux/process/Com.h"
#include "TQLib/platform/linux/process/CommandLine.h"
#include "TQLib/platform/linux/process/ConsoleControl.h"
#include "TQLib/platform/linux/process/ExceptionRecords.h"
#include "TQLib/platform/linux/process/Modules.h"
#include "TQLib/platform/linux/process/Tokens.h"
#include "TQLib/platform/linux/registry/Registry.h"
#include "TQLib/platform/linux/services/Services.h"
#include "TQLib/platform/linux/texts/Locale.h"
#include "TQLib/platform/linux/texts/Texts.h"
#endif
