// Entries of access-control lists as they lie in memory.
#pragma once

#include "TQLib/security/SecACE.h"

#include <optional>
#include <span>

namespace Quellan::Sarvek {

using Bytes = std::span<const BYTE>;

// The parts of an entry, where they lie; nothing is aligned.
struct EntryParts {
    SecACE::Kind kind{};
    BYTE flags = 0;
    DWORD rights = 0;
    Bytes objectType;     // empty where there is none
    Bytes inheritedType;  // likewise
    Bytes id;             // empty for a kind that is kept byte for byte
    Bytes data;
    std::size_t size = 0;  // of the whole entry
};

// The entry at the beginning of `bytes`; none where it is damaged or goes on behind their end.
std::optional<EntryParts> ReadEntry(Bytes bytes) noexcept;

// An entry of a kind for object types that has none is one of the kind without.
SecACE::Kind KindWithoutTypes(SecACE::Kind kind) noexcept;

bool AreSame(const SecACE& entry, const EntryParts& parts) noexcept;

// The identifier at the beginning of `bytes`; empty where there is none.
Bytes ReadIdentifier(Bytes bytes) noexcept;

}  // namespace Quellan::Sarvek
