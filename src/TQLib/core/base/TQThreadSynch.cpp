#include "TQLib/core/base/TQThreadSynch.h"

#include "TQLib/platform/Platform.h"

namespace Quellan::Corvel {

namespace {

CRITICAL_SECTION* Section(std::byte* memory) noexcept {
    return reinterpret_cast<CRITICAL_SECTION*>(memory);
}

}  // namespace

TQThreadSynch::TQThreadSynch() noexcept {
    static_assert(sizeof(CRITICAL_SECTION) <= sizeof m_section &&
                  alignof(CRITICAL_SECTION) <= alignof(void*));
    InitializeCriticalSection(Section(m_section));
}

TQThreadSynch::TQThreadSynch(HeldWhileWaiting) noexcept {
    InitializeCriticalSectionEx(Section(m_section), 0, CRITICAL_SECTION_NO_DEBUG_INFO);
}

TQThreadSynch::TQThreadSynch(const TQThreadSynch&) noexcept : TQThreadSynch() {}

TQThreadSynch::~TQThreadSynch() {
    DeleteCriticalSection(Section(m_section));
}

void TQThreadSynch::Lock() {
    EnterCriticalSection(Section(m_section));
}

void TQThreadSynch::UnLock() {
    LeaveCriticalSection(Section(m_section));
}

}  // namespace Quellan::Corvel
