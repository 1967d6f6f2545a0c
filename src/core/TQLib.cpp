#include "core/TQLib.h"

#include "core/TQException.h"
#include "platform/ProcessEnd.h"
#include "platform/Win32.h"
#include "system/TQSysProc.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace Quellan::Corvel {

namespace {

constexpr LCID EnglishUnitedStates = 0x0409;

struct Store {
    TQString baseName;
    std::map<TQString, TQModule> modules;  // by language name; an empty module where there is none
};

// An exit handler while it runs, on the stack of the thread that runs it.
struct RunningHandler {
    std::pair<TQLib::ExitHandler, void*> handler;
    RunningHandler* next;
    std::thread::id thread = std::this_thread::get_id();
};

// All of it is guarded by `lock`, which is never held while a handler runs or a module is loaded.
struct State {
    std::mutex lock;
    TQString appName, appVersion, productName;
    std::vector<std::pair<TQLib::ExitHandler, void*>> exitHandlers;
    RunningHandler* runningHandlers = nullptr;
    std::condition_variable exitHandlerEnded;
    bool isExitHooked = false;
    std::vector<std::pair<TQLib::LowMemoryHandler, void*>> lowMemoryHandlers;
    std::map<unsigned int, Store> stores{{TQLib::ResourceStoreID, {TQString(L"TQRes"), {}}}};
    std::array<std::vector<LCID>, TQStrResDestinationCount> locales;
};

// Never destroyed: exit handlers and the destructors of static objects may still ask for it.
State& TheState() {
    static State* const state = new State;
    return *state;
}

// Made while the library is loaded: later there may be no memory for it.
[[maybe_unused]] const State& g_madeEarly = TheState();

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

Store& FindStore(State& state, unsigned int storeId) {
    const auto found = state.stores.find(storeId);
    if (found == state.stores.end())
        throw TQException(ERROR_NOT_FOUND, L"The given resource store ID was not found.");
    return found->second;
}

}  // namespace

TQString TQLib::AppName() {
    State& state = TheState();
    {
        const std::lock_guard guard(state.lock);
        if (!state.appName.IsEmpty()) return state.appName;
    }
    return TQSysProc::ModuleBaseName(nullptr);
}

void TQLib::SetAppName(const TQString& name) {
    const std::lock_guard guard(TheState().lock);
    TheState().appName = name;
}

TQString TQLib::AppVersion() {
    const std::lock_guard guard(TheState().lock);
    return TheState().appVersion;
}

void TQLib::SetAppVersion(const TQString& version) {
    const std::lock_guard guard(TheState().lock);
    TheState().appVersion = version;
}

TQString TQLib::ProductName() {
    const std::lock_guard guard(TheState().lock);
    return TheState().productName;
}

void TQLib::SetProductName(const TQString& name) {
    const std::lock_guard guard(TheState().lock);
    TheState().productName = name;
}

const wchar_t* TQLib::Version() noexcept {
    return TQLIB_VERSION;
}

void TQLib::AddExitHandler(ExitHandler handler, void* context) {
    if (!handler) throw TQException(ERROR_INVALID_PARAMETER, L"TQLib::AddExitHandler");
    State& state = TheState();
    const std::lock_guard guard(state.lock);
    if (!state.isExitHooked && !Platform::CallAtExit([] { RunExitHandlers(); }))
        TQStdExceptions::ThrowMemAllocError(L"TQLib::AddExitHandler");
    state.isExitHooked = true;
    state.exitHandlers.emplace_back(handler, context);
}

void TQLib::RemoveExitHandler(ExitHandler handler, void* context) noexcept {
    State& state = TheState();
    const std::pair removed(handler, context);
    std::unique_lock guard(state.lock);
    const auto found = std::find(state.exitHandlers.begin(), state.exitHandlers.end(), removed);
    if (found != state.exitHandlers.end()) state.exitHandlers.erase(found);
    state.exitHandlerEnded.wait(guard, [&] {
        for (const RunningHandler* running = state.runningHandlers; running; running = running->next)
            if (running->handler == removed && running->thread != std::this_thread::get_id()) return false;
        return true;
    });
}

void TQLib::RunExitHandlers() noexcept {
    State& state = TheState();
    for (;;) {
        RunningHandler running;
        {
            const std::lock_guard guard(state.lock);
            if (state.exitHandlers.empty()) return;
            running.handler = state.exitHandlers.back();
            running.next = std::exchange(state.runningHandlers, &running);
            state.exitHandlers.pop_back();
        }
        try {
            running.handler.first(running.handler.second);
        } catch (...) {
            TQCoreException::LogUnhandledCurrent(L"TQLib::RunExitHandlers");
        }
        {
            const std::lock_guard guard(state.lock);
            RunningHandler** link = &state.runningHandlers;
            while (*link != &running)
                link = &(*link)->next;
            *link = running.next;
        }
        state.exitHandlerEnded.notify_all();
    }
}

void TQLib::AddLowMemoryHandler(LowMemoryHandler handler, void* context) {
    if (!handler) throw TQException(ERROR_INVALID_PARAMETER, L"TQLib::AddLowMemoryHandler");
    const std::lock_guard guard(TheState().lock);
    TheState().lowMemoryHandlers.emplace_back(handler, context);
}

void TQLib::RemoveLowMemoryHandler(LowMemoryHandler handler, void* context) noexcept {
    State& state = TheState();
    const std::lock_guard guard(state.lock);
    const auto found = std::find(state.lowMemoryHandlers.begin(), state.lowMemoryHandlers.end(),
                                 std::pair(handler, context));
    if (found != state.lowMemoryHandlers.end()) state.lowMemoryHandlers.erase(found);
}

void TQLib::CallLowMemoryHandlers() noexcept {
    // One flag for all threads: a thread's own would have to be allocated on some platforms.
    static std::atomic<bool> isCalling = false;
    if (isCalling.exchange(true)) return;
    State& state = TheState();
    // By index and without a copy of the list: there may be no memory for one.
    for (std::size_t i = 0;; ++i) {
        std::pair<LowMemoryHandler, void*> next;
        {
            const std::lock_guard guard(state.lock);
            if (i >= state.lowMemoryHandlers.size()) break;
            next = state.lowMemoryHandlers[i];
        }
        next.first(next.second);
    }
    isCalling = false;
}

void TQLib::RegisterResourceStore(unsigned int storeId, const TQString& baseName) {
    State& state = TheState();
    const std::lock_guard guard(state.lock);
    if (!state.stores.try_emplace(storeId, Store{baseName, {}}).second)
        throw TQException(
            ERROR_ALREADY_EXISTS,
            L"The passed resource store ID is already registered and can not be registered again.");
}

TQString TQLib::ResourceBaseName(unsigned int storeId) {
    State& state = TheState();
    const std::lock_guard guard(state.lock);
    return FindStore(state, storeId).baseName;
}

HMODULE TQLib::GetResourceLanguageModule(unsigned int storeId, const TQString& language) {
    State& state = TheState();
    TQString name;
    {
        const std::lock_guard guard(state.lock);
        const Store& store = FindStore(state, storeId);
        if (language.IsEmpty()) return nullptr;
        const auto known = store.modules.find(language);
        if (known != store.modules.end()) return known->second.Get();
        name = TQString::Format(L"%s_%s", store.baseName.c_str(), language.c_str());
    }
    HMODULE module = TQSysProc::FindLoadedModule(name);
    TQModule loaded;
    if (!module) {
        try {
            loaded = TQSysProc::LoadModule(TQString::Format(L"%s.dll", name.c_str()));
        } catch (const TQCoreException&) {
            // No module for this language is an answer, not a failure: the next language is asked.
        }
        module = loaded.Get();
    }
    // A module that somebody else has loaded may be unloaded by him, so it is looked for anew each time.
    if (loaded.IsValid() || !module) {
        const std::lock_guard guard(state.lock);
        module =
            FindStore(state, storeId).modules.try_emplace(language, std::move(loaded)).first->second.Get();
    }
    return module;
}

std::vector<LCID> TQLib::DestinationLocaleIDs(TQStrResDestination destination) {
    const std::size_t index = DestinationIndex(destination);
    {
        const std::lock_guard guard(TheState().lock);
        if (!TheState().locales[index].empty()) return TheState().locales[index];
    }
    return DefaultLocales(destination);
}

void TQLib::SetDestinationLocaleIDs(TQStrResDestination destination, std::vector<LCID> locales) {
    const std::size_t index = DestinationIndex(destination);
    const std::lock_guard guard(TheState().lock);
    TheState().locales[index] = std::move(locales);
}

}  // namespace Quellan::Corvel
