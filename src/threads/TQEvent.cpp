#include "threads/TQEvent.h"

#include "core/TQException.h"
#include "platform/Win32.h"

namespace Quellan::Corvel {

namespace {

HANDLE Opened(const wchar_t* name, bool manualReset, bool initialState) {
    const HANDLE event = CreateEventW(nullptr, manualReset, initialState, name);
    if (!event) TQSysException::ThrowLastError(L"Attempt to open event object failed.");
    return event;
}

}  // namespace

TQEvent::TQEvent(bool manualReset) : TQSynchObj(Opened(nullptr, manualReset, false)) {}

TQEvent::TQEvent(const wchar_t* name, bool global, bool manualReset, bool initialState)
    : TQSynchObj(Opened(name ? KernelObjectName(name, global).c_str() : nullptr, manualReset, initialState)) {
}

void TQEvent::Set() const {
    if (!SetEvent(Handle())) TQSysException::ThrowLastError(L"TQEvent::Set");
}

void TQEvent::Reset() const {
    if (!ResetEvent(Handle())) TQSysException::ThrowLastError(L"TQEvent::Reset");
}

}  // namespace Quellan::Corvel
