// Events.
#pragma once

#include "TQLib/security/SecAttr.h"
#include "TQLib/threads/TQSynchObj.h"

namespace Quellan::Corvel {

// A flag that threads wait for. An event with manual reset stays signalled until `Reset`; one without lets a
// single waiting thread through and resets itself.
class TQLIB_API TQEvent : public TQSynchObj {
  public:
    // Unnamed and not signalled. Throws "Attempt to open event object failed.", as do the other
    // constructors.
    explicit TQEvent(bool manualReset);
    // Opens the event of this name (see `KernelObjectName`), or makes it: the last two arguments are for a
    // new one only. Without a name it is a new one. Code 6 (ERROR_INVALID_HANDLE) where the name belongs to
    // something that is no event.
    TQEvent(const wchar_t* name, bool global, bool manualReset, bool initialState);
    // As before; a new event gets these attributes. On Linux the descriptor changes nothing: a global event
    // is for everybody, any other for the user who made it. There code 50 (ERROR_NOT_SUPPORTED) where the
    // handle is to be inherited.
    TQEvent(const wchar_t* name, bool global, Sarvek::SecAttr& security, bool manualReset, bool initialState);

    void Set() const;
    void Reset() const;

    // Whether both are the same kernel object, however each was opened.
    friend TQLIB_API bool operator==(const TQEvent& left, const TQEvent& right) noexcept;
};

}  // namespace Quellan::Corvel
