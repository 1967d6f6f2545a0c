// Files, folders and the console's handles.
//
// Paths are the system's own: '/' separates, a backslash is an ordinary character, upper and lower case
// differ. In a name on disk that is no valid UTF-8 each byte that belongs to no character is seen as the lone
// surrogate 0xDC00 + byte, and such files are opened, moved and deleted like others. Overlapped operations
// are not offered: a call with an OVERLAPPED, or FILE_FLAG_OVERLAPPED, fails with 50 (ERROR_NOT_SUPPORTED),
// as do inherited handles, templates and all flags and attributes not named here.
//
// Where nothing was found the code is 3 (ERROR_PATH_NOT_FOUND) for a missing folder on the way and 2
// (ERROR_FILE_NOT_FOUND) for the last name; without a name it is 3.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

inline constexpr DWORD FILE_READ_DATA = 0x0001;
inline constexpr DWORD FILE_WRITE_DATA = 0x0002;
inline constexpr DWORD FILE_APPEND_DATA = 0x0004;
inline constexpr DWORD FILE_WRITE_EA = 0x0010;
inline constexpr DWORD FILE_DELETE_CHILD = 0x0040;
inline constexpr DWORD FILE_READ_ATTRIBUTES = 0x0080;
inline constexpr DWORD FILE_WRITE_ATTRIBUTES = 0x0100;

inline constexpr DWORD FILE_SHARE_READ = 1;
inline constexpr DWORD FILE_SHARE_WRITE = 2;
inline constexpr DWORD FILE_SHARE_DELETE = 4;

inline constexpr DWORD CREATE_NEW = 1;
inline constexpr DWORD CREATE_ALWAYS = 2;
inline constexpr DWORD OPEN_EXISTING = 3;
inline constexpr DWORD OPEN_ALWAYS = 4;
inline constexpr DWORD TRUNCATE_EXISTING = 5;

inline constexpr DWORD FILE_FLAG_WRITE_THROUGH = 0x80000000;
inline constexpr DWORD FILE_FLAG_OVERLAPPED = 0x40000000;
inline constexpr DWORD FILE_FLAG_RANDOM_ACCESS = 0x10000000;
inline constexpr DWORD FILE_FLAG_SEQUENTIAL_SCAN = 0x08000000;
inline constexpr DWORD FILE_FLAG_BACKUP_SEMANTICS = 0x02000000;
inline constexpr DWORD FILE_FLAG_POSIX_SEMANTICS = 0x01000000;

// A file is read-only while nobody may write it. A device, pipe or socket is a device. A symbolic link is a
// reparse point, and a directory or device too when it leads to one.
inline constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x0001;
inline constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x0010;
inline constexpr DWORD FILE_ATTRIBUTE_ARCHIVE = 0x0020;
inline constexpr DWORD FILE_ATTRIBUTE_DEVICE = 0x0040;
inline constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x0080;
inline constexpr DWORD FILE_ATTRIBUTE_TEMPORARY = 0x0100;
inline constexpr DWORD FILE_ATTRIBUTE_REPARSE_POINT = 0x0400;
inline constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF;
inline constexpr DWORD IO_REPARSE_TAG_SYMLINK = 0xA000000C;

// INVALID_HANDLE_VALUE on failure. All five dispositions; CREATE_ALWAYS and OPEN_ALWAYS set the last error to
// 183 (ERROR_ALREADY_EXISTS) when there was a file and to 0 when there was none. CREATE_NEW fails with 80
// (ERROR_FILE_EXISTS), also for a link to nowhere, whose target CREATE_ALWAYS and OPEN_ALWAYS make. A call
// that fails leaves what was there, and nothing that it made. TRUNCATE_EXISTING without the right to write
// with 87 (ERROR_INVALID_PARAMETER). Opening a folder takes FILE_FLAG_BACKUP_SEMANTICS, without it 5
// (ERROR_ACCESS_DENIED). With FILE_APPEND_DATA and not FILE_WRITE_DATA every write goes to the end. With
// FILE_FLAG_WRITE_THROUGH a write returns once it is on the disk, and so does this call with the name of a
// file that it made.
//
// Share modes hold between all handles of all processes that use these calls, and keep nobody else out: 32
// (ERROR_SHARING_VIOLATION) where a handle was opened for what `share` grants nobody, or does not grant what
// this one asks for. Only plain files have them, on file systems that keep locks; a handle for writing alone
// on a file that its user may not read heeds the others and is not heeded.
//
// A new file gets the access-control list of `security`, SecurityDescriptors.h says what that means. Where the
// folder is one into which others than the caller and root can put things, what makes files (CREATE_NEW,
// CREATE_ALWAYS, OPEN_ALWAYS) follows no symbolic link there, 1921 (ERROR_CANT_RESOLVE_FILENAME), and takes
// no file of a third user's, 5 (ERROR_ACCESS_DENIED).
TQLIB_API HANDLE CreateFileW(const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                             DWORD disposition, DWORD flagsAndAttributes, HANDLE templateFile) noexcept;
// At the end of a file succeeds with 0 bytes. 5 for a handle without the right to read. A call that fails,
// here and below, counts 0 bytes unless it moved some.
TQLIB_API BOOL ReadFile(HANDLE file, void* buffer, DWORD size, DWORD* got, OVERLAPPED* overlapped) noexcept;
// 112 (ERROR_DISK_FULL) when not all could be written; `written` tells how much was. 232 (ERROR_NO_DATA) for
// a pipe without a reader. Nothing is written of a buffer that cannot be read to its end: 998
// (ERROR_NOACCESS).
TQLIB_API BOOL WriteFile(HANDLE file, const void* buffer, DWORD size, DWORD* written,
                         OVERLAPPED* overlapped) noexcept;

inline constexpr DWORD FILE_BEGIN = 0;
inline constexpr DWORD FILE_CURRENT = 1;
inline constexpr DWORD FILE_END = 2;

// 131 (ERROR_NEGATIVE_SEEK) before the beginning; beyond the end is allowed.
TQLIB_API BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* position,
                                DWORD method) noexcept;
TQLIB_API BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size) noexcept;
// Makes the file end where the handle stands. 5 for a handle without the right to write.
TQLIB_API BOOL SetEndOfFile(HANDLE file) noexcept;
// 5 for a handle without the right to write. With FILE_FLAG_WRITE_THROUGH a handle's own writes are on the
// disk already, and this does nothing.
TQLIB_API BOOL FlushFileBuffers(HANDLE file) noexcept;

// Locks a range of bytes, which may lie beyond the end, for this handle alone, or fails at once with 33
// (ERROR_LOCK_VIOLATION), also where the range is locked through this handle already. Locks keep out each
// other and nothing else; they end with their handle. 5 for a handle without the right to write, 87
// (ERROR_INVALID_PARAMETER) for an empty range and one that ends beyond 2^62.
TQLIB_API BOOL LockFile(HANDLE file, DWORD offsetLow, DWORD offsetHigh, DWORD sizeLow,
                        DWORD sizeHigh) noexcept;
// 158 (ERROR_NOT_LOCKED) for what is not exactly one of the ranges that were locked.
TQLIB_API BOOL UnlockFile(HANDLE file, DWORD offsetLow, DWORD offsetHigh, DWORD sizeLow,
                          DWORD sizeHigh) noexcept;

struct WIN32_FILE_ATTRIBUTE_DATA {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
};

enum GET_FILEEX_INFO_LEVELS { GetFileExInfoStandard };

// INVALID_FILE_ATTRIBUTES on failure.
TQLIB_API DWORD GetFileAttributesW(const wchar_t* name) noexcept;
// `data` is a WIN32_FILE_ATTRIBUTE_DATA.
TQLIB_API BOOL GetFileAttributesExW(const wchar_t* name, GET_FILEEX_INFO_LEVELS level, void* data) noexcept;
// Read-only takes the right to write from everybody, without it the owner has the right again. The other
// attributes above are accepted and follow from the file.
TQLIB_API BOOL SetFileAttributesW(const wchar_t* name, DWORD attributes) noexcept;

struct WIN32_FIND_DATAW {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD dwReserved0;  // of a reparse point its tag
    DWORD dwReserved1;
    wchar_t cFileName[MAX_PATH];
    wchar_t cAlternateFileName[14];
};

// Finds the entries of a folder, "." and ".." included, whose names match the last part of `pattern`, where
// '*' stands for any characters and '?' for any one; "*.*" at its end for any, also without a dot.
// INVALID_HANDLE_VALUE with 2 when there is none, 5 for a folder that may be listed and not be entered. The
// order is the file system's.
TQLIB_API HANDLE FindFirstFileW(const wchar_t* pattern, WIN32_FIND_DATAW* data) noexcept;
// 18 (ERROR_NO_MORE_FILES) after the last one.
TQLIB_API BOOL FindNextFileW(HANDLE find, WIN32_FIND_DATAW* data) noexcept;
TQLIB_API BOOL FindClose(HANDLE find) noexcept;

// 183 (ERROR_ALREADY_EXISTS) when there is something of that name, 3 when a folder on the way is missing. 50
// (ERROR_NOT_SUPPORTED) with a security descriptor.
TQLIB_API BOOL CreateDirectoryW(const wchar_t* name, SECURITY_ATTRIBUTES* security) noexcept;
// 145 (ERROR_DIR_NOT_EMPTY), 267 (ERROR_DIRECTORY) for a file. Of a symbolic link to a folder the link goes.
TQLIB_API BOOL RemoveDirectoryW(const wchar_t* name) noexcept;
// 5 for a folder, a link to one and a read-only file, 32 for one that is open and not shared for deletion.
TQLIB_API BOOL DeleteFileW(const wchar_t* name) noexcept;

inline constexpr DWORD MOVEFILE_REPLACE_EXISTING = 1;
inline constexpr DWORD MOVEFILE_COPY_ALLOWED = 2;
inline constexpr DWORD MOVEFILE_WRITE_THROUGH = 8;

// 183 when there is a file of the new name, unless it may be replaced, which happens in one step, or is the
// file itself; 5 when it is a folder, read-only or open without being shared for deletion; 32 when the file
// itself is. Between file systems 17 (ERROR_NOT_SAME_DEVICE), also where copying is allowed. 50 where the
// file system cannot promise to replace nothing. With MOVEFILE_WRITE_THROUGH the file's contents and its new
// name are on the disk on return.
TQLIB_API BOOL MoveFileExW(const wchar_t* from, const wchar_t* to, DWORD flags) noexcept;

// The name from the root folder on, without "." and "..", by the current folder and the names alone: nothing
// has to exist, and links are not followed. 3 (ERROR_PATH_NOT_FOUND) where the current folder was removed.
// `namePart`, which may be null, gets the address of the last part, or null where there is none. The length
// without the terminator, or where `size` is too small the size needed with it. 0 with 123
// (ERROR_INVALID_NAME) for no name.
TQLIB_API DWORD GetFullPathNameW(const wchar_t* name, DWORD size, wchar_t* buffer,
                                 wchar_t** namePart) noexcept;

// The folder that the environment variable TMPDIR names, or /tmp, with a final '/'. The length without the
// terminator, or where `size` is too small the size needed with it.
TQLIB_API DWORD GetTempPathW(DWORD size, wchar_t* buffer) noexcept;

inline constexpr DWORD STD_INPUT_HANDLE = static_cast<DWORD>(-10);
inline constexpr DWORD STD_OUTPUT_HANDLE = static_cast<DWORD>(-11);
inline constexpr DWORD STD_ERROR_HANDLE = static_cast<DWORD>(-12);

// The same handle on every call; closing it leaves the descriptor open. Null when the process was started
// without it, INVALID_HANDLE_VALUE with 6 (ERROR_INVALID_HANDLE) for another number.
TQLIB_API HANDLE GetStdHandle(DWORD number) noexcept;

inline constexpr DWORD ENABLE_PROCESSED_INPUT = 0x1;
inline constexpr DWORD ENABLE_LINE_INPUT = 0x2;
inline constexpr DWORD ENABLE_ECHO_INPUT = 0x4;
inline constexpr DWORD ENABLE_PROCESSED_OUTPUT = 0x1;

// 6 for a handle that is no terminal. Reports the flags above; of a terminal that can be read those of input.
TQLIB_API BOOL GetConsoleMode(HANDLE console, DWORD* mode) noexcept;

// Writes wide text to a terminal and sets the number of characters written; 6 for a handle that is no
// terminal, 87 for a reserved argument that is not null.
TQLIB_API BOOL WriteConsoleW(HANDLE console, const void* text, DWORD length, DWORD* written,
                             void* reserved) noexcept;

}  // namespace Quellan::Platform
