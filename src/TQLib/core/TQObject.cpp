#include "TQLib/core/base/TQObject.h"

#include "TQLib/platform/Compiler.h"
#include "TQLib/text/STLString.h"

#include <cstdlib>
#include <memory>
#include <typeinfo>

namespace Quellan::Corvel {

STLString TQObject::Description() const {
    const char* const raw = typeid(*this).name();
    const std::unique_ptr<char, void (*)(void*)> name(Compiler::ReadableTypeName(raw), std::free);
    return _TQwString::FromUtf8(name ? name.get() : raw);
}

TQObject::~TQObject() = default;

}  // namespace Quellan::Corvel
