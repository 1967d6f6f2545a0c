#include "platform/Win32.h"
#include "services/TQServiceCtrl.h"
#include "services/TQServiceMgr.h"
#include "services/TQSvcProcessor.h"
#include "support/ServiceManager.h"
#include "sweep/Rows.h"

namespace Quellan::Corvel::Test {

namespace {

const wchar_t Name[] = L"TQLibSweep", OtherName[] = L"TQLibSweepOther";

void Install(const wchar_t* name) {
    TQSvcHandle service;
    TQServiceOptions options;
    options.description = L"text";
    TQServiceMgr::InstallService(service, name, name, L"/no/such/program", nullptr, nullptr,
                                 SERVICE_WIN32_OWN_PROCESS, TQSvcStart::Demand, options);
}

void Remove(const wchar_t* name) {
    TQSvcHandle service;
    TQServiceMgr::RemoveService(nullptr, name, service);
}

// A service that is gone afterwards, whether it was installed, removed or neither.
struct OtherService {
    ~OtherService() {
        TQSvcHandle service;
        if (TQServiceMgr::ServiceInstalled(OtherName, service, SERVICE_QUERY_STATUS)) Remove(OtherName);
    }
};

struct OtherInstalled : OtherService {
    OtherInstalled() { Install(OtherName); }
};

// The manager of all rows, and a service that has never run.
struct InstalledService {
    ServiceManager manager;

    InstalledService() { Install(Name); }
    ~InstalledService() { Remove(Name); }
};

TQServiceCtrl Service() {
    static const InstalledService installed;
    return TQServiceCtrl(Name);
}

// Runs, and does nothing that it is asked for but to stop.
struct Unending : TQSvcProcessor {
    const TQEvent changed{false};

    Unending() {
        StartProcessor();
        WaitForState(ProcState::Run, INFINITE);
        AddChangedEvent(changed.Handle());
    }
    ~Unending() override { EndThread(); }
    unsigned int Process(BYTEBuf&) override { return StopEvent().Wait(INFINITE) ? 0u : 1u; }
};

}  // namespace

std::vector<SweptOperation> ServiceRows() {
    return {
        Swept("service list", Service,
              [](TQServiceCtrl&) {
                  const auto all =
                      ServiceListType::Services | ServiceListType::Active | ServiceListType::Inactive;
                  EXPECT_NE(TQServiceCtrl::ServiceList(all).Find(Name), nullptr);
              }),
        Swept("service copy", Service, [](TQServiceCtrl& service) { TQServiceCtrl{service}; }),
        Swept("service state", Service,
              [](TQServiceCtrl& service) {
                  EXPECT_EQ(service.Status().Status().currentState, TQSvcState::Stopped);
                  EXPECT_EQ(service.ProcessID(), 0u);
                  EXPECT_TRUE(service.WaitForState(TQSvcState::Stopped, 0));
              }),
        Swept("service configuration", Service,
              [](TQServiceCtrl& service) { EXPECT_EQ(service.Config().displayName, Name); }),
        Swept(
            "service kill", Service,
            [](TQServiceCtrl& service) {
                PutUpWith(ERROR_SERVICE_NOT_ACTIVE, [&] { service.Kill(); });
            },
            Promise::Works, ForThrowing),
        Swept(
            "service control", Service,
            [](TQServiceCtrl& service) {
                PutUpWith(ERROR_SERVICE_NOT_ACTIVE, [&] { service.Interrogate(); });
            },
            Promise::Works, ForThrowing),
        Swept(
            "service start", Service,
            [](TQServiceCtrl& service) { PutUpWith(ERROR_FILE_NOT_FOUND, [&] { service.Start(); }); },
            Promise::Works, ForThrowing),
        Swept(
            "service work", [] { return Unending(); },
            [](Unending& work) {
                EXPECT_TRUE(work.Pause());
                EXPECT_TRUE(work.WaitForState(ProcState::Pausing, 0));
                EXPECT_TRUE(work.changed.Wait(0));
            },
            Promise::Ended, "SetEvent"),
        Swept(
            "service install", [] { return Service(), OtherService(); },
            [](OtherService&) { Install(OtherName); }, Promise::Ended),
        Swept(
            "service remove", [] { return Service(), OtherInstalled(); },
            [](OtherService&) { Remove(OtherName); }, Promise::Ended),
    };
}

}  // namespace Quellan::Corvel::Test
