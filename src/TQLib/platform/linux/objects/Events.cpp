#include "TQLib/platform/linux/objects/Events.h"

#include "TQLib/platform/linux/objects/ObjectCalls.h"

namespace Quellan::Platform {

namespace {

class Event : public Waitable {
  public:
    static constexpr ObjectKind Kind{.name = "event",
                                     .closedByCloseHandle = true,
                                     .waitable = true,
                                     .rights = {.read = READ_CONTROL | 0x1,
                                                .write = READ_CONTROL | EVENT_MODIFY_STATE,
                                                .execute = READ_CONTROL | SYNCHRONIZE,
                                                .all = EVENT_ALL_ACCESS}};
    static constexpr SharedKind NamedAs = SharedKind::Event;

    Event(bool manualReset, bool signalled) : Waitable(Kind, RuleOf(manualReset), signalled) {}
    explicit Event(std::unique_ptr<SharedObject> shared)
        : Waitable(Kind, RuleOf(shared->StaysSignalled()), std::move(shared)) {}

    SignalWay WayFor(DWORD access) const noexcept override {
        SignalWay way = Waitable::WayFor(access);
        if (access & EVENT_MODIFY_STATE) way.tagAndUses |= SignalWay::Set;
        return way;
    }

  private:
    static const WaitRule& RuleOf(bool manualReset) noexcept {
        return manualReset ? StaysSignalled : TakesOne;
    }
};

// Apart from the one way that most events are set, which so saves no registers.
TQ_NOINLINE BOOL SetObject(HANDLE event) noexcept {
    return ChangeObject<Event>(event, EVENT_MODIFY_STATE, [](Event& object) { return object.Signal(); });
}

}  // namespace

HANDLE CreateEventW(const SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
                    const wchar_t* name) noexcept {
    if (DWORD code = FaultDue("CreateEventW")) return Fail(code, HANDLE());
    const SharedSetup setup{
        .kind = SharedKind::Event, .manualReset = manualReset != FALSE, .value = initialState ? 1u : 0u};
    return CreateObject<Event>(attributes, name, setup, EVENT_ALL_ACCESS, [&](DWORD access, HANDLE& handle) {
        return NewHandle<Event>(handle, access, setup.manualReset, initialState != FALSE);
    });
}

HANDLE OpenEventW(DWORD access, BOOL inherit, const wchar_t* name) noexcept {
    if (DWORD code = FaultDue("OpenEventW")) return Fail(code, HANDLE());
    return OpenObject<Event>(access, inherit, name);
}

BOOL SetEvent(HANDLE event) noexcept {
    if (DWORD code = FaultDue("SetEvent")) return Fail(code, FALSE);
    return SetOnWay(event) == Step::Done ? TRUE : SetObject(event);
}

BOOL ResetEvent(HANDLE event) noexcept {
    if (DWORD code = FaultDue("ResetEvent")) return Fail(code, FALSE);
    return ChangeObject<Event>(event, EVENT_MODIFY_STATE, [](Event& object) { return object.Reset(); });
}

}  // namespace Quellan::Platform
