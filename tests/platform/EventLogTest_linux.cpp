#include "RegistryTest.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/base/Descriptor.h"
#include "support/ReadBytes.h"

#include <cstring>
#include <fstream>
#include <map>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Quellan::Corvel::Test {
namespace {

using Platform::Descriptor;

// A record as read, apart from what every record has in common.
struct Event {
    DWORD number;
    DWORD id;
    WORD type;
    WORD category;
    std::wstring source;
    std::vector<std::wstring> strings;
    std::string data;
};

Event Unpack(const char* bytes) {
    EVENTLOGRECORD header;
    std::memcpy(&header, bytes, sizeof header);
    const auto textAt = [bytes](DWORD& offset) {
        std::wstring text;
        for (wchar_t c; std::memcpy(&c, bytes + offset, sizeof c), offset += sizeof c, c != L'\0';)
            text += c;
        return text;
    };
    DWORD lengthAgain;
    std::memcpy(&lengthAgain, bytes + header.Length - sizeof lengthAgain, sizeof lengthAgain);
    EXPECT_EQ(lengthAgain, header.Length);
    EXPECT_EQ(header.Length % 4, 0u);
    EXPECT_EQ(header.Reserved, 0x654C664Cu);
    DWORD nameAt = sizeof header;
    DWORD stringAt = header.StringOffset;
    Event event{
        header.RecordNumber, header.EventID, header.EventType, header.EventCategory, textAt(nameAt), {}, {}};
    for (WORD i = 0; i < header.NumStrings; ++i)
        event.strings.push_back(textAt(stringAt));
    event.data.assign(bytes + header.DataOffset, header.DataLength);
    return event;
}

// A state root of its own for each test.
class EventLogFile : public testing::Test {
  protected:
    static std::string Native(const std::wstring& path) { return {path.begin(), path.end()}; }

    std::string LogPath() const { return Native(m_folder / L"state/eventlog/Application.jsonl"); }

    std::string Bytes() const { return ReadBytes(LogPath()); }

    void AppendBytes(std::string_view text) const { std::ofstream(LogPath(), std::ios::app) << text; }

    static DWORD Report(HANDLE source, DWORD id, const std::wstring& text = L"text") {
        const wchar_t* strings[] = {text.c_str()};
        return CodeOf(ReportEventW(source, EVENTLOG_WARNING_TYPE, 0, id, nullptr, 1, 0, strings, nullptr));
    }

    static DWORD ReportOnce(DWORD id, const std::wstring& text = L"text") {
        const HANDLE source = RegisterEventSourceW(nullptr, L"test");
        const DWORD code = source ? Report(source, id, text) : GetLastError();
        DeregisterEventSource(source);
        return code;
    }

    DWORD Read(DWORD flags, std::vector<Event>& events, DWORD number = 0, DWORD size = 0x7FFFF) {
        std::vector<char> buffer(size);
        DWORD got = 0;
        const DWORD code = CodeOf(ReadEventLogW(m_log, flags, number, buffer.data(), size, &got, &m_needed));
        for (DWORD at = 0; !code && at < got;) {
            events.push_back(Unpack(buffer.data() + at));
            DWORD length;
            std::memcpy(&length, buffer.data() + at, sizeof length);
            at += length;
        }
        return code;
    }

    // The numbers of the records that one read gives.
    std::vector<DWORD> Numbers(DWORD flags, DWORD number = 0, DWORD size = 0x7FFFF) {
        std::vector<Event> events;
        EXPECT_EQ(Read(flags, events, number, size), 0u);
        std::vector<DWORD> numbers;
        for (const Event& event : events)
            numbers.push_back(event.number);
        return numbers;
    }

    std::vector<Event> All() {
        std::vector<Event> events;
        DWORD code;
        do
            code = Read(EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ, events);
        while (code == 0);
        EXPECT_EQ(code, ERROR_HANDLE_EOF);
        return events;
    }

    DWORD Count() const {
        DWORD count = 77;
        EXPECT_EQ(CodeOf(GetNumberOfEventLogRecords(m_log, &count)), 0u);
        return count;
    }

    TemporaryFolder m_folder;
    const EnvironmentVariable m_root{L"TQLIB_ROOT", m_folder.Path().c_str()};
    const HANDLE m_log = OpenEventLogW(nullptr, L"Application");
    DWORD m_needed = 0;

    ~EventLogFile() override { CloseEventLog(m_log); }
};

constexpr DWORD Forwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ;
constexpr DWORD Backwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ;
using Sequence = std::vector<DWORD>;

TEST_F(EventLogFile, GivesBackWhatWasReported) {
    const HANDLE source = RegisterEventSourceW(nullptr, L"S\u00F6urce");
    const std::wstring awkward = L"quote \" backslash \\ line\nend tab\t bell\x07 \u65E5\U0001F600 \x7F";
    const wchar_t* strings[] = {awkward.c_str(), L"", nullptr, L"last"};
    std::string data(256, '\0');
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i);
    ASSERT_EQ(CodeOf(ReportEventW(source, EVENTLOG_AUDIT_FAILURE, 0xFFFF, 0xCFFF4001, nullptr, 4, 256,
                                  strings, data.data())),
              0u);
    DeregisterEventSource(source);
    const std::vector<Event> events = All();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].number, 1u);
    EXPECT_EQ(events[0].id, 0xCFFF4001u);
    EXPECT_EQ(events[0].type, EVENTLOG_AUDIT_FAILURE);
    EXPECT_EQ(events[0].category, 0xFFFF);
    EXPECT_EQ(events[0].source, L"S\u00F6urce");
    EXPECT_EQ(events[0].strings, (std::vector<std::wstring>{awkward, L"", L"", L"last"}));
    EXPECT_EQ(events[0].data, data);
}

TEST_F(EventLogFile, HoldsOneLineOfTheDocumentedFormForEachEvent) {
    ASSERT_EQ(ReportOnce(7, std::wstring(L"bad \xD800 \"text\"")), 0u);
    std::string line = Bytes();
    // What differs from run to run: the time, the machine and the process.
    const std::size_t time = line.find("\"time\":\"") + 8;
    EXPECT_EQ(line[time + 10], 'T');
    EXPECT_EQ(line[time + 23], 'Z');
    line.replace(time, 24, "TIME");
    const std::size_t computer = line.find("\"computer\":\"") + 12;
    line.replace(computer, line.find('"', computer) - computer, "NAME");
    EXPECT_EQ(line,
              "{\"record\":1,\"time\":\"TIME\",\"source\":\"test\",\"computer\":\"NAME\",\"id\":7,\"type\":"
              "\"warning\","
              "\"category\":0,\"strings\":[\"bad \xEF\xBF\xBD \\\"text\\\"\"],\"data\":\"\",\"process\":" +
                  std::to_string(getpid()) + ",\"user\":" + std::to_string(geteuid()) + "}\n");
}

TEST_F(EventLogFile, RefusesWhatCannotBeReported) {
    const HANDLE source = RegisterEventSourceW(nullptr, L"test");
    int user = 0;
    const auto report = [&](WORD type, void* sid, WORD strings, DWORD size) {
        return CodeOf(ReportEventW(source, type, 0, 1, sid, strings, size, nullptr, nullptr));
    };
    EXPECT_EQ(report(3, nullptr, 0, 0), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(report(EVENTLOG_ERROR_TYPE, &user, 0, 0), ERROR_NOT_SUPPORTED);
    EXPECT_EQ(report(EVENTLOG_ERROR_TYPE, nullptr, 1, 0), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(report(EVENTLOG_ERROR_TYPE, nullptr, 0, 1), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(Report(source, 1, std::wstring(31'840, L'x')), RPC_S_INVALID_BOUND);
    EXPECT_EQ(Report(source, 1, std::wstring(31'839, L'x')), 0u);
    std::string data(61'441, 'x');
    EXPECT_EQ(
        CodeOf(ReportEventW(source, EVENTLOG_ERROR_TYPE, 0, 1, nullptr, 0, 61'441, nullptr, data.data())),
        RPC_S_INVALID_BOUND);
    DeregisterEventSource(source);
    EXPECT_EQ(CodeOf(DeregisterEventSource(source)), ERROR_INVALID_HANDLE) << "once more";
    EXPECT_EQ(CodeOf(RegisterEventSourceW(nullptr, nullptr)), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(CodeOf(OpenEventLogW(nullptr, nullptr)), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(CodeOf(OpenEventLogW(L"\\\\elsewhere", L"Application")), RPC_S_SERVER_UNAVAILABLE);
    EXPECT_EQ(Count(), 1u);
}

TEST_F(EventLogFile, IsReadInBothDirectionsFromBothBeginnings) {
    for (DWORD id = 1; id <= 5; ++id)
        ReportOnce(id);
    EXPECT_EQ(Numbers(Backwards), (Sequence{5, 4, 3, 2, 1}));
    EXPECT_EQ(Numbers(Forwards), (Sequence{1, 2, 3, 4, 5}));
    EXPECT_EQ(Numbers(EVENTLOG_SEEK_READ | EVENTLOG_FORWARDS_READ, 4), (Sequence{4, 5}));
    EXPECT_EQ(Numbers(EVENTLOG_SEEK_READ | EVENTLOG_BACKWARDS_READ, 2), (Sequence{2, 1}));
    std::vector<Event> none;
    EXPECT_EQ(Read(EVENTLOG_SEEK_READ | EVENTLOG_FORWARDS_READ, none, 6), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(Read(EVENTLOG_SEQUENTIAL_READ, none), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(Read(Forwards | EVENTLOG_SEEK_READ, none), ERROR_INVALID_PARAMETER);
}

TEST_F(EventLogFile, GivesAsManyRecordsAsFitAndGoesOnThere) {
    for (DWORD id = 1; id <= 3; ++id)
        ReportOnce(id);
    std::vector<Event> events;
    EXPECT_EQ(Read(Forwards, events, 0, 10), ERROR_INSUFFICIENT_BUFFER);
    const DWORD one = m_needed;
    EXPECT_EQ(Numbers(Forwards, 0, one), Sequence{1});
    EXPECT_EQ(Numbers(Forwards, 0, 2 * one + 1), (Sequence{2, 3}));
    EXPECT_EQ(Read(Forwards, events), ERROR_HANDLE_EOF);
    ReportOnce(4);
    EXPECT_EQ(Numbers(Forwards), Sequence{4});
}

TEST_F(EventLogFile, IsClearedAfterItWasCopied) {
    for (DWORD id = 1; id <= 3; ++id)
        ReportOnce(id);
    EXPECT_EQ(Numbers(Forwards).size(), 3u);
    const std::string before = Bytes();
    const std::wstring backup = m_folder / L"backup";
    EXPECT_EQ(CodeOf(ClearEventLogW(m_log, backup.c_str())), 0u);
    EXPECT_EQ(CodeOf(ClearEventLogW(m_log, backup.c_str())), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(ReadBytes(backup), before);
    EXPECT_EQ(Count(), 0u);
    DWORD oldest = 77;
    EXPECT_EQ(CodeOf(GetOldestEventLogRecord(m_log, &oldest)), 0u);
    EXPECT_EQ(oldest, 0u);
}

// The reader sees neither the log empty nor its file become smaller.
TEST_F(EventLogFile, IsReadAnewWhenItWasClearedAndHasGrownSince) {
    ReportOnce(1);
    EXPECT_EQ(Numbers(Forwards), Sequence{1});
    const HANDLE other = OpenEventLogW(nullptr, L"Application");
    EXPECT_EQ(CodeOf(ClearEventLogW(other, nullptr)), 0u);
    CloseEventLog(other);
    for (DWORD id = 11; id <= 14; ++id)
        ReportOnce(id);
    std::vector<Event> events;
    EXPECT_EQ(Read(Forwards, events), ERROR_EVENTLOG_FILE_CHANGED);
    EXPECT_EQ(Numbers(Forwards), (Sequence{1, 2, 3, 4}));
}

TEST_F(EventLogFile, LosesItsOldestRecordsWhereItWouldBecomeTooLarge) {
    constexpr DWORD mostBytes = 64 * 1024;
    ASSERT_EQ(Set(Make(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application"),
                  L"MaxSize", {REG_DWORD, std::string(4, '\0')}),
              0u);
    const HANDLE before = RegisterEventSourceW(nullptr, L"test");
    ASSERT_EQ(Report(before, 1), 0u);
    EXPECT_EQ(Numbers(Forwards), Sequence{1});
    for (DWORD id = 2; id <= 40; ++id) {
        ASSERT_EQ(Report(before, id, std::wstring(5000, L'x')), 0u);
        ASSERT_LE(Bytes().size(), mostBytes);
    }
    // One that is larger than what is kept has its place, and the next one's number goes on.
    ASSERT_EQ(Report(before, 41, std::wstring(31'000, L'\u00E4')), 0u);
    ASSERT_EQ(ReportOnce(42, std::wstring(31'000, L'\u00E4')), 0u);
    ASSERT_EQ(Report(before, 43), 0u);
    DeregisterEventSource(before);
    std::vector<Event> events;
    EXPECT_EQ(Read(Forwards, events), ERROR_EVENTLOG_FILE_CHANGED);
    EXPECT_EQ(Numbers(Forwards), (Sequence{42, 43}));
}

// What a killed writer can leave behind: any beginning of a line.
TEST_F(EventLogFile, PassesOverALineThatWasTornAnywhere) {
    ASSERT_EQ(ReportOnce(1, L"a}b"), 0u);
    const std::string line = Bytes();
    for (std::size_t size = 1; size < line.size(); ++size) {
        ASSERT_EQ(CodeOf(ClearEventLogW(m_log, nullptr)), 0u);
        std::vector<Event> nothing;
        ASSERT_NE(Read(Forwards, nothing), 0u);  // the reader learns that the log was cleared
        AppendBytes(line + line.substr(0, size));
        ASSERT_EQ(ReportOnce(2), 0u);
        const std::vector<Event> events = All();
        // A line that lacks its end alone is a whole record.
        const bool whole = size == line.size() - 1;
        ASSERT_EQ(events.size(), whole ? 3u : 2u) << size;
        ASSERT_EQ(events.back().id, 2u) << size;
        ASSERT_EQ(events.back().number, 2u) << size;
    }
}

TEST_F(EventLogFile, SkipsWhatIsNoRecord) {
    ReportOnce(1);
    const std::string line = Bytes();
    for (std::string_view bad : {"", "{}", "null", "{\"record\":1}", "\xFF\xFE", "{\"record\":99999999999}"})
        AppendBytes(std::string(bad) + "\n");
    AppendBytes(std::string(100'000, 'x') + "\n");
    std::string more = line;
    AppendBytes(more.insert(more.find("\"id\""), "\"later\":[\"member\"],"));
    EXPECT_EQ(ReportOnce(5), 0u);
    const std::vector<Event> events = All();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[2].number, 2u);
}

TEST_F(EventLogFile, IsTheReadersUnderItsOwnName) {
    ReportOnce(1);
    const HANDLE system = OpenEventLogW(nullptr, L"system");
    DWORD count = 77;
    EXPECT_EQ(CodeOf(GetNumberOfEventLogRecords(system, &count)), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(CodeOf(CloseHandle(system)), ERROR_INVALID_HANDLE);
    EXPECT_EQ(CodeOf(CloseEventLog(system)), 0u);
    EXPECT_EQ(CodeOf(CloseEventLog(system)), ERROR_INVALID_HANDLE);
    EXPECT_EQ(Count(), 1u);
}

TEST_F(EventLogFile, KeepsRecordsWholeUnderManyThreads) {
    constexpr DWORD Threads = 8, Each = 50;
    const HANDLE shared = RegisterEventSourceW(nullptr, L"shared");
    std::vector<std::thread> threads;
    for (DWORD t = 0; t < Threads; ++t)
        threads.emplace_back([&, t] {
            for (DWORD i = 0; i < Each; ++i)
                if (t % 2)
                    Report(shared, t * Each + i);
                else
                    ReportOnce(t * Each + i);
        });
    for (std::thread& thread : threads)
        thread.join();
    DeregisterEventSource(shared);
    const std::vector<Event> events = All();
    ASSERT_EQ(events.size(), Threads * Each);
    std::map<DWORD, DWORD> next;  // each thread's events in its order
    for (DWORD i = 0; i < events.size(); ++i) {
        ASSERT_EQ(events[i].number, i + 1);
        ASSERT_EQ(events[i].id % Each, next[events[i].id / Each]++);
    }
}

TEST_F(EventLogFile, GoesToTheSyslogSocketToo) {
    ASSERT_EQ(CodeOf(CreateDirectoryW((m_folder / L"dev").c_str(), nullptr)), 0u);
    const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = Native(m_folder / L"dev/log");
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(ReportOnce(7, L"two\nlines"), 0u);
    char buffer[500];
    const ssize_t size = recv(socket.Get(), buffer, sizeof buffer, 0);
    ASSERT_GT(size, 0);
    const std::string message(buffer, static_cast<std::size_t>(size));
    EXPECT_TRUE(message.starts_with("<12>")) << message;
    EXPECT_TRUE(message.ends_with(" test[" + std::to_string(getpid()) + "]: event 7: two lines")) << message;
    // A socket that nobody empties stops nobody.
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(ReportOnce(8), 0u);
}

// Owner and rights of everything on the way are looked at before anything is believed.
TEST_F(EventLogFile, IsNotMadeWhereOthersMayWrite) {
    const auto withState = [this](auto arrange) {
        const TemporaryFolder root;
        const EnvironmentVariable variable(L"TQLIB_ROOT", root.Path().c_str());
        arrange(Native(root.Path()));
        return ReportOnce(1);
    };
    EXPECT_EQ(withState([](const std::string&) {}), 0u);
    EXPECT_EQ(withState([](const std::string& root) { chmod(root.c_str(), 0777); }), ERROR_ACCESS_DENIED);
    EXPECT_EQ(withState([](const std::string& root) {
                  mkdir((root + "/state").c_str(), 0700);
                  chmod((root + "/state").c_str(), 0770);
              }),
              ERROR_ACCESS_DENIED);
    EXPECT_EQ(withState([this](const std::string& root) {
                  EXPECT_EQ(symlink(Native(m_folder.Path()).c_str(), (root + "/state").c_str()), 0);
              }),
              ERROR_ACCESS_DENIED);
    EXPECT_EQ(withState([](const std::string& root) {
                  mkdir((root + "/state").c_str(), 0700);
                  mkdir((root + "/state/eventlog").c_str(), 0700);
                  std::ofstream(root + "/elsewhere").put('x');
                  EXPECT_EQ(symlink("../../elsewhere", (root + "/state/eventlog/Application.jsonl").c_str()),
                            0);
              }),
              ERROR_ACCESS_DENIED);
}

TEST_F(EventLogFile, IsForItsOwnerAndItsGroupToRead) {
    ASSERT_EQ(ReportOnce(1), 0u);
    struct stat info;
    ASSERT_EQ(stat(LogPath().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777 & ~0640u, 0u);
    ASSERT_EQ(stat(Native(m_folder / L"state").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
