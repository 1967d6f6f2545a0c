#include "platform/linux/base/Fork.h"

#include <atomic>
#include <pthread.h>

namespace Quellan::Corvel::Platform {

namespace {

constinit std::atomic<std::uint32_t> g_generation = 0;
// Sorted; changed only while the library is loaded.
constinit ForkPart* g_outermost = nullptr;
constinit ForkPart* g_innermost = nullptr;

}  // namespace

std::uint32_t ForkGeneration() noexcept {
    return g_generation.load(std::memory_order_relaxed);
}

struct ForkPart::Registration {
    Registration() noexcept {
        pthread_atfork(
            [] {
                for (ForkPart* part = g_outermost; part; part = part->m_inner)
                    if (part->m_prepare) part->m_prepare();
            },
            [] { Resume(false); },
            [] {
                g_generation.fetch_add(1, std::memory_order_relaxed);
                Resume(true);
            });
    }

    static void Resume(bool isChild) noexcept {
        for (ForkPart* part = g_innermost; part; part = part->m_outer)
            part->m_resume(isChild);
    }
};

ForkPart::ForkPart(ForkOrder order, Prepare prepare, ForkPart::Resume resume) noexcept
    : m_order(order), m_prepare(prepare), m_resume(resume) {
    static const Registration registration;
    m_inner = g_outermost;
    while (m_inner && m_inner->m_order < m_order) {
        m_outer = m_inner;
        m_inner = m_inner->m_inner;
    }
    (m_outer ? m_outer->m_inner : g_outermost) = this;
    (m_inner ? m_inner->m_outer : g_innermost) = this;
}

}  // namespace Quellan::Corvel::Platform
