// Users and groups that exist in this test program alone, as if a directory had them.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Corvel::Test {

// Each is a member of the groups "staff of all kinds" and, though a user is called so too, "twin"; they are
// of the directory, so global ones.
inline constexpr const wchar_t* DirectoryUsers[] = {L"with some blanks", L"\x7528\x6237", L"twin"};
inline constexpr unsigned LongNameSize = 256;  // another one, of as many letters x

// The last sub-authorities of the groups.
inline constexpr DWORD StaffRid = 2 * 70010 + 1001;
inline constexpr DWORD TwinGroupRid = 2 * 70011 + 1001;

// The password of "twin" is locked, all others' are open.
inline constexpr const wchar_t* LockedUser = L"twin";

}  // namespace Quellan::Corvel::Test
