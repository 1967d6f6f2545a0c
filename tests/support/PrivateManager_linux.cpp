#include "support/PrivateManager_linux.h"

#include "support/ServiceManager.h"

#include <csignal>
#include <filesystem>

namespace Quellan::Corvel::Test {

PrivateManager::PrivateManager(std::vector<std::string> options)
    : m_folder(std::filesystem::path(m_temporary.Path()).string() + '/'),
      m_socket(m_folder + "manager"),
      m_variable(L"TQLIB_SERVICE_MANAGER", std::filesystem::path(m_socket).wstring().c_str()),
      m_options(std::move(options)) {
    Start();
}

PrivateManager::~PrivateManager() {
    if (!m_process) Start();
    EXPECT_EQ(Stop(), 0) << "the manager's exit code";
}

void PrivateManager::Start() {
    const EnvironmentVariable root(L"TQLIB_ROOT", (m_temporary / L"root").c_str());
    std::vector<std::string> arguments{"--socket", m_socket};
    arguments.insert(arguments.end(), m_options.begin(), m_options.end());
    m_process.emplace("tqscm", arguments, ChildProcess::Files::Piped);
    m_process->ReadTo("ready");
}

void PrivateManager::Kill() {
    m_process.reset();
}

int PrivateManager::Stop() {
    kill(static_cast<pid_t>(m_process->Id()), SIGTERM);
    const int code = m_process->ExitCode();
    m_process.reset();
    return code;
}

ServiceManager::ServiceManager() : m_manager(std::make_shared<PrivateManager>()) {}

}  // namespace Quellan::Corvel::Test
