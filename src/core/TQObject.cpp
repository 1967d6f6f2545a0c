#include "core/TQObject.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

#include "text/STLString.h"

namespace Quellan::Corvel {

TQObject::~TQObject() = default;

STLString TQObject::Describe() const {
    const char* const mangled = typeid(*this).name();
    const std::unique_ptr<char, void (*)(void*)> readable(
        abi::__cxa_demangle(mangled, nullptr, nullptr, nullptr), std::free);
    return _TQwString::FromUtf8(readable ? readable.get() : mangled);
}

}  // namespace Quellan::Corvel
