#include "TQLib/core/TQException.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/system/TQSysProc.h"
#include "TQLib/text/memory/TQStdExceptions.h"
#include "support/FailCall.h"

#include <array>
#include <future>
#include <gmock/gmock.h>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

using Level = _TQExceptionRoot::Level;
using Source = _TQExceptionRoot::Source;

// Runs `action` and returns the exception of exactly the type E that it throws.
template <class E, class Action>
E Caught(Action action) {
    try {
        action();
    } catch (const E& e) {
        EXPECT_EQ(typeid(e), typeid(E));
        return e;
    }
    ADD_FAILURE() << "nothing was thrown";
    return E(0u);
}

std::wstring Message(const _TQWin32Exception& e) {
    return e.ExcMsg(TQStrResDestination::Log).Std();
}

TEST(ExceptionCode, GivesTheLevel) {
    for (const auto& [code, level] : {std::pair(0u, Level::Error),
                                      {0xFFFFFF, Level::Error},
                                      {0x1000000, Level::Succeeded},
                                      {0x40000005, Level::Information},
                                      {0x80070005, Level::Warning},
                                      {0xC0000005, Level::Error}})
        EXPECT_EQ(_TQExceptionRoot::CodeLevel(code), level) << code;
}

TEST(ExceptionCode, NamesWhatHasNoNameToo) {
    EXPECT_STREQ(_TQExceptionRoot::LevelName(static_cast<Level>(5)), L"Unknown");
    EXPECT_STREQ(_TQExceptionRoot::SourceName(Source::Facility), L"Facility");
    EXPECT_STREQ(_TQExceptionRoot::SourceName(static_cast<Source>(5)), L"Unknown");
    EXPECT_STREQ(_TQExceptionRoot::FacilityName(32), L"Background Copy");
    EXPECT_STREQ(_TQExceptionRoot::FacilityName(99), L"Unknown");
}

TEST(ExceptionConstruction, TakesWhatIsGivenInPlaceOfWhatTheCodeSays) {
    const TQMsgRes store(77);
    const TQException text(5u, L"text", Level::Succeeded, Source::OS, 12), derived(0x80040007u, L"text"),
        resource(5u, 10u, store, Level::Succeeded, Source::OS, 12);
    for (const TQException* e : {&text, &resource}) {
        EXPECT_STREQ(e->ExcLevelName(), L"Success");
        EXPECT_STREQ(e->ExcSourceName(), L"OS");
        EXPECT_EQ(e->ExcSubSys(), 12);
        EXPECT_EQ(e->HasResMsg(), e == &resource);
    }
    for (const TQException& e :
         {TQException(5u, L"text", Source::OS), TQException(derived, 5u, 10u, store, Source::OS)}) {
        EXPECT_EQ(e.ExcLevel(), Level::Error);
        EXPECT_EQ(e.ExcSource(), Source::OS);
        EXPECT_EQ(e.ExcSubSys(), 0);
    }
    EXPECT_EQ(derived.ExcSource(), Source::App);
    EXPECT_EQ(derived.COMErrCode(), static_cast<LONG>(0x80040007));
    EXPECT_NE(resource, TQException(5u, 11u, store, Level::Succeeded, Source::OS, 12));
    EXPECT_EQ(Message(TQException(5u, static_cast<const wchar_t*>(nullptr))), L"");
}

TEST(ExceptionConstruction, OwnsACopyOfTheInnerOne) {
    const TQMsgRes store(77);
    TQSysException cause(1u, L"cause");
    const TQSysException around[] = {{cause, 2u},
                                     {cause, L"text"},
                                     {cause, 2u, L"text", Level::Warning, Source::App, 3},
                                     {cause, 2u, 10u, store, Level::Warning, Source::App, 3}};
    cause.SetAction(L"changed afterwards");
    for (const TQSysException& e : around) {
        ASSERT_NE(e.Inner(), nullptr);
        EXPECT_EQ(Message(*e.Inner()), L"cause");
        EXPECT_STREQ(e.Inner()->Action(), L"");
        EXPECT_TRUE(e.Inner()->Copied());
    }
}

TEST(ExceptionConstruction, KeepsTheKindOfTheInnerOne) {
    const TQSysException cause(1u, L"cause");
    const TQAppException outer(static_cast<const TQCoreException&>(cause), 2u, L"outer");
    EXPECT_EQ(outer.Inner(), nullptr) << "it is not of the outer one's kind";
    ASSERT_NE(outer.TQCoreException::Inner(), nullptr);
    EXPECT_EQ(typeid(*outer.TQCoreException::Inner()), typeid(TQSysException));
    EXPECT_TRUE(outer.TQCoreException::Inner()->IsSysException());
    EXPECT_FALSE(outer.IsSysException());
}

TEST(ExceptionCopy, IsEqualMarkedAndIndependent) {
    const std::wstring longText(300, L'x');
    for (const wchar_t* text : {L"short", longText.c_str()}) {
        TQException original(TQException(1u, L"cause"), 5u, text);
        original.SetAction(L"Open");
        original.AddErrFile(L"file");
        original.SetLogged();
        const TQException copy(original);
        EXPECT_EQ(copy, original);
        EXPECT_TRUE(copy.Copied());
        EXPECT_FALSE(original.Copied());
        EXPECT_TRUE(copy.HasLogged());
        EXPECT_EQ(copy.ErrFileList(), original.ErrFileList());

        TQException assigned(7u, longText.c_str());
        assigned = original;
        EXPECT_EQ(assigned, original);
        original.SetAction(L"Close");
        EXPECT_NE(copy, original);
        EXPECT_STREQ(assigned.Action(), L"Open");
        assigned = *&assigned;
        EXPECT_EQ(Message(assigned), text);
    }
}

TEST(ExceptionCopy, DiffersInEveryPartThatIsCompared) {
    const TQException e(5u, L"text", Level::Error, Source::App, 3);
    EXPECT_NE(e, TQException(6u, L"text", Level::Error, Source::App, 3));
    EXPECT_NE(e, TQException(5u, L"other", Level::Error, Source::App, 3));
    EXPECT_NE(e, TQException(5u, L"text", Level::Warning, Source::App, 3));
    EXPECT_NE(e, TQException(5u, L"text", Level::Error, Source::OS, 3));
    EXPECT_NE(e, TQException(5u, L"text", Level::Error, Source::App, 4));
    EXPECT_NE(e, TQException(e, 5u, L"text", Level::Error, Source::App, 3));
    EXPECT_NE(TQException(TQException(1u), 5u), TQException(TQException(2u), 5u));
}

// A program's own kind, which tells when it is read after its end.
class OrderRefused : public _TQExceptionKind<OrderRefused, TQAppException> {
  public:
    using _TQExceptionKind::_TQExceptionKind;
    OrderRefused(const OrderRefused&) = default;
    OrderRefused& operator=(const OrderRefused&) = default;
    ~OrderRefused() override {
        number = 0;
        SetDontLog(false);
    }

    volatile int number = 7;
};

TEST(ExceptionCopy, ByAProgramsOwnKindKeepsWhatItAdds) {
    OrderRefused cause(1u, L"cause");
    cause.number = 9;
    const TQException outer(cause, 2u, L"outer");
    const auto* const inner = dynamic_cast<const OrderRefused*>(outer.TQCoreException::Inner());
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(inner->number, 9);
}

TEST(ExceptionCopy, MayAssignAnInnerExceptionToItsOuterOne) {
    OrderRefused innermost(1u, L"innermost");
    innermost.number = 9;
    innermost.SetDontLog();
    for (const bool isDeep : {false, true}) {
        OrderRefused e(isDeep ? OrderRefused(innermost, 2u, L"inner") : innermost, 3u, L"outer");
        e = isDeep ? *e.Inner()->Inner() : *e.Inner();
        EXPECT_EQ(e, innermost);
        EXPECT_EQ(e.number, 9);
        EXPECT_TRUE(e.DontLog());
        EXPECT_EQ(e.Inner(), nullptr);
    }
}

TEST(ExceptionCopy, NeedsNoMemory) {
    const auto check = []<class... E>(std::type_identity<E>...) {
        static_assert((std::is_nothrow_copy_constructible_v<E> && ...));
        static_assert((std::is_nothrow_copy_assignable_v<E> && ...));
    };
    check(std::type_identity<_TQWin32Exception>(), std::type_identity<TQCoreException>(),
          std::type_identity<TQException>(), std::type_identity<TQSysException>(),
          std::type_identity<TQAppException>(), std::type_identity<TQCriticalException>());
    TQException original(TQException(1u, L"cause"), 5u, std::wstring(300, L'x').c_str());
    original.SetAction(L"Open");
    original.AddErrFile(L"file");
    const std::string said = original.what();
    FailAllocation fail(1);
    fail.MayNotCome();
    const TQException copy(original);
    EXPECT_EQ(copy, original);
    EXPECT_EQ(copy.what(), said);
    EXPECT_FALSE(fail.Fired());
}

TEST(ExceptionCopy, IsRenderedByManyThreadsAtOnce) {
    const TQException e(5u, L"Message");
    std::array<const wchar_t*, 8> lines{};
    {
        std::vector<std::jthread> threads;
        for (const wchar_t*& line : lines)
            threads.emplace_back([&] { line = e.FullMsg(TQStrResDestination::Log); });
    }
    EXPECT_THAT(lines, testing::Each(e.FullMsg(TQStrResDestination::Log))) << "the first line stays";
}

TEST(StandardException, SaysTheUsersMessageInUtf8) {
    const TQException named(5u, L"Gr\u00F6\u00DFe \u20AC");
    try {
        throw named;
    } catch (const std::exception& e) {
        EXPECT_EQ(std::string_view(e.what()),
                  TQString(named.FullMsg(TQStrResDestination::User)).ToUtf8().View());
        EXPECT_THAT(e.what(), testing::StartsWith("Gr\xC3\xB6\xC3\x9F"
                                                  "e \xE2\x82\xAC ("));
    }
    EXPECT_STRNE(TQException(0u).what(), "") << "without a code and a message";
    for (unsigned n = 1; n <= 2; ++n) {
        const TQException unrendered(5u, std::wstring(100, L'm').c_str());
        {
            FailAllocation fail(n);
            EXPECT_STRNE(unrendered.what(), "");
        }
        EXPECT_THAT(unrendered.what(), testing::StartsWith("mmm")) << "once there is memory again";
    }
}

TEST(StandardException, TakesAndGivesTheStandardLibrarysCodes) {
    const struct {
        std::error_code given;
        unsigned code;
    } in[] = {
        {{}, 0},
        {std::make_error_code(std::errc::no_such_file_or_directory), ERROR_FILE_NOT_FOUND},
        {std::make_error_code(std::errc::permission_denied), ERROR_ACCESS_DENIED},
        {std::make_error_code(std::errc::text_file_busy), 0x80004005},
        {std::make_error_code(std::future_errc::no_state), 0x80004005},
        {TQException(0xC0000005u).ErrorCode(), 0xC0000005},
#if defined(_WIN32)
        {{ERROR_MOD_NOT_FOUND, std::system_category()}, ERROR_MOD_NOT_FOUND},
#else
        {{ENOSPC, std::system_category()}, ERROR_DISK_FULL},
#endif
    };
    for (const auto& each : in) {
        const TQSysException e(each.given, L"where");
        EXPECT_EQ(e.ErrCode(), each.code) << each.given;
        EXPECT_EQ(Message(e), L"where");
    }
    const std::error_code out = TQSysException(ERROR_ALREADY_EXISTS).ErrorCode();
    EXPECT_EQ(out, std::errc::file_exists);
    EXPECT_NE(out, std::errc::no_such_file_or_directory);
    EXPECT_EQ(out.message(), TQString(TQException(183u).ExcCodeString().View()).ToUtf8().View());
    EXPECT_EQ(TQException(317u).ErrorCode().default_error_condition(),
              std::error_condition(317, TQErrorCategory()));
}

struct Helper {
    void (*standard)(const wchar_t*);
    void (*win32)(const wchar_t*);
    unsigned code;
};

TEST(ThrowHelper, ThrowsItsCodeWithTheOperationAsMessage) {
    const Helper helpers[] = {
        {TQStdExceptions::ThrowOverflowError, _TQWin32Exception::ThrowOverflowError, 111},
        {TQStdExceptions::ThrowIndexError, _TQWin32Exception::ThrowIndexError, 1413},
        {TQStdExceptions::ThrowAccessError, _TQWin32Exception::ThrowAccessError, 5},
        {TQStdExceptions::ThrowDataInvalidError, _TQWin32Exception::ThrowDataInvalidError, 13},
        {TQStdExceptions::ThrowBadFuncError, _TQWin32Exception::ThrowBadFuncError, 1},
        {TQStdExceptions::ThrowParameterInvalidError, _TQWin32Exception::ThrowParameterInvalidError, 87},
    };
    for (const Helper& helper : helpers) {
        for (const auto function : {helper.standard, helper.win32}) {
            const auto e = Caught<TQCoreException>([&] { function(L"Class::Member"); });
            EXPECT_EQ(e.ErrCode(), helper.code);
            EXPECT_EQ(Message(e), L"Class::Member");
            EXPECT_EQ(Message(Caught<TQCoreException>([&] { function(nullptr); })), L"");
        }
    }
    const auto memory = Caught<TQException>([] { TQStdExceptions::ThrowMemAllocError(L"Class::Member"); });
    EXPECT_EQ(memory.ErrCode(), 14u);
    EXPECT_EQ(Message(memory), L"Class::Member");
    EXPECT_FALSE(memory.PreAllocatedException());
}

TEST(ThrowHelper, ThrowLastErrorThrowsItsOwnKind) {
    const TQException cause(1u, L"cause");
    const TQMsgRes store(77);
    const auto check = [&]<class E>(const E&) {
        SetLastError(1234);
        EXPECT_EQ(Caught<E>([] { E::ThrowLastError(L"where"); }).ErrCode(), 1234u);
        SetLastError(1234);
        const E around = Caught<E>([&] { E::ThrowLastError(cause, L"where"); });
        EXPECT_EQ(around.ErrCode(), 1234u);
        EXPECT_EQ(*around.TQCoreException::Inner(), cause);
        SetLastError(1234);
        const E resource = Caught<E>([&] { E::ThrowLastError(10u, store); });
        EXPECT_EQ(resource.ErrCode(), 1234u);
        EXPECT_TRUE(resource.HasResMsg());
        SetLastError(1234);
        EXPECT_EQ(*Caught<E>([&] { E::ThrowLastError(cause, 10u, store); }).TQCoreException::Inner(), cause);
    };
    check(TQCoreException(0u));
    check(TQException(0u));
    check(TQSysException(0u));
    check(TQAppException(0u));
    check(TQCriticalException(0u));
    SetLastError(1234);
    EXPECT_EQ(Caught<TQCoreException>([] { _TQWin32Exception::ThrowLastError(L"where"); }).ErrCode(), 1234u);
    const auto application = Caught<TQAppException>([] { TQAppException::ThrowLastError(77, L"where"); });
    EXPECT_EQ(application.ErrCode(), 77u);
    EXPECT_EQ(Message(application), L"where");
}

TEST(ThrowHelper, UnknownTellsWhatIsKnown) {
    EXPECT_EQ(Message(TQCoreException::Unknown(L"Here", L"text")),
              L"Unknown exception occurred in Here with message 'text'.");
    EXPECT_EQ(Message(TQCoreException::Unknown(L"Here")),
              L"Unknown exception occurred in Here with no detail message.");
    EXPECT_EQ(TQCoreException::Unknown(L"Here", L""), TQCoreException::Unknown(L"Here"));
    EXPECT_EQ(Message(TQCoreException::Unknown()), L"Unknown exception.");
    const auto e = Caught<TQCoreException>([] { TQStdExceptions::ThrowUnknown(L"Here"); });
    EXPECT_EQ(e.ErrCode(), 0x8000FFFFu);
    EXPECT_EQ(Message(e), L"Unknown exception occurred in Here with no detail message.");
}

TEST(OutOfMemory, ThrowsTheReservedInstanceWhereTheReportItselfNeedsMemory) {
    const std::wstring longText(1000, L'w');
    for (const auto helper : {TQStdExceptions::ThrowMemAllocError, TQStdExceptions::ThrowIndexError}) {
        // Which of the allocations is the text's depends on whether the runtime's for the thrown object is
        // counted.
        int reserved = 0;
        for (unsigned n = 1; n <= 3; ++n) {
            try {
                FailAllocation fail(n);
                helper(longText.c_str());
            } catch (const TQCoreException& e) {
                EXPECT_EQ(e.ExcThread(), GetCurrentThreadId());
                if (!e.PreAllocatedException()) continue;
                ++reserved;
                EXPECT_EQ(typeid(e), typeid(TQException));
                EXPECT_EQ(e.ErrCode(), 14u);
            }
        }
        EXPECT_EQ(reserved, 2) << "of the text and of what its copies share";
    }
}

// Thrown by application code in a callback, through frames of the library, and caught by the application.
void ThrowFromCallback(void*) {
    throw TQAppException(5u, L"from the application");
}

TEST(LibraryBoundary, ExceptionsCrossItBothWays) {
    try {
        const TQModule none = TQSysProc::LoadModule(L"no-such-module.dll");
        ADD_FAILURE();
    } catch (const TQCoreException& e) {
        EXPECT_EQ(e.ErrCode(), static_cast<unsigned>(ERROR_MOD_NOT_FOUND));
        EXPECT_TRUE(e.IsSysException());
    }
    struct Sink : TQEventLogSink {
        void Write(const TQEventLogEntry&) override { ThrowFromCallback(nullptr); }
    } sink;
    TQEventLogSink* const previous = TQEventLog::SetSink(&sink);
    EXPECT_EQ(Message(Caught<TQAppException>(
                  [] { TQEventLog::LogStringEvent(L"s", 1, 1, TQEventType::Error, L"", L""); })),
              L"from the application");
    TQEventLog::SetSink(previous);
}

}  // namespace
