#include "TQLib/core/TQLib.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/core/internal/CallsUnderWay.h"
#include "TQLib/core/internal/CommonValue.h"
#include "TQLib/core/internal/ModuleLookup.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/platform/ProcessEnd.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <utility>

namespace Quellan::Corvel {

namespace {

constexpr LCID EnglishUnitedStates = 0x0409;

// A value that any thread reads and replaces as a whole. Its memory is neither taken nor copied nor given
// back under the lock: running out of it calls handlers.
template <class T>
class SharedValue {
  public:
    T Get(const wchar_t* where) const {
        const CommonValue<T> value = Kept();
        return Translated(where, [&] { return value.Get() ? *value.Get() : T(); });
    }

    void Set(const T& value, const wchar_t* where) {
        CommonValue<T> made(Translated(where, [&] { return T(value); }));
        const TQThreadSynch::TQSynchLock guard(m_lock);
        std::swap(m_value, made);
    }

  private:
    CommonValue<T> Kept() const {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        return m_value;
    }

    mutable TQThreadSynch m_lock;
    CommonValue<T> m_value TQ_GUARDED_BY(m_lock);
};

// Handlers of one kind with their contexts, in the order in which they were registered.
template <class Function>
class Handlers {
  public:
    void Add(Function function, void* context, const wchar_t* where) {
        std::list<Entry> made;
        Translated(where, [&] { made.push_back({Handler(function, context)}); });
        const TQThreadSynch::TQSynchLock guard(m_calls.lock);
        made.front().number = ++m_lastNumber;
        m_entries.splice(m_entries.end(), made);
    }

    // Does nothing for one that is not registered, except to wait for its end on other threads.
    void Remove(Function function, void* context) noexcept {
        const Handler removed(function, context);
        std::list<Entry> taken;
        {
            const TQThreadSynch::TQSynchLock guard(m_calls.lock);
            const auto found = std::find_if(m_entries.begin(), m_entries.end(),
                                            [&](const Entry& entry) { return entry.handler == removed; });
            if (found != m_entries.end()) taken.splice(taken.begin(), m_entries, found);
        }
        m_calls.WaitFor(removed);
    }

    // Forgets the newest handler and has `call` call it; false without one.
    template <class CallIt>
    bool TakeNewest(CallIt call) {
        std::list<Entry> taken;
        Running running;
        {
            const TQThreadSynch::TQSynchLock guard(m_calls.lock);
            if (m_entries.empty()) return false;
            taken.splice(taken.begin(), m_entries, std::prev(m_entries.end()));
            running.key = taken.front().handler;
            m_calls.Begin(running);
        }
        call(running.key);
        m_calls.End(running);
        return true;
    }

    // The oldest first. Handlers may come and go meanwhile. Needs no memory.
    void CallAll() noexcept {
        for (ULONGLONG done = 0;;) {
            Running running;
            {
                const TQThreadSynch::TQSynchLock guard(m_calls.lock);
                const auto next = std::find_if(m_entries.begin(), m_entries.end(),
                                               [&](const Entry& entry) { return entry.number > done; });
                if (next == m_entries.end()) return;
                done = next->number;
                running.key = next->handler;
                m_calls.Begin(running);
            }
            running.key.first(running.key.second);
            m_calls.End(running);
        }
    }

  private:
    using Handler = std::pair<Function, void*>;
    using Running = typename CallsUnderWay<Handler>::Call;
    struct Entry {
        Handler handler;
        ULONGLONG number = 0;  // of the registration
    };

    CallsUnderWay<Handler> m_calls;
    std::list<Entry> m_entries TQ_GUARDED_BY(m_calls.lock);
    ULONGLONG m_lastNumber TQ_GUARDED_BY(m_calls.lock) = 0;
};

struct Store {
    std::shared_ptr<const TQString> baseName;
    std::map<TQString, TQModule> modules;  // by language name; an empty module where there is none
};

using Stores = std::map<unsigned int, Store>;

Stores MakeStore(unsigned int storeId, const TQString& baseName) {
    Stores stores;
    stores.try_emplace(storeId, Store{std::make_shared<const TQString>(baseName), {}});
    return stores;
}

struct State {
    SharedValue<TQString> appName, appVersion, productName;
    SharedValue<TQString> programName;  // of the program's file, once it has been asked for
    std::array<SharedValue<std::vector<LCID>>, TQStrResDestinationCount> locales;
    Handlers<TQLib::ExitHandler> exitHandlers;
    std::atomic<bool> isExitHooked = false;
    Handlers<TQLib::LowMemoryHandler> lowMemoryHandlers;
    TQThreadSynch storesLock;  // never held over memory or the loader
    Stores stores TQ_GUARDED_BY(storesLock) = MakeStore(TQLib::ResourceStoreID, L"TQRes");
};

// Never destroyed: exit handlers and the destructors of static objects may still ask for it.
State& TheState() {
    static State* const state = new State;
    return *state;
}

// Made while the library is loaded: later there may be no memory for it.
[[maybe_unused]] const State& g_stateMadeEarly = TheState();

std::size_t DestinationIndex(TQStrResDestination destination) {
    const auto index = static_cast<std::size_t>(destination);
    if (index >= TQStrResDestinationCount)
        throw TQException(ERROR_INVALID_PARAMETER, L"TQLib::DestinationLocaleIDs");
    return index;
}

std::vector<LCID> DefaultLocales(TQStrResDestination destination) {
    std::vector<LCID> locales;
    if (destination == TQStrResDestination::User) locales.push_back(GetUserDefaultLCID());
    if (destination != TQStrResDestination::Log) locales.push_back(GetSystemDefaultLCID());
    locales.push_back(EnglishUnitedStates);
    locales.erase(std::unique(locales.begin(), locales.end()), locales.end());
    return locales;
}

// Stores stay registered, so what is found of one may be asked for again.
std::shared_ptr<const TQString> BaseNameOf(unsigned int storeId) {
    State& state = TheState();
    {
        const TQThreadSynch::TQSynchLock guard(state.storesLock);
        const auto found = state.stores.find(storeId);
        if (found != state.stores.end()) return found->second.baseName;
    }
    throw TQException(ERROR_NOT_FOUND, L"The given resource store ID was not found.");
}

// A loaded module of that name, which stays loaded by this; empty where there is none.
TQModule KeepLoaded(const TQString& name) {
    const HMODULE found = FindLoadedModule(name);
    TQModule::Unique kept;
    // It may have been unloaded since.
    if (found)
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<const wchar_t*>(found),
                           kept.Put());
    return kept;
}

}  // namespace

TQString TQLib::GetAppName() {
    constexpr const wchar_t* where = L"TQLib::GetAppName";
    State& state = TheState();
    TQString name = state.appName.Get(where);
    if (name.IsEmpty()) name = state.programName.Get(where);
    if (!name.IsEmpty()) return name;
    try {
        name = ModuleBaseName(nullptr);
        state.programName.Set(name, where);
        return name;
    } catch (const TQCoreException& e) {
        // Whoever reports a failure must not fail for want of a name.
        if (e.ErrCode() == ERROR_OUTOFMEMORY) throw;
        return L"unknown";
    }
}

void TQLib::SetAppName(const TQString& name) {
    TheState().appName.Set(name, L"TQLib::SetAppName");
}

TQString TQLib::AppVersion() {
    return TheState().appVersion.Get(L"TQLib::AppVersion");
}

void TQLib::SetAppVersion(const TQString& version) {
    TheState().appVersion.Set(version, L"TQLib::SetAppVersion");
}

TQString TQLib::ProductName() {
    return TheState().productName.Get(L"TQLib::ProductName");
}

void TQLib::SetProductName(const TQString& name) {
    TheState().productName.Set(name, L"TQLib::SetProductName");
}

const wchar_t* TQLib::Version() noexcept {
    return TQLIB_VERSION;
}

void TQLib::AddExitHandler(ExitHandler handler, void* context) {
    constexpr const wchar_t* where = L"TQLib::AddExitHandler";
    if (!handler) throw TQException(ERROR_INVALID_PARAMETER, where);
    State& state = TheState();
    // Two threads may both hook the end; the second run then finds no handlers.
    if (!state.isExitHooked && !Platform::CallAtExit([] { RunExitHandlers(); }))
        TQStdExceptions::ThrowMemAllocError(where);
    state.isExitHooked = true;
    state.exitHandlers.Add(handler, context, where);
}

void TQLib::RemoveExitHandler(ExitHandler handler, void* context) noexcept {
    TheState().exitHandlers.Remove(handler, context);
}

void TQLib::RunExitHandlers() noexcept {
    const auto run = [](const auto& handler) {
        try {
            handler.first(handler.second);
        } catch (...) {
            TQCoreException::LogUnhandledCurrent(L"TQLib::RunExitHandlers");
        }
    };
    while (TheState().exitHandlers.TakeNewest(run)) {
    }
}

void TQLib::AddLowMemoryHandler(LowMemoryHandler handler, void* context) {
    constexpr const wchar_t* where = L"TQLib::AddLowMemoryHandler";
    if (!handler) throw TQException(ERROR_INVALID_PARAMETER, where);
    TheState().lowMemoryHandlers.Add(handler, context, where);
}

void TQLib::RemoveLowMemoryHandler(LowMemoryHandler handler, void* context) noexcept {
    TheState().lowMemoryHandlers.Remove(handler, context);
}

void TQLib::CallLowMemoryHandlers() noexcept {
    // One mark for all threads: a thread's own would have to be allocated on some platforms. It names the
    // process, because a forked child may inherit it from a thread that it does not have.
    static std::atomic<DWORD> callingProcess = 0;
    const DWORD self = GetCurrentProcessId();
    if (callingProcess.exchange(self) == self) return;
    TheState().lowMemoryHandlers.CallAll();
    callingProcess = 0;
}

void TQLib::RegisterResourceStore(unsigned int storeId, const TQString& baseName) {
    Stores made = Translated(L"TQLib::RegisterResourceStore", [&] { return MakeStore(storeId, baseName); });
    {
        State& state = TheState();
        const TQThreadSynch::TQSynchLock guard(state.storesLock);
        state.stores.merge(made);
    }
    if (!made.empty())
        throw TQException(
            ERROR_ALREADY_EXISTS,
            L"The passed resource store ID is already registered and can not be registered again.");
}

TQString TQLib::ResourceBaseName(unsigned int storeId) {
    return *BaseNameOf(storeId);
}

HMODULE TQLib::GetResourceLanguageModule(unsigned int storeId, const TQString& language) {
    State& state = TheState();
    const auto baseName = BaseNameOf(storeId);
    if (language.IsEmpty()) return nullptr;
    {
        const TQThreadSynch::TQSynchLock guard(state.storesLock);
        const auto& modules = state.stores.find(storeId)->second.modules;
        const auto known = modules.find(language);
        if (known != modules.end()) return known->second.Get();
    }
    const TQString name = TQString::Format(L"%s_%s", baseName->c_str(), language.c_str());
    TQModule module = KeepLoaded(name);
    if (!module.IsValid()) {
        try {
            module = LoadModule(TQString::Format(L"%s.dll", name.c_str()));
        } catch (const TQSysException& e) {
            // That there is no such module is an answer and is kept; any other failure may pass.
            if (e.ErrCode() != ERROR_MOD_NOT_FOUND) throw;
        }
    }
    auto found = Translated(L"TQLib::GetResourceLanguageModule", [&] {
        return std::map<TQString, TQModule>{{language, module}};
    });
    const TQThreadSynch::TQSynchLock guard(state.storesLock);
    auto& modules = state.stores.find(storeId)->second.modules;
    modules.merge(found);  // unless another thread was first
    return modules.find(language)->second.Get();
}

std::vector<LCID> TQLib::DestinationLocaleIDs(TQStrResDestination destination) {
    constexpr const wchar_t* where = L"TQLib::DestinationLocaleIDs";
    std::vector<LCID> locales = TheState().locales[DestinationIndex(destination)].Get(where);
    if (locales.empty()) locales = Translated(where, [&] { return DefaultLocales(destination); });
    return locales;
}

void TQLib::SetDestinationLocaleIDs(TQStrResDestination destination, const std::vector<LCID>& locales) {
    TheState().locales[DestinationIndex(destination)].Set(locales, L"TQLib::SetDestinationLocaleIDs");
}

}  // namespace Quellan::Corvel
