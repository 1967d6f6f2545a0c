// What monitor is told to do.
#pragma once

#include "TQLib/TQLib.h"
#include "TQLib/platform/Win32.h"

#include <optional>
#include <vector>

struct Options {
    std::optional<DWORD> intervalMs = 5000;  // none: one check
    bool isToFix = false;                    // lists that let strangers write
    std::vector<Quellan::Corvel::TQStringArray> groups = std::vector<Quellan::Corvel::TQStringArray>(1);
};

// Of arguments without the program's name. None where they are wrong.
std::optional<Options> ReadOptions(const Quellan::Corvel::TQStringArray& arguments);
