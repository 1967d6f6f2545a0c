#include "TQLib/platform/linux/eventlog/Syslog.h"

#include "TQLib/platform/linux/base/Clock.h"
#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/EnvironmentBlock.h"
#include "TQLib/platform/linux/eventlog/EventLog.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

namespace Quellan::Platform {

namespace {

constexpr std::size_t LongestMessage = 8000;

int PriorityOf(WORD type) noexcept {
    switch (type) {
        case EVENTLOG_ERROR_TYPE:
            return LOG_USER | LOG_ERR;
        case EVENTLOG_WARNING_TYPE:
            return LOG_USER | LOG_WARNING;
        case EVENTLOG_AUDIT_SUCCESS:
        case EVENTLOG_AUDIT_FAILURE:
            return LOG_AUTHPRIV | LOG_NOTICE;
        default:
            return LOG_USER | LOG_INFO;
    }
}

// "Jan  2 03:04:05", local time, whatever the process's language.
std::string StampOf(std::int64_t milliseconds) {
    constexpr std::array<const char*, 12> Months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                    "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const tm fields = FieldsOf(milliseconds / 1000);
    char text[32];
    std::snprintf(text, sizeof text, "%s %2d %02d:%02d:%02d", Months[static_cast<std::size_t>(fields.tm_mon)],
                  fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
    return text;
}

std::string MessageOf(const EventRecord& record) {
    std::string text = "event " + std::to_string(record.id);
    for (const std::string& string : record.strings)
        text += (&string == &record.strings.front() ? ": " : "; ") + string;
    // One event is one line, and the source must not look like more of the header than it is.
    std::string tag = record.source;
    std::ranges::replace_if(
        tag, [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == '[' || c == ':'; }, '_');
    std::ranges::replace_if(
        text, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7F; }, ' ');
    std::string message = '<' + std::to_string(PriorityOf(record.type)) + '>' + StampOf(record.time) + ' ' +
                          tag + '[' + std::to_string(record.process) + "]: " + text;
    if (message.size() > LongestMessage) {
        message.resize(LongestMessage);
        // Not in the middle of a character.
        while ((static_cast<unsigned char>(message.back()) & 0xC0) == 0x80)
            message.pop_back();
        if (static_cast<unsigned char>(message.back()) >= 0x80) message.pop_back();
    }
    return message;
}

}  // namespace

void SendToSyslog(const EventRecord& record) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = TrustedEnvironmentVariable("TQLIB_ROOT").value_or("") + "/dev/log";
    if (path.size() >= sizeof address.sun_path) return;
    path.copy(address.sun_path, path.size());
    const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) return;
    const std::string message = MessageOf(record);
    sendto(socket.Get(), message.data(), message.size(), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

}  // namespace Quellan::Platform
