#include "TQLib/platform/linux/base/Environment.h"

#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/base/Clock.h"
#include "TQLib/platform/linux/base/EnvironmentBlock.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/base/Wide.h"

#include <algorithm>
#include <cstdlib>
#include <sys/auxv.h>
#include <unistd.h>

namespace Quellan::Platform {

namespace {

constinit PlainLock g_environmentLock;
const ForkLock<g_environmentLock> g_environmentForkLock(ForkOrder::Environment);

std::string_view NameOf(std::string_view entry) {
    return entry.substr(0, entry.find('='));
}

bool IsAscii(char c) {
    return static_cast<unsigned char>(c) <= 0x7F;
}

// Whether two names differ in case at most.
bool IsSameName(std::string_view left, std::string_view right) {
    if (!std::ranges::all_of(left, IsAscii) || !std::ranges::all_of(right, IsAscii))
        return CompareOrdinal(ToWide(left), ToWide(right), true) == 0;
    return std::ranges::equal(left, right, [](char a, char b) { return ToUpper(a) == ToUpper(b); });
}

// The whole entry, name=value, spelled as asked for or else in another case; empty when there is none.
std::string_view FindEntry(std::string_view name) {
    constexpr char caseBit = 0x20;
    std::string_view other;
    for (char** entry = environ; entry && *entry; ++entry) {
        // Nearly all names differ in their first letter.
        if ((**entry | caseBit) != (name.front() | caseBit) && IsAscii(**entry) && IsAscii(name.front()))
            continue;
        const std::string_view found = NameOf(*entry);
        if (found == name) return *entry;
        if (other.empty() && IsSameName(found, name)) other = *entry;
    }
    return other;
}

bool IsName(std::string_view name) {
    return !name.empty() && name.find('=') == name.npos;
}

DWORD SetVariable(const wchar_t* name, const wchar_t* value) {
    const std::string nativeName = ToUtf8(name ? name : L"");
    if (!IsName(nativeName)) return ERROR_INVALID_PARAMETER;
    const Guard lock(g_environmentLock);
    const std::string_view entry = FindEntry(nativeName);
    const std::string spelled = entry.empty() ? nativeName : std::string(NameOf(entry));
    const int failed = value ? setenv(spelled.c_str(), ToUtf8(value).c_str(), 1) : unsetenv(spelled.c_str());
    return failed ? ERROR_NOT_ENOUGH_MEMORY : ERROR_SUCCESS;
}

std::wstring Expand(std::wstring_view source) {
    std::wstring result;
    while (!source.empty()) {
        const std::size_t first = source.find(L'%');
        const std::size_t second = first == source.npos ? first : source.find(L'%', first + 1);
        result += source.substr(0, first);
        if (first == source.npos) break;
        const std::wstring_view reference =
            source.substr(first, second == source.npos ? second : second + 1 - first);
        const auto value = second == source.npos
                               ? std::nullopt
                               : EnvironmentVariable(ToUtf8(reference.substr(1, reference.size() - 2)));
        result += value ? ToWide(*value) : std::wstring(reference);
        source.remove_prefix(first + reference.size());
    }
    return result;
}

void Fill(SYSTEMTIME& time, const timespec& now, const tm& fields) noexcept {
    time = {.wYear = static_cast<WORD>(fields.tm_year + 1900),
            .wMonth = static_cast<WORD>(fields.tm_mon + 1),
            .wDayOfWeek = static_cast<WORD>(fields.tm_wday),
            .wDay = static_cast<WORD>(fields.tm_mday),
            .wHour = static_cast<WORD>(fields.tm_hour),
            .wMinute = static_cast<WORD>(fields.tm_min),
            .wSecond = static_cast<WORD>(fields.tm_sec),
            .wMilliseconds = static_cast<WORD>(now.tv_nsec / 1'000'000)};
}

}  // namespace

std::optional<std::string> EnvironmentVariable(std::string_view name) {
    if (!IsName(name)) return std::nullopt;
    const Guard lock(g_environmentLock);
    const std::string_view entry = FindEntry(name);
    if (entry.empty()) return std::nullopt;
    return std::string(entry.substr(entry.find('=') + 1));
}

std::optional<std::string> TrustedEnvironmentVariable(std::string_view name) {
    if (getauxval(AT_SECURE)) return std::nullopt;
    return EnvironmentVariable(name);
}

DWORD GetEnvironmentVariableW(const wchar_t* name, wchar_t* buffer, DWORD size) noexcept {
    if (DWORD code = FaultDue("GetEnvironmentVariableW")) return Fail(code, DWORD{0});
    try {
        const auto value = EnvironmentVariable(ToUtf8(name ? name : L""));
        if (!value) return Fail(ERROR_ENVVAR_NOT_FOUND, DWORD{0});
        const std::wstring wide = ToWide(*value);
        return static_cast<DWORD>(CopyOut(wide, buffer, size) ? wide.size() : wide.size() + 1);
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, DWORD{0});
    }
}

BOOL SetEnvironmentVariableW(const wchar_t* name, const wchar_t* value) noexcept {
    if (DWORD code = FaultDue("SetEnvironmentVariableW")) return Fail(code, FALSE);
    try {
        if (DWORD code = SetVariable(name, value)) return Fail(code, FALSE);
        return TRUE;
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
    }
}

DWORD ExpandEnvironmentStringsW(const wchar_t* source, wchar_t* buffer, DWORD size) noexcept {
    if (DWORD code = FaultDue("ExpandEnvironmentStringsW")) return Fail(code, DWORD{0});
    if (!source) return Fail(ERROR_INVALID_PARAMETER, DWORD{0});
    try {
        const std::wstring result = Expand(source);
        CopyOut(result, buffer, size);
        return static_cast<DWORD>(result.size() + 1);
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, DWORD{0});
    }
}

void GetSystemTimeAsFileTime(FILETIME* time) noexcept {
    *time = FileTimeOf(ReadClock(CLOCK_REALTIME));
}

void GetSystemTime(SYSTEMTIME* time) noexcept {
    const timespec now = ReadClock(CLOCK_REALTIME);
    tm fields;
    gmtime_r(&now.tv_sec, &fields);
    Fill(*time, now, fields);
}

void GetLocalTime(SYSTEMTIME* time) noexcept {
    const timespec now = ReadClock(CLOCK_REALTIME);
    Fill(*time, now, FieldsOf(now.tv_sec));
}

ULONGLONG GetTickCount64() noexcept {
    return StepsOf(ReadClock(CLOCK_BOOTTIME)) / 10'000;
}

DWORD GetTickCount() noexcept {
    return static_cast<DWORD>(GetTickCount64());
}

BOOL QueryPerformanceCounter(LARGE_INTEGER* count) noexcept {
    count->QuadPart = static_cast<LONGLONG>(StepsOf(ReadClock(CLOCK_MONOTONIC)));
    return TRUE;
}

BOOL QueryPerformanceFrequency(LARGE_INTEGER* stepsInSecond) noexcept {
    if (DWORD code = FaultDue("QueryPerformanceFrequency")) return Fail(code, FALSE);
    stepsInSecond->QuadPart = FileTimeStepsInSecond;
    return TRUE;
}

}  // namespace Quellan::Platform
