#include "LogReader.h"

#include "LogHead.h"
#include "TQLib/platform/Win32.h"

#include <algorithm>
#include <utility>

using namespace Quellan::Corvel;

namespace tq {

namespace {

constexpr std::size_t ReadSize = 64 * 1024;
constexpr std::size_t KnownBegin = 256;
constexpr std::string_view Indentation = "    ";

// Sharing everything: a reader keeps nobody from writing or rolling over.
TQUniqueHandle<_TQFileHandleClose> Opened(const TQFileName& name) {
    return TQUniqueHandle<_TQFileHandleClose>(CreateFileW(
        name.FullName().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
        nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
}

// At most `size` bytes from where the file stands.
std::string ReadBytes(HANDLE file, std::size_t size) {
    std::string bytes(size, '\0');
    DWORD got = 0;
    if (!ReadFile(file, bytes.data(), static_cast<DWORD>(size), &got, nullptr))
        TQSysException::ThrowLastError(L"LogReader::Read");
    bytes.resize(got);
    return bytes;
}

// As much as there is room for.
void AppendKept(std::string& text, std::string_view part, ULONGLONG& omitted) {
    const std::size_t room = std::min(MostKeptBytes - text.size(), part.size());
    text.append(part, 0, room);
    omitted += part.size() - room;
}

}  // namespace

LogReader::LogReader(const TQFileName& name) : m_name(name), m_file(Opened(name)) {
    if (!m_file.IsValid()) TQSysException::ThrowLastError(name.FullName().c_str());
}

bool LogReader::ReadMore() {
    m_buffer.erase(0, m_at);
    m_at = 0;
    const std::string bytes = ReadBytes(m_file.Get(), ReadSize);
    if (m_begin.size() < KnownBegin) m_begin.append(bytes, 0, KnownBegin - m_begin.size());
    m_read += bytes.size();
    m_buffer += bytes;
    return !bytes.empty();
}

std::optional<LogLine> LogReader::NextLine(bool isFollowed) {
    for (;;) {
        const std::size_t end = m_buffer.find('\n', m_at);
        const std::string_view part = std::string_view(m_buffer).substr(m_at, end - m_at);
        AppendKept(m_begun.text, part, m_begun.omitted);
        m_at += part.size();
        if (end != m_buffer.npos)
            ++m_at;
        else if (ReadMore())
            continue;
        else if (isFollowed || m_begun.text.empty())
            return std::nullopt;
        if (m_begun.omitted == 0 && m_begun.text.ends_with('\r')) m_begun.text.pop_back();
        return std::exchange(m_begun, {});
    }
}

std::optional<LogEntry> LogReader::Next(bool isFollowed) {
    if (!m_open) {
        auto line = m_ahead ? std::exchange(m_ahead, std::nullopt) : NextLine(isFollowed);
        if (!line) return std::nullopt;
        m_open.emplace();
        m_open->first = std::move(line->text);
        m_open->omitted = line->omitted;
        m_open->line = ++m_line;
    }
    while (auto line = NextLine(isFollowed)) {
        if (!line->text.starts_with(Indentation)) {
            m_ahead = std::move(line);
            return TakeOpen();
        }
        ++m_line;
        m_open->omitted += line->omitted;
        if (std::exchange(m_open->hasMessage, true)) AppendKept(m_open->message, "\n", m_open->omitted);
        AppendKept(m_open->message, std::string_view(line->text).substr(Indentation.size()), m_open->omitted);
    }
    const bool isQuiet = m_begun.text.empty() && std::exchange(m_quietAt, m_read) == m_read;
    if (isFollowed && !isQuiet) return std::nullopt;
    return TakeOpen();
}

LogEntry LogReader::TakeOpen() {
    LogEntry entry = *std::exchange(m_open, std::nullopt);
    const auto head = ParseLogHead(entry.first);
    entry.isRecord = head && entry.hasMessage;
    if (entry.isRecord) Place(entry, head->msOfDay);
    return entry;
}

// Records tell the time of day alone. One that is half a day or more before the latest is of the next day;
// others are late: threads take their time before they take their turn.
void LogReader::Place(LogEntry& entry, int msOfDay) {
    entry.time = m_latest - m_latest % MsInDay + msOfDay;
    if (entry.time + MsInDay / 2 <= m_latest) entry.time += MsInDay;
    m_latest = std::max(m_latest, entry.time);
}

bool LogReader::FindNewFile() {
    auto file = Opened(m_name);
    LARGE_INTEGER size;
    if (!file.IsValid() || !GetFileSizeEx(file.Get(), &size)) return false;
    const bool isSame =
        static_cast<ULONGLONG>(size.QuadPart) >= m_read && ReadBytes(file.Get(), m_begin.size()) == m_begin;
    if (!isSame) m_newFile = std::move(file);
    return !isSame;
}

void LogReader::TakeNewFile() {
    LARGE_INTEGER start;
    start.QuadPart = 0;
    if (!SetFilePointerEx(m_newFile.Get(), start, nullptr, FILE_BEGIN))
        TQSysException::ThrowLastError(L"LogReader::TakeNewFile");
    m_file = std::exchange(m_newFile, {});
    m_begin.clear();
    m_buffer.clear();
    m_begun = {};
    m_read = m_quietAt = 0;
    m_at = m_line = 0;
}

}  // namespace tq
