// Lists that let strangers write.
#pragma once

#include "TQLib/TQLib.h"
#include "TQLib/platform/Win32.h"

// What somebody may change in a file or folder who is signed in and has no more to do with it: his rights among
// those to write, delete, take over and give away. 0 where it is nothing.
DWORD WritingByStrangers(const Quellan::Sarvek::SecDesc& descriptor);

struct Repair {
    Quellan::Sarvek::SecDesc descriptor;
    Quellan::Corvel::TQString changes;  // a line for each
};

// The same descriptor without the rights of strangers to write; all else stays. Inherited entries become its
// own then, as they would come back from above.
Repair WithoutStrangers(const Quellan::Sarvek::SecDesc& descriptor);
