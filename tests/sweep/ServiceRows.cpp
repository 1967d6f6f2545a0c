#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecObject.h"
#include "TQLib/services/TQServiceCtrl.h"
#include "TQLib/services/TQServiceMgr.h"
#include "TQLib/services/TQSvcProcessor.h"
#include "support/ServiceManager.h"
#include "sweep/Rows.h"

namespace Quellan::Corvel::Test {

namespace {

const wchar_t ServiceName[] = L"TQLibSweep", OtherServiceName[] = L"TQLibSweepOther";

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
        if (TQServiceMgr::ServiceInstalled(OtherServiceName, service, SERVICE_QUERY_STATUS))
            Remove(OtherServiceName);
    }
};

struct OtherInstalled : OtherService {
    OtherInstalled() { Install(OtherServiceName); }
};

// The manager of all rows, and a service that has never run.
struct InstalledService {
    ServiceManager manager;

    InstalledService() { Install(ServiceName); }
    ~InstalledService() { Remove(ServiceName); }
};

TQServiceCtrl Service() {
    static const InstalledService installed;
    return TQServiceCtrl(ServiceName);
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
                  EXPECT_NE(TQServiceCtrl::ServiceList(all).Find(ServiceName), nullptr);
              }),
        Swept("security of a service", Service,
              [](TQServiceCtrl&) {
                  const Sarvek::SecObject object = Sarvek::SecObject::Service(ServiceName);
                  const Sarvek::SecDesc descriptor = object.Read();
                  PutUpWith(ERROR_NOT_SUPPORTED,
                            [&] { object.Write(descriptor, DACL_SECURITY_INFORMATION); });
              }),
        Swept("service copy", Service, [](TQServiceCtrl& service) { TQServiceCtrl{service}; }),
        Swept("service state", Service,
              [](TQServiceCtrl& service) {
                  EXPECT_EQ(service.QueryStatus().Record().currentState, TQSvcState::Stopped);
                  EXPECT_EQ(service.ProcessID(), 0u);
                  EXPECT_TRUE(service.WaitForState(TQSvcState::Stopped, 0));
              }),
        Swept("service configuration", Service,
              [](TQServiceCtrl& service) { EXPECT_EQ(service.Config().displayName, ServiceName); }),
        Swept("service kill", Service, ForThrowing,
              [](TQServiceCtrl& service) { PutUpWith(ERROR_SERVICE_NOT_ACTIVE, [&] { service.Kill(); }); }),
        Swept("service control", Service, ForThrowing,
              [](TQServiceCtrl& service) {
                  PutUpWith(ERROR_SERVICE_NOT_ACTIVE, [&] { service.Interrogate(); });
              }),
        Swept("service start", Service, ForThrowing,
              [](TQServiceCtrl& service) { PutUpWith(ERROR_FILE_NOT_FOUND, [&] { service.Start(); }); }),
        Swept(
            "service work", [] { return Unending(); }, {Promise::Ended, "SetEvent"},
            [](Unending& work) {
                EXPECT_TRUE(work.Pause());
                EXPECT_TRUE(work.WaitForState(ProcState::Pausing, 0));
                EXPECT_TRUE(work.changed.Wait(0));
            }),
        Swept(
            "service install", [] { return Service(), OtherService(); }, Promise::Ended,
            [](OtherService&) { Install(OtherServiceName); }),
        Swept(
            "service remove", [] { return Service(), OtherInstalled(); }, Promise::Ended,
            [](OtherService&) { Remove(OtherServiceName); }),
    };
}

}  // namespace Quellan::Corvel::Test
