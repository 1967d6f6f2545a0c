// Failures that say what they are about.
#pragma once

#include "TQLib/core/TQException.h"

#include <concepts>

namespace Quellan::Corvel {

// Does `work`; a failure of it that does not say so yet gets as its action what was being done, or to what:
// `name` is a text, or a function that gives one and is called then. Without memory for it that is thrown, 14
// (ERROR_OUTOFMEMORY).
template <class Name, class Work>
decltype(auto) About(const Name& name, Work work) {
    try {
        return work();
    } catch (TQCoreException& failure) {
        if (*failure.Action() == L'\0') {
            if constexpr (std::invocable<const Name&>)
                failure.SetAction(TQString(name()).c_str());
            else
                failure.SetAction(TQString(name).c_str());
        }
        throw;
    }
}

}  // namespace Quellan::Corvel
