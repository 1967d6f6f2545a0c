// The base of events and mutexes.
#pragma once

#include "TQLib/core/base/TQObject.h"
#include "TQLib/log/time/TQTimeSpan.h"
#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/TQHandle.h"

#include <utility>

namespace Quellan::Corvel {

// A kernel object that threads wait for. Copies share one object, which is closed when the last of them goes;
// what was moved from has none. An object may be used by several threads at once as long as none assigns to
// it.
//
// Failures of the platform are thrown as `TQSysException` with its code.
class TQLIB_API TQSynchObj : public TQObject {
  public:
    // What the platform says of itself, as far as names of kernel objects depend on it. The values are those
    // of the platform's extended version record.
    struct PlatformVersion {
        DWORD platform;
        DWORD major;
        WORD suites;
        BYTE product;
    };

    ~TQSynchObj() override;

    // Borrowed: closed with the last copy of this object.
    [[nodiscard]] virtual HANDLE Handle() const noexcept;

    // Waits up to `ms` milliseconds (INFINITE: without end; 0: only looks) until the object is signalled:
    // true, also for a mutex whose owner ended without releasing it. False when the time is up. Throws "Wait
    // on synch object failed.".
    [[nodiscard]] bool Wait(DWORD ms) const;
    [[nodiscard]] bool Wait(TQTimeSpan time) const { return Wait(time.TimeoutMs()); }

    // The name under which an object is opened: behind "Global\" or "Local\" where the platform tells the
    // name spaces of sessions apart, else `name` as it is. A null name is an empty one.
    [[nodiscard]] static TQString KernelObjectName(const wchar_t* name, bool global);
    // What goes before the name on a platform of that version: "Global\", "Local\" or nothing.
    [[nodiscard]] static const wchar_t* KernelObjectPrefix(const PlatformVersion& version,
                                                           bool global) noexcept;

  protected:
    // Takes over what `handle` owns, which keeps it where this throws.
    explicit TQSynchObj(TQUniqueHandle<_TQKernelHandleClose>&& handle) : m_handle(std::move(handle)) {}
    TQSynchObj(const TQSynchObj&) = default;
    TQSynchObj(TQSynchObj&&) noexcept = default;
    TQSynchObj& operator=(const TQSynchObj&) = default;
    TQSynchObj& operator=(TQSynchObj&&) noexcept = default;

    [[nodiscard]] const TQHandle<_TQKernelHandleClose>& Holder() const noexcept { return m_handle; }

  private:
    TQHandle<_TQKernelHandleClose> m_handle;
};

}  // namespace Quellan::Corvel
