// Entries of access-control lists as they lie in memory.
#pragma once

#include "TQLib/platform/SecurityBlocks.h"
#include "TQLib/security/SecACE.h"

namespace Quellan::Sarvek {

using Bytes = Platform::ByteView;
using Platform::EntryParts;
using Platform::ReadEntry;
using Platform::ReadIdentifier;

bool AreSame(const SecACE& entry, const EntryParts& parts) noexcept;

}  // namespace Quellan::Sarvek
