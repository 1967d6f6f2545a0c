// A service manager of the test's own.
#pragma once

#include "platform/PlatformTest.h"
#include "support/ChildProcess.h"

#include <optional>

namespace Quellan::Corvel::Test {

// tqscm on a socket and with a registry in a new folder. While it lives the service calls of this process,
// and of those it starts, ask this manager. At its end the services are stopped and everything is removed.
class PrivateManager {
  public:
    // `options` as on tqscm's command line.
    explicit PrivateManager(std::vector<std::string> options = {});
    ~PrivateManager();
    PrivateManager(const PrivateManager&) = delete;
    PrivateManager& operator=(const PrivateManager&) = delete;

    // Without warning: services run on.
    void Kill();
    // Another one in its place. Returns when it answers.
    void Start();
    // Asks it to end and returns its exit code, once the services have stopped.
    int Stop();

    // What it says, up to a text.
    void ReadTo(const std::string& text) { m_process->ReadTo(text); }

    DWORD Id() const { return m_process->Id(); }
    std::string Socket() const { return m_socket; }
    // Ends with a slash; readable for everybody.
    const std::string& Folder() const { return m_folder; }

  private:
    const TemporaryFolder m_temporary;
    const std::string m_folder;
    const std::string m_socket;
    const EnvironmentVariable m_variable;
    const std::vector<std::string> m_options;
    std::optional<ChildProcess> m_process;
};

}  // namespace Quellan::Corvel::Test
