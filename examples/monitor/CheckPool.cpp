#include "CheckPool.h"

#include <cstring>

using namespace Quellan::Corvel;

namespace {

Target& TargetOf(const void* item) {
    Target* target;
    std::memcpy(&target, item, sizeof target);
    return *target;
}

}  // namespace

void CheckThread::OnWork(BYTEBuf& data) {
    Target& target = TargetOf(data.Data());
    target.Check();
    target.End();
}

void CheckExceptionHandler::ReportException(DWORD threadID, unsigned int code, const wchar_t* message,
                                            const void* work, ULONGLONG workSize, const void* poolData,
                                            ULONGLONG poolDataSize) {
    TQThreadPoolExceptionHandler::ReportException(threadID, code, message, work, workSize, poolData,
                                                  poolDataSize);
    if (work) TargetOf(work).Fail(code, message);
}

bool CheckPool::Post(Target& target, DWORD requestorID) {
    if (!target.Begin()) return false;
    const Target* const item = &target;
    try {
        return AddWork(&item, sizeof item, requestorID);
    } catch (...) {
        target.End();
        throw;
    }
}

TQString CheckPool::Report() const {
    return TQString::Format(L"pool: %u threads, %u busy, %u waiting, %u checks queued\n", ThreadsAllocated(),
                            ThreadsBusy(), ThreadsWaiting(), WorkCount());
}
