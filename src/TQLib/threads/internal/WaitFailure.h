// What is said of a wait that failed.
#pragma once

namespace Quellan::Corvel {

inline constexpr const wchar_t* WaitFailed = L"Wait on synch object failed.";

}  // namespace Quellan::Corvel
