#include <Poco/Error.h>
#include <Poco/Exception.h>
#include <boost/system/system_error.hpp>
#include <cerrno>
#include <exception>
#include <memory>
#include <system_error>

#include "core/Cases.h"
#include "core/TQException.h"

namespace Quellan::Corvel::Bench {

namespace {

constexpr unsigned int AccessDenied = 5;
constexpr auto Log = TQStrResDestination::Log;

[[noreturn, gnu::noinline]] void ThrowLibrary() { throw TQSysException(AccessDenied, L"short message"); }
[[noreturn, gnu::noinline]] void ThrowStd() { throw std::system_error(EACCES, std::system_category(), "short message"); }
[[noreturn, gnu::noinline]] void ThrowBoost() {
    throw boost::system::system_error(EACCES, boost::system::system_category(), "short message");
}
[[noreturn, gnu::noinline]] void ThrowPoco() { throw Poco::FileAccessDeniedException("short message", EACCES); }

// Each text holds the message and the system's text for the code.
void AddRendering(Contest& contest) {
    const char* const work = "throw, catch and render";
    contest.Add(work, "TQSysException", [] {
        try {
            ThrowLibrary();
        } catch (const TQSysException& e) {
            Keep(e.FullMsg(Log));
        }
    });
    contest.Add(work, "std::system_error", [] {
        try {
            ThrowStd();
        } catch (const std::system_error& e) {
            Keep(e.what());
        }
    });
    contest.Add(work, "boost::system_error", [] {
        try {
            ThrowBoost();
        } catch (const boost::system::system_error& e) {
            Keep(e.what());
        }
    });
    contest.Add(work, "Poco::Exception", [] {
        try {
            ThrowPoco();
        } catch (const Poco::Exception& e) {
            Keep((e.displayText() + ": " + Poco::Error::getMessage(e.code())).c_str());
        }
    });
}

void AddThrowing(Contest& contest) {
    const char* const work = "throw and catch";
    contest.Add(work, "TQSysException", [] {
        try {
            ThrowLibrary();
        } catch (const TQSysException& e) {
            Keep(e.ErrCode());
        }
    });
    contest.Add(work, "std::system_error", [] {
        try {
            ThrowStd();
        } catch (const std::system_error& e) {
            Keep(e.code().value());
        }
    });
    contest.Add(work, "boost::system_error", [] {
        try {
            ThrowBoost();
        } catch (const boost::system::system_error& e) {
            Keep(e.code().value());
        }
    });
    contest.Add(work, "Poco::Exception", [] {
        try {
            ThrowPoco();
        } catch (const Poco::Exception& e) {
            Keep(e.code());
        }
    });
}

void AddReading(Contest& contest) {
    const char* const work = "read a rendered message";
    contest.Add(work, "TQSysException",
                [e = TQSysException(AccessDenied, L"short message")] { Keep(e.FullMsg(Log)); });
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
    const TQSysException first(AccessDenied, L"short message");
    const TQException second(first, AccessDenied, L"short message");
    const TQException third(second, AccessDenied, L"short message");
    contest.Add(work, "TQException", [e = TQException(third, AccessDenied, L"short message")] {
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
    const auto around = [](const auto& throwInner) {
        try {
            throwInner();
        } catch (...) {
            throw Nesting(EACCES, std::system_category(), "short message");
        }
    };
    try {
        around([&] { around([&] { around(ThrowStd); }); });
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
