#include "support/Sweep.h"

#include "TQLib/platform/SystemCodes.h"
#include "TQLib/platform/Win32.h"
#include "support/DataLines.h"
#include "support/FailCall.h"
#include "support/Resources.h"

#include <algorithm>
#include <optional>
#include <sstream>

namespace Quellan::Corvel::Test {

namespace {

std::vector<std::string> g_swept;

bool Tolerates(const SweptOperation& operation, std::string_view call) {
    const std::string_view all = operation.tolerated;
    for (std::size_t at = 0; at < all.size();) {
        const std::size_t end = std::min(all.find(' ', at), all.size());
        if (all.substr(at, end - at) == call) return true;
        at = end + 1;
    }
    return false;
}

// Memory that is missing in a platform call is told with the platform's own code.
bool IsMemory(DWORD code) {
    return code == ERROR_OUTOFMEMORY || code == ERROR_NOT_ENOUGH_MEMORY;
}

// Runs the operation once with the fault of `makeFault`; false when the planned call did not come.
template <class MakeFault>
bool RunOnce(const SweptOperation& operation, std::string_view call, DWORD code, MakeFault makeFault) {
    const Resources before = Resources::Now();
    bool fired = false;
    {
        const SweptRun run = operation.prepare();
        DWORD thrown = 0;
        {
            auto fault = makeFault();
            fault.MayNotCome();
            try {
                thrown = ThrownCode(run.call);
            } catch (const std::exception& stranger) {
                ADD_FAILURE() << "not of the family: " << stranger.what();
                return false;
            }
            fired = fault.Fired();
        }
        if (!fired)
            EXPECT_EQ(thrown, 0u) << "thrown with nothing failing";
        else if (thrown == 0)
            EXPECT_TRUE(Tolerates(operation, call)) << "the failure was put up with";
        else
            EXPECT_TRUE(thrown == code || (IsMemory(code) && IsMemory(thrown))) << "thrown " << thrown;
        run.check(thrown);
    }
    // What a failed expectation says is kept in memory, too.
    if (!testing::Test::HasFailure()) Resources::ComeBackTo(before);
    return fired && !testing::Test::HasFailure();
}

// What the library makes once, and keeps, has been made after this.
void Warm(const SweptOperation& operation) {
    for (int run = 0; run < 2; ++run) {
        const SweptRun once = operation.prepare();
        once.call();
        once.check(0);
    }
}

// The next call to fail: of the first `all` each, then ever fewer, since many calls are those of a loop.
unsigned After(unsigned nth, unsigned all) {
    return nth < all ? nth + 1 : 2 * nth;
}

unsigned CountAllocations(const SweptOperation& operation) {
    const SweptRun run = operation.prepare();
    const FailAllocation counter(0);
    run.call();
    return counter.Calls();
}

// The number of calls that the operation makes of each function in `FailingCalls`.
std::vector<unsigned> CountCalls(const SweptOperation& operation) {
    const std::vector<PlatformCall>& calls = FailingCalls();
    const SweptRun run = operation.prepare();
    std::vector<std::optional<FailCall>> counters(calls.size());
    for (std::size_t i = 0; i < calls.size(); ++i)
        if (FailCall::CanWatch(calls[i].name.c_str()))
            counters[i].emplace(calls[i].name.c_str(), DWORD{0}, 0u);
    run.call();
    std::vector<unsigned> counts(calls.size());
    // They end in the reverse order.
    for (std::size_t i = calls.size(); i-- > 0;) {
        if (!counters[i]) continue;
        counts[i] = counters[i]->Calls();
        counters[i].reset();
    }
    run.check(0);
    return counts;
}

}  // namespace

void PrintTo(const SweptOperation& operation, std::ostream* out) {
    *out << operation.name;
}

void SweepAllocationsOf(const SweptOperation& operation) {
    Warm(operation);
    if (CountAllocations(operation) == 0) return;
    for (unsigned nth = 1;; nth = After(nth, 64)) {
        SCOPED_TRACE("with allocation " + std::to_string(nth) + " failing");
        if (!RunOnce(operation, "new", ERROR_OUTOFMEMORY, [nth] { return FailAllocation(nth); })) break;
    }
}

void SweepCallsOf(const SweptOperation& operation) {
    Warm(operation);
    const std::vector<unsigned> counts = CountCalls(operation);
    for (std::size_t i = 0; i < counts.size(); ++i) {
        const PlatformCall& call = FailingCalls()[i];
        if (counts[i] > 0) g_swept.push_back(call.name);
        for (const DWORD code : call.codes)
            for (unsigned nth = 1; nth <= counts[i]; nth = After(nth, 8)) {
                SCOPED_TRACE(call.name + " number " + std::to_string(nth) + " failing with " +
                             std::to_string(code));
                RunOnce(operation, call.name, code,
                        [&] { return FailCall(call.name.c_str(), code, nth, call.failure); });
                if (testing::Test::HasFailure()) return;
            }
    }
}

const std::vector<PlatformCall>& FailingCalls() {
    static const std::vector<PlatformCall> calls = [] {
        std::vector<PlatformCall> read;
        for (const std::string& line : DataLines("FailingCalls.txt")) {
            std::istringstream cells(line);
            std::string failure, code;
            PlatformCall& call = read.emplace_back();
            for (cells >> call.name >> failure; cells >> code;) {
                const auto* const known = Platform::FindSystemCode(std::wstring(code.begin(), code.end()));
                EXPECT_TRUE(known) << line;
                call.codes.push_back(known ? known->code : 0);
            }
            call.failure = failure == "code" ? call.codes.at(0) : std::stoull(failure, nullptr, 0);
        }
        return read;
    }();
    return calls;
}

const std::vector<std::string>& SweptCalls() {
    return g_swept;
}

}  // namespace Quellan::Corvel::Test
