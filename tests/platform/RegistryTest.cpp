#include "RegistryTest.h"

#include "support/Role.h"

#include <gmock/gmock.h>

namespace Quellan::Corvel::Test {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

using Registry = RegistryTest;

std::vector<std::wstring> KeyNames(HKEY key) {
    return Listed(key, RegEnumKeyExW);
}
std::vector<std::wstring> ValueNames(HKEY key) {
    return Listed(key, RegEnumValueW);
}

TEST_F(Registry, KeepsTypesAndBytesAsTheyWereSet) {
    const RegData rows[] = {
        {REG_DWORD, Bytes(std::wstring(L"ab"))},
        {REG_SZ, Bytes(std::wstring(L"text\0", 5))},
        {REG_SZ, Bytes(std::wstring(L"without terminator"))},
        {REG_SZ, "odd"},
        {REG_SZ, Bytes(std::wstring{L'a', static_cast<wchar_t>(0xD800), L'b'})},
        {REG_EXPAND_SZ, Bytes(std::wstring(L"%TEMP%/\u00E4\u4E2D\0", 10))},
        {REG_MULTI_SZ, Bytes(std::wstring(L"one\0two\0\0", 9))},
        {REG_BINARY, std::string("\0\xFF\x80", 3)},
        {REG_BINARY, std::string(100'000, 'x')},
        {REG_NONE, ""},
        {0x12345678, "any type"},
    };
    for (const RegData& row : rows) {
        SCOPED_TRACE(row.type);
        EXPECT_EQ(Set(m_key, L"value", row), 0u);
        EXPECT_EQ(Get(m_key, L"value"), row);
    }
}

TEST_F(Registry, HasNamesWithoutCaseThatKeepTheirSpelling) {
    EXPECT_EQ(Set(m_key, L"\u00DCberLauf", {REG_BINARY, "1"}), 0u);
    EXPECT_EQ(Set(m_key, L"\u00FCBERlauf", {REG_BINARY, "2"}), 0u);
    EXPECT_EQ(Get(m_key, L"\u00DCBERLAUF").data, "2");
    EXPECT_THAT(ValueNames(m_key), ElementsAre(L"\u00DCberLauf"));
    EXPECT_EQ(Make(m_key, L"SubKey").Disposition(), DWORD{REG_CREATED_NEW_KEY});
    EXPECT_EQ(Make(m_key, L"SUBKEY").Disposition(), DWORD{REG_OPENED_EXISTING_KEY});
    EXPECT_THAT(KeyNames(m_key), ElementsAre(L"SubKey"));
}

TEST_F(Registry, TakesAnyNames) {
    const std::wstring names[] = {L".",
                                  L"..",
                                  L"a/b",
                                  L"%41",
                                  L"A",
                                  L"k.a",
                                  L"a.",
                                  L" ",
                                  L"a\nb",
                                  L"\U0001F600",
                                  L"*?\"<>|:",
                                  std::wstring(KeyNameLimit, L'\u4E2D'),
                                  std::wstring(KeyNameLimit - 1, L'\u4E2D') + L"x"};
    for (const std::wstring& name : names) {
        EXPECT_EQ(Make(m_key, name.c_str()).Code(), 0u) << testing::PrintToString(name);
        EXPECT_EQ(Set(m_key, name.c_str(), {REG_BINARY, Bytes(name)}), 0u) << testing::PrintToString(name);
    }
    EXPECT_THAT(KeyNames(m_key), testing::UnorderedElementsAreArray(names));
    for (const std::wstring& name : names)
        EXPECT_EQ(Get(m_key, name.c_str()).data, Bytes(name)) << testing::PrintToString(name);
}

TEST_F(Registry, LimitsTheLengthOfNames) {
    // Wine allows one character more.
    const std::wstring tooLong(KeyNameLimit + (OnWine() ? 2 : 1), L'k');
    EXPECT_EQ(Make(m_key, tooLong.c_str()).Code(), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Open(m_key, tooLong.c_str()).Code(), DWORD{ERROR_INVALID_PARAMETER});
    const std::wstring longest(ValueNameLimit, L'v');
    EXPECT_EQ(Set(m_key, longest.c_str(), {REG_BINARY, "1"}), 0u);
    EXPECT_EQ(Get(m_key, longest.c_str()).data, "1");
    EXPECT_THAT(ValueNames(m_key), ElementsAre(longest));
    EXPECT_EQ(Set(m_key, (longest + L'v').c_str(), {REG_BINARY, "1"}), DWORD{ERROR_INVALID_PARAMETER});
}

TEST_F(Registry, TellsTypeAndSizeWhereTheDataDoesNotFit) {
    Set(m_key, L"value", {REG_BINARY, "12345"});
    DWORD type = 0, size = 4;
    BYTE data[8] = {};
    EXPECT_EQ(Status(RegQueryValueExW(m_key, L"value", nullptr, &type, data, &size)), DWORD{ERROR_MORE_DATA});
    EXPECT_EQ(type, DWORD{REG_BINARY});
    EXPECT_EQ(size, 5u);
    size = 5;
    EXPECT_EQ(Status(RegQueryValueExW(m_key, L"value", nullptr, nullptr, data, &size)), 0u);
    EXPECT_EQ(std::string(std::begin(data), std::end(data)), std::string("12345\0\0\0", 8));
    size = 0;
    EXPECT_EQ(Status(RegQueryValueExW(m_key, L"value", nullptr, nullptr, nullptr, &size)), 0u);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(Status(RegQueryValueExW(m_key, L"value", nullptr, &type, nullptr, nullptr)), 0u);
    EXPECT_EQ(Status(RegQueryValueExW(m_key, L"value", nullptr, &type, data, nullptr)),
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Status(RegQueryValueExW(m_key, L"value", &size, &type, data, &size)),
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Status(RegSetValueExW(m_key, L"value", 0, REG_BINARY, nullptr, 5)), DWORD{ERROR_NOACCESS});
}

TEST_F(Registry, HasPathsOfKeys) {
    SetLastError(4321);
    EXPECT_EQ(Open(m_key, L"a").Code(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(GetLastError(), 4321u) << "left alone";
    const OwnedKey made = Make(m_key, L"a\\b\\c");
    EXPECT_EQ(made.Disposition(), DWORD{REG_CREATED_NEW_KEY});
    EXPECT_EQ(Set(made, L"value", {REG_BINARY, "1"}), 0u);
    for (const wchar_t* path : {L"a\\b\\c", L"A\\B\\C\\", L"a\\\\b\\c"})
        EXPECT_EQ(Get(Open(m_key, path), L"value").data, "1") << testing::PrintToString(std::wstring(path));
    EXPECT_EQ(Open(m_key, L"\\a").Code(), DWORD{ERROR_BAD_PATHNAME});
    EXPECT_EQ(Make(m_key, L"\\x").Code(), DWORD{ERROR_BAD_PATHNAME});
    EXPECT_THAT(KeyNames(m_key), ElementsAre(L"a"));
}

TEST_F(Registry, OpensTheKeyItselfWithoutAPath) {
    Set(m_key, L"value", {REG_BINARY, "1"});
    const OwnedKey second = Open(m_key, nullptr);
    EXPECT_NE(second.Get(), m_key.Get());
    EXPECT_EQ(Get(second, L"value").data, "1");
    EXPECT_EQ(Open(HKEY_LOCAL_MACHINE, nullptr).Get(), HKEY_LOCAL_MACHINE);
    EXPECT_EQ(Open(HKEY_CURRENT_USER, L"").Get(), HKEY_CURRENT_USER);
}

TEST_F(Registry, ListsWhatIsInAKey) {
    for (const wchar_t* name : {L"b", L"a", L"longest"})
        Make(m_key, name);
    Set(m_key, L"value", {REG_BINARY, "12345"});
    Set(m_key, L"v", {REG_BINARY, "123456789"});
    EXPECT_THAT(KeyNames(m_key), UnorderedElementsAre(L"a", L"b", L"longest"));
    EXPECT_THAT(ValueNames(m_key), UnorderedElementsAre(L"v", L"value"));
    DWORD subkeys = 0, longestSubkey = 0, values = 0, longestName = 0, largest = 0;
    FILETIME lastWrite{};
    EXPECT_EQ(Status(RegQueryInfoKeyW(m_key, nullptr, nullptr, nullptr, &subkeys, &longestSubkey, nullptr,
                                      &values, &longestName, &largest, nullptr, &lastWrite)),
              0u);
    EXPECT_THAT((std::vector{subkeys, longestSubkey, values, longestName, largest}),
                ElementsAre(3u, 7u, 2u, 5u, 9u));
    EXPECT_NE(lastWrite.dwHighDateTime, 0u);
}

TEST_F(Registry, ListsOnlyWhatFits) {
    Make(m_key, L"name");
    Set(m_key, L"name", {REG_BINARY, "12345"});
    wchar_t name[5];
    DWORD size = 4, dataSize = 4;
    BYTE data[5];
    EXPECT_EQ(Status(RegEnumKeyExW(m_key, 0, name, &size, nullptr, nullptr, nullptr, nullptr)),
              DWORD{ERROR_MORE_DATA});
    EXPECT_EQ(Status(RegEnumValueW(m_key, 0, name, &size, nullptr, nullptr, nullptr, nullptr)),
              DWORD{ERROR_MORE_DATA});
    size = 5;
    EXPECT_EQ(Status(RegEnumValueW(m_key, 0, name, &size, nullptr, nullptr, data, &dataSize)),
              DWORD{ERROR_MORE_DATA});
    EXPECT_EQ(dataSize, 5u);
    size = 5;
    EXPECT_EQ(Status(RegEnumValueW(m_key, 0, name, &size, nullptr, nullptr, data, &dataSize)), 0u);
    EXPECT_EQ(std::wstring(name, size), L"name");
    EXPECT_EQ(std::string(std::begin(data), std::end(data)), "12345");
}

TEST_F(Registry, DeletesOnlyKeysWithoutSubkeys) {
    const OwnedKey made = Make(m_key, L"a\\b");
    Set(made, L"value", {REG_BINARY, "1"});
    EXPECT_EQ(Status(RegDeleteKeyExW(m_key, L"a", 0, 0)), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Status(RegDeleteKeyExW(m_key, L"c", 0, 0)), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(Status(RegDeleteKeyExW(m_key, L"a\\b", 0, 0)), 0u);
    EXPECT_EQ(Status(RegDeleteKeyExW(m_key, L"a", 0, 0)), 0u);
    EXPECT_THAT(KeyNames(m_key), ElementsAre());
}

TEST_F(Registry, RefusesEverythingOnADeletedKey) {
    const OwnedKey key = Make(m_key, L"a");
    Set(key, L"value", {REG_BINARY, "1"});
    ASSERT_EQ(Status(RegDeleteKeyExW(m_key, L"a", 0, 0)), 0u);
    wchar_t name[4];
    DWORD size = 4;
    EXPECT_EQ(Get(key, L"value").code, DWORD{ERROR_KEY_DELETED});
    EXPECT_EQ(Set(key, L"value", {REG_BINARY, "1"}), DWORD{ERROR_KEY_DELETED});
    EXPECT_EQ(Make(key, L"b").Code(), DWORD{ERROR_KEY_DELETED});
    EXPECT_EQ(Open(key, L"b").Code(), DWORD{ERROR_KEY_DELETED});
    EXPECT_EQ(Status(RegDeleteValueW(key, L"value")), DWORD{ERROR_KEY_DELETED});
    EXPECT_EQ(Status(RegEnumKeyExW(key, 0, name, &size, nullptr, nullptr, nullptr, nullptr)),
              DWORD{ERROR_KEY_DELETED});
    EXPECT_EQ(Status(RegEnumValueW(key, 0, name, &size, nullptr, nullptr, nullptr, nullptr)),
              DWORD{ERROR_KEY_DELETED});
    EXPECT_EQ(Status(RegFlushKey(key)), DWORD{ERROR_KEY_DELETED});
    const OwnedKey again = Make(m_key, L"a");
    EXPECT_EQ(again.Disposition(), DWORD{REG_CREATED_NEW_KEY});
    EXPECT_EQ(Get(again, L"value").code, DWORD{ERROR_FILE_NOT_FOUND});
}

TEST_F(Registry, DeletesWholeTrees) {
    const OwnedKey deep = Make(m_key, L"a\\b\\c");
    Make(m_key, L"a\\d");
    Set(m_key, L"value", {REG_BINARY, "1"});
    EXPECT_EQ(Status(RegDeleteTreeW(m_key, L"none")), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(Status(RegDeleteTreeW(m_key, L"a")), 0u);
    EXPECT_EQ(Get(deep, L"value").code, DWORD{ERROR_KEY_DELETED});
    EXPECT_EQ(Get(m_key, L"value").data, "1");
    Make(m_key, L"e\\f");
    EXPECT_EQ(Status(RegDeleteTreeW(m_key, nullptr)), 0u);
    EXPECT_THAT(KeyNames(m_key), ElementsAre());
    EXPECT_THAT(ValueNames(m_key), ElementsAre());
}

TEST_F(Registry, GrantsWhatTheHandleWasOpenedFor) {
    Set(m_key, L"value", {REG_BINARY, "1"});
    Make(m_key, L"sub");
    wchar_t name[4];
    DWORD size = 4;
    const OwnedKey reader = Open(m_key, L"", KEY_READ);
    EXPECT_EQ(Get(reader, L"value").data, "1");
    EXPECT_EQ(Set(reader, L"value", {REG_BINARY, "2"}), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Status(RegDeleteValueW(reader, L"value")), DWORD{ERROR_ACCESS_DENIED});
    const OwnedKey writer = Open(m_key, L"", KEY_SET_VALUE);
    EXPECT_EQ(Set(writer, L"value", {REG_BINARY, "2"}), 0u);
    EXPECT_EQ(Get(writer, L"value").code, DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Status(RegEnumKeyExW(writer, 0, name, &size, nullptr, nullptr, nullptr, nullptr)),
              DWORD{ERROR_ACCESS_DENIED});
    for (const REGSAM access : {MAXIMUM_ALLOWED, GENERIC_ALL, GENERIC_WRITE})
        EXPECT_EQ(Set(Open(m_key, L"", access), L"value", {REG_BINARY, "3"}), 0u) << access;
    const OwnedKey most = Open(m_key, L"", GENERIC_READ);
    EXPECT_EQ(Get(most, L"value").data, "3");
}

TEST_F(Registry, ChecksHandles) {
    HKEY key = nullptr;
    ASSERT_EQ(Status(RegOpenKeyExW(m_key, L"", 0, KEY_READ, &key)), 0u);
    EXPECT_EQ(Status(RegCloseKey(key)), 0u);
    EXPECT_EQ(Status(RegCloseKey(key)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(Get(key, L"value").code, DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(Status(RegOpenKeyExW(m_key, L"none", 0, KEY_READ, &key)), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(Open(nullptr, L"a").Code(), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(Status(RegOpenKeyExW(m_key, L"", 0, KEY_READ, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Status(RegCloseKey(HKEY_LOCAL_MACHINE)), 0u);
    EXPECT_EQ(Open(HKEY_LOCAL_MACHINE, nullptr).Code(), 0u);
}

TEST_F(Registry, ConnectsToThisMachineAlone) {
    HKEY connected = nullptr;
    wchar_t machine[MAX_COMPUTERNAME_LENGTH + 3] = L"\\\\";
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    ASSERT_TRUE(GetComputerNameW(machine + 2, &size));
    for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr), static_cast<const wchar_t*>(machine)}) {
        EXPECT_EQ(Status(RegConnectRegistryW(name, HKEY_LOCAL_MACHINE, &connected)), 0u);
        EXPECT_EQ(Status(RegCloseKey(connected)), 0u);
    }
    EXPECT_EQ(Status(RegConnectRegistryW(L"\\\\no-such-machine", HKEY_LOCAL_MACHINE, &connected)),
              DWORD{ERROR_BAD_NETPATH});
}

// Makes keys and values of its own, one after the other, and deletes every second key.
const Role g_writer("registry-writer", [](const RoleArguments& arguments) {
    const OwnedKey key = Open(HKEY_CURRENT_USER, Wide(arguments.at(0)).c_str());
    for (int i = 0; i < std::stoi(arguments.at(2)); ++i) {
        const std::wstring name = Wide(arguments.at(1)) + std::to_wstring(i);
        const bool done = Set(key, name.c_str(), {REG_BINARY, Bytes(name)}) == 0 &&
                          Make(key, name.c_str()).Code() == 0 &&
                          (i % 2 == 0 || RegDeleteKeyExW(key, name.c_str(), 0, 0) == 0);
        if (!done) return 1;
    }
    return 0;
});

TEST_F(Registry, LosesNothingToSeveralWriters) {
    constexpr int Each = 20;
    const std::string count = std::to_string(Each);
    RoleProcess first("registry-writer", {Path(), "first", count});
    RoleProcess second("registry-writer", {Path(), "second", count});
    EXPECT_EQ(first.ExitCode(), 0u);
    EXPECT_EQ(second.ExitCode(), 0u);
    EXPECT_EQ(ValueNames(m_key).size(), 2u * Each);
    EXPECT_EQ(KeyNames(m_key).size(), 1u * Each);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
