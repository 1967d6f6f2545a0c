#include "TQLib/platform/linux/objects/RobustTie.h"

#include "TQLib/platform/Compiler.h"

#include <pthread.h>
#include <utility>

namespace Quellan::Platform {

namespace {

constexpr std::uintptr_t OtherKind = 1;

TQ_THERE_WITH_THREAD constinit thread_local robust_list_head* t_list = nullptr;

// Null where there is none.
robust_list_head* List() noexcept {
    std::size_t size;
    if (!t_list) syscall(SYS_get_robust_list, 0, &t_list, &size);
    return t_list;
}

// The field of an entry, whose address is that of its `m_next`.
void*& NextOf(void* entry) noexcept {
    return *reinterpret_cast<void**>(reinterpret_cast<std::uintptr_t>(entry) & ~OtherKind);
}
void*& PreviousOf(void* entry) noexcept {
    return *(&NextOf(entry) - 1);
}

// The kernel may read the list between any two instructions of its thread.
void InThisOrder() noexcept {
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

}  // namespace

bool RobustTie::IsSupported(std::size_t pageBytes) noexcept {
    constexpr std::size_t NextInMutex =
        offsetof(pthread_mutex_t, __data.__list) + offsetof(__pthread_internal_list, __next);
    static_assert(NextInMutex - offsetof(pthread_mutex_t, __data.__lock) ==
                  BytesFromWord + offsetof(RobustTie, m_next));
    static_assert(offsetof(RobustTie, m_previous) == 0);
    static_assert(offsetof(__pthread_internal_list, __next) == offsetof(RobustTie, m_next));
    const robust_list_head* const list = List();
    constexpr auto FromEntry = -static_cast<long>(BytesFromWord + offsetof(RobustTie, m_next));
    return list && list->futex_offset == FromEntry && sysconf(_SC_PAGESIZE) == static_cast<long>(pageBytes);
}

void RobustTie::Tie() noexcept {
    robust_list_head* const list = List();
    void* const head = &list->list;
    void* const first = list->list.next;
    m_previous = head;
    m_next = first;
    InThisOrder();
    // The C library reads the field before the head as it writes it, and for nothing.
    if (first != head) PreviousOf(first) = &m_next;
    list->list.next = reinterpret_cast<robust_list*>(&m_next);
    InThisOrder();
}

void RobustTie::Untie() noexcept {
    if (!m_next) return;
    if (m_next != &t_list->list) PreviousOf(m_next) = m_previous;
    NextOf(m_previous) = m_next;
    InThisOrder();
    m_next = nullptr;
}

void RobustTie::Forget() noexcept {
    m_next = nullptr;
    GiveUp();
}

RobustTie::Pending::Pending(RobustTie* tie) noexcept : m_isSet(tie && List()) {
    if (!m_isSet) return;
    m_before = std::exchange(t_list->list_op_pending, reinterpret_cast<robust_list*>(&tie->m_next));
    InThisOrder();
}

RobustTie::Pending::~Pending() {
    if (!m_isSet) return;
    InThisOrder();
    t_list->list_op_pending = static_cast<robust_list*>(m_before);
}

}  // namespace Quellan::Platform
