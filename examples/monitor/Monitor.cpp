#include "Monitor.h"

#include "platform/Win32.h"

using namespace Quellan::Corvel;

namespace {

constexpr DWORD BlockSize = 64 * 1024;
constexpr const wchar_t* EventSource = L"TQMonitor";

using FileHandle = TQHandle<_TQFileHandleClose>;
using FindHandle = TQHandle<_TQFindHandleClose>;

// Throws the last error as a failure of `call` on `path`.
[[noreturn]] void Fail(const wchar_t* call, const TQString& path) {
    TQSysException failure(GetLastError(), call);
    failure.SetAction(path.c_str());
    failure.AddErrFile(path.c_str());
    throw failure;
}

TQString Join(const TQString& folder, const wchar_t* name) {
    return folder.EndsWith(L"/") || folder.EndsWith(L"\\") ? folder + name : folder + L"/" + name;
}

bool IsSelfOrParent(const wchar_t* name) {
    return wcscmp(name, L".") == 0 || wcscmp(name, L"..") == 0;
}

}  // namespace

template <class Data>
Monitor::FileState Monitor::StateOf(const Data& data) {
    return {data.dwFileAttributes, ULONGLONG{data.nFileSizeHigh} << 32 | data.nFileSizeLow,
            ULONGLONG{data.ftLastWriteTime.dwHighDateTime} << 32 | data.ftLastWriteTime.dwLowDateTime};
}

void Monitor::Check(const TQStringArray& targets) {
    m_now = Snapshot();
    m_summary.folders = m_summary.files = 0;
    for (const TQString& target : targets)
        CheckTarget(target);
    if (m_isStopped()) return;
    if (m_summary.checks++ > 0) TellChanges();
    m_before = std::move(m_now);
}

void Monitor::CheckTarget(const TQString& path) {
    if (path == FaultTarget) {
        const volatile std::uintptr_t nowhere = 8;
        *reinterpret_cast<volatile int*>(nowhere) = 0;
    }
    try {
        WIN32_FILE_ATTRIBUTE_DATA data;
        if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data))
            Fail(L"GetFileAttributesExW", path);
        CheckEntry(path, StateOf(data));
    } catch (const TQCoreException& failure) {
        Report(failure, L"Monitor::CheckTarget", path);
    }
}

void Monitor::CheckEntry(const TQString& path, const FileState& state) {
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
        Report(failure, L"Monitor::CheckEntry", path);
    }
}

void Monitor::CheckFolder(const TQString& path) {
    WIN32_FIND_DATAW entry;
    const FindHandle find(FindFirstFileW(Join(path, L"*").c_str(), &entry));
    if (!find.IsValid()) Fail(L"FindFirstFileW", path);
    ++m_summary.folders;
    do {
        if (m_isStopped()) return;
        if (!IsSelfOrParent(entry.cFileName)) CheckEntry(Join(path, entry.cFileName), StateOf(entry));
    } while (FindNextFileW(find.Get(), &entry));
    if (GetLastError() != ERROR_NO_MORE_FILES) Fail(L"FindNextFileW", path);
}

void Monitor::CheckFile(const TQString& path, const FileState& state) {
    m_now.files[path] = state;
    const auto before = m_before.files.find(path);
    const bool isKnown = before != m_before.files.end() && before->second == state;
    if (!isKnown || m_before.failures.contains(path)) {
        const FileHandle file(CreateFileW(path.c_str(), GENERIC_READ,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!file.IsValid()) Fail(L"CreateFileW", path);
        BYTEBuf block(BlockSize);
        DWORD read = 0;
        do {
            if (m_isStopped()) return;
            if (!ReadFile(file.Get(), block.Data(), BlockSize, &read, nullptr)) Fail(L"ReadFile", path);
            m_summary.bytes += read;
        } while (read != 0);
    }
    ++m_summary.files;
}

void Monitor::TellChanges() {
    for (const auto& [path, state] : m_now.files) {
        const auto before = m_before.files.find(path);
        if (before == m_before.files.end())
            Tell(L"added", path);
        else if (before->second != state)
            Tell(L"changed", path);
    }
    for (const auto& [path, state] : m_before.files)
        if (!m_now.files.contains(path)) Tell(L"removed", path);
}

void Monitor::Tell(const wchar_t* change, const TQString& path) {
    ++m_summary.changes;
    m_console.Write(TQString::Format(L"%s %s\n", change, path));
}

void Monitor::Report(const TQCoreException& failure, const wchar_t* where, const TQString& path) {
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
    ++m_summary.failures;
    STLString block;
    failure.AssembleLogOutput(where, block);
    m_console.Write(block);
    failure.LogEvent(where, EventSource);
}
