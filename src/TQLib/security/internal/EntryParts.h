// Entries of access-control lists as they lie in memory.
#pragma once

#include "TQLib/platform/SecurityBlocks.h"
#include "TQLib/security/SecACE.h"

namespace Quellan::Sarvek {

using Bytes = Platform::ByteView;
using Platform::EntryParts;
using Platform::ReadEntry;
using Platform::ReadIdentifier;

// An entry of a kind for object types that has none is one of the kind without.
SecACE::Kind KindWithoutTypes(SecACE::Kind kind) noexcept;

bool AreSame(const SecACE& entry, const EntryParts& parts) noexcept;

}  // namespace Quellan::Sarvek
