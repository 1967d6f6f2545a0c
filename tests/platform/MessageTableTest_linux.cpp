#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/process/ModuleImage.h"
#include "TQLib/platform/linux/texts/MessageTable.h"
#include "support/ReadBytes.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

using namespace Quellan::Platform;
using namespace Quellan::Corvel::Test;

namespace {

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
    std::vector<std::byte> Take() { return std::move(m_bytes); }

  private:
    std::vector<std::byte> m_bytes;
};

// One entry of a message table in UTF-16.
std::vector<std::byte> TableEntry(std::u16string_view text) {
    Bytes entry;
    const std::size_t size = (4 + 2 * (text.size() + 1) + 3) / 4 * 4;
    entry.Number(size, 2).Number(1, 2);
    for (const char16_t unit : text)
        entry.Number(unit, 2);
    return entry.PadTo(size).Take();
}

// What the fuzzers begin with, and so of these bytes: a table with the messages 5 and 6 in one block and
// 0xCFFF4001 in another, and a module of either format with that table in two languages.
std::vector<std::byte> Seed(const char* name) {
    const std::string bytes =
        ReadBytes(std::filesystem::path(TQ_TEST_DATA "/../fuzz/corpus/message_table_fuzz") / name);
    const auto* const begin = reinterpret_cast<const std::byte*>(bytes.data());
    return {begin, begin + bytes.size()};
}
std::vector<std::byte> SmallTable() {
    return Seed("table");
}

constexpr DWORD Five = 5;
constexpr DWORD Six = 6;
constexpr DWORD Event = 0xCFFF4001;

// Reads in a block of exactly the bytes given, so that the address sanitizer sees a step beside it.
class Exact {
  public:
    explicit Exact(const std::vector<std::byte>& bytes) : Exact(bytes, bytes.size()) {}
    Exact(const std::vector<std::byte>& bytes, std::size_t size)
        : m_bytes(std::make_unique<std::byte[]>(size)), m_size(size) {
        if (size != 0) std::memcpy(m_bytes.get(), bytes.data(), size);
    }
    std::span<const std::byte> Span() const { return {m_bytes.get(), m_size}; }

  private:
    std::unique_ptr<std::byte[]> m_bytes;
    std::size_t m_size;
};

struct Found {
    DWORD code;
    std::wstring text;
};

Found Find(const std::vector<std::byte>& table, DWORD id) {
    Found found{};
    found.code = FindMessage(Exact(table).Span(), id, found.text);
    return found;
}

// Message 5 of each language in a module file.
std::map<LANGID, std::wstring> FiveIn(std::span<const std::byte> file) {
    std::map<LANGID, std::wstring> texts;
    VisitModuleFile(file, [&](LANGID language, std::span<const std::byte> table) {
        FindMessage(table, Five, texts[language]);
    });
    return texts;
}

const std::map<LANGID, std::wstring> FiveInTwoLanguages = {{0x409, L"five\r\n"}, {0x407, L"five\r\n"}};

}  // namespace

TEST(MessageTable, HasTheTextOfEachOfItsMessages) {
    EXPECT_EQ(Find(SmallTable(), Five).text, L"five\r\n");
    EXPECT_EQ(Find(SmallTable(), Six).text, L"six \u00F6\U0001F600\r\n");
    EXPECT_EQ(Find(SmallTable(), Event).text, L"%1 event\r\n");
    for (const DWORD id : {0u, 4u, 7u, 0xCFFF4000u, 0xCFFF4002u, 0xFFFFFFFFu})
        EXPECT_EQ(Find(SmallTable(), id).code, DWORD{ERROR_MR_MID_NOT_FOUND}) << id;
}

TEST(MessageTable, ReadsTextsInBytesAsUtf8) {
    Bytes table;
    table.Dwords({1, Five, Five, 16}).Number(12, 2).Number(0, 2).Chars("\xC3\xB6x\xFF").PadTo(28);
    EXPECT_EQ(Find(table.Take(), Five).text, L"\u00F6x\uFFFD");
}

TEST(MessageTable, LetsNoUnpairedSurrogateThrough) {
    Bytes table;
    table.Dwords({1, Five, Five, 16}).Append(TableEntry(std::u16string{0xD800, u'a', 0xDC00, 0xD83D}));
    EXPECT_EQ(Find(table.Take(), Five).text, L"\uFFFDa\uFFFD\uFFFD");
}

TEST(MessageTable, CutAnywhereIsInvalidOrLacksTheMessageButNeverReadBeside) {
    const auto whole = SmallTable();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const Exact cut(whole, size);
        std::wstring text = L"unchanged";
        EXPECT_EQ(FindMessage(cut.Span(), Event, text), DWORD{ERROR_INVALID_DATA}) << size;
        EXPECT_EQ(text, L"unchanged") << size;
    }
}

TEST(MessageTable, NumbersThatLeadOutOfItAreInvalid) {
    constexpr std::uint32_t Huge = 0xFFFFFFFF;
    Bytes tooManyBlocks, offsetOutside, rangeTooLong, entryTooLong;
    EXPECT_EQ(Find(tooManyBlocks.Dwords({Huge, Five, Five, 16}).Take(), Five).code,
              DWORD{ERROR_INVALID_DATA});
    EXPECT_EQ(Find(offsetOutside.Dwords({1, Five, Five, Huge}).Take(), Five).code, DWORD{ERROR_INVALID_DATA});
    rangeTooLong.Dwords({1, 0, Huge, 16}).Append(TableEntry(u"only one"));
    EXPECT_EQ(Find(rangeTooLong.Take(), Five).code, DWORD{ERROR_INVALID_DATA});
    for (const std::uint64_t length : {0, 2, 3}) {
        Bytes entryTooShort;
        entryTooShort.Dwords({1, Five, Five, 16}).Number(length, 2).Number(1, 2);
        EXPECT_EQ(Find(entryTooShort.Take(), Five).code, DWORD{ERROR_INVALID_DATA}) << length;
    }
    entryTooLong.Dwords({1, Five, Five, 16}).Number(0xFFFC, 2).Number(1, 2).Dwords({0, 0});
    EXPECT_EQ(Find(entryTooLong.Take(), Five).code, DWORD{ERROR_INVALID_DATA});
}

TEST(ModuleImage, HasATableForEachLanguageInEitherFormat) {
    EXPECT_EQ(FiveIn(Exact(Seed("elf")).Span()), FiveInTwoLanguages);
    EXPECT_EQ(FiveIn(Exact(Seed("pe")).Span()), FiveInTwoLanguages);
}

TEST(ModuleImage, OtherFilesAreNoModules) {
    const auto ignore = [](LANGID, std::span<const std::byte>) {};
    EXPECT_EQ(VisitModuleFile({}, ignore), DWORD{ERROR_BAD_EXE_FORMAT});
    EXPECT_EQ(VisitModuleFile(Exact(Bytes().Chars("MZ and nothing more").Take()).Span(), ignore),
              DWORD{ERROR_BAD_EXE_FORMAT});
    EXPECT_EQ(VisitModuleFile(Exact(Bytes().Chars("\177ELF").Take()).Span(), ignore),
              DWORD{ERROR_BAD_EXE_FORMAT});
}

TEST(ModuleImage, CutAnywhereIsNeverReadBeside) {
    for (const auto& whole : {Seed("elf"), Seed("pe")})
        for (std::size_t size = 0; size < whole.size(); ++size)
            EXPECT_LE(FiveIn(Exact(whole, size).Span()).size(), 2u);
}

TEST(ModuleImage, AnyNumberInItMayBeHuge) {
    for (const auto& whole : {Seed("elf"), Seed("pe")})
        for (std::size_t at = 0; at + 4 <= whole.size(); ++at)
            for (const int byte : {0x00, 0x7F, 0x80, 0xFF}) {
                auto changed = whole;
                std::memset(changed.data() + at, byte, 4);
                const auto ignore = [](LANGID, std::span<const std::byte> table) {
                    std::wstring text;
                    FindMessage(table, Five, text);
                };
                const DWORD code = VisitModuleFile(Exact(changed).Span(), ignore);
                EXPECT_TRUE(code == ERROR_SUCCESS || code == ERROR_INVALID_DATA ||
                            code == ERROR_BAD_EXE_FORMAT)
                    << code;
            }
}

TEST(ModuleImage, AWindowsModuleServesAsADataFile) {
    const auto path =
        std::filesystem::temp_directory_path() / ("tq_pe_" + std::to_string(GetCurrentProcessId()) + ".dll");
    const auto bytes = Seed("pe");
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    const HMODULE module = LoadLibraryExW(path.wstring().c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
    std::filesystem::remove(path);
    ASSERT_NE(module, nullptr) << GetLastError();
    wchar_t buffer[20];
    EXPECT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE, module, Five, 0x407, buffer, 20, nullptr), 6u);
    EXPECT_STREQ(buffer, L"five\r\n");
    EXPECT_TRUE(FreeLibrary(module));
}
