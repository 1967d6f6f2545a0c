// Services that tests install.
#pragma once

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/services/TQServiceCtrl.h"
#include "TQLib/services/TQServiceMgr.h"
#include "TQLib/system/TQSysProc.h"
#include "TestNames.h"
#include "support/ChildProcess.h"
#include "support/ServiceManager.h"
#include "support/ThrownCode.h"

#include <gmock/gmock.h>

namespace Quellan::Corvel::Test {

// Without the services of the tests at the beginning and at the end.
class Installed : public testing::Test {
  private:
    ServiceManager m_manager;

  protected:
    Installed() { Clean(); }
    ~Installed() override { Clean(); }

    static bool IsInstalled(const wchar_t* name) {
        TQSvcHandle service;
        return TQServiceMgr::ServiceInstalled(name, service, SERVICE_QUERY_STATUS);
    }

    // The path of the service program, as a command line.
    static TQString ProgramLine() {
        TQString path = TQSysProc::ModuleFileName(nullptr);
        path.Replace(TQSysProc::ModuleBaseName(nullptr), L"services_test_program");
        return TQString::Format(L"\"%s\"", path.c_str());
    }

    static void InstallProgram(const wchar_t* name = FirstName, const TQServiceOptions& options = {}) {
        TQSvcHandle service;
        TQServiceMgr::InstallService(service, name, L"Test", ProgramLine().c_str(), nullptr, nullptr,
                                     SERVICE_WIN32_SHARE_PROCESS, TQSvcStart::Demand, options);
    }

    // Runs the service program with a word, and gives what it printed.
    static std::string Run(const std::vector<std::string>& words, int exitCode) {
        ChildProcess program("services_test_program", words, ChildProcess::Files::Piped);
        program.CloseInput();
        std::string output = program.ReadAll();
        EXPECT_EQ(program.ExitCode(), exitCode) << output;
        return output;
    }

    static constexpr DWORD PatienceMs = 60'000;

  private:
    static void Clean() {
        for (const wchar_t* name : {FirstName, SecondName}) {
            if (IsInstalled(name)) Remove(name);
            EXPECT_TRUE(ServiceManager::IsGone(name));
        }
    }
    static void Remove(const wchar_t* name) {
        try {
            TQSvcHandle service;
            TQServiceMgr::RemoveService(nullptr, name, service);
        } catch (const TQSysException& failure) {
            EXPECT_EQ(failure.ErrCode(), DWORD{ERROR_SERVICE_MARKED_FOR_DELETE});
        }
    }
};

}  // namespace Quellan::Corvel::Test
