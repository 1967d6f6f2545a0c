// Operations under the sweeps: in each run one allocation or one platform call fails, until each has failed
// once.
#pragma once

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Types.h"

#include <concepts>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quellan::Corvel::Test {

// What a call promises of its object when it throws. Whatever it promises, the object can be destroyed, the
// failure is of the library's family and nothing is left behind: no memory, descriptor, handle or thread.
enum class Promise {
    Works,      // the same call works once nothing fails any more
    Unchanged,  // that, and until then the object is equal to what it was
    Ended,      // only that it can be destroyed
};

// One run: the call, with something failing in it, then a look at what is left, with nothing failing.
// `thrown` is the code that the call threw, 0 where it put up with the failure.
struct SweptRun {
    std::function<void()> call;
    std::function<void(DWORD thrown)> check;
};

// A row of the sweeps. `prepare` makes a new object; nothing fails in it. `tolerated` names the platform
// calls, divided by blanks, whose failure the operation puts up with; "new" stands for allocations.
struct SweptOperation {
    std::string name;
    std::function<SweptRun()> prepare;
    std::string_view tolerated = "";
};
void PrintTo(const SweptOperation& operation, std::ostream* out);

// What a row promises, and tolerates.
struct Terms {
    Terms(Promise p, std::string_view t = "") : promise(p), tolerated(t) {}
    Terms(std::string_view t) : tolerated(t) {}
    Terms(const char* t) : tolerated(t) {}

    Promise promise = Promise::Works;
    std::string_view tolerated = "";
};

template <class Object>
SweptOperation SweptOn(std::string name, Object (*make)(), Terms terms, void (*call)(Object&)) {
    return {std::move(name),
            [make, call, promise = terms.promise] {
                // Made in place: an object need not be movable.
                const std::shared_ptr<Object> object(new Object(make()));
                std::function<bool()> isUnchanged = [] { return true; };
                if constexpr (std::copy_constructible<Object> && std::equality_comparable<Object>)
                    if (promise == Promise::Unchanged)
                        isUnchanged = [object, before = Object(*object)] { return *object == before; };
                return SweptRun{[object, call] { call(*object); },
                                [object, call, promise, isUnchanged](DWORD thrown) {
                                    EXPECT_TRUE(!thrown || isUnchanged());
                                    if (thrown && promise != Promise::Ended) call(*object);
                                }};
            },
            terms.tolerated};
}
// The functions capture nothing, so that the compiler makes the above once for a class and not once for a row.
template <class Make, class Call>
SweptOperation Swept(std::string name, Make make, Terms terms, Call) {
    using Object = std::invoke_result_t<Make>;
    return SweptOn<Object>(std::move(name), make, terms, [](Object& object) { Call{}(object); });
}
template <class Make, class Call>
SweptOperation Swept(std::string name, Make make, Call call) {
    return Swept(std::move(name), make, Promise::Works, call);
}

// What a row tolerates whose call throws in any case: where the memory of what is thrown is counted, the
// runtime library has some in reserve.
constexpr std::string_view ForThrowing = "new";

// Does `call`; that it fails with `code`, which it does in any case, is put up with.
template <class Call>
void PutUpWith(DWORD code, Call call) {
    try {
        call();
    } catch (const TQCoreException& failure) {
        if (static_cast<DWORD>(failure.COMErrCode()) != code) throw;
    }
}

// Makes each allocation that the row's call comes to fail in turn: code 14 or the whole result. Of many,
// which come from loops, some are passed over.
void SweepAllocationsOf(const SweptOperation& operation);

// Makes each platform call fail in turn, with each code of the table below: that code or, where the row says
// so, the whole result. Of many calls of one name some are passed over.
void SweepCallsOf(const SweptOperation& operation);

// A platform call that can fail: what it returns then (for Windows, where the test takes its place) and with
// which codes of those that the platform documents it is made to fail.
struct PlatformCall {
    std::string name;
    std::uintptr_t failure;
    std::vector<DWORD> codes;
};
const std::vector<PlatformCall>& FailingCalls();

// The names of those that `SweepCallsOf` has made fail in this process.
const std::vector<std::string>& SweptCalls();

}  // namespace Quellan::Corvel::Test
