#include "TQLib/platform/Win32.h"
#include "TQLib/text/memory/TQSecret.h"
#include "support/FailCall.h"
#include "support/ThrownCode.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <ostream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace Quellan::Corvel {

namespace {

using Test::FailCall;
using Test::ThrownCode;

template <class S>
constexpr bool StaysInside =
    !std::is_copy_constructible_v<S> && !std::is_copy_assignable_v<S> &&
    !std::is_convertible_v<S, typename S::ViewType> && !std::is_convertible_v<typename S::ViewType, S> &&
    std::is_nothrow_move_assignable_v<S>;
static_assert(StaysInside<TQSecretString> && StaysInside<TQaSecretString> && StaysInside<TQSecretBuf>);
template <class T>
concept Printable = requires(std::ostream& out, std::wostream& wide, const T& value) {
    out << value;
};
static_assert(!Printable<TQSecretString> && !Printable<TQaSecretString> && !Printable<TQSecretBuf>);

TEST(Secret, IsEditedAsATextIsAndKeepsItsTerminator) {
    TQSecretString secret;
    EXPECT_TRUE(secret.IsEmpty() && secret.c_str() == std::wstring(L""));
    secret.Append(L"word");
    secret.Append(L'!');
    secret.Append(secret.View().substr(0, 2));
    EXPECT_EQ(secret.c_str(), std::wstring(L"word!wo"));
    secret.Resize(4);
    EXPECT_EQ(secret.c_str(), std::wstring(L"word"));
    secret.Assign(secret.View().substr(1));
    EXPECT_EQ(secret.c_str(), std::wstring(L"ord"));
    secret.Resize(5);
    std::ranges::fill(secret.Span().last(2), L'x');
    const TQSecretString copy = secret.Copy();
    const TQSecretString moved = std::move(secret);
    EXPECT_TRUE(secret.IsEmpty());
    for (const TQSecretString* each : {&copy, &moved}) {
        EXPECT_EQ(each->View(), L"ordxx");
        EXPECT_EQ(each->c_str()[5], L'\0');
    }
    secret.Append(L'a');
    EXPECT_EQ(secret.View(), L"a");
}

TEST(Secret, OfBytesHasNothingBehindThem) {
    BYTE key[] = {1, 2, 3};
    TQSecretBuf secret = TQSecretBuf::Take(key);
    EXPECT_THAT(key, testing::Each(0));
    secret.Append(BYTE{4});
    EXPECT_THAT(secret.View(), testing::ElementsAre(1, 2, 3, 4));
    secret.Resize(2);
    EXPECT_EQ(secret.View().size(), 2u);
}

TEST(Secret, EqualsOnlyItself) {
    const TQaSecretString secret("password");
    EXPECT_TRUE(secret.EqualsSecret(secret.Copy()) && secret.EqualsSecret("password"));
    for (const char* other : {"", "passwor", "passwords", "Password", "passworD"})
        EXPECT_FALSE(secret.EqualsSecret(std::string_view(other))) << other;
    EXPECT_TRUE(TQaSecretString().EqualsSecret(std::string_view()));
}

TEST(Secret, ChangesItsFormOnlyAsAWhole) {
    const std::wstring_view texts[] = {L"", L"plain", L"gr\u00FC\u00DFe \u20AC \U0001F600"};
    for (const std::wstring_view text : texts) {
        const TQSecretString wide(text);
        EXPECT_EQ(TQSecretString::FromUtf8(wide.ToUtf8().View()).View(), text);
    }
    EXPECT_EQ(ThrownCode([] { TQSecretString::FromUtf8("a\xFF"); }), DWORD{ERROR_NO_UNICODE_TRANSLATION});
    EXPECT_EQ(ThrownCode([] { TQSecretString(std::wstring(1, wchar_t(0xD800))).ToUtf8(); }),
              DWORD{ERROR_NO_UNICODE_TRANSLATION});
}

TEST(Secret, IsUnchangedWhereNoMoreCanBeLocked) {
    TQSecretString secret(L"word");
    const std::wstring more(100000, L'x');
    FailCall fail("VirtualLock", ERROR_WORKING_SET_QUOTA, FailCall::EveryCall);
    EXPECT_EQ(ThrownCode([&] { secret.Append(more); }), DWORD{ERROR_WORKING_SET_QUOTA});
    EXPECT_EQ(ThrownCode([&] { secret.Assign(more); }), DWORD{ERROR_WORKING_SET_QUOTA});
    EXPECT_EQ(ThrownCode([&] { secret.Resize(more.size()); }), DWORD{ERROR_WORKING_SET_QUOTA});
    EXPECT_EQ(secret.c_str(), std::wstring(L"word"));
}

TEST(SecretThreads, EachHasItsOwn) {
    std::vector<std::thread> threads;
    for (BYTE mark = 1; mark <= 4; ++mark)
        threads.emplace_back([mark] {
            for (int round = 0; round < 300; ++round) {
                std::vector<TQSecretBuf> keys;
                for (std::size_t size = 1; size < 3000; size = size * 3 + 1) {
                    keys.emplace_back().Resize(size);
                    EXPECT_THAT(keys.back().View(), testing::Each(0));
                    std::ranges::fill(keys.back().Span(), mark);
                }
                for (const TQSecretBuf& key : keys)
                    EXPECT_TRUE(std::ranges::all_of(key.View(), [&](BYTE b) { return b == mark; }));
            }
        });
    for (auto& thread : threads)
        thread.join();
}

}  // namespace

}  // namespace Quellan::Corvel
