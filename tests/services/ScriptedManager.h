// A service manager inside the test process, which does what the test says.
#pragma once

#include "TQLib/platform/Win32.h"
#include "TQLib/services/internal/ServiceHost.h"
#include "support/Worker.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Quellan::Corvel::Test {

constexpr const wchar_t* Name = L"TestService";  // of the service in these tests

// Takes the place of the platform's manager while it lives. Keeps every report, and fails the test where one
// breaks what holds for all of them: none from two threads at once, none after stopped, no check point below
// the last one of the same pending state.
class ScriptedManager : public ServiceHost {
  public:
    using Report = SERVICE_STATUS;

    ScriptedManager() : m_scope(*this) {}

    // What the three calls give in place of success.
    DWORD dispatchCode = ERROR_SUCCESS;
    DWORD registerCode = ERROR_SUCCESS;
    std::atomic<DWORD> statusCode{ERROR_SUCCESS};
    // Runs in the dispatcher, in place of the services.
    std::function<void()> onDispatch;

    // All services of the table, until their main functions have returned. Controls are called on this
    // thread.
    BOOL Dispatch(const SERVICE_TABLE_ENTRYW* table) override {
        if (onDispatch) onDispatch();
        SetLastError(dispatchCode);
        if (dispatchCode != ERROR_SUCCESS) return FALSE;
        std::vector<std::unique_ptr<Worker>> mains;
        std::size_t running = 0;
        for (; table->lpServiceName; ++table, ++running)
            mains.push_back(std::make_unique<Worker>([this, &running, entry = *table] {
                wchar_t* arguments[] = {entry.lpServiceName};
                entry.lpServiceProc(1, arguments);
                Post([&running] { --running; });
            }));
        while (running > 0)
            NextPosted()();
        return TRUE;
    }

    SERVICE_STATUS_HANDLE RegisterHandler(const wchar_t* name, LPHANDLER_FUNCTION_EX handler,
                                          void* context) override {
        SetLastError(registerCode);
        if (registerCode != ERROR_SUCCESS) return nullptr;
        const std::lock_guard guard(m_lock);
        auto& service = m_services[name];
        service = std::make_unique<Service>();
        service->handler = handler;
        service->context = context;
        return reinterpret_cast<SERVICE_STATUS_HANDLE>(service.get());
    }

    BOOL SetStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status) override {
        auto& service = *reinterpret_cast<Service*>(handle);
        EXPECT_EQ(service.inside.fetch_add(1), 0) << "two threads report at once";
        {
            const std::lock_guard guard(m_lock);
            if (!service.reports.empty()) {
                const Report& last = service.reports.back();
                EXPECT_NE(last.dwCurrentState, SERVICE_STOPPED) << "reported after stopped";
                if (last.dwCurrentState == status->dwCurrentState) {
                    EXPECT_GE(status->dwCheckPoint, last.dwCheckPoint);
                }
            }
            service.reports.push_back(*status);
        }
        m_changed.notify_all();
        service.inside.fetch_sub(1);
        SetLastError(statusCode);
        return statusCode == ERROR_SUCCESS;
    }

    // What the handler returns on the calling thread, which is the dispatcher's then.
    DWORD Call(const std::wstring& service, DWORD control, DWORD eventType = 0, void* eventData = nullptr) {
        Service& called = *Find(service);
        return called.handler(control, eventType, eventData, called.context);
    }

    // What the handler returns on the thread that runs `Dispatch`.
    DWORD Control(const std::wstring& service, DWORD control) {
        DWORD result = 0;
        TQEvent done(true);
        Post([&] {
            result = Call(service, control);
            done.Set();
        });
        done.Wait(INFINITE);
        return result;
    }

    std::vector<Report> Reports(const std::wstring& service) {
        const std::lock_guard guard(m_lock);
        const auto found = m_services.find(service);
        return found == m_services.end() ? std::vector<Report>() : found->second->reports;
    }

    std::vector<DWORD> States(const std::wstring& service) {
        std::vector<DWORD> states;
        for (const Report& report : Reports(service))
            if (states.empty() || states.back() != report.dwCurrentState)
                states.push_back(report.dwCurrentState);
        return states;
    }

    // Waits for the state, and returns the last report.
    Report Await(const std::wstring& service, DWORD state) {
        return AwaitReport(service, [state](const Report& last) { return last.dwCurrentState == state; });
    }

    Report AwaitReport(const std::wstring& service, const std::function<bool(const Report&)>& isAwaited) {
        std::unique_lock guard(m_lock);
        Report last{};
        m_changed.wait(guard, [&] {
            const auto found = m_services.find(service);
            if (found == m_services.end() || found->second->reports.empty()) return false;
            return isAwaited(last = found->second->reports.back());
        });
        return last;
    }

  private:
    struct Service {
        LPHANDLER_FUNCTION_EX handler = nullptr;
        void* context = nullptr;
        std::vector<Report> reports;
        std::atomic<int> inside{0};
    };

    Service* Find(const std::wstring& name) {
        const std::lock_guard guard(m_lock);
        return m_services.at(name).get();
    }

    void Post(std::function<void()> work) {
        {
            const std::lock_guard guard(m_lock);
            m_posted.push_back(std::move(work));
        }
        m_changed.notify_all();
    }

    std::function<void()> NextPosted() {
        std::unique_lock guard(m_lock);
        m_changed.wait(guard, [this] { return !m_posted.empty(); });
        std::function<void()> work = std::move(m_posted.front());
        m_posted.pop_front();
        return work;
    }

    ServiceHostScope m_scope;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::map<std::wstring, std::unique_ptr<Service>> m_services;
    std::deque<std::function<void()>> m_posted;
};

}  // namespace Quellan::Corvel::Test
