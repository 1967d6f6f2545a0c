// Users and groups that exist in the test program alone, as if a directory had them.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Corvel::Test {

// Of users with unusual names; these are members of the groups "staff of all kinds" and "twin". A user is
// called twin, too, whose password is locked.
inline constexpr const wchar_t* DirectoryUsers[] = {L"with some blanks", L"\x7528\x6237"};
inline constexpr unsigned LongNameSize = 256;  // another one, of as many letters x

// The last sub-authorities of the groups.
inline constexpr DWORD StaffRid = 2 * 70010 + 1001;
inline constexpr DWORD TwinGroupRid = 2 * 70006 + 1001;

// Whether questions for the user "silent" are left without an answer, and how many have been asked.
void SilenceDirectory(bool isSilent);
unsigned SilentQuestions();

}  // namespace Quellan::Corvel::Test
