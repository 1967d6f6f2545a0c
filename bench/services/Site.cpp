#include "services/Site.h"

#include "TQLib/platform/Win32.h"
#include "TQLib/services/TQServiceApp.h"
#include "TQLib/services/TQServiceMgr.h"
#include "TQLib/system/TQSysProc.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Quellan::Corvel::Bench {

namespace {

class IdleProcessor : public TQSvcProcessor {
  public:
    IdleProcessor() { SetCtrlAllow(ProcControlAccept::ParamChange, true); }
    ~IdleProcessor() override { EndThread(); }
};

class IdleService : public TQService {
  public:
    IdleService() : TQService(L"Bench") {}
    TQSvcProcessor& Processor() override { return m_processor; }

  private:
    IdleProcessor m_processor;
};

}  // namespace

std::string ProgramPath(const std::string& name) {
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
    return (name.empty() ? self : self.parent_path() / name).string();
}

pid_t Spawn(const std::vector<std::string>& line, int output) {
    std::vector<std::string> texts = line;
    std::vector<char*> argv;
    for (std::string& text : texts)
        argv.push_back(text.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (output >= 0) posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    pid_t id = -1;
    if (posix_spawn(&id, argv[0], &actions, nullptr, argv.data(), environ) != 0) std::abort();
    posix_spawn_file_actions_destroy(&actions);
    return id;
}

Site::Site() {
    std::string folder = (std::filesystem::temp_directory_path() / "tqbench-XXXXXX").string();
    if (!mkdtemp(folder.data())) std::abort();
    m_folder = folder;
    setenv("TQLIB_ROOT", m_folder.c_str(), 1);
    setenv("TQLIB_SERVICE_MANAGER", (m_folder + "/services.socket").c_str(), 1);
    std::array<int, 2> ready{};
    if (pipe(ready.data()) != 0) std::abort();
    m_manager = Spawn({ProgramPath("tqscm")}, ready[1]);
    close(ready[1]);
    char byte;
    // It says one line when it can be asked.
    if (read(ready[0], &byte, 1) != 1) std::abort();
    close(ready[0]);
}

Site::~Site() {
    kill(m_manager, SIGTERM);
    waitpid(m_manager, nullptr, 0);
    std::filesystem::remove_all(m_folder);
}

long Site::ManagerStatus(const std::string& key) const {
    std::ifstream status("/proc/" + std::to_string(m_manager) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, key.size(), key) == 0) return std::strtol(line.c_str() + key.size(), nullptr, 10);
    return -1;
}

long Site::ManagerKiB() const {
    return ManagerStatus("VmRSS:");
}

long Site::ManagerWakeUps() const {
    return ManagerStatus("voluntary_ctxt_switches:");
}

TQSvcHandle Site::Install(const wchar_t* name) {
    TQSvcHandle service;
    const TQString line = TQString::Format(L"\"%s\" --service", TQSysProc::ModuleFileName(nullptr).c_str());
    TQServiceOptions options;
    options.description = L"Does nothing";
    options.failureActions = {{TQSvcFailureAction::Kind::Restart, 1000}};
    options.failureCommand = L"/bin/true";
    TQServiceMgr::InstallService(service, name, nullptr, line.c_str(), nullptr, nullptr,
                                 SERVICE_WIN32_OWN_PROCESS, TQSvcStart::Demand, options);
    return service;
}

int RunAsService() {
    IdleService service;
    TQServiceMgr::RegisterService(&service);
    return TQServiceMgr::RunServices() == 0 ? 0 : 1;
}

}  // namespace Quellan::Corvel::Bench
