#include "TQLib/threads/TQWorkPool.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/threads/TQWin32AsynchRoot.h"

#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <utility>

namespace Quellan::Corvel {

namespace {

struct SharedPool {
    TQThreadSynch lock;
    _TQWorkPoolBase* pool TQ_GUARDED_BY(lock) = nullptr;
    std::size_t clients TQ_GUARDED_BY(lock) = 0;
};

// Never destroyed: clients may leave at the very end of the process.
SharedPool& TheSharedPool() noexcept {
    alignas(SharedPool) static std::byte place[sizeof(SharedPool)];
    static SharedPool* const shared = new (place) SharedPool;
    return *shared;
}

}  // namespace

void _TQWorkPoolThread::OnWork(BYTEBuf& data) {
    _TQWorkPoolBase::WorkFunction work;
    std::memcpy(&work, data.Data(), sizeof work);
    data.Remove(0, sizeof work);
    work(data);
}

_TQWorkPoolBase::~_TQWorkPoolBase() {
    CloseUp();
}

_TQWorkPoolBase& _TQWorkPoolBase::AddClient() {
    SharedPool& shared = TheSharedPool();
    for (std::unique_ptr<_TQWorkPoolBase> made;;) {
        {
            const TQThreadSynch::TQSynchLock guard(shared.lock);
            if (!shared.pool) shared.pool = made.release();
            if (shared.pool) {
                ++shared.clients;
                return *shared.pool;
            }
        }
        made.reset(new (std::nothrow) _TQWorkPoolBase);
        if (!made) TQStdExceptions::ThrowMemAllocError(L"_TQWorkPoolBase::AddClient");
    }
}

void _TQWorkPoolBase::DelClient() {
    SharedPool& shared = TheSharedPool();
    std::unique_ptr<_TQWorkPoolBase> last;  // destroyed, which waits for its threads, without the lock
    const TQThreadSynch::TQSynchLock guard(shared.lock);
    if (shared.clients == 0) TQStdExceptions::ThrowBadFuncError(L"_TQWorkPoolBase::DelClient");
    if (shared.clients == 1) {
        if (shared.pool->CallingPoolThread())
            throw TQException(ERROR_POSSIBLE_DEADLOCK, L"_TQWorkPoolBase::DelClient");
        last.reset(std::exchange(shared.pool, nullptr));
    }
    --shared.clients;
}

_TQWorkPoolBase* _TQWorkPoolBase::GetInstance() {
    SharedPool& shared = TheSharedPool();
    const TQThreadSynch::TQSynchLock guard(shared.lock);
    return shared.pool;
}

bool _TQWorkPoolBase::AddWork(WorkFunction work, const void* data, DWORD size, DWORD requestorID) {
    constexpr const wchar_t* where = L"_TQWorkPoolBase::AddWork";
    if (!work || (!data && size != 0)) TQStdExceptions::ThrowParameterInvalidError(where);
    if (size > std::numeric_limits<DWORD>::max() - sizeof work) TQStdExceptions::ThrowOverflowError(where);
    const DWORD bytes = size + DWORD{sizeof work};
    BYTE inPlace[_TQWin32AsynchRoot::RecycledBytes];
    BYTEBuf longer(bytes > sizeof inPlace ? bytes : 0);
    BYTE* const item = longer.IsEmpty() ? inPlace : longer.Data();
    std::memcpy(item, &work, sizeof work);
    if (size != 0) std::memcpy(item + sizeof work, data, size);
    return _PostWork(item, bytes, requestorID);
}

}  // namespace Quellan::Corvel
