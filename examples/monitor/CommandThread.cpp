#include "CommandThread.h"

#include "TQLib/platform/Win32.h"

#include <algorithm>
#include <iterator>
#include <string_view>

using namespace Quellan::Corvel;

namespace {

// Messages to the command thread, in the order of the words; what is none of them is the last.
enum : UINT { PauseMessage = WM_APP, ResumeMessage, ReportMessage, StopMessage, UnknownMessage };
constexpr std::string_view Words[] = {"pause", "resume", "report", "stop"};
constexpr std::size_t MaxLine = 16;  // longer than any word

DWORD ReadCommands(void* parameter) {
    const auto commandThread = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(parameter));
    char line[MaxLine];
    std::size_t length = 0;
    char next;
    DWORD got;
    while (ReadFile(GetStdHandle(STD_INPUT_HANDLE), &next, 1, &got, nullptr) && got == 1) {
        if (next == '\n') {
            const auto* const word = std::ranges::find(Words, std::string_view(line, length));
            const auto index = static_cast<UINT>(word - std::begin(Words));
            if (length > 0) PostThreadMessageW(commandThread, PauseMessage + index, 0, 0);
            length = 0;
        } else if (next != '\r' && length < MaxLine) {
            line[length++] = next;
        }
    }
    return 0;
}

}  // namespace

unsigned int CommandThread::OnStart(const BYTEBuf& data) {
    const unsigned int refusal = TQMsgThread::OnStart(data);
    const std::uintptr_t id = GetCurrentThreadId();
    const TQUniqueHandle<_TQKernelHandleClose> reader(
        CreateThread(nullptr, 0, &ReadCommands, reinterpret_cast<void*>(id), 0, nullptr));
    if (!reader) TQSysException::ThrowLastError(L"CommandThread::OnStart");
    return refusal;
}

void CommandThread::OnThreadMessage(UINT msg, ULONGLONG, LONGLONG, DWORD) {
    switch (msg) {
        case PauseMessage:
            m_processor.Pause();
            break;
        case ResumeMessage:
            m_processor.Restart();
            break;
        case ReportMessage:
            m_watch.Report();
            break;
        case StopMessage:
            m_processor.StopProcessor();
            break;
        default:
            TQConsole(TQConsole::Stream::Output).Write(L"commands are: pause, resume, report, stop\n");
    }
}
