// The event log.
//
// Each log is one file below the layer's state folder, docs/formats/event-log.md describes it; every event
// also goes to the system's syslog socket where there is one. The logs are Application, System and Security;
// sources, and log names that are none of these, belong to Application. The log is the calling user's, root's
// the system's.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

inline constexpr WORD EVENTLOG_SUCCESS = 0x0000;
inline constexpr WORD EVENTLOG_ERROR_TYPE = 0x0001;
inline constexpr WORD EVENTLOG_WARNING_TYPE = 0x0002;
inline constexpr WORD EVENTLOG_INFORMATION_TYPE = 0x0004;
inline constexpr WORD EVENTLOG_AUDIT_SUCCESS = 0x0008;
inline constexpr WORD EVENTLOG_AUDIT_FAILURE = 0x0010;

inline constexpr DWORD EVENTLOG_SEQUENTIAL_READ = 0x0001;
inline constexpr DWORD EVENTLOG_SEEK_READ = 0x0002;
inline constexpr DWORD EVENTLOG_FORWARDS_READ = 0x0004;
inline constexpr DWORD EVENTLOG_BACKWARDS_READ = 0x0008;

// Followed by the source's and the computer's name, then at the offsets given, from the record's beginning,
// the user's identifier, the strings and the data, each text with its terminator; at the end the length once
// more, at a multiple of four.
struct EVENTLOGRECORD {
    DWORD Length;
    DWORD Reserved;  // 0x654C664C
    DWORD RecordNumber;
    DWORD TimeGenerated;  // seconds since 1970, UTC
    DWORD TimeWritten;
    DWORD EventID;
    WORD EventType;
    WORD NumStrings;
    WORD EventCategory;
    WORD ReservedFlags;
    DWORD ClosingRecordNumber;
    DWORD StringOffset;
    DWORD UserSidLength;
    DWORD UserSidOffset;
    DWORD DataLength;
    DWORD DataOffset;
};

// Of this machine only: null or an empty name; others are 1722 (RPC_S_SERVER_UNAVAILABLE). Null with 87
// (ERROR_INVALID_PARAMETER) without a source.
TQLIB_API HANDLE RegisterEventSourceW(const wchar_t* server, const wchar_t* source) noexcept;
TQLIB_API BOOL DeregisterEventSource(HANDLE source) noexcept;
// Writes one event, whole or not at all. 50 (ERROR_NOT_SUPPORTED) with a user's identifier, 87 for a type
// that is none of the above, 1734 (RPC_S_INVALID_BOUND) for a string of more than 31,839 characters or more
// than 61,440 bytes of data.
TQLIB_API BOOL ReportEventW(HANDLE source, WORD type, WORD category, DWORD id, void* userSid,
                            WORD stringCount, DWORD dataSize, const wchar_t** strings, void* data) noexcept;

// Server and failures as for RegisterEventSourceW.
TQLIB_API HANDLE OpenEventLogW(const wchar_t* server, const wchar_t* log) noexcept;
TQLIB_API BOOL CloseEventLog(HANDLE log) noexcept;
TQLIB_API BOOL GetNumberOfEventLogRecords(HANDLE log, DWORD* count) noexcept;
// 0 in an empty log.
TQLIB_API BOOL GetOldestEventLogRecord(HANDLE log, DWORD* number) noexcept;

// Reads as many records as the buffer holds, EVENTLOGRECORD after EVENTLOGRECORD. One of the two ways to
// begin, one of the two directions, else 87: a sequential read goes on where the last one ended, first at the
// oldest or backwards at the newest record; a seeking one begins with record number `number`, 87 when there
// is none. 38 (ERROR_HANDLE_EOF) when no record is left, 122 (ERROR_INSUFFICIENT_BUFFER) with the size
// `needed` when not one fits, 1503 (ERROR_EVENTLOG_FILE_CHANGED) when the log was cleared since the last
// sequential read, which then begins again.
TQLIB_API BOOL ReadEventLogW(HANDLE log, DWORD flags, DWORD number, void* buffer, DWORD size, DWORD* got,
                             DWORD* needed) noexcept;
// Removes all records; the next one has number 1. With a file name they are copied there first, 183
// (ERROR_ALREADY_EXISTS) when there is such a file, and nothing was removed then.
TQLIB_API BOOL ClearEventLogW(HANDLE log, const wchar_t* backup) noexcept;

}  // namespace Quellan::Platform
