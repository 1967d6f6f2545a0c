#include "Samples.h"

#include <TQLib/TQLib.h>
#include <string_view>

using namespace Quellan::Corvel;

namespace {

std::size_t g_usedCharacters = 0;

void UsePassword(const wchar_t* password) {
    g_usedCharacters += std::wstring_view(password).size();
}

void AskForPassword(const TQaSecretString& expected) {
    TQSecretString password = TQConsole(TQConsole::Stream::Error).ReadSecret(L"Password: ");
    const TQaSecretString bytes = password.ToUtf8();
    const bool isRight = bytes.EqualsSecret(expected);
    UsePassword(password.c_str());
    Expect(isRight, L"The password is right.");
}

}  // namespace

void SecretsSample() {
    char typed[] = "sesame";
    const TQaSecretString expected = TQaSecretString::Take(std::span(typed).first(6));
    Expect(typed[0] == 0 && expected.Size() == 6, L"What was taken is wiped.");
    // Nobody is asked where the samples are only to be checked.
    if (TQConsole(TQConsole::Stream::Error).IsTerminal()) AskForPassword(expected);
}
