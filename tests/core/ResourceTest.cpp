#include "TQLib/core/TQException.h"
#include "TQLib/core/TQLib.h"
#include "TQLib/core/TQStrRes.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/system/TQSysProc.h"
#include "TQTest.h"
#include "platform/PlatformTest.h"
#include "support/FailCall.h"

#include <gmock/gmock.h>
#include <string>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

constexpr LCID English = 0x0409, German = 0x0407, Austrian = 0x0C07, French = 0x040C;
constexpr unsigned int TestStore = 77;
constexpr TQStrResDestination Destinations[] = {TQStrResDestination::User, TQStrResDestination::System,
                                                TQStrResDestination::EventLog, TQStrResDestination::Log};

// An argument that would outlive its text does not compile.
static_assert(std::is_constructible_v<TQMsgArg, const TQString&>);
static_assert(std::is_constructible_v<TQMsgArg, std::wstring_view>);
static_assert(!std::is_constructible_v<TQMsgArg, TQString>);
static_assert(!std::is_constructible_v<TQMsgArg, std::wstring>);

// The store of the modules TQTest_en, TQTest_de and TQTest_de-AT; each destination's locales are put back
// afterwards.
class Resource : public testing::Test {
  protected:
    static void SetUpTestSuite() { TQLib::RegisterResourceStore(TestStore, L"TQTest"); }
    ~Resource() override {
        for (const auto destination : Destinations)
            TQLib::SetDestinationLocaleIDs(destination, {});
    }

    std::wstring Text(std::vector<LCID> locales, unsigned int id) {
        TQLib::SetDestinationLocaleIDs(TQStrResDestination::User, std::move(locales));
        return m_store.WithID(id).Text(TQStrResDestination::User).Std();
    }

    const TQMsgRes m_store{TestStore};
};

TEST_F(Resource, IsLookedUpInTheLocalesInTheirOrder) {
    EXPECT_EQ(Text({English, German}, TQTEST_GREETING), L"Good day.");
    EXPECT_EQ(Text({German, English}, TQTEST_GREETING), L"Guten Tag, schöne Grüße.");
    EXPECT_EQ(Text({French, German}, TQTEST_GREETING), L"Guten Tag, schöne Grüße.")
        << "no French module: the next locale";
    EXPECT_EQ(Text({German, English}, TQTEST_ENGLISH_ONLY), L"Only here.") << "the German module lacks it";
}

TEST_F(Resource, IsTakenFromTheFullNamesModuleBeforeTheBaseNames) {
    EXPECT_EQ(Text({Austrian}, TQTEST_GREETING), L"Servus.");
    EXPECT_EQ(Text({Austrian}, TQTEST_FILE_FAILED), L"Die Datei %1 ist kaputt.")
        << "falls back to the base language, insert unexpanded";
}

TEST_F(Resource, HasItsOwnLanguagesForEachDestination) {
    const TQException e(0u, TQTEST_GREETING, m_store);
    TQLib::SetDestinationLocaleIDs(TQStrResDestination::User, {German});
    TQLib::SetDestinationLocaleIDs(TQStrResDestination::System, {Austrian});
    TQLib::SetDestinationLocaleIDs(TQStrResDestination::EventLog, {English});
    EXPECT_STREQ(e.FullMsg(TQStrResDestination::User), L"Guten Tag, schöne Grüße.");
    EXPECT_STREQ(e.FullMsg(TQStrResDestination::System), L"Servus.");
    EXPECT_STREQ(e.FullMsg(TQStrResDestination::EventLog), L"Good day.");
    EXPECT_STREQ(e.FullMsg(TQStrResDestination::Log), L"Good day.") << "the log is in English by default";
}

TEST_F(Resource, ExpandsItsInsertsFromTheArguments) {
    const TQBaseStrRes message = m_store.WithID(TQTEST_INSERTS);
    const auto destination = TQStrResDestination::Log;
    EXPECT_EQ(message.Text(destination, L"name", 42, 0xBEEFu), L"name: 42 of 0000beef, 100%.");
    EXPECT_EQ(message.Text(destination, TQString(L"name"), 42, 0xBEEFu), L"name: 42 of 0000beef, 100%.");
    EXPECT_EQ(message.Text(destination, static_cast<const wchar_t*>(nullptr), 1, 2),
              L"(null): 1 of 00000002, 100%.");
    EXPECT_EQ(message.Text(destination, std::wstring_view(L"names").substr(0, 4), 42, 0xBEEFu),
              L"name: 42 of 0000beef, 100%.")
        << "a view need not be terminated";
    const std::wstring tooLong(70000, L'x');
    if (!OnWine()) {  // which knows no longest text
        EXPECT_EQ(message.Text(destination, tooLong, 42, 0xBEEFu), L"%1: %2!d! of %3!08x!, 100%%.")
            << "better unexpanded than none";
    }
    const TQException e(0u, static_cast<unsigned int>(TQTEST_INSERTS), m_store);
    EXPECT_STREQ(e.FullMsg(destination, L"name", 42, 0xBEEFu), L"name: 42 of 0000beef, 100%.");
    EXPECT_STREQ(e.FullMsg(destination, L"other", 1, 2u), L"name: 42 of 0000beef, 100%.")
        << "the line is rendered once";
}

TEST_F(Resource, NeverReadsPastItsArguments) {
    const TQBaseStrRes message = m_store.WithID(TQTEST_INSERTS);
    const auto destination = TQStrResDestination::Log;
    EXPECT_EQ(message.Text(destination), L"<?>: <?> of <?>, 100%.");
    EXPECT_EQ(message.Text(destination, L"name"), L"name: <?> of <?>, 100%.");
    EXPECT_EQ(message.Text(destination, 1, L"text", 3), L"<?>: <?> of 00000003, 100%.")
        << "arguments of the wrong kind";
    EXPECT_EQ(m_store.WithID(TQTEST_ODD_INSERTS).Text(destination, 5, L"wide", 3), L"[ wide] <?> <?> <?> %")
        << "a width takes an argument; narrow text and unknown numbers are never read";
}

TEST_F(Resource, IsAlsoAStringOfAModulesStringTable) {
    TQLib::SetDestinationLocaleIDs(TQStrResDestination::User, {English, German});
    const auto string = [](unsigned int id) {
        return TQStrRes(TestStore, id).Text(TQStrResDestination::User).Std();
    };
    EXPECT_EQ(string(7), L"Schöne \"Straße\"\\\tDrei");
    EXPECT_EQ(string(8), L"second");
    EXPECT_EQ(string(0x1001), L"far");
    EXPECT_EQ(string(65535), L"last");
    EXPECT_EQ(ThrownCode([&] { return string(9); }), 1814u);
    EXPECT_EQ(ThrownCode([&] { return string(1); }), 1814u) << "a message is no string";
    EXPECT_EQ(ThrownCode([&] { return m_store.WithID(8).Text(TQStrResDestination::User); }), 317u)
        << "nor the other way round";
}

TEST_F(Resource, TellsWhatItDidNotFind) {
    EXPECT_EQ(Thrown([&] { return m_store.WithID(4711).Text(TQStrResDestination::Log); }),
              Failure(317,
                      L"The message resource (ID=4711) could not be found in the specified store destination "
                      L"(3 - Log)."));
    EXPECT_EQ(Thrown([&] { return TQStrRes(TestStore, 4711).Text(TQStrResDestination::User); }),
              Failure(1814,
                      L"The string resource (ID=4711) could not be found in the specified store destination "
                      L"(0 - User)."));
    EXPECT_EQ(Thrown([&] { return TQMsgRes(4711, 1).Text(TQStrResDestination::Log); }),
              Failure(1168, L"The given resource store ID was not found."));
    EXPECT_EQ(Thrown([] { return TQLib::ResourceBaseName(4711); }),
              Failure(1168, L"The given resource store ID was not found."));
    EXPECT_EQ(
        Thrown([] { TQLib::RegisterResourceStore(TestStore, L"Other"); }),
        Failure(183, L"The passed resource store ID is already registered and can not be registered again."));
    EXPECT_EQ(TQLib::ResourceBaseName(TestStore), L"TQTest");
}

TEST_F(Resource, ThatIsMissingDoesNotHideTheFailureItBelongsTo) {
    const TQException e(0x20000001u, 4711u, m_store);
    EXPECT_EQ(
        std::wstring(e.FullMsg(TQStrResDestination::Log)),
        L"The message resource (ID=4711) could not be found in the specified store destination (3 - Log). (" +
            e.ExcCodeString().Std() + L")");
    EXPECT_EQ(ThrownCode([&] { return e.ExcMsg(TQStrResDestination::Log); }), 317u);
}

TEST_F(Resource, ModulesAreFoundByLanguageName) {
    EXPECT_EQ(TQLib::GetResourceLanguageModule(TestStore, L""), nullptr);
    EXPECT_EQ(TQLib::GetResourceLanguageModule(TestStore, L"xx"), nullptr);
    const HMODULE english = TQLib::GetResourceLanguageModule(TestStore, L"en");
    ASSERT_NE(english, nullptr);
    EXPECT_EQ(TQSysProc::FindLoadedModule(L"tqtest_EN"), english) << "whatever the case";
    TQLib::RegisterResourceStore(TestStore + 1, L"tqTEST");
    EXPECT_EQ(TQLib::GetResourceLanguageModule(TestStore + 1, L"EN"), english)
        << "one that is loaded already serves";
    EXPECT_EQ(ThrownCode([] { return TQLib::GetResourceLanguageModule(4711, L"en"); }), 1168u);
}

TEST_F(Resource, ThatCannotBeLoadedNowIsLoadedLater) {
    {
        FailCall fail("LoadLibraryExW", ERROR_TOO_MANY_OPEN_FILES, FailCall::EveryCall);
        EXPECT_EQ(ThrownCode([] { return TQLib::GetResourceLanguageModule(TestStore, L"yy"); }), 4u);
        TQLib::RegisterResourceStore(TestStore + 2, L"TQNone");
        EXPECT_EQ(ThrownCode([] { return TQMsgRes(TestStore + 2, 1).Text(TQStrResDestination::Log); }), 4u)
            << "not the failure of a text that is nowhere";
    }
    EXPECT_EQ(TQLib::GetResourceLanguageModule(TestStore, L"yy"), nullptr);
    EXPECT_EQ(ThrownCode([] { return TQMsgRes(TestStore + 2, 1).Text(TQStrResDestination::Log); }), 317u);
}

TEST_F(Resource, StoreThatFindsNoMemoryIsNotRegistered) {
    constexpr unsigned store = TestStore + 3;
    const TQString name(L"a store with a name that needs memory");
    SweepAllocations([&] { TQLib::RegisterResourceStore(store, name); },
                     [&] { EXPECT_EQ(ThrownCode([&] { return TQLib::ResourceBaseName(store); }), 1168u); });
    const TQString language(L"a language with a name that needs memory");
    SweepAllocations([&] { return TQLib::GetResourceLanguageModule(store, language); }, [] {});
}

TEST_F(Resource, DestinationsHaveLocalesOfTheirOwn) {
    EXPECT_EQ(TQLib::DestinationLocaleIDs(TQStrResDestination::Log), std::vector<LCID>{English});
    EXPECT_EQ(TQLib::DestinationLocaleIDs(TQStrResDestination::User).back(), English);
    EXPECT_EQ(TQLib::DestinationLocaleIDs(TQStrResDestination::User).front(), GetUserDefaultLCID());
    EXPECT_EQ(ThrownCode([] { return TQLib::DestinationLocaleIDs(static_cast<TQStrResDestination>(4)); }),
              87u);
    EXPECT_STREQ(TQStrResDestinationName(static_cast<TQStrResDestination>(4)), L"Unknown");
}

TEST_F(Resource, TheLibrarysOwnEventsHaveTheirTexts) {
    for (const DWORD event : {0xCFFF4001u, 0xCFFF4002u, 0xCFFF4003u, 0xCFFF400Du, 0xCFFF4010u}) {
        const std::wstring text = TQMsgRes(TQLib::ResourceStoreID, event)
                                      .Text(TQStrResDestination::Log, L"application", L"details")
                                      .Std();
        EXPECT_THAT(text, testing::HasSubstr(L"application")) << std::hex << event;
        EXPECT_THAT(text, testing::HasSubstr(L"details")) << std::hex << event;
    }
    for (const DWORD event : {0xCFFF400Eu, 0xCFFF400Fu})
        EXPECT_THAT(TQMsgRes(TQLib::ResourceStoreID, event).Text(TQStrResDestination::Log, L"a.tlg").Std(),
                    testing::HasSubstr(L"a.tlg"));
    EXPECT_EQ(TQMsgRes(TQLib::ResourceStoreID, 9).Text(TQStrResDestination::Log), L"Unhandled exceptions");
}

}  // namespace
