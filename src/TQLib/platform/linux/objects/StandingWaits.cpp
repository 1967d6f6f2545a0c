#include "TQLib/platform/StandingWaits.h"

#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/objects/WaitTargets.h"

namespace Quellan::Platform {

struct StandingWaits::Watch {
    Watch(void* given, Impl& owner, std::shared_ptr<Waitable> waitable);

    void* const context;
    Impl& impl;
    const std::shared_ptr<Waitable> object;
    ReadyBlock block;
};

// What is ready, in its order, and the event that tells of it.
struct StandingWaits::Impl final : ReadyList {
    explicit Impl(HANDLE handle) noexcept : event(handle) {}

    void Push(ReadyBlock& block, WakeList& wakes) noexcept override {
        {
            const Guard guard(lock);
            block.previous = last;
            block.next = nullptr;
            (last ? last->next : first) = &block;
            last = &block;
            block.isReady = true;
        }
        static_cast<Waitable*>(event.Get())->Signal(wakes);
    }

    void Unlink(WaitBlock& block) noexcept TQ_REQUIRES(lock) {
        (block.previous ? block.previous->next : first) = block.next;
        (block.next ? block.next->previous : last) = block.previous;
        static_cast<ReadyBlock&>(block).isReady = false;
    }

    const HandleUse event;
    ObjectLock<ShortLock> lock;
    // The blocks in the list are guarded with it.
    WaitBlock* first TQ_GUARDED_BY(lock) = nullptr;
    WaitBlock* last TQ_GUARDED_BY(lock) = nullptr;
};

StandingWaits::Watch::Watch(void* given, Impl& owner, std::shared_ptr<Waitable> waitable)
    : context(given), impl(owner), object(std::move(waitable)) {
    block.list = &owner;
    block.watch = this;
}

StandingWaits::StandingWaits(HANDLE event) : m_impl(std::make_unique<Impl>(event)) {}

StandingWaits::~StandingWaits() = default;

bool StandingWaits::Begin(HANDLE handle, void* context, WatchPtr& watch) {
    if (!m_impl->event.Get()) return false;
    WaitTarget target;
    if (target.Open(handle) != ERROR_SUCCESS) return false;
    Waitable* const object = target.Get();
    // A mutex needs a thread to own it; shared objects are taken by those who wait, not handed over.
    if (object->Shared() || object->Rule().takesOwnership) return false;
    if (!watch || watch->object.get() != object)
        watch = WatchPtr(
            new Watch(context, *m_impl, std::static_pointer_cast<Waitable>(object->shared_from_this())));
    watch->object->BeginWatch(watch->block);
    return true;
}

void* StandingWaits::TakeReady() noexcept {
    const Guard guard(m_impl->lock);
    WaitBlock* const block = m_impl->first;
    if (!block) return nullptr;
    m_impl->Unlink(*block);
    return static_cast<const Watch*>(static_cast<ReadyBlock*>(block)->watch)->context;
}

bool StandingWaits::End(Watch& watch) noexcept {
    watch.object->EndWatch(watch.block);
    const Guard guard(watch.impl.lock);
    const bool wasReady = watch.block.isReady;
    if (wasReady) watch.impl.Unlink(watch.block);
    return wasReady;
}

void StandingWaits::Delete::operator()(Watch* watch) const noexcept {
    End(*watch);
    delete watch;
}

}  // namespace Quellan::Platform
