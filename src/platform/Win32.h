// The one door to the platform: library sources, tools and tests include this and call the platform by its
// own names. On Windows these are the system's calls; on Linux they are the layer's, with the same documented
// behaviour. Only what the layer implements is declared there.
#pragma once

#include "platform/Types.h"

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
#include "platform/linux/Accounts.h"
#include "platform/linux/Com.h"
#include "platform/linux/CommandLine.h"
#include "platform/linux/CompletionPorts.h"
#include "platform/linux/ConsoleControl.h"
#include "platform/linux/CriticalSections.h"
#include "platform/linux/Environment.h"
#include "platform/linux/Errors.h"
#include "platform/linux/EventLog.h"
#include "platform/linux/Events.h"
#include "platform/linux/Files.h"
#include "platform/linux/Handles.h"
#include "platform/linux/Locale.h"
#include "platform/linux/Memory.h"
#include "platform/linux/Messages.h"
#include "platform/linux/Modules.h"
#include "platform/linux/Mutexes.h"
#include "platform/linux/NetAccounts.h"
#include "platform/linux/Policy.h"
#include "platform/linux/Privileges.h"
#include "platform/linux/Process.h"
#include "platform/linux/Registry.h"
#include "platform/linux/SecurityDescriptors.h"
#include "platform/linux/Semaphores.h"
#include "platform/linux/Services.h"
#include "platform/linux/Sids.h"
#include "platform/linux/StructuredExceptions.h"
#include "platform/linux/Texts.h"
#include "platform/linux/Threads.h"
#include "platform/linux/Tokens.h"
#include "platform/linux/Version.h"
#include "platform/linux/Volumes.h"
#include "platform/linux/Waits.h"
#endif
