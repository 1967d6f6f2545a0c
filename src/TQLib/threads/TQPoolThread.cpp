#include "TQLib/threads/TQPoolThread.h"

#include "TQLib/threads/TQThreadPool.h"

namespace Quellan::Corvel {

TQPoolThread::TQPoolThread() = default;

TQPoolThread::~TQPoolThread() {
    EndThread();
}

void TQPoolThread::AssignPool(_TQThreadPoolBase* pool) {
    ThreadData() = pool->PoolData();
    m_pool = pool;
}

void TQPoolThread::Stop() {
    SetReadyForWork(false);
    TQThread::Stop();
}

unsigned int TQPoolThread::RunWork(BYTEBuf&) {
    if (!m_pool) TQStdExceptions::ThrowBadFuncError(L"TQPoolThread::RunWork");
    m_pool->RunPoolThread(this);
    return 0;
}

void TQPoolThread::PostPoolWork(const void* data, DWORD size) {
    if (!m_pool) TQStdExceptions::ThrowBadFuncError(L"TQPoolThread::PostPoolWork");
    m_pool->_PostWork(data, size, 0);
}

}  // namespace Quellan::Corvel
