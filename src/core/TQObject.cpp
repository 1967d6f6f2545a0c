#include "core/TQObject.h"

namespace Quellan::Corvel {

TQObject::~TQObject() = default;

}  // namespace Quellan::Corvel
