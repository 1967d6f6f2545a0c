#include "TQLib/threads/TQEvent.h"

#include "TQLib/core/internal/About.h"
#include "TQLib/platform/Platform.h"

namespace Quellan::Corvel {

namespace {

using EventHandle = TQUniqueHandle<_TQKernelHandleClose>;

EventHandle OpenedEvent(SECURITY_ATTRIBUTES* security, const wchar_t* name, bool manualReset,
                        bool initialState) {
    EventHandle event(CreateEventW(security, manualReset, initialState, name));
    if (!event) About(name, [] { TQSysException::ThrowLastError(L"Attempt to open event object failed."); });
    return event;
}

EventHandle OpenedByName(SECURITY_ATTRIBUTES* security, const wchar_t* name, bool global, bool manualReset,
                         bool initialState) {
    return OpenedEvent(security, name ? TQSynchObj::KernelObjectName(name, global).c_str() : nullptr,
                       manualReset, initialState);
}

}  // namespace

TQEvent::TQEvent(bool manualReset) : TQSynchObj(OpenedEvent(nullptr, nullptr, manualReset, false)) {}

TQEvent::TQEvent(const wchar_t* name, bool global, bool manualReset, bool initialState)
    : TQSynchObj(OpenedByName(nullptr, name, global, manualReset, initialState)) {}

TQEvent::TQEvent(const wchar_t* name, bool global, Sarvek::SecAttr& security, bool manualReset,
                 bool initialState)
    : TQSynchObj(OpenedByName(security.Get(), name, global, manualReset, initialState)) {}

void TQEvent::Set() const {
    if (!SetEvent(Handle())) TQSysException::ThrowLastError(L"TQEvent::Set");
}

void TQEvent::Reset() const {
    if (!ResetEvent(Handle())) TQSysException::ThrowLastError(L"TQEvent::Reset");
}

}  // namespace Quellan::Corvel
