#include "TQLib/services/TQServiceStatus.h"

#include "TQLib/platform/Platform.h"
#include "TQLib/services/TQSvcHandle.h"

#include <iterator>
#include <utility>

namespace Quellan::Corvel {

static_assert(sizeof(TQServiceRecord) == sizeof(SERVICE_STATUS));
static_assert(offsetof(TQServiceRecord, waitHint) == offsetof(SERVICE_STATUS, dwWaitHint));

void _TQSvcHandleClose::Close(SC_HANDLE__* handle) noexcept {
    CloseServiceHandle(handle);
}

const wchar_t* TQSvcState::Name(DWORD state) noexcept {
    static constexpr const wchar_t* names[] = {L"stopped", L"start pending",    L"stop pending",
                                               L"running", L"continue pending", L"pause pending",
                                               L"paused"};
    return state >= Stopped && state <= std::size(names) ? names[state - Stopped] : L"unknown";
}

TQServiceStatus::TQServiceStatus() noexcept = default;
TQServiceStatus::TQServiceStatus(TQString name, TQString displayName, const TQServiceRecord& record) noexcept
    : m_name(std::move(name)), m_displayName(std::move(displayName)), m_record(record) {}
TQServiceStatus::TQServiceStatus(const TQServiceStatus&) = default;
TQServiceStatus::TQServiceStatus(TQServiceStatus&&) noexcept = default;
TQServiceStatus& TQServiceStatus::operator=(const TQServiceStatus&) = default;
TQServiceStatus& TQServiceStatus::operator=(TQServiceStatus&&) noexcept = default;
TQServiceStatus::~TQServiceStatus() = default;

bool operator==(const TQServiceStatus& left, const TQServiceStatus& right) noexcept {
    return left.m_name == right.m_name && left.m_displayName == right.m_displayName &&
           left.m_record == right.m_record;
}

}  // namespace Quellan::Corvel
