#include "TQLib/platform/Win32.h"
#include "TQLib/system/TQConsole.h"
#include "TQLib/system/TQLocale.h"
#include "support/FailCall.h"
#include "support/Role.h"

namespace Quellan::Corvel::Test {
namespace {

TEST(Console, MakesControlCharactersVisible) {
    const std::pair<std::wstring_view, const wchar_t*> rows[] = {
        {L"a\tb\nc\r\n", L"a\tb\nc\r\n"}, {L"a\rb\r", L"a\\x0db\\x0d"},
        {L"\x1B[2J", L"\\x1b[2J"},        {L"~\x7F\x80\x9F\xA0", L"~\\x7f\\x80\\x9f\xA0"},
        {{L"a\0b", 3}, L"a\\x00b"},       {L"", L""}};
    for (const auto& [text, visible] : rows)
        EXPECT_EQ(TQConsole::Visible(text), visible);
}

// Writes to files in place of a terminal, on both streams.
const Role g_writer("write-console", [](const RoleArguments&) {
    TQConsole output(TQConsole::Stream::Output), error(TQConsole::Stream::Error);
    if (output.IsTerminal() || output.IsStyled()) return 1;
    output.Write(L"\u00E4\u65E5\n");
    error.Show(L"plain \x1B\n");
    error.SetStyled(true);
    error.Show(L"styled \x1B\n");
    error.Write(L"written \x1B\n");
    const FailCall fail("WriteFile", ERROR_DISK_FULL);
    return ThrownCode([&] { output.Write(L"x"); }) == ERROR_DISK_FULL ? 0 : 2;
});

TEST(Console, WritesUtf8ToWhatIsNoTerminal) {
    RoleProcess writer("write-console", {}, ChildProcess::Files::Piped);
    EXPECT_EQ(writer.ReadAll(), "\xC3\xA4\xE6\x97\xA5\nplain \x1B\nstyled \\x1b\nwritten \x1B\n");
    EXPECT_EQ(writer.ExitCode(), 0);
}

// Reads secrets to the end and tells what became of each.
const Role g_secretReader("read-secrets", [](const RoleArguments&) {
    TQConsole output(TQConsole::Stream::Output);
    DWORD code = 0;
    while (code != ERROR_HANDLE_EOF) {
        code = ThrownCode([&] {
            const TQSecretString secret = output.ReadSecret(L"Never shown: ");
            output.Write(TQString::Format(L"[%s]", secret.c_str()));
        });
        if (code) output.Write(TQString::Format(L"%u.", code));
    }
    return 0;
});

TEST(Console, ReadsSecretsLineByLineFromWhatIsNoTerminal) {
    RoleProcess reader("read-secrets", {}, ChildProcess::Files::Piped);
    reader.Write("one\r\n\ngr\xC3\xBC\xC3\x9F\r\n\xFF\n" + std::string(65536, 'x') + "yz\nlast");
    reader.CloseInput();
    EXPECT_EQ(reader.ReadAll(), "[one][][gr\xC3\xBC\xC3\x9F]1113.111.[z][last]38.");
    EXPECT_EQ(reader.ExitCode(), 0);
}

TEST(Locale, NamesItsLanguage) {
    const struct {
        LCID id;
        const wchar_t *full, *base;
    } rows[] = {{0x0409, L"en-US", L"en"},
                {0x0C07, L"de-AT", L"de"},
                {0x281A, L"sr-Cyrl-RS", L"sr"},
                {0x3FFF, L"", L""}};
    for (const auto& [id, full, base] : rows) {
        EXPECT_EQ(TQLocale(id).LanguageString(), full);
        EXPECT_EQ(TQLocale(id).LanguageBaseString(), base);
    }
    EXPECT_EQ(TQLocale(), TQLocale(GetUserDefaultLCID()));
    EXPECT_NE(TQLocale(0x0407), TQLocale(0x0C07));
    const FailCall fail("GetLocaleInfoW", ERROR_GEN_FAILURE);
    EXPECT_EQ(ThrownCode([] { std::ignore = TQLocale(0x0409).LanguageString(); }), DWORD{ERROR_GEN_FAILURE});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
