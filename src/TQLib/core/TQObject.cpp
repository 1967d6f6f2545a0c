#include "TQLib/core/base/TQObject.h"

#include "TQLib/text/STLString.h"

#include <cstdlib>
#include <cxxabi.h>
#include <memory>
#include <typeinfo>

namespace Quellan::Corvel {

STLString TQObject::Description() const {
    const char* const raw = typeid(*this).name();
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(raw, nullptr, nullptr, &status),
                                                      std::free);
    return _TQwString::FromUtf8(name ? name.get() : raw);
}

TQObject::~TQObject() = default;

}  // namespace Quellan::Corvel
