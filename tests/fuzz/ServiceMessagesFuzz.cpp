// Every message of the service manager's protocol, as either end reads it. What could be read is the same when
// it is written and read again.
#include "TQLib/platform/linux/services/ServiceMessages.h"

#include <cstdlib>

using namespace Quellan::Platform;

namespace {

template <class Message>
void Try(std::string_view packet) {
    Message message, again;
    if (!ParseMessage(packet, message)) return;
    const std::string written = FormatMessage(message);
    if (!ParseMessage(written, again) || FormatMessage(again) != written || written != packet) std::abort();
}

template <class... Messages>
void TryAll(std::string_view packet) {
    (Try<Messages>(packet), ...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view packet(reinterpret_cast<const char*>(data), size);
    KindOfMessage(packet);
    TryAll<OpenManagerMessage, OpenServiceMessage, CreateServiceMessage, DeleteServiceMessage,
           ChangeServiceMessage, QueryConfigMessage, QueryStatusMessage, StartServiceMessage,
           ControlServiceMessage, KillServiceMessage, AwaitChangeMessage, EnumServicesMessage,
           EnumDependentsMessage, FindNameMessage, ReplyMessage, OpenReplyMessage, ConfigReplyMessage,
           StatusReplyMessage, EnumReplyMessage, NameReplyMessage, AttachMessage, StatusMessage, DoneMessage,
           RunMessage, ControlMessage, FinishMessage>(packet);
    return 0;
}
