#include "TQLib/core/TQException.h"
#include "core/Cases.h"

#include <Poco/Error.h>
#include <Poco/Exception.h>
#include <boost/system/system_error.hpp>
#include <cerrno>
#include <exception>
#include <memory>
#include <system_error>

namespace Quellan::Corvel::Bench {

namespace {

constexpr auto Log = TQStrResDestination::Log;

// The same failure by the numbers of the two worlds. They are read at run time: a throw behind a condition,
// in a function that mostly returns, is what compilers see in programs.
volatile unsigned int g_accessDenied = 5;
volatile int g_eacces = EACCES;

[[gnu::noinline]] void CheckLibrary() {
    if (const unsigned int code = g_accessDenied) throw TQSysException(code, L"short message");
}

[[gnu::noinline]] void CheckStd() {
    if (const int code = g_eacces) throw std::system_error(code, std::system_category(), "short message");
}

[[gnu::noinline]] void CheckBoost() {
    if (const int code = g_eacces)
        throw boost::system::system_error(code, boost::system::system_category(), "short message");
}

[[gnu::noinline]] void CheckPoco() {
    if (const int code = g_eacces) throw Poco::FileAccessDeniedException("short message", code);
}

// Each text holds the message and the system's text for the code.
void AddRendering(Contest& contest) {
    const char* const work = "throw, catch and render";
    contest.Add(work, "TQSysException", [] {
        try {
            CheckLibrary();
        } catch (const TQSysException& e) {
            Keep(e.FullMsg(Log));
        }
    });
    contest.Add(work, "std::system_error", [] {
        try {
            CheckStd();
        } catch (const std::system_error& e) {
            Keep(e.what());
        }
    });
    contest.Add(work, "boost::system_error", [] {
        try {
            CheckBoost();
        } catch (const boost::system::system_error& e) {
            Keep(e.what());
        }
    });
    contest.Add(work, "Poco::Exception", [] {
        try {
            CheckPoco();
        } catch (const Poco::Exception& e) {
            Keep((e.displayText() + ": " + Poco::Error::getMessage(e.code())).c_str());
        }
    });
}

void AddThrowing(Contest& contest) {
    const char* const work = "throw and catch";
    contest.Add(work, "TQSysException", [] {
        try {
            CheckLibrary();
        } catch (const TQSysException& e) {
            Keep(e.ErrCode());
        }
    });
    contest.Add(work, "std::system_error", [] {
        try {
            CheckStd();
        } catch (const std::system_error& e) {
            Keep(e.code().value());
        }
    });
    contest.Add(work, "boost::system_error", [] {
        try {
            CheckBoost();
        } catch (const boost::system::system_error& e) {
            Keep(e.code().value());
        }
    });
    contest.Add(work, "Poco::Exception", [] {
        try {
            CheckPoco();
        } catch (const Poco::Exception& e) {
            Keep(e.code());
        }
    });
}

void AddReading(Contest& contest) {
    const char* const work = "read a rendered message";
    contest.Add(work, "TQSysException",
                [e = TQSysException(g_accessDenied, L"short message")] { Keep(e.FullMsg(Log)); });
    contest.Add(work, "std::system_error",
                [e = std::system_error(EACCES, std::system_category(), "short message")] { Keep(e.what()); });
    contest.Add(work, "boost::system_error",
                [e = boost::system::system_error(EACCES, boost::system::system_category(), "short message")] {
                    Keep(e.what());
                });
}

// One exception around three others. The standard library's copies share what they are around.
void AddCopying(Contest& contest) {
    const char* const work = "copy with three inner exceptions";
    const TQSysException first(g_accessDenied, L"short message");
    const TQException second(first, g_accessDenied, L"short message");
    const TQException third(second, g_accessDenied, L"short message");
    contest.Add(work, "TQException", [e = TQException(third, g_accessDenied, L"short message")] {
        Keep(std::unique_ptr<TQCoreException>(e.AllocCopy()).get());
    });

    const Poco::FileAccessDeniedException pocoFirst("short message", EACCES);
    const Poco::RuntimeException pocoSecond("short message", pocoFirst, EACCES);
    const Poco::RuntimeException pocoThird("short message", pocoSecond, EACCES);
    contest.Add(work, "Poco::Exception", [e = Poco::RuntimeException("short message", pocoThird, EACCES)] {
        Keep(std::unique_ptr<Poco::Exception>(e.clone()).get());
    });

    struct Nesting : std::system_error, std::nested_exception {
        using std::system_error::system_error;
    };
    const auto around = [](const auto& check) {
        try {
            check();
        } catch (...) {
            throw Nesting(EACCES, std::system_category(), "short message");
        }
    };
    try {
        around([&] { around([&] { around(CheckStd); }); });
    } catch (const Nesting& e) {
        contest.Add(work, "std::nested (shared)", [e] { Keep(std::make_unique<Nesting>(e).get()); });
    }
}

}  // namespace

void AddExceptions(Contest& contest) {
    AddRendering(contest);
    AddThrowing(contest);
    AddReading(contest);
    AddCopying(contest);
}

}  // namespace Quellan::Corvel::Bench
