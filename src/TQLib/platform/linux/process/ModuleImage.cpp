#include "TQLib/platform/linux/process/ModuleImage.h"

#include "TQLib/platform/linux/base/Bytes.h"
#include "TQLib/platform/linux/base/ErrorCodes.h"

#include <algorithm>
#include <cstring>
#include <elf.h>
#include <string_view>

namespace Quellan::Platform {

namespace {

using Bytes = std::span<const std::byte>;

#if defined(__aarch64__)
constexpr WORD ThisMachine = EM_AARCH64;
#else
constexpr WORD ThisMachine = EM_X86_64;
#endif

// The notes that carry a module's tables; their type is the kind of table.
constexpr char NoteName[] = "TQLib";
constexpr DWORD ContainerVersion = 1;
constexpr std::size_t ContainerHeaderSize = 8;  // version, number of languages
constexpr std::size_t LanguageEntrySize = 12;   // language, offset, size

bool StartsWith(Bytes bytes, std::string_view magic) noexcept {
    return bytes.size() >= magic.size() && std::memcmp(bytes.data(), magic.data(), magic.size()) == 0;
}

constexpr std::uint64_t Padded(std::uint64_t size, std::size_t alignment) noexcept {
    return (size + alignment - 1) / alignment * alignment;
}

void VisitContainer(Bytes container, const MessageTableVisitor& visit) {
    const auto version = ReadNumber<DWORD>(container, 0);
    const auto count = ReadNumber<DWORD>(container, 4);
    if (!version || !count || *version != ContainerVersion) return;
    for (std::uint64_t i = 0; i < *count; ++i) {
        const std::uint64_t entry = ContainerHeaderSize + i * LanguageEntrySize;
        const auto language = ReadNumber<DWORD>(container, entry);
        const auto offset = ReadNumber<DWORD>(container, entry + 4);
        const auto size = ReadNumber<DWORD>(container, entry + 8);
        if (!language || !offset || !size) return;
        if (const auto table = Part(container, *offset, *size)) visit(static_cast<LANGID>(*language), *table);
    }
}

bool IsElf(Bytes file) noexcept {
    return StartsWith(file, ELFMAG) && file.size() >= sizeof(Elf64_Ehdr) &&
           std::to_integer<int>(file[EI_CLASS]) == ELFCLASS64 &&
           std::to_integer<int>(file[EI_DATA]) == ELFDATA2LSB;
}

DWORD VisitElf(Bytes file, const MessageTableVisitor& visit, TableKind kind) {
    const auto headers = *ReadNumber<std::uint64_t>(file, offsetof(Elf64_Ehdr, e_phoff));
    const auto headerSize = *ReadNumber<WORD>(file, offsetof(Elf64_Ehdr, e_phentsize));
    const auto count = *ReadNumber<WORD>(file, offsetof(Elf64_Ehdr, e_phnum));
    if (headers > file.size()) return ERROR_INVALID_DATA;
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto header = Part(file, headers + i * headerSize, sizeof(Elf64_Phdr));
        if (!header) return ERROR_INVALID_DATA;
        if (*ReadNumber<DWORD>(*header, offsetof(Elf64_Phdr, p_type)) != PT_NOTE) continue;
        const auto notes = Part(file, *ReadNumber<std::uint64_t>(*header, offsetof(Elf64_Phdr, p_offset)),
                                *ReadNumber<std::uint64_t>(*header, offsetof(Elf64_Phdr, p_filesz)));
        if (!notes) return ERROR_INVALID_DATA;
        VisitNotes(*notes, *ReadNumber<std::uint64_t>(*header, offsetof(Elf64_Phdr, p_align)) == 8 ? 8 : 4,
                   visit, kind);
    }
    return ERROR_SUCCESS;
}

// Where things lie in a Windows module, as its format lays down.
constexpr std::uint64_t PeHeaderOffsetAt = 0x3C;
constexpr std::uint64_t PeSectionCountAt = 6;
constexpr std::uint64_t PeOptionalSizeAt = 20;
constexpr std::uint64_t PeOptionalAt = 24;
constexpr WORD PeMagic32 = 0x10B;
constexpr WORD PeMagic64 = 0x20B;
constexpr std::uint64_t PeDirectories32At = 96;  // preceded by their number
constexpr std::uint64_t PeDirectories64At = 112;
constexpr DWORD PeResourceDirectory = 2;
constexpr std::uint64_t PeDirectorySize = 8;
constexpr std::uint64_t PeSectionSize = 40;
constexpr std::uint64_t ResourceDirectorySize = 16;
constexpr std::uint64_t ResourceEntrySize = 8;
constexpr DWORD ResourceHighBit = 0x80000000;  // a name instead of a number, a directory instead of data
constexpr DWORD MessageTableType = 11;
constexpr DWORD MessageTableName = 1;

// A Windows module as it lies in its file, where addresses count from the loaded image and have to be
// translated.
class PeFile {
  public:
    explicit PeFile(Bytes file) noexcept : m_file(file) {}

    DWORD Visit(const MessageTableVisitor& visit) {
        if (!ReadHeaders()) return ERROR_INVALID_DATA;
        if (m_resourceAddress == 0) return ERROR_SUCCESS;
        const auto resources = From(m_resourceAddress);
        if (!resources) return ERROR_INVALID_DATA;
        const auto names = SubDirectory(*resources, 0, MessageTableType);
        if (!names) return ERROR_SUCCESS;
        const auto languages = SubDirectory(*resources, *names, MessageTableName);
        if (!languages) return ERROR_SUCCESS;
        for (std::uint64_t i = 0, count = EntryCount(*resources, *languages); i < count; ++i) {
            const auto [id, target] = Entry(*resources, *languages, i);
            if (id & ResourceHighBit || target & ResourceHighBit) continue;
            const auto address = ReadNumber<DWORD>(*resources, target);
            const auto size = ReadNumber<DWORD>(*resources, std::uint64_t{target} + 4);
            if (!address || !size) return ERROR_INVALID_DATA;
            const auto data = From(*address);
            const auto table = data ? Part(*data, 0, *size) : std::nullopt;
            if (!table) return ERROR_INVALID_DATA;
            visit(static_cast<LANGID>(id), *table);
        }
        return ERROR_SUCCESS;
    }

  private:
    struct DirectoryEntry {
        DWORD id;
        DWORD target;
    };

    bool ReadHeaders() noexcept {
        const auto start = ReadNumber<DWORD>(m_file, PeHeaderOffsetAt);
        const auto sections = ReadNumber<WORD>(m_file, std::uint64_t{*start} + PeSectionCountAt);
        const auto optionalSize = ReadNumber<WORD>(m_file, std::uint64_t{*start} + PeOptionalSizeAt);
        const std::uint64_t optional = std::uint64_t{*start} + PeOptionalAt;
        const auto magic = ReadNumber<WORD>(m_file, optional);
        if (!sections || !optionalSize || !magic || (*magic != PeMagic32 && *magic != PeMagic64))
            return false;
        const std::uint64_t directories =
            optional + (*magic == PeMagic64 ? PeDirectories64At : PeDirectories32At);
        const auto count = ReadNumber<DWORD>(m_file, directories - sizeof(DWORD));
        if (!count) return false;
        if (*count > PeResourceDirectory) {
            const auto address =
                ReadNumber<DWORD>(m_file, directories + PeResourceDirectory * PeDirectorySize);
            if (!address) return false;
            m_resourceAddress = *address;
        }
        const auto table = Part(m_file, optional + *optionalSize, *sections * PeSectionSize);
        if (!table) return false;
        m_sections = *table;
        return true;
    }

    // The bytes from an image address to the end of what the file holds of its section.
    std::optional<Bytes> From(DWORD address) const noexcept {
        for (std::uint64_t at = 0; at < m_sections.size(); at += PeSectionSize) {
            const DWORD start = *ReadNumber<DWORD>(m_sections, at + 12);
            const DWORD size = *ReadNumber<DWORD>(m_sections, at + 16);
            if (address < start || address - start >= size) continue;
            const auto section = Part(m_file, *ReadNumber<DWORD>(m_sections, at + 20), size);
            if (!section) return std::nullopt;
            return section->subspan(address - start);
        }
        return std::nullopt;
    }

    // The entries that lie within the resources, whatever number the directory states.
    static std::uint64_t EntryCount(Bytes resources, std::uint64_t directory) noexcept {
        const std::uint64_t stated = std::uint64_t{ReadNumber<WORD>(resources, directory + 12).value_or(0)} +
                                     ReadNumber<WORD>(resources, directory + 14).value_or(0);
        const std::uint64_t first = directory + ResourceDirectorySize;
        return first > resources.size() ? 0
                                        : std::min(stated, (resources.size() - first) / ResourceEntrySize);
    }

    static DirectoryEntry Entry(Bytes resources, std::uint64_t directory, std::uint64_t index) noexcept {
        const std::uint64_t at = directory + ResourceDirectorySize + index * ResourceEntrySize;
        return {*ReadNumber<DWORD>(resources, at), *ReadNumber<DWORD>(resources, at + 4)};
    }

    static std::optional<std::uint64_t> SubDirectory(Bytes resources, std::uint64_t directory,
                                                     DWORD wanted) noexcept {
        for (std::uint64_t i = 0, count = EntryCount(resources, directory); i < count; ++i) {
            const auto [id, target] = Entry(resources, directory, i);
            if (id == wanted && target & ResourceHighBit) return target & ~ResourceHighBit;
        }
        return std::nullopt;
    }

    Bytes m_file;
    Bytes m_sections;
    DWORD m_resourceAddress = 0;
};

bool IsPe(Bytes file) noexcept {
    const auto start = ReadNumber<DWORD>(file, PeHeaderOffsetAt);
    const auto header = start && StartsWith(file, "MZ") ? Part(file, *start, 4) : std::nullopt;
    return header && StartsWith(*header, std::string_view("PE\0\0", 4));
}

}  // namespace

void VisitNotes(Bytes notes, std::size_t alignment, const MessageTableVisitor& visit, TableKind kind) {
    while (!notes.empty()) {
        const auto nameSize = ReadNumber<DWORD>(notes, 0);
        const auto size = ReadNumber<DWORD>(notes, 4);
        const auto type = ReadNumber<DWORD>(notes, 8);
        if (!nameSize || !size || !type) return;
        const auto name = Part(notes, sizeof(Elf64_Nhdr), *nameSize);
        const std::uint64_t start = Padded(sizeof(Elf64_Nhdr) + std::uint64_t{*nameSize}, alignment);
        const auto contents = Part(notes, start, *size);
        if (!name || !contents) return;
        if (*type == static_cast<DWORD>(kind) && *nameSize == sizeof(NoteName) &&
            StartsWith(*name, {NoteName, sizeof(NoteName)}))
            VisitContainer(*contents, visit);
        notes = notes.subspan(static_cast<std::size_t>(
            std::min<std::uint64_t>(notes.size(), Padded(start + *size, alignment))));
    }
}

DWORD VisitModuleFile(Bytes file, const MessageTableVisitor& visit, TableKind kind) {
    if (IsElf(file)) return VisitElf(file, visit, kind);
    if (IsPe(file)) return kind == TableKind::Messages ? PeFile(file).Visit(visit) : ERROR_SUCCESS;
    return ERROR_BAD_EXE_FORMAT;
}

bool IsLoadableModule(Bytes file) noexcept {
    return IsElf(file) && *ReadNumber<WORD>(file, offsetof(Elf64_Ehdr, e_type)) == ET_DYN &&
           *ReadNumber<WORD>(file, offsetof(Elf64_Ehdr, e_machine)) == ThisMachine;
}

}  // namespace Quellan::Platform
