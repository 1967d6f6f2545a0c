#include "Samples.h"

#include <TQLib/TQLib.h>

using namespace Quellan::Corvel;

namespace {

void OpenSettings() {
    const TQRegKey key(TQRegistry::MachineKey(), L"No Such Key");
}

void ReadSettings() {
    try {
        OpenSettings();
    } catch (const TQCoreException& e) {
        throw TQAppException(e, 0xE0045001, L"The settings could not be opened.");
    }
}

class OrderRefused : public _TQExceptionKind<OrderRefused, TQAppException> {
  public:
    using _TQExceptionKind::_TQExceptionKind;
};

bool hasReturned = false;

void Work() {
    *static_cast<volatile int*>(nullptr) = 1;
    hasReturned = true;
}

void RunWorker() {
    const _TQWin32Exception::Trap_SEH trap(L"worker");
    try {
        Work();
    } catch (const _TQWin32Exception& e) {
        TQCoreException(e).LogEvent(L"worker");
    }
}

}  // namespace

void ExceptionsSample() {
    try {
        ReadSettings();
    } catch (const TQCoreException& e) {
        Expect(e.ErrCode() == 0xE0045001 && e.Inner() != nullptr, L"The cause is kept.");
    }
    try {
        throw OrderRefused(0xE0045002, L"No more orders.");
    } catch (const TQAppException& e) {
        const TQCoreException outer(e, 0xE0045003, L"The day is over.");
        Expect(dynamic_cast<const OrderRefused*>(outer.Inner()) != nullptr,
               L"A kind of one's own stays what it is.");
    }
    RunWorker();
    Expect(!hasReturned, L"A fault becomes an exception.");
}
