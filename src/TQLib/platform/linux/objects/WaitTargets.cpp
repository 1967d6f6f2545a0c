#include "TQLib/platform/linux/objects/WaitTargets.h"

#include "TQLib/platform/linux/base/Process.h"
#include "TQLib/platform/linux/objects/ThreadObject.h"

#include <algorithm>

namespace Quellan::Platform {

DWORD WaitTarget::Open(HANDLE handle) noexcept {
    if (handle == GetCurrentThread()) {
        m_object = Thread::Current();
        return m_object ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
    }
    m_use = HandleUse(handle);
    Object* const object = m_use.Get();
    if (!object || !object->KindOf().waitable) return ERROR_INVALID_HANDLE;
    if (!(m_use.Access() & SYNCHRONIZE)) return ERROR_ACCESS_DENIED;
    m_object = static_cast<Waitable*>(object);
    return ERROR_SUCCESS;
}

DWORD WaitTargets::Open(DWORD count, const HANDLE* handles, bool all) noexcept {
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || !handles) return ERROR_INVALID_PARAMETER;
    for (; m_count < count; ++m_count) {
        WaitTarget& target = *std::construct_at(&m_targets[m_opened++]);
        if (DWORD code = target.Open(handles[m_count])) return code;
        m_objects[m_count] = target.Get();
    }
    if (!all) return ERROR_SUCCESS;
    auto sorted = m_objects;
    const auto end = sorted.begin() + static_cast<std::ptrdiff_t>(m_count);
    std::sort(sorted.begin(), end);
    return std::adjacent_find(sorted.begin(), end) == end ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER;
}

}  // namespace Quellan::Platform
