#include "core/TQException.h"
#include "core/TQStdExceptions.h"
#include "platform/Win32.h"
#include "support/FailCall.h"
#include "system/TQSysProc.h"

#include <array>
#include <gmock/gmock.h>
#include <string>
#include <thread>
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
    EXPECT_EQ(_TQExceptionRoot::CodeLevel(0), Level::Error);
    EXPECT_EQ(_TQExceptionRoot::CodeLevel(5), Level::Error);
    EXPECT_EQ(_TQExceptionRoot::CodeLevel(0xFFFFFF), Level::Error);
    EXPECT_EQ(_TQExceptionRoot::CodeLevel(0x1000000), Level::Success);
    EXPECT_EQ(_TQExceptionRoot::CodeLevel(0x40000005), Level::Information);
    EXPECT_EQ(_TQExceptionRoot::CodeLevel(0x80070005), Level::Warning);
    EXPECT_EQ(_TQExceptionRoot::CodeLevel(0xC0000005), Level::Error);
}

TEST(ExceptionCode, GivesTheSourceByFacility) {
    const auto sourceOf = [](unsigned facility) {
        return static_cast<unsigned>(_TQExceptionRoot::CodeSource(facility << 16));
    };
    for (unsigned facility = 0; facility <= 0x1FFF; ++facility) {
        unsigned expected = 0;
        if (facility == 4) expected = 1;
        if (facility >= 7 && facility <= 9) expected = 3;
        if ((facility >= 1 && facility <= 3) || (facility >= 10 && facility <= 23) || facility == 25 ||
            (facility >= 32 && facility <= 37))
            expected = 4;
        ASSERT_EQ(sourceOf(facility), expected) << "facility " << facility;
    }
    EXPECT_EQ(sourceOf(0x2007), sourceOf(7)) << "bits above the thirteen do not count";
}

TEST(ExceptionCode, NamesLevelsSourcesAndFacilities) {
    const wchar_t* const levels[] = {L"Success", L"Information", L"Warning",
                                     L"Error",   L"Unknown",     L"Unknown"};
    for (unsigned i = 0; i < 6; ++i)
        EXPECT_STREQ(_TQExceptionRoot::LevelName(static_cast<Level>(i)), levels[i]);
    const wchar_t* const sources[] = {L"Unknown", L"App", L"OS", L"SubSystem", L"Facility", L"Unknown"};
    for (unsigned i = 0; i < 6; ++i)
        EXPECT_STREQ(_TQExceptionRoot::SourceName(static_cast<Source>(i)), sources[i]);

    const std::pair<unsigned short, const wchar_t*> facilities[] = {{8, L"Windows"},
                                                                    {3, L"Storage"},
                                                                    {7, L"Win32"},
                                                                    {10, L"Control"},
                                                                    {12, L"Internet"},
                                                                    {4, L"Interface"},
                                                                    {2, L"Dispatch"},
                                                                    {11, L"Certificate"},
                                                                    {9, L"Security"},
                                                                    {32, L"Background Copy"},
                                                                    {17, L"COM+"},
                                                                    {33, L"Configuration"},
                                                                    {37, L"Directory Service"},
                                                                    {21, L"DPLAY"},
                                                                    {36, L"Windows Update"},
                                                                    {34, L"State Management"},
                                                                    {16, L"SCARD"},
                                                                    {15, L"Setup API"},
                                                                    {35, L"MetaDirectory"},
                                                                    {14, L"MSMQ"},
                                                                    {13, L"Media Server"},
                                                                    {25, L"HTTP"},
                                                                    {0, L"Unknown"},
                                                                    {99, L"Unknown"}};
    for (const auto& [facility, name] : facilities)
        EXPECT_STREQ(_TQExceptionRoot::FacilityName(facility), name) << facility;
}

TEST(ExceptionConstruction, TakesEachLiteralForm) {
    const TQException codeOnly(5u), textOnly(L"text"), both(0x80040007u, L"text"),
        levelled(5u, L"text", Level::Warning), sourced(5u, L"text", Source::App),
        full(5u, L"text", Level::Success, Source::OS), complete(5u, L"text", Level::Success, Source::OS, 12);
    EXPECT_EQ(codeOnly.COMErrCode(), 5);
    EXPECT_EQ(Message(codeOnly), L"");
    EXPECT_EQ(textOnly.ErrCode(), 0u);
    EXPECT_EQ(Message(textOnly), L"text");
    EXPECT_EQ(both.ExcLevel(), Level::Warning);
    EXPECT_EQ(both.ExcSource(), Source::App);
    EXPECT_EQ(both.ExcSubSys(), 4);
    EXPECT_STREQ(both.ExcSubSysName(), L"Interface");
    EXPECT_EQ(both.COMErrCode(), static_cast<LONG>(0x80040007));
    EXPECT_EQ(levelled.ExcLevel(), Level::Warning);
    EXPECT_EQ(levelled.ExcSource(), Source::Unknown);
    EXPECT_EQ(sourced.ExcLevel(), Level::Error);
    EXPECT_EQ(sourced.ExcSource(), Source::App);
    EXPECT_STREQ(full.ExcLevelName(), L"Success");
    EXPECT_STREQ(full.ExcSourceName(), L"OS");
    EXPECT_EQ(full.ExcSubSys(), 0);
    EXPECT_EQ(complete.ExcSubSys(), 12);
    EXPECT_FALSE(complete.HasResMsg());
    EXPECT_EQ(Message(TQException(5u, static_cast<const wchar_t*>(nullptr))), L"");
}

TEST(ExceptionConstruction, TakesEachResourceForm) {
    const TQMsgRes store(77);
    const TQException reference(10u, store), coded(5u, 10u, store), levelled(5u, 10u, store, Level::Warning),
        sourced(5u, 10u, store, Source::App), full(5u, 10u, store, Level::Success, Source::OS),
        complete(5u, 10u, store, Level::Success, Source::OS, 12);
    for (const TQException* e : {&reference, &coded, &levelled, &sourced, &full, &complete})
        EXPECT_TRUE(e->HasResMsg());
    EXPECT_EQ(reference.ErrCode(), 0u);
    EXPECT_EQ(coded.ErrCode(), 5u);
    EXPECT_EQ(levelled.ExcLevel(), Level::Warning);
    EXPECT_EQ(sourced.ExcSource(), Source::App);
    EXPECT_EQ(full.ExcLevel(), Level::Success);
    EXPECT_EQ(complete.ExcSubSys(), 12);
    EXPECT_NE(coded, TQException(5u, 11u, store));
}

TEST(ExceptionConstruction, OwnsACopyOfTheInnerOne) {
    const TQMsgRes store(77);
    TQSysException cause(1u, L"cause");
    const TQSysException around[] = {{cause, 2u},
                                     {cause, L"text"},
                                     {cause, 2u, L"text"},
                                     {cause, 2u, L"text", Level::Warning},
                                     {cause, 2u, L"text", Source::App},
                                     {cause, 2u, L"text", Level::Warning, Source::App},
                                     {cause, 2u, L"text", Level::Warning, Source::App, 3},
                                     {cause, 10u, store},
                                     {cause, 2u, 10u, store},
                                     {cause, 2u, 10u, store, Level::Warning},
                                     {cause, 2u, 10u, store, Source::App},
                                     {cause, 2u, 10u, store, Level::Warning, Source::App},
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

TEST(ExceptionConstruction, KnowsItsProcessAndThread) {
    const TQException e(5u);
    EXPECT_EQ(e.ExcProcess(), GetCurrentProcessId());
    EXPECT_EQ(e.ExcThread(), GetCurrentThreadId());
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
        EXPECT_NE(copy.Inner(), original.Inner());

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

TEST(ExceptionCopy, ByItsBaseKeepsItsKind) {
    const TQCriticalException critical(5u, L"text");
    const _TQWin32Exception& base = critical;
    const std::unique_ptr<_TQWin32Exception> copy(base.AllocCopy());
    EXPECT_EQ(typeid(*copy), typeid(TQCriticalException));
    EXPECT_EQ(*copy, critical);
}

TEST(ExceptionMarks, CanBeSetOnAConstReference) {
    const TQCoreException e(5u);
    e.SetLogged();
    e.SetEventLogged();
    e.SetDontLog();
    e.SetCopied();
    e.SetDontExit();
    EXPECT_TRUE(e.HasLogged() && e.HasEventLogged() && e.DontLog() && e.Copied() && e.DontExit());
    EXPECT_FALSE(e.PreAllocatedException());
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
        EXPECT_EQ(reserved, 1);
    }
}

TEST(OutOfMemory, LeavesTheTargetOfAnAssignmentUnchanged) {
    const std::wstring longText(1000, L'w');
    const TQException inner(TQException(1u, longText.c_str()), 2u, longText.c_str());
    TQException source(inner, 5u, longText.c_str());
    source.SetAction(longText.c_str());
    source.FullMsg(TQStrResDestination::Log);
    for (unsigned n = 1;; ++n) {
        TQException target(7u, L"before");
        bool isFailed = false;
        try {
            FailAllocation fail(n);
            target = source;
        } catch (const TQException& e) {
            isFailed = true;
            EXPECT_EQ(e.ErrCode(), 14u);
        }
        if (!isFailed) {
            EXPECT_EQ(target, source);
            EXPECT_GT(n, 4u);
            break;
        }
        EXPECT_EQ(target, TQException(7u, L"before"));
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
