#include "TQLib/platform/SecurityBlocks.h"

namespace Quellan::Platform {

namespace {

// The first `size` of the bytes, which then begin behind them; empty where there are fewer.
ByteView TakeFront(ByteView& bytes, std::size_t size) noexcept {
    if (bytes.size() < size) return {};
    const ByteView taken = bytes.first(size);
    bytes = bytes.subspan(size);
    return taken;
}

// The object types that an entry says to have. Whether they are there.
bool TakeObjectTypes(ByteView& bytes, EntryParts& parts) noexcept {
    constexpr DWORD HasType = 1;
    constexpr DWORD HasInheritedType = 2;
    const ByteView marks = TakeFront(bytes, sizeof(DWORD));
    if (marks.empty()) return false;
    const auto given = NumberAt<DWORD>(marks.data());
    if (given & ~(HasType | HasInheritedType)) return false;
    if (given & HasType) parts.objectType = TakeFront(bytes, ObjectTypeSize);
    if (given & HasInheritedType) parts.inheritedType = TakeFront(bytes, ObjectTypeSize);
    return parts.objectType.empty() == !(given & HasType) &&
           parts.inheritedType.empty() == !(given & HasInheritedType);
}

}  // namespace

ByteView ReadIdentifier(ByteView bytes) noexcept {
    constexpr BYTE Revision = 1;
    constexpr BYTE MostParts = 15;
    if (bytes.size() < SidHeadSize || bytes[0] != Revision || bytes[1] > MostParts) return {};
    return TakeFront(bytes, SidHeadSize + bytes[1] * SidPartSize);
}

std::optional<EntryParts> ReadEntry(ByteView bytes) noexcept {
    constexpr std::size_t HeadSize = 4;  // kind, flags, size
    constexpr std::size_t Unit = sizeof(DWORD);
    if (bytes.size() < HeadSize) return {};
    EntryParts parts;
    parts.kind = bytes[0];
    parts.flags = bytes[1];
    parts.size = NumberAt<WORD>(&bytes[2]);
    if (parts.size < HeadSize || parts.size > bytes.size() || parts.size % Unit != 0) return {};
    bytes = bytes.subspan(HeadSize, parts.size - HeadSize);
    if (!IsOpaqueKind(parts.kind)) {
        const ByteView rights = TakeFront(bytes, sizeof parts.rights);
        if (rights.empty()) return {};
        parts.rights = NumberAt<DWORD>(rights.data());
        if (HasObjectTypes(parts.kind) && !TakeObjectTypes(bytes, parts)) return {};
        parts.id = ReadIdentifier(bytes);
        if (parts.id.empty()) return {};
        bytes = bytes.subspan(parts.id.size());
    }
    parts.data = bytes;
    return parts;
}

EntryReader::EntryReader(ByteView bytes) noexcept {
    constexpr std::size_t HeadSize = 8;  // revision, nothing, size, count of entries, nothing
    constexpr BYTE FirstRevision = 2;
    constexpr BYTE LastRevision = 4;
    m_isDamaged = bytes.size() < HeadSize || bytes[0] < FirstRevision || bytes[0] > LastRevision ||
                  NumberAt<WORD>(&bytes[2]) < HeadSize || NumberAt<WORD>(&bytes[2]) > bytes.size();
    if (m_isDamaged) return;
    m_left = NumberAt<WORD>(&bytes[4]);
    m_bytes = bytes.subspan(HeadSize, NumberAt<WORD>(&bytes[2]) - HeadSize);
}

std::optional<EntryParts> EntryReader::Next() noexcept {
    if (m_left == 0 || m_isDamaged) return {};
    const auto entry = ReadEntry(m_bytes);
    m_isDamaged = !entry;
    if (entry) {
        --m_left;
        m_bytes = m_bytes.subspan(entry->size);
    }
    return entry;
}

}  // namespace Quellan::Platform
