#include "TQLib/platform/StandingWaits.h"

namespace Quellan::Platform {

struct StandingWaits::Watch {};
struct StandingWaits::Impl {};

bool StandingWaits::End(Watch&) noexcept {
    return false;
}

void StandingWaits::Delete::operator()(Watch* watch) const noexcept {
    delete watch;
}

StandingWaits::StandingWaits(HANDLE) {}

StandingWaits::~StandingWaits() = default;

bool StandingWaits::Begin(HANDLE, void*, WatchPtr&) {
    return false;
}

void* StandingWaits::TakeReady() noexcept {
    return nullptr;
}

}  // namespace Quellan::Platform
