#include "ServicesTest.h"

#include "ServicesTestProgram.h"
#include "support/ServiceManager.h"

#include <gmock/gmock.h>

namespace Quellan::Corvel::Test {
namespace {

using testing::ElementsAreArray;

class Services : public testing::Test {
  protected:
    ~Services() override {
        if (const OwnedService service = OpenNamed(m_record.name)) {
            StopAndWait(service);
            DeleteService(service.get());
        }
    }

    OwnedService CreateAndStart(const std::vector<std::wstring>& arguments = {}) {
        OwnedService service = Create(m_record);
        EXPECT_TRUE(service);
        EXPECT_EQ(StartAndWait(service, arguments), 0u);
        return service;
    }

    const ServiceManager m_manager;
    static std::wstring NewName() {
        static unsigned count = 0;
        return L"tqlib-test-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count);
    }

    // Wine finds a service that registers its handler by the table's name alone.
    static ServiceRecord NewRecord() {
        ServiceRecord record{.name = NewName()};
        record.commandLine += L' ' + record.name;
        return record;
    }

    const ServiceRecord m_record = NewRecord();
};

TEST_F(Services, AreFoundByTheirNames) {
    const OwnedService service = Create(m_record);
    const OwnedService manager = OpenManager();
    wchar_t name[300];
    DWORD size = 300;
    EXPECT_TRUE(GetServiceDisplayNameW(manager.get(), m_record.name.c_str(), name, &size));
    EXPECT_EQ(name, m_record.name) << "without a display name of its own";
    EXPECT_EQ(size, m_record.name.size());
    std::wstring upper = m_record.name;
    CharUpperBuffW(upper.data(), static_cast<DWORD>(upper.size()));
    EXPECT_TRUE(OpenNamed(upper)) << "names have no case";
    EXPECT_EQ(CodeOf(OpenNamed(L"tqlib-test-none").get()), DWORD{ERROR_SERVICE_DOES_NOT_EXIST});
    EXPECT_EQ(CodeOf(Create(m_record).get()), DWORD{ERROR_SERVICE_EXISTS});
    size = 300;
    if (OnWine()) return;  // finds no service by a display name that it was not given
    EXPECT_TRUE(GetServiceKeyNameW(manager.get(), m_record.name.c_str(), name, &size));
    EXPECT_EQ(name, m_record.name);
}

TEST_F(Services, GetTheArgumentsOfTheirStart) {
    const OwnedService service = Create(m_record);
    // Wine leaves empty arguments out, and takes a service that stops soon for one that did not start.
    const std::wstring last = OnWine() ? L"x" : L"";
    const DWORD code = Start(service, {CountArguments, L"with a blank", last});
    EXPECT_TRUE(code == 0 || OnWine()) << code;
    const SERVICE_STATUS_PROCESS status = WaitFor(service, SERVICE_STOPPED);
    EXPECT_EQ(status.dwWin32ExitCode, DWORD{ERROR_SERVICE_SPECIFIC_ERROR});
    EXPECT_EQ(status.dwServiceSpecificExitCode, 4u) << "the name of the service is the first";
}

TEST_F(Services, ShowTheirProgressWhileTheyStart) {
    const OwnedService service = Create(m_record);
    ASSERT_EQ(Start(service, {StartSlowly}), 0u);
    DWORD lastPoint = 0;
    const SERVICE_STATUS_PROCESS end = WaitUntil(service, [&](const SERVICE_STATUS_PROCESS& status) {
        if (status.dwCurrentState != SERVICE_START_PENDING) return true;
        EXPECT_GE(status.dwCheckPoint, lastPoint);
        EXPECT_TRUE(status.dwCheckPoint == 0 || status.dwWaitHint == 1000 * status.dwCheckPoint);
        lastPoint = status.dwCheckPoint;
        return false;
    });
    EXPECT_EQ(end.dwCurrentState, DWORD{SERVICE_RUNNING});
    EXPECT_GT(lastPoint, 0u);
}

TEST_F(Services, AreDeletedWhenNobodyNeedsThemAnyMore) {
    OwnedService service = CreateAndStart();
    EXPECT_TRUE(DeleteService(service.get()));
    EXPECT_EQ(CodeOf(DeleteService(service.get())), DWORD{ERROR_SERVICE_MARKED_FOR_DELETE});
    EXPECT_EQ(StateOf(service), DWORD{SERVICE_RUNNING});
    EXPECT_EQ(StopAndWait(service), 0u);
    // Wine starts it nevertheless.
    EXPECT_TRUE(OnWine() || Start(service) == DWORD{ERROR_SERVICE_MARKED_FOR_DELETE});
    EXPECT_EQ(CodeOf(Create(m_record).get()), DWORD{ERROR_SERVICE_MARKED_FOR_DELETE});
    service.reset();
    EXPECT_TRUE(ServiceManager::IsGone(m_record.name.c_str()));
}

TEST_F(Services, GrantNoMoreThanTheHandleWasOpenedFor) {
    const OwnedService all = Create(m_record);
    const OwnedService query = OpenNamed(m_record.name, SERVICE_QUERY_STATUS);
    EXPECT_EQ(StateOf(query), DWORD{SERVICE_STOPPED});
    EXPECT_EQ(Start(query), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Control(query, SERVICE_CONTROL_STOP), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(CodeOf(DeleteService(query.get())), DWORD{ERROR_ACCESS_DENIED});
    SERVICE_STATUS status;
    EXPECT_EQ(CodeOf(QueryServiceStatus(OpenNamed(m_record.name, SERVICE_START).get(), &status)),
              DWORD{ERROR_ACCESS_DENIED});
    const OwnedService manager = OpenManager(SC_MANAGER_CONNECT);
    EXPECT_EQ(
        CodeOf(CreateServiceW(manager.get(), L"tqlib-test-other", nullptr, 0, SERVICE_WIN32_OWN_PROCESS,
                              SERVICE_DEMAND_START, 0, L"x", nullptr, nullptr, nullptr, nullptr, nullptr)),
        DWORD{ERROR_ACCESS_DENIED});
}

TEST_F(Services, TakeNoHandleOfAnotherKind) {
    const OwnedService manager = OpenManager();
    SERVICE_STATUS status;
    EXPECT_EQ(CodeOf(QueryServiceStatus(manager.get(), &status)), DWORD{ERROR_INVALID_HANDLE});
    const OwnedService service = Create(m_record);
    EXPECT_EQ(CodeOf(OpenServiceW(service.get(), m_record.name.c_str(), SERVICE_START)),
              DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(CloseServiceHandle(nullptr)), DWORD{ERROR_INVALID_HANDLE});
}

TEST_F(Services, RefuseControlsThatThereAreNot) {
    const OwnedService service = CreateAndStart();
    EXPECT_EQ(Control(service, SERVICE_CONTROL_NETBINDADD), DWORD{ERROR_INVALID_SERVICE_CONTROL})
        << "it does not accept it";
    EXPECT_EQ(Control(service, SERVICE_CONTROL_SHUTDOWN), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Control(service, 300), DWORD{ERROR_INVALID_PARAMETER});
}

TEST_F(Services, AreListedInPartsThatTheBufferHolds) {
    const OwnedService manager = OpenManager();
    std::vector<std::wstring> names;
    std::vector<OwnedService> services;
    for (int i = 0; i < 5; ++i) {
        names.push_back(m_record.name + L"-" + std::to_wstring(i));
        services.push_back(Create({.name = names.back()}));
    }
    std::vector<std::wstring> listed;
    // Wine begins anew each time.
    std::vector<ENUM_SERVICE_STATUSW> entries(OnWine() ? 2000 : 20);
    DWORD needed = 0, count = 0, resume = 0, code = ERROR_MORE_DATA;
    while (code == ERROR_MORE_DATA) {
        code = CodeOf(EnumServicesStatusW(manager.get(), SERVICE_WIN32, SERVICE_STATE_ALL, entries.data(),
                                          static_cast<DWORD>(entries.size() * sizeof entries[0]), &needed,
                                          &count, &resume));
        ASSERT_GT(count, 0u);
        for (DWORD i = 0; i < count; ++i)
            if (std::wstring_view(entries[i].lpServiceName).starts_with(m_record.name))
                listed.emplace_back(entries[i].lpServiceName);
    }
    EXPECT_EQ(code, 0u);
    EXPECT_THAT(listed, ElementsAreArray(names));
    for (const OwnedService& service : services)
        DeleteService(service.get());
}

// A process that no manager has started. Wine says so after ten seconds.
TEST(ServiceDispatcher, NeedsAManager) {
    RoleProcess process("service");
    EXPECT_EQ(process.ExitCode(), 63);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
