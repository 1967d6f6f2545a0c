#include "TQLib/platform/Win32.h"
#include "support/ChildProcess.h"

#include <array>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <utility>

namespace Quellan::Corvel::Test {

namespace {

// Both ends of a pipe; the child's is inherited.
struct Pipe {
    HANDLE read = nullptr, write = nullptr;
    explicit Pipe(HANDLE Pipe::*own) {
        SECURITY_ATTRIBUTES inherited{
            .nLength = sizeof(SECURITY_ATTRIBUTES), .lpSecurityDescriptor = nullptr, .bInheritHandle = TRUE};
        EXPECT_TRUE(CreatePipe(&read, &write, &inherited, 0)) << GetLastError();
        EXPECT_TRUE(SetHandleInformation(this->*own, HANDLE_FLAG_INHERIT, 0)) << GetLastError();
    }
};

// Wine says so when its new process has died before the program began, which happens now and then. The script
// that ends it counts how often.
bool CanRetry(const std::string& program) {
    const char* const prefix = std::getenv("WINEPREFIX");
    if (GetLastError() != ERROR_INTERNAL_ERROR || !prefix) return false;
    std::ofstream("Z:" + std::string(prefix) + "/retries", std::ios::app) << program << '\n';
    return true;
}

void Close(HANDLE& handle) {
    if (handle) CloseHandle(std::exchange(handle, nullptr));
}

}  // namespace

struct ChildProcess::Native {
    HANDLE process = nullptr;
    DWORD id = 0;
    HANDLE input = nullptr, output = nullptr;

    ~Native() {
        Close(process);
        Close(input);
        Close(output);
    }
};

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments, Files files)
    : m_native(std::make_unique<Native>()) {
    std::array<char, MAX_PATH> self;
    std::string path(self.data(), GetModuleFileNameA(nullptr, self.data(), self.size()));
    if (!program.empty()) path = path.substr(0, path.rfind('\\') + 1) + program + ".exe";
    std::string line = '"' + path + '"';
    for (const std::string& argument : arguments)
        line += ' ' + argument;
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    const auto start = [&](BOOL inherits, DWORD flags) {
        const auto create = [&] {
            return CreateProcessA(path.c_str(), line.data(), nullptr, nullptr, inherits, flags, nullptr,
                                  nullptr, &startup, &started);
        };
        EXPECT_TRUE(create() || (CanRetry(path) && create())) << GetLastError();
    };
    if (files == Files::Piped) {
        Pipe input(&Pipe::write), output(&Pipe::read);
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = input.read;
        startup.hStdOutput = startup.hStdError = output.write;
        // A window would make Wine start a desktop, which holds the pipes open.
        start(TRUE, CREATE_NO_WINDOW);
        Close(input.read);
        Close(output.write);
        m_native->input = input.write;
        m_native->output = output.read;
    } else {
        start(FALSE, 0);
    }
    m_native->process = started.hProcess;
    m_native->id = started.dwProcessId;
    Close(started.hThread);
}

ChildProcess::~ChildProcess() {
    Kill();
}

DWORD ChildProcess::Id() const {
    return m_native->id;
}

void ChildProcess::Kill() {
    TerminateProcess(m_native->process, 255);
    WaitForSingleObject(m_native->process, INFINITE);
}

// Only a process with the same console can do it, and everybody there gets it, this process too.
void ChildProcess::Interrupt() {
    static const BOOL deaf = SetConsoleCtrlHandler([](DWORD) { return TRUE; }, TRUE);
    EXPECT_TRUE(deaf);
    FreeConsole();
    EXPECT_TRUE(AttachConsole(m_native->id)) << GetLastError();
    EXPECT_TRUE(GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0)) << GetLastError();
    FreeConsole();
}

bool ChildProcess::CanInterrupt() {
    return true;
}

int ChildProcess::ExitCode() {
    WaitForSingleObject(m_native->process, INFINITE);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(m_native->process, &code)) << GetLastError();
    return static_cast<int>(code);
}

void ChildProcess::Write(const std::string& text) {
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(m_native->input, text.data(), static_cast<DWORD>(text.size()), &written, nullptr))
        << GetLastError();
}

void ChildProcess::CloseInput() {
    Close(m_native->input);
}

std::string ChildProcess::ReadSome() {
    std::array<char, 4096> buffer;
    DWORD got = 0;
    // The end of a pipe is a failure of its own.
    if (!ReadFile(m_native->output, buffer.data(), static_cast<DWORD>(buffer.size()), &got, nullptr)) {
        EXPECT_EQ(GetLastError(), DWORD{ERROR_BROKEN_PIPE});
    }
    return {buffer.data(), got};
}

}  // namespace Quellan::Corvel::Test
