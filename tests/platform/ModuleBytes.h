// Message tables and module files put together byte by byte, so that a test can have them right or wrong.
#pragma once

#include "TQLib/platform/Types.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quellan::Corvel::Test {

// A growing run of bytes, numbers least significant byte first.
class Bytes {
  public:
    Bytes& Number(std::uint64_t value, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i)
            m_bytes.push_back(std::byte(value >> (8 * i) & 0xFF));
        return *this;
    }
    Bytes& Dwords(std::initializer_list<std::uint32_t> values) {
        for (const std::uint32_t value : values)
            Number(value, 4);
        return *this;
    }
    Bytes& Chars(std::string_view text) {
        for (const char c : text)
            m_bytes.push_back(std::byte(c));
        return *this;
    }
    Bytes& Append(const std::vector<std::byte>& bytes) {
        m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
        return *this;
    }
    Bytes& PadTo(std::size_t size) {
        m_bytes.resize(size);
        return *this;
    }
    Bytes& Align() { return PadTo((m_bytes.size() + 3) / 4 * 4); }
    std::size_t Size() const { return m_bytes.size(); }
    std::vector<std::byte> Take() { return std::move(m_bytes); }

  private:
    std::vector<std::byte> m_bytes;
};

// One entry of a message table in UTF-16.
inline std::vector<std::byte> TableEntry(std::u16string_view text) {
    Bytes entry;
    const std::size_t size = (4 + 2 * (text.size() + 1) + 3) / 4 * 4;
    entry.Number(size, 2).Number(1, 2);
    for (const char16_t unit : text)
        entry.Number(unit, 2);
    return entry.PadTo(size).Take();
}

// The messages 5 and 6 in one block and 0xCFFF4001 in another.
inline std::vector<std::byte> SmallTable() {
    const auto five = TableEntry(u"five\r\n");
    const auto six = TableEntry(u"six \u00F6\U0001F600\r\n");
    const auto event = TableEntry(u"%1 event\r\n");
    const std::uint32_t entries = 4 + 2 * 12;
    const std::uint32_t second = static_cast<std::uint32_t>(entries + five.size() + six.size());
    Bytes table;
    table.Dwords({2, 5, 6, entries, 0xCFFF4001, 0xCFFF4001, second});
    return table.Append(five).Append(six).Append(event).Take();
}

struct LanguageBytes {
    std::uint16_t language;
    std::vector<std::byte> table;
};

// An ELF file with nothing but the note that carries the tables.
inline std::vector<std::byte> ElfModule(const std::vector<LanguageBytes>& tables) {
    Bytes container;
    container.Dwords({1, static_cast<std::uint32_t>(tables.size())});
    std::size_t offset = 8 + 12 * tables.size();
    for (const LanguageBytes& each : tables) {
        container.Dwords({each.language, static_cast<std::uint32_t>(offset),
                          static_cast<std::uint32_t>(each.table.size())});
        offset += each.table.size();
    }
    for (const LanguageBytes& each : tables)
        container.Append(each.table);
    const auto contents = container.Take();

    Bytes note;
    note.Dwords({6, static_cast<std::uint32_t>(contents.size()), 1})
        .Chars({"TQLib", 6})
        .Align()
        .Append(contents)
        .Align();
    const auto notes = note.Take();

    constexpr std::size_t HeaderSize = 64, ProgramHeaderSize = 56;
    Bytes file;
    file.Chars(
            "\x7F"
            "ELF")
        .Number(2, 1)
        .Number(1, 1)
        .Number(1, 1)
        .PadTo(16);
    file.Number(3, 2).Number(62, 2).Number(1, 4).Number(0, 8).Number(HeaderSize, 8).Number(0, 8).Number(0, 4);
    file.Number(HeaderSize, 2).Number(ProgramHeaderSize, 2).Number(1, 2).PadTo(HeaderSize);
    file.Number(4, 4).Number(4, 4).Number(HeaderSize + ProgramHeaderSize, 8).Number(0, 8).Number(0, 8);
    file.Number(notes.size(), 8).Number(notes.size(), 8).Number(4, 8);
    return file.Append(notes).Take();
}

// A Windows module with nothing but its resources: type 11 (message tables), name 1, one table a language.
inline std::vector<std::byte> PeModule(const std::vector<LanguageBytes>& tables) {
    constexpr std::uint32_t Address = 0x1000, Start = 0x200, Directory = 0x80000000;
    const std::uint32_t count = static_cast<std::uint32_t>(tables.size());
    const std::uint32_t data = 24 + 24 + 16 + 8 * count;
    Bytes resources;
    resources.PadTo(14).Number(1, 2).Dwords({11, Directory | 24});
    resources.PadTo(24 + 14).Number(1, 2).Dwords({1, Directory | 48});
    resources.PadTo(48 + 14).Number(count, 2);
    for (std::uint32_t i = 0; i < count; ++i)
        resources.Dwords({tables[i].language, data + 16 * i});
    std::size_t offset = data + 16 * count;
    for (const LanguageBytes& each : tables) {
        resources.Dwords({static_cast<std::uint32_t>(Address + offset),
                          static_cast<std::uint32_t>(each.table.size()), 0, 0});
        offset += each.table.size();
    }
    for (const LanguageBytes& each : tables)
        resources.Append(each.table);
    const auto section = resources.Take();
    const std::uint32_t size = static_cast<std::uint32_t>(section.size());

    constexpr std::uint32_t PeHeader = 0x40, OptionalSize = 112 + 16 * 8;
    Bytes file;
    file.Chars("MZ").PadTo(0x3C).Dwords({PeHeader}).Chars({"PE\0\0", 4});
    file.Number(0x8664, 2).Number(1, 2).PadTo(PeHeader + 20).Number(OptionalSize, 2).PadTo(PeHeader + 24);
    file.Number(0x20B, 2).PadTo(PeHeader + 24 + 108).Dwords({16});
    file.PadTo(PeHeader + 24 + 112 + 2 * 8).Dwords({Address, size}).PadTo(PeHeader + 24 + OptionalSize);
    file.Chars({".rsrc\0\0\0", 8}).Dwords({size, Address, size, Start}).PadTo(Start);
    return file.Append(section).Take();
}

}  // namespace Quellan::Corvel::Test
