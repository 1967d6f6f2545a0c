#include "Target.h"

#include "Exposure.h"
#include "Fault.h"
#include "Monitor.h"
#include "TQLib/platform/Win32.h"

using namespace Quellan::Corvel;
using Quellan::Sarvek::SecDesc;
using Quellan::Sarvek::SecID;

namespace {

constexpr DWORD BlockSize = 64 * 1024;
constexpr const wchar_t* EventSource = L"TQMonitor";

using FileHandle = TQUniqueHandle<_TQFileHandleClose>;
using FindHandle = TQUniqueHandle<_TQFindHandleClose>;

// Throws the last error as a failure of `call`, and of what it was made for on `path`.
[[noreturn]] void FailCall(DWORD message, const TQString& path, const wchar_t* call) {
    const TQSysException cause(GetLastError(), call);
    TQSysException failure(cause, cause.ErrCode(), message, TQMsgRes(MessageStore));
    failure.SetAction(path.c_str());
    throw failure;
}

SecDesc DescriptorOf(const TQString& path) {
    constexpr DWORD Parts =
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    BYTEBuf descriptor;
    for (DWORD size = 0;;) {
        const auto room = static_cast<DWORD>(descriptor.Bytes());
        if (GetFileSecurityW(path.c_str(), Parts, descriptor.Data(), room, &size)) break;
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER)
            FailCall(MONITOR_NO_SECURITY, path, L"GetFileSecurityW");
        descriptor = BYTEBuf(size);
    }
    return SecDesc::FromBytes(descriptor.Data(), descriptor.Size());
}

TQString Join(const TQString& folder, const wchar_t* name) {
    return folder.EndsWith(L"/") || folder.EndsWith(L"\\") ? folder + name : folder + L"/" + name;
}

bool IsSelfOrParent(const wchar_t* name) {
    return wcscmp(name, L".") == 0 || wcscmp(name, L"..") == 0;
}

}  // namespace

template <class Data>
Target::FileState Target::StateOf(const Data& data) {
    return {data.dwFileAttributes, ULONGLONG{data.nFileSizeHigh} << 32 | data.nFileSizeLow,
            ULONGLONG{data.ftLastWriteTime.dwHighDateTime} << 32 | data.ftLastWriteTime.dwLowDateTime};
}

CheckSummary& CheckSummary::operator+=(const CheckSummary& other) {
    checks += other.checks;
    folders += other.folders;
    files += other.files;
    bytes += other.bytes;
    changes += other.changes;
    failures += other.failures;
    exposed += other.exposed;
    return *this;
}

void Target::Check() {
    if (m_path == FaultyCheck) RaiseFault();
    m_now = Snapshot();
    m_counts.folders = m_counts.files = 0;
    CheckTarget();
    if (m_isStopped()) return;
    if (m_counts.checks++ > 0) TellChanges();
    m_before = std::move(m_now);
    const TQThreadSynch::TQSynchLock guard(m_lock);
    m_summary = m_counts;
}

void Target::End() {
    m_isTaken = false;
    m_onEnd();
}

void Target::Fail(unsigned int code, const wchar_t* message) {
    m_hasFailed = true;
    Tell(TQLogLevel::Exception, m_path,
         TQString::Format(L"check of %s ended with 0x%08X %s\n", m_path, code, message));
    m_onEnd();
}

CheckSummary Target::Summary() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_summary;
}

void Target::CheckTarget() {
    try {
        WIN32_FILE_ATTRIBUTE_DATA data;
        if (!GetFileAttributesExW(m_path.c_str(), GetFileExInfoStandard, &data))
            FailCall(MONITOR_NO_TARGET, m_path, L"GetFileAttributesExW");
        const SecDesc descriptor = DescriptorOf(m_path);
        CheckOwner(descriptor);
        CheckList(descriptor);
        CheckEntry(m_path, StateOf(data));
    } catch (const TQCoreException& failure) {
        Report(failure, L"Target::CheckTarget", m_path);
    }
}

void Target::CheckOwner(const SecDesc& descriptor) {
    SecID owner = descriptor.Owner();
    if (owner == m_owner) return;
    if (m_owner) {
        ++m_counts.changes;
        Tell(TQLogLevel::Warning, m_path,
             TQString::Format(L"owner of %s changed from %s to %s\n", m_path, m_owner.FullName(),
                              owner.FullName()));
    } else {
        Tell(TQLogLevel::Information, m_path,
             TQString::Format(L"owner of %s is %s\n", m_path, owner.FullName()));
    }
    m_owner = std::move(owner);
}

void Target::CheckList(const SecDesc& descriptor) {
    m_counts.exposed = WritingByStrangers(descriptor) != 0 ? 1 : 0;
    if (m_counts.exposed == 0) {
        m_isExposureTold = false;
        return;
    }
    if (!m_isExposureTold)
        Tell(TQLogLevel::Warning, m_path,
             TQString::Format(L"%s lets strangers write\n%s", m_path, descriptor.Describe()));
    m_isExposureTold = true;
    if (!m_isToFix) return;
    const Repair repair = WithoutStrangers(descriptor);
    if (!SetFileSecurityW(m_path.c_str(), DACL_SECURITY_INFORMATION, repair.descriptor.Block().Data()))
        FailCall(MONITOR_NOT_FIXED, m_path, L"SetFileSecurityW");
    ++m_counts.changes;
    Tell(TQLogLevel::Warning, m_path, TQString::Format(L"list of %s changed:\n%s", m_path, repair.changes));
    m_counts.exposed = WritingByStrangers(DescriptorOf(m_path)) != 0 ? 1 : 0;
}

void Target::CheckEntry(const TQString& path, const FileState& state) {
    try {
        // A device or pipe has no end, and opening it may wait for ever.
        if (state.attributes & FILE_ATTRIBUTE_DEVICE) return;
        if (state.attributes & FILE_ATTRIBUTE_DIRECTORY) {
            // A link to a folder may lead back to where the walk came from.
            if (!(state.attributes & FILE_ATTRIBUTE_REPARSE_POINT)) CheckFolder(path);
        } else {
            CheckFile(path, state);
        }
    } catch (const TQCoreException& failure) {
        Report(failure, L"Target::CheckEntry", path);
    }
}

void Target::CheckFolder(const TQString& path) {
    WIN32_FIND_DATAW entry;
    const FindHandle find(FindFirstFileW(Join(path, L"*").c_str(), &entry));
    if (!find.IsValid()) FailCall(MONITOR_FOLDER_UNREAD, path, L"FindFirstFileW");
    ++m_counts.folders;
    do {
        if (m_isStopped()) return;
        if (!IsSelfOrParent(entry.cFileName)) CheckEntry(Join(path, entry.cFileName), StateOf(entry));
    } while (FindNextFileW(find.Get(), &entry));
    if (GetLastError() != ERROR_NO_MORE_FILES) FailCall(MONITOR_FOLDER_UNREAD, path, L"FindNextFileW");
}

void Target::CheckFile(const TQString& path, const FileState& state) {
    m_now.files[path] = state;
    const auto before = m_before.files.find(path);
    const bool isKnown = before != m_before.files.end() && before->second == state;
    if (!isKnown || m_before.failures.contains(path)) {
        const FileHandle file(CreateFileW(path.c_str(), GENERIC_READ,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!file.IsValid()) FailCall(MONITOR_FILE_UNREAD, path, L"CreateFileW");
        BYTEBuf block(BlockSize);
        DWORD read = 0;
        do {
            if (m_isStopped()) return;
            if (!ReadFile(file.Get(), block.Data(), BlockSize, &read, nullptr))
                FailCall(MONITOR_FILE_UNREAD, path, L"ReadFile");
            m_counts.bytes += read;
        } while (read != 0);
    }
    ++m_counts.files;
}

void Target::TellChanges() {
    for (const auto& [path, state] : m_now.files) {
        const auto before = m_before.files.find(path);
        if (before == m_before.files.end())
            TellChange(L"added", path);
        else if (before->second != state)
            TellChange(L"changed", path);
    }
    for (const auto& [path, state] : m_before.files)
        if (!m_now.files.contains(path)) TellChange(L"removed", path);
}

void Target::TellChange(const wchar_t* change, const TQString& path) {
    ++m_counts.changes;
    Tell(TQLogLevel::Information, m_path, TQString::Format(L"%s %s\n", change, path));
}

void Target::Report(const TQCoreException& failure, const wchar_t* where, const TQString& path) {
    const DWORD code = failure.ErrCode();
    m_now.failures[path] = code;
    if (code != ERROR_FILE_NOT_FOUND && code != ERROR_PATH_NOT_FOUND) {
        // What lies below it is there still, for all that is known.
        const TQString below = Join(path, L"");
        for (auto i = m_before.files.lower_bound(below);
             i != m_before.files.end() && i->first.StartsWith(below); ++i)
            m_now.files.insert(*i);
    }
    const auto before = m_before.failures.find(path);
    if (before != m_before.failures.end() && before->second == code) return;
    ++m_counts.failures;
    Tell(failure, m_path, where);
    failure.LogEvent(where, EventSource);
}
