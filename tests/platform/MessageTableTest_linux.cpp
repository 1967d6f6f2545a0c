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

std::vector<std::byte> BytesOf(std::string_view text) {
    const auto* const begin = reinterpret_cast<const std::byte*>(text.data());
    return {begin, begin + text.size()};
}

// A table of one block, from its numbers of four bytes: the number of blocks, the first and the last message
// of the block and where its entries are. An entry begins with its size in two bytes, and two that are 1
// where its text is in UTF-16.
std::vector<std::byte> Table(const std::vector<std::uint32_t>& numbers) {
    return BytesOf({reinterpret_cast<const char*>(numbers.data()), 4 * numbers.size()});
}
constexpr std::uint32_t Utf16Entry = 1 << 16;

// What the fuzzers begin with, and so of these bytes: a table with the messages 5 and 6 in one block and
// 0xCFFF4001 in another, and a module of either format with that table in two languages.
std::vector<std::byte> Seed(const char* name) {
    return BytesOf(
        ReadBytes(std::filesystem::path(TQ_TEST_DATA "/../fuzz/corpus/message_table_fuzz") / name));
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
    EXPECT_EQ(Find(Table({1, Five, Five, 16, 12, 0xFF78B6C3, 0}), Five).text, L"\u00F6x\uFFFD");
}

TEST(MessageTable, LetsNoUnpairedSurrogateThrough) {
    EXPECT_EQ(Find(Table({1, Five, Five, 16, 16 | Utf16Entry, 0x0061D800, 0xD83DDC00, 0}), Five).text,
              L"\uFFFDa\uFFFD\uFFFD");
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
    for (const auto& numbers : {std::vector{Huge, Five, Five, 16u},     // blocks
                                {1, Five, Five, Huge},                  // where the entries are
                                {1, 0, Huge, 16, 8 | Utf16Entry, 'x'},  // messages
                                {1, Five, Five, 16, 0 | Utf16Entry},    // the entry's size
                                {1, Five, Five, 16, 2 | Utf16Entry},
                                {1, Five, Five, 16, 3 | Utf16Entry},
                                {1, Five, Five, 16, 0xFFFC | Utf16Entry, 0, 0}})
        EXPECT_EQ(Find(Table(numbers), Five).code, DWORD{ERROR_INVALID_DATA})
            << testing::PrintToString(numbers);
}

TEST(ModuleImage, HasATableForEachLanguageInEitherFormat) {
    EXPECT_EQ(FiveIn(Exact(Seed("elf")).Span()), FiveInTwoLanguages);
    EXPECT_EQ(FiveIn(Exact(Seed("pe")).Span()), FiveInTwoLanguages);
}

TEST(ModuleImage, OtherFilesAreNoModules) {
    const auto ignore = [](LANGID, std::span<const std::byte>) {};
    for (const char* bytes : {"", "MZ and nothing more", "\177ELF"})
        EXPECT_EQ(VisitModuleFile(Exact(BytesOf(bytes)).Span(), ignore), DWORD{ERROR_BAD_EXE_FORMAT});
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
