// The text of the file that says which rights accounts have (docs/formats/account-rights.md).
#pragma once

#include "TQLib/platform/linux/accounts/SidValue.h"

#include <string>
#include <string_view>
#include <vector>

namespace Quellan::Platform {

using RightNames = std::vector<std::string>;

// Whether the names have one in it, in any case. May throw std::bad_alloc.
bool HasRight(const RightNames& rights, std::string_view name);
// Adds those that are not there already. May throw std::bad_alloc.
void AddMissing(RightNames& rights, const RightNames& more);

// Lines that are kept as they are, but for those of an account that is changed.
class RightsText {
  public:
    // 1358 (ERROR_INTERNAL_DB_CORRUPTION), with nothing changed. These may throw std::bad_alloc.
    DWORD Parse(std::string_view text);
    std::string Text() const;

    RightNames RightsOf(const SidValue& account) const;
    // An account without rights has no line.
    void SetRightsOf(const SidValue& account, const RightNames& rights);

  private:
    struct Line {
        std::string text;
        bool isOfAccount = false;  // otherwise a comment or nothing
        SidValue account;
        RightNames rights;
    };

    static DWORD ParseLine(std::string_view text, Line& line);

    std::vector<Line> m_lines;
};

}  // namespace Quellan::Platform
