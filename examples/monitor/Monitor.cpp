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

void Monitor::CheckTarget(const TQString& path) {
    try {
        const DWORD attributes = GetFileAttributesW(path.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) Fail(L"GetFileAttributesW", path);
        CheckEntry(path, attributes);
    } catch (const TQCoreException& failure) {
        Report(failure, L"Monitor::CheckTarget");
    }
}

void Monitor::CheckEntry(const TQString& path, DWORD attributes) {
    try {
        if (attributes & FILE_ATTRIBUTE_DIRECTORY) {
            // A link to a folder may lead back to where the walk came from.
            if (!(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) CheckFolder(path);
        } else {
            CheckFile(path);
        }
    } catch (const TQCoreException& failure) {
        Report(failure, L"Monitor::CheckEntry");
    }
}

void Monitor::CheckFolder(const TQString& path) {
    WIN32_FIND_DATAW entry;
    const FindHandle find(FindFirstFileW(Join(path, L"*").c_str(), &entry));
    if (!find.IsValid()) Fail(L"FindFirstFileW", path);
    ++m_summary.folders;
    do {
        if (!IsSelfOrParent(entry.cFileName)) CheckEntry(Join(path, entry.cFileName), entry.dwFileAttributes);
    } while (FindNextFileW(find.Get(), &entry));
    if (GetLastError() != ERROR_NO_MORE_FILES) Fail(L"FindNextFileW", path);
}

void Monitor::CheckFile(const TQString& path) {
    const FileHandle file(CreateFileW(path.c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.IsValid()) Fail(L"CreateFileW", path);
    BYTEBuf block(BlockSize);
    DWORD read = 0;
    do {
        if (!ReadFile(file.Get(), block.Data(), BlockSize, &read, nullptr)) Fail(L"ReadFile", path);
        m_summary.bytes += read;
    } while (read != 0);
    ++m_summary.files;
}

void Monitor::Report(const TQCoreException& failure, const wchar_t* where) {
    ++m_summary.failures;
    STLString block;
    failure.AssembleLogOutput(where, block);
    m_console.Write(block);
    failure.LogEvent(where, EventSource);
}
