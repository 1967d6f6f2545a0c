// What the service program and its tests agree upon.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Corvel::Test {

constexpr const wchar_t* FirstName = L"TQTestFirst";
constexpr const wchar_t* SecondName = L"TQTestSecond";
constexpr DWORD FailureCode = 1234;

}  // namespace Quellan::Corvel::Test
