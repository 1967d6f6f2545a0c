#include "TQLib/platform/linux/base/Process.h"

#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/base/ComputerName.h"
#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/EnvironmentBlock.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/QuietWrite.h"
#include "TQLib/platform/linux/base/Wide.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <unistd.h>

namespace Quellan::Platform {

namespace {

// 0: not asked for yet. Each exception has both, and the kernel takes as long as the rest of its making.
thread_local DWORD t_threadId = 0;
std::atomic<DWORD> g_processId = 0;

// The child of a fork is another process, and the thread that forked is another one in it.
const ForkPart g_idForkPart(ForkOrder::Ids, nullptr, [](bool isChild) noexcept {
    if (!isChild) return;
    t_threadId = 0;
    g_processId.store(0, std::memory_order_relaxed);
});

Descriptor StandardError() {
    return Descriptor(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
}

// Opened anew for each text, so that a file that was moved away is made again; -1 when there is nowhere to
// write.
Descriptor OpenDebugOutput() {
    if (IsDebuggerPresent()) return StandardError();
    const auto name = TrustedEnvironmentVariable("TQLIB_DEBUG_OUTPUT");
    if (!name || name->empty()) return Descriptor();
    if (*name == "-") return StandardError();
    constexpr int Flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY;
    return Descriptor(Retry([&] { return open(name->c_str(), Flags, 0600); }));
}

}  // namespace

std::wstring ComputerName() {
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof name - 1) != 0) return L"LOCALHOST";
    const std::string_view host(name);
    std::wstring wide = ToWide(host.substr(0, host.find('.')));
    wide.resize(std::min<std::size_t>(wide.size(), MAX_COMPUTERNAME_LENGTH));
    std::ranges::transform(wide, wide.begin(), ToUpper);
    return wide;
}

DWORD GetCurrentProcessId() noexcept {
    DWORD id = g_processId.load(std::memory_order_relaxed);
    if (id == 0) {
        id = static_cast<DWORD>(getpid());
        g_processId.store(id, std::memory_order_relaxed);
    }
    return id;
}

DWORD GetCurrentThreadId() noexcept {
    if (t_threadId == 0) t_threadId = static_cast<DWORD>(gettid());
    return t_threadId;
}

HANDLE GetCurrentProcess() noexcept {
    return reinterpret_cast<HANDLE>(~ULONG_PTR{0});
}

HANDLE GetCurrentThread() noexcept {
    return reinterpret_cast<HANDLE>(~ULONG_PTR{1});
}

void ExitProcess(UINT code) noexcept {
    std::exit(static_cast<int>(code));
}

BOOL GetComputerNameW(wchar_t* buffer, DWORD* size) noexcept {
    if (DWORD code = FaultDue("GetComputerNameW")) return Fail(code, FALSE);
    if (!size) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    try {
        const std::wstring name = ComputerName();
        const bool fits = buffer && CopyOut(name, buffer, *size);
        *size = static_cast<DWORD>(fits ? name.size() : name.size() + 1);
        return fits ? TRUE : Fail(ERROR_BUFFER_OVERFLOW, FALSE);
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
    }
}

BOOL IsDebuggerPresent() noexcept {
    char buffer[4096];
    const std::string_view status = ReadStart("/proc/self/status", buffer);
    constexpr std::string_view Field = "TracerPid:\t";
    const std::size_t found = status.find(Field);
    int tracer = 0;
    if (found != status.npos)
        std::from_chars(status.data() + found + Field.size(), status.data() + status.size(), tracer);
    return tracer != 0;
}

void OutputDebugStringW(const wchar_t* text) noexcept {
    if (!text) return;
    const int saved = errno;
    try {
        const Descriptor output = OpenDebugOutput();
        const std::string native = output ? ToUtf8(text) : std::string();
        if (!native.empty()) Retry([&] { return WriteQuietly(output.Get(), native.data(), native.size()); });
    } catch (const std::bad_alloc&) {
        // Nobody waits for this text.
    }
    errno = saved;
}

}  // namespace Quellan::Platform
