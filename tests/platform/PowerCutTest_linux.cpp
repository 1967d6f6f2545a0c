// What is left when power is lost at any instant: each acknowledged change, whole and once, and nothing else.
#include "../../tools/tqscm/Journal.h"
#include "../../tools/tqscm/Store.h"
#include "Policy.h"
#include "RegistryTest.h"
#include "TQLib/files/TQTextFile.h"
#include "TQLib/log/TQLog.h"
#include "TQLib/platform/SharedFlush.h"
#include "TQLib/platform/linux/registry/RegistryRecord.h"
#include "support/FailCall.h"
#include "support/PowerCut_linux.h"
#include "support/ReadBytes.h"

#include <fstream>
#include <iterator>
#include <set>
#include <thread>

namespace Quellan::Corvel::Test {
namespace {

namespace fs = std::filesystem;
namespace Durable = Platform::Durable;
using Path = fs::path;

// Of several pieces, and known as whole by its end.
std::string Record(int number) {
    return "    record " + std::to_string(number) + std::string(1200, 'x') + " end";
}

// The whole records in a text.
std::string RecordsIn(const std::string& text) {
    std::string numbers;
    for (std::size_t at = 0; (at = text.find("    record ", at)) != text.npos; ++at)
        for (int number = 1; number < 10; ++number)
            if (text.compare(at, Record(number).size(), Record(number)) == 0)
                numbers += std::to_string(number);
    return numbers;
}

// Something that lasts, changed step by step. All of it lies in the folder.
struct Subject {
    const char* name;
    int changes;
    void (*change)(const Path& folder, int number);
    std::string (*read)(const Path& folder);
    // What may be read beside the state before a change and the one after it while it is under way.
    std::string (*between)(const std::string& before, const std::string& after) = nullptr;
    bool losesOldest = false;  // earlier where something torn takes room
};

// The registry.

std::string Dump(HKEY key) {
    std::string text;
    for (const std::wstring& name : Listed(key, RegEnumValueW))
        text += std::string(name.begin(), name.end()) + '=' + Get(key, name.c_str()).data + ' ';
    for (const std::wstring& name : Listed(key, RegEnumKeyExW))
        text += std::string(name.begin(), name.end()) + '{' + Dump(Open(key, name.c_str())) + '}';
    return text;
}

void MakeKey(const wchar_t* path) {
    EXPECT_EQ(Make(HKEY_CURRENT_USER, path).Code(), 0u);
}
void SetValue(const wchar_t* path, const wchar_t* name, std::size_t size, char character) {
    EXPECT_EQ(Set(Open(HKEY_CURRENT_USER, path), name, {REG_BINARY, std::string(size, character)}), 0u);
}

constexpr void (*RegistryChanges[])(const Path& hive) = {
    [](const Path&) { MakeKey(L"A"); },
    [](const Path&) { MakeKey(L"A\\b"); },
    [](const Path&) { SetValue(L"A", L"v", 1500, '1'); },
    [](const Path&) { SetValue(L"A", L"v", 700, '2'); },
    [](const Path&) { SetValue(L"A\\b", L"w", 10, '3'); },
    [](const Path&) { EXPECT_EQ(RegDeleteValueW(Open(HKEY_CURRENT_USER, L"A"), L"v"), 0); },
    [](const Path&) { EXPECT_EQ(RegDeleteTreeW(Open(HKEY_CURRENT_USER, L"A\\b"), nullptr), 0); },
    [](const Path&) { MakeKey(L"A\\b\\c"); },
    [](const Path&) { EXPECT_EQ(RegDeleteTreeW(HKEY_CURRENT_USER, L"A\\b"), 0); },
    [](const Path&) { MakeKey(L"A\\d"); },
    [](const Path&) { MakeKey(L"A\\d\\e"); },
    [](const Path&) {  // as in the lower layer of a container
        const FailCall noMove("renameat2", EXDEV, FailCall::EveryCall);
        EXPECT_EQ(RegDeleteTreeW(HKEY_CURRENT_USER, L"A\\d"), 0);
    },
    [](const Path&) { MakeKey(L"A\\k"); },
    [](const Path&) { SetValue(L"A\\k", L"v", 10, '4'); },
    [](const Path& hive) {  // after somebody was killed who was deleting a key
        Durable::MakeFolder(AT_FDCWD, (hive / "deleted").c_str(), 0700);
        Durable::Rename(AT_FDCWD, (hive / "root/k.A/k.K").c_str(), AT_FDCWD,
                        (hive / "deleted/killed").c_str());
        SetValue(L"A", L"v", 10, '5');
    },
    [](const Path&) {
        EXPECT_EQ(Platform::PutRegistryKey(HKEY_CURRENT_USER, L"A\\m",
                                           {{L"p", REG_BINARY, std::string(700, '6')},
                                            {L"q", REG_BINARY, "7"},
                                            {L"r", REG_BINARY, "8"}}),
                  0u);
    },
    [](const Path&) { SetValue(L"A\\m", L"P", 10, '9'); },
    [](const Path&) { EXPECT_EQ(RegDeleteValueW(Open(HKEY_CURRENT_USER, L"A\\m"), L"p"), 0); },
    [](const Path&) { EXPECT_EQ(RegDeleteValueW(Open(HKEY_CURRENT_USER, L"A\\m"), L"Q"), 0); },
    [](const Path&) { SetValue(L"A\\m", L"r", 10, '0'); },
    [](const Path&) { EXPECT_EQ(RegDeleteTreeW(Open(HKEY_CURRENT_USER, L"A\\m"), nullptr), 0); }};

void ChangeRegistry(const Path& folder, int number) {
    const int last = static_cast<int>(std::size(RegistryChanges));
    RegistryChanges[std::min(number, last) - 1](folder / "a/b/state/registry/user");
}

std::string OnlyDeleted(const std::string&, const std::string& after) {
    return after.substr(0, after.find("v=5")) + '}';
}

// The rights of accounts.

void ChangeRights(const Path&, int number) {
    const Policy policy(POLICY_LOOKUP_NAMES | POLICY_CREATE_ACCOUNT);
    const wchar_t* const right = number % 2 ? L"SeBackupPrivilege" : L"SeRestorePrivilege";
    Sid account(L"S-1-5-32-544");
    EXPECT_EQ((number - 1) % 4 < 2 ? policy.Add(account.Get(), right) : policy.Remove(account.Get(), right),
              0u);
}

std::string ReadRights(const Path& folder) {
    return ReadBytes(folder / "a/b/state/security/rights");
}

// Event logs.

void Report(int number, const std::wstring& text) {
    const HANDLE source = RegisterEventSourceW(nullptr, L"test");
    const wchar_t* strings[] = {text.c_str()};
    EXPECT_TRUE(ReportEventW(source, EVENTLOG_ERROR_TYPE, 0, static_cast<DWORD>(number), nullptr, 1, 0,
                             strings, nullptr));
    DeregisterEventSource(source);
}

void ChangeEvents(const Path& folder, int number) {
    if (number != 3) return Report(number, std::wstring(1200, L'x'));
    const HANDLE log = OpenEventLogW(nullptr, L"Application");
    const std::wstring backup = (folder / "backup").wstring();
    if (!ClearEventLogW(log, backup.c_str())) {  // a loss of power came between the two parts
        EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
        fs::remove(folder / "backup");
        EXPECT_TRUE(ClearEventLogW(log, backup.c_str()));
    }
    CloseEventLog(log);
}

std::string ReadEvents(const Path& folder) {
    std::vector<char> buffer(0x7FFFF);
    std::string text;
    const HANDLE log = OpenEventLogW(nullptr, L"Application");
    constexpr DWORD Forwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ;
    for (DWORD got = 0, needed = 0; ReadEventLogW(log, Forwards, 0, buffer.data(), 0x7FFFF, &got, &needed);)
        for (DWORD at = 0; at < got;) {
            EVENTLOGRECORD record;
            std::memcpy(&record, &buffer[at], sizeof record);
            const std::wstring first(reinterpret_cast<const wchar_t*>(&buffer[at + record.StringOffset]));
            text += std::to_string(record.RecordNumber) + ':' + std::to_string(record.EventID) +
                    (first.find_first_not_of(L'x') == first.npos ? "" : "torn") + ' ';
            at += record.Length;
        }
    CloseEventLog(log);
    // Times and the like differ.
    std::string backup = ReadBytes(folder / "backup");
    for (char& character : backup)
        if (std::isdigit(static_cast<unsigned char>(character))) character = '0';
    return text + backup;
}

std::string OnlyBackedUp(const std::string& before, const std::string& after) {
    return before + after;
}

void ChangeFullLog(const Path&, int number) {
    if (number == 1)
        EXPECT_EQ(Set(Make(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application"),
                      L"MaxSize", {REG_DWORD, std::string(4, '\0')}),
                  0u);
    else
        Report(number, std::wstring(15'000, L'x'));
}

std::string OnlyWithRoom(const std::string&, const std::string& after) {
    return after.substr(0, after.find_last_of(' ', after.size() - 2) + 1);
}

// Files.

void Write(HANDLE file, const std::string& text) {
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
}

HANDLE OpenFile(const Path& path, DWORD disposition, DWORD flags) {
    const HANDLE file = CreateFileW(path.wstring().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                    disposition, flags, nullptr);
    EXPECT_NE(file, INVALID_HANDLE_VALUE);
    SetFilePointerEx(file, {}, nullptr, FILE_END);
    return file;
}

void ChangeThrough(const Path& folder, int number) {
    const HANDLE file =
        OpenFile(folder / "file", number == 6 ? CREATE_ALWAYS : OPEN_ALWAYS, FILE_FLAG_WRITE_THROUGH);
    LARGE_INTEGER size{};
    GetFileSizeEx(file, &size);
    if (number == 4) {
        const LARGE_INTEGER end{.QuadPart = static_cast<LONGLONG>(Record(1).size())};
        SetFilePointerEx(file, end, nullptr, FILE_BEGIN);
        EXPECT_TRUE(SetEndOfFile(file));
    } else if (number != 6) {
        Write(file, Record(number));
    }
    CloseHandle(file);
}

void ChangeFlushed(const Path& folder, int number) {
    const HANDLE file = OpenFile(folder / "file", OPEN_ALWAYS, number == 1 ? FILE_FLAG_WRITE_THROUGH : 0);
    if (number > 1) Write(file, Record(number));
    EXPECT_TRUE(FlushFileBuffers(file));
    CloseHandle(file);
}

std::string ReadRecords(const Path& folder) {
    return RecordsIn(ReadBytes(folder / "file"));
}

void ChangeMoved(const Path& folder, int number) {
    for (const char* name : {"from", "to"})
        CreateDirectoryW((folder / name).wstring().c_str(), nullptr);
    EXPECT_EQ(Durable::SyncFolderOf((folder / "from").string()), 0);
    fs::remove(folder / "from/file");  // which may be the same one
    const HANDLE file = OpenFile(folder / "from/file", CREATE_NEW, 0);
    Write(file, Record(number));
    CloseHandle(file);
    EXPECT_TRUE(MoveFileExW((folder / "from/file").wstring().c_str(), (folder / "to/file").wstring().c_str(),
                            MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH));
}

std::string ReadMoved(const Path& folder) {
    std::error_code missing;
    const bool isTwice = fs::equivalent(folder / "from/file", folder / "to/file", missing);
    return RecordsIn(ReadBytes(folder / "to/file")) + (isTwice ? " twice" : "");
}

std::string UnderBothNames(const std::string&, const std::string& after) {
    return after + " twice";
}

// The diagnostic log. What is left of it is written to as other processes do.
bool g_isRecorded = false;

void ChangeLog(const Path& folder, int number) {
    const std::wstring name = (folder / "file.tlg").wstring();
    const std::string record = Record(number);
    const std::wstring text(record.begin(), record.end());
    if (g_isRecorded) {
        TQLog::GetLog(name.c_str(), 0)->AddMsg(text.c_str() + 4, TQLogLevel::Information);
        return;
    }
    TQTextFile(TQFileName(name.c_str()), FILE_GENERIC_READ | FILE_GENERIC_WRITE, OPEN_ALWAYS,
               FILE_FLAG_WRITE_THROUGH, _TQFile::FileShare::Read | _TQFile::FileShare::Write,
               Sarvek::SecAttr())
        .Append(text, 0);
}

std::string ReadLog(const Path& folder) {
    return RecordsIn(ReadBytes(folder / "file.tlg"));
}

// Two who wait for the lock, as two processes do: whoever has it first writes what both have, and both
// records are one change here.
void ChangeSharedLog(const Path& folder, int number) {
    constexpr ULONGLONG AppendLock = (1ULL << 62) - 1;
    constexpr DWORD Patience = 60'000;
    const TQFileName name((folder / "file.tlg").wstring().c_str());
    struct File : TQTextFile {
        explicit File(const TQFileName& file)
            : TQTextFile(file, FILE_GENERIC_READ | FILE_GENERIC_WRITE, OPEN_ALWAYS, FILE_FLAG_WRITE_THROUGH,
                         FileShare::Read | FileShare::Write, Sarvek::SecAttr()) {}
        using _TQFile::Handle;
    } holder(name), one(name), other(name);
    EXPECT_TRUE(holder.Lock(AppendLock, 1, Patience));
    const auto shared = Platform::SharedFlush::Open(holder.Handle());
    std::vector<std::jthread> waiting;
    std::string offers;
    for (TQTextFile* const file : {&one, &other}) {
        const std::string text = Record(2 * number - static_cast<int>(file == &one));
        waiting.emplace_back([=] { file->Append(std::wstring(text.begin(), text.end()), Patience); });
        for (const std::size_t size = waiting.size() * (text.size() + 2); offers.size() != size;) {
            offers.clear();
            shared->Take(offers, 0);
            shared->Settle(false);
        }
    }
    holder.Unlock(AppendLock, 1);
}

std::string ReadSharedLog(const Path& folder) {
    const std::string records = ReadLog(folder);
    std::string changes;
    for (char number = 1; number <= 4; ++number) {
        const auto isThere = [&](int record) {
            return records.find(static_cast<char>('0' + record)) != records.npos;
        };
        const bool first = isThere(2 * number - 1), second = isThere(2 * number);
        if (first || second) changes += first && second ? static_cast<char>('0' + number) : 'h';
    }
    return changes;
}

std::string OnlyOneOfBoth(const std::string& before, const std::string&) {
    return before + 'h';
}

// The service manager's records and its journal, which counts for one boot: it only must not be in the way.

void ChangeServices(const Path&, int number) {
    Platform::ServiceConfig first, second;
    first.commandLine = "/bin/first";
    first.displayName = "First";
    second.commandLine = "/bin/second";
    second.displayName = "Second";
    EXPECT_EQ(number == 1   ? tqscm::CreateRecord("service", first)
              : number == 2 ? tqscm::ChangeRecord("service", first, second)
              : number == 3 ? tqscm::MarkRecord("service")
              : number == 4 ? tqscm::DeleteRecord("service")
                            : tqscm::CreateRecord("service", second),
              0u);
}

std::string ReadServices(const Path&) {
    std::string text;
    for (const tqscm::StoredService& service : tqscm::ReadServices())
        text += service.name + ' ' + service.config.commandLine + ' ' + service.config.displayName +
                (service.isMarked ? " marked" : "");
    return text;
}

void ChangeJournal(const Path& folder, int number) {
    const std::string path = (folder / "journal").string(), name = "service" + std::to_string(number);
    tqscm::JournalEntry entry;
    entry.commandLine.assign(1200, 'x');
    tqscm::Journal(path).Put(name, entry);
    EXPECT_TRUE(tqscm::Journal(path).All().contains(name));
}

constexpr Subject Subjects[] = {
    {"Registry", 21, ChangeRegistry, [](const Path&) { return Dump(HKEY_CURRENT_USER); }, OnlyDeleted},
    {"Rights", 4, ChangeRights, ReadRights},
    {"EventLog", 4, ChangeEvents, ReadEvents, OnlyBackedUp},
    {"FullEventLog", 7, ChangeFullLog, ReadEvents, OnlyWithRoom, true},
    {"WrittenThrough", 6, ChangeThrough, ReadRecords},
    {"Flushed", 3, ChangeFlushed, ReadRecords},
    {"Moved", 2, ChangeMoved, ReadMoved, UnderBothNames},
    {"Log", 2, ChangeLog, ReadLog},
    {"SharedLog", 2, ChangeSharedLog, ReadSharedLog, OnlyOneOfBoth},
    {"Services", 4, ChangeServices, ReadServices},
    {"Journal", 2, ChangeJournal, [](const Path&) { return std::string(); }},
};

class PowerCutAtAnyInstant : public testing::TestWithParam<Subject> {};

TEST_P(PowerCutAtAnyInstant, LeavesWhatWasAcknowledged) {
    const Subject& subject = GetParam();
    PowerCut power;
    const EnvironmentVariable root(L"TQLIB_ROOT", (power.Folder() / "a/b").wstring().c_str());
    std::vector<std::string> states{subject.read(power.Folder())};
    g_isRecorded = true;
    // The last two are for the change after the loss alone.
    for (int number = 1; number <= subject.changes + 2; ++number) {
        subject.change(power.Folder(), number);
        if (number <= subject.changes) power.Acknowledge();
        states.push_back(subject.read(power.Folder()));
        if (number == subject.changes) power.End();
    }
    g_isRecorded = false;
    power.ForEachImage([&](std::size_t acknowledged) {
        const std::string& before = states[acknowledged];
        const std::string& after = states[acknowledged + 1];
        const std::string left = subject.read(power.Folder());
        const bool isBetween = subject.between && left == subject.between(before, after);
        ASSERT_TRUE(left == before || left == after || isBetween)
            << "after " << acknowledged << " changes: " << left.substr(0, 200) << "\n not "
            << before.substr(0, 200) << "\n nor " << after.substr(0, 200);
        const std::size_t next = acknowledged + (left == after && left != before ? 2 : 1);
        subject.change(power.Folder(), static_cast<int>(next));
        const std::string now = subject.read(power.Folder());
        ASSERT_TRUE(now == states[next] ||
                    (subject.losesOldest && !now.empty() && states[next].ends_with(now)))
            << "change " << next << ": " << now.substr(0, 200) << "\n not " << states[next].substr(0, 200);
    });
}

INSTANTIATE_TEST_SUITE_P(, PowerCutAtAnyInstant, testing::ValuesIn(Subjects),
                         [](const auto& subject) { return std::string(subject.param.name); });

TEST(PowerCut, IsNotWithstoodByARecordThatCouldNotBeFlushed) {
    const TemporaryFolder folder;
    TQTextFile file(TQFileName((folder / L"file").c_str()), FILE_GENERIC_READ | FILE_GENERIC_WRITE,
                    CREATE_NEW, 0, _TQFile::FileShare::Read, Sarvek::SecAttr());
    const FailCall fails("FlushFileBuffers", ERROR_WRITE_FAULT);
    EXPECT_EQ(ThrownCode([&] { file.Append(L"record", 0); }), DWORD{ERROR_WRITE_FAULT});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
