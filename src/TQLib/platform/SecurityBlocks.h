// Identifiers, entries and access-control lists as their published bytes. Nothing is aligned, nothing is read
// behind the bytes that are handed in, nothing throws or allocates.
#pragma once

#include "TQLib/platform/Types.h"

#include <cstring>
#include <optional>
#include <span>

namespace Quellan::Platform {

using ByteView = std::span<const BYTE>;

template <class Number>
Number NumberAt(const BYTE* at) noexcept {
    Number number;
    std::memcpy(&number, at, sizeof number);
    return number;
}

// Of an identifier: its head and each of its sub-authorities.
constexpr std::size_t SidHeadSize = 8;
constexpr std::size_t SidPartSize = 4;

// Of the GUID of a kind of objects.
constexpr std::size_t ObjectTypeSize = 16;

// The identifier at the beginning of `bytes`; empty where there is none.
ByteView ReadIdentifier(ByteView bytes) noexcept;

// The kinds of entries that mean something here, by their published values.
enum EntryKind : BYTE {
    AllowEntry = 0,
    DenyEntry = 1,
    CompoundEntry = 4,
    AllowObjectEntry = 5,
    DenyObjectEntry = 6,
    AlarmObjectEntry = 8,
    AllowCallbackEntry = 9,
    DenyCallbackEntry = 0xA,
    AllowCallbackObjectEntry = 0xB,
    DenyCallbackObjectEntry = 0xC,
    AuditCallbackObjectEntry = 0xF,
    AlarmCallbackObjectEntry = 0x10,
    LabelEntry = 0x11,
    AttributeEntry = 0x12,
    LastKnownEntry = 0x15
};

// Whether entries of that kind may have object types.
constexpr bool HasObjectTypes(BYTE kind) noexcept {
    return (kind >= AllowObjectEntry && kind <= AlarmObjectEntry) || kind == AllowCallbackObjectEntry ||
           kind == DenyCallbackObjectEntry || kind == AuditCallbackObjectEntry ||
           kind == AlarmCallbackObjectEntry;
}

// Whether nothing is known but their bytes.
constexpr bool IsOpaqueKind(BYTE kind) noexcept {
    return kind == CompoundEntry || kind > LastKnownEntry;
}

constexpr bool IsDenyingKind(BYTE kind) noexcept {
    return kind == DenyEntry || kind == DenyObjectEntry || kind == DenyCallbackEntry ||
           kind == DenyCallbackObjectEntry;
}

// The parts of an entry, where they lie.
struct EntryParts {
    BYTE kind = 0;
    BYTE flags = 0;
    DWORD rights = 0;
    ByteView objectType;     // empty where there is none
    ByteView inheritedType;  // likewise
    ByteView id;             // empty for a kind of which nothing is known but its bytes
    ByteView data;
    std::size_t size = 0;  // of the whole entry
};

// The entry at the beginning of `bytes`; none where it is damaged or goes on behind their end.
std::optional<EntryParts> ReadEntry(ByteView bytes) noexcept;

// The entries of a list, one after the other.
class EntryReader {
  public:
    // Of the list at the beginning of `bytes`; of what is no list nothing is read.
    explicit EntryReader(ByteView bytes) noexcept;

    // The next entry; none at the end, and from the first damaged one on.
    std::optional<EntryParts> Next() noexcept;
    [[nodiscard]] bool IsDamaged() const noexcept { return m_isDamaged; }

  private:
    ByteView m_bytes;
    unsigned m_left = 0;
    bool m_isDamaged = false;
};

}  // namespace Quellan::Platform
