#include "TQLib/files/registry/TQRegKey.h"
#include "TQLib/files/registry/TQRegValue.h"
#include "TQLib/platform/Win32.h"
#include "support/FailCall.h"

#include <gmock/gmock.h>

namespace Quellan::Corvel {

namespace {

using Test::ThrownCode;
using testing::UnorderedElementsAre;

// A key of its own, below the user's, which goes with the test.
class Registry : public testing::Test {
  protected:
    Registry() : m_key(TQRegistry::UserKey().Create(Path().c_str())) {}
    ~Registry() override { TQRegistry::UserKey().DeleteKey(Path().c_str()); }

    static TQString Path() {
        return TQString::Format(L"Software\\tqlib-files-test-%u", GetCurrentProcessId());
    }

    void Store(const wchar_t* name, DWORD type, std::wstring_view text) const {
        m_key.SetValue(name, type, text.data(), text.size() * sizeof(wchar_t));
    }

    const TQRegKey m_key;
};

TEST_F(Registry, FindsValuesOfAnySize) {
    const std::string large(100'000, 'x');
    m_key.SetValue(L"large", REG_BINARY, large.data(), large.size());
    m_key.SetValue(nullptr, REG_NONE, nullptr, 0);
    const auto found = m_key.FindValue(L"LARGE");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->type, DWORD{REG_BINARY});
    EXPECT_EQ(std::string(found->data.begin(), found->data.end()), large);
    EXPECT_TRUE(m_key.FindValue(L"")->data.IsEmpty());
    EXPECT_THAT(m_key.ValueNames(), UnorderedElementsAre(L"large", L""));
    EXPECT_TRUE(m_key.DeleteValue(L"large"));
    EXPECT_FALSE(m_key.DeleteValue(L"large"));
    EXPECT_FALSE(m_key.FindValue(L"large"));
}

TEST_F(Registry, KeepsTypedValues) {
    const TQDWORDRegValue number(m_key, L"number");
    number.Set(0xFFFFFFFE);
    EXPECT_EQ(number.Get(), 0xFFFFFFFEu);
    const TQQWORDRegValue large(m_key, L"large");
    large.Set(0x123456789ABCDEF0);
    EXPECT_EQ(large.Get(), 0x123456789ABCDEF0u);
    const TQStringRegValue text(m_key, L"text");
    for (const wchar_t* content : {L"", L"\u00FC\U0001F600 text"}) {
        text.Set(content);
        EXPECT_EQ(text.Get(), TQString(content));
    }
    const TQMultiStringRegValue texts(m_key, L"texts");
    for (const TQStringArray& content : {TQStringArray(), TQStringArray{L"one", L"two"}}) {
        texts.Set(content);
        EXPECT_EQ(texts.Get(), content);
    }
    const TQBinaryRegValue bytes(m_key, L"bytes");
    for (const BYTEBuf& content : {BYTEBuf(), BYTEBuf(reinterpret_cast<const BYTE*>("\0\1"), 2)}) {
        bytes.Set(content);
        EXPECT_EQ(bytes.Get(), content);
    }
}

TEST_F(Registry, StoresTypedValuesAsThePlatformDoes) {
    TQDWORDRegValue(m_key, L"value").Set(0x01020304);
    EXPECT_EQ(m_key.FindValue(L"value")->data, BYTEBuf(reinterpret_cast<const BYTE*>("\4\3\2\1"), 4));
    TQStringRegValue(m_key, L"value").Set(L"a");
    EXPECT_EQ(m_key.FindValue(L"value")->type, DWORD{REG_SZ});
    EXPECT_EQ(m_key.FindValue(L"value")->data.Size(), 2 * sizeof(wchar_t));
    TQMultiStringRegValue(m_key, L"value").Set({L"a"});
    EXPECT_EQ(m_key.FindValue(L"value")->data.Size(), 3 * sizeof(wchar_t));
}

TEST_F(Registry, ReadsTextsHoweverTheyEnd) {
    using namespace std::string_view_literals;
    for (const std::wstring_view stored : {L"text"sv, L"text\0"sv, L"text\0\0rest"sv}) {
        Store(L"text", REG_SZ, stored);
        EXPECT_EQ(TQStringRegValue(m_key, L"text").Get(), TQString(L"text"));
    }
    for (const std::wstring_view stored : {L"a\0b"sv, L"a\0b\0"sv, L"a\0b\0\0"sv, L"a\0b\0\0c\0"sv}) {
        Store(L"texts", REG_MULTI_SZ, stored);
        EXPECT_EQ(TQMultiStringRegValue(m_key, L"texts").Get(), (TQStringArray{L"a", L"b"}));
    }
}

TEST_F(Registry, ExpandsTextsThatAreMeantToBe) {
    SetEnvironmentVariableW(L"TQ_REGISTRY_TEST", L"a longer text than the name of its variable");
    const TQExpandStringRegValue value(m_key, L"value");
    value.Set(L"[%TQ_REGISTRY_TEST%]");
    EXPECT_EQ(value.Get(), TQString(L"[a longer text than the name of its variable]"));
    EXPECT_EQ(TQStringRegValue(m_key, L"value").Get(), TQString(L"[%TQ_REGISTRY_TEST%]"));
    SetEnvironmentVariableW(L"TQ_REGISTRY_TEST", nullptr);
}

TEST_F(Registry, TellsMissingValuesFromOthers) {
    const TQDWORDRegValue number(m_key, L"value");
    EXPECT_EQ(number.GetOr(7), 7u);
    EXPECT_EQ(ThrownCode([&] { number.Get(); }), DWORD{ERROR_FILE_NOT_FOUND});
    TQStringRegValue(m_key, L"value").Set(L"text");
    EXPECT_TRUE(number.Exists());
    EXPECT_EQ(ThrownCode([&] { number.GetOr(7); }), DWORD{ERROR_UNSUPPORTED_TYPE});
    m_key.SetValue(L"value", REG_DWORD, "123", 3);
    EXPECT_EQ(ThrownCode([&] { number.Get(); }), DWORD{ERROR_INVALID_DATA});
    m_key.SetValue(L"value", REG_SZ, "odd", 3);
    EXPECT_EQ(ThrownCode([&] { TQStringRegValue(m_key, L"value").Get(); }), DWORD{ERROR_INVALID_DATA});
    EXPECT_TRUE(number.Delete());
    EXPECT_FALSE(number.Delete());
}

TEST_F(Registry, RefusesTextsThatAValueCannotHold) {
    const TQString zero(L"a\0b", 3);
    EXPECT_EQ(ThrownCode([&] { TQStringRegValue(m_key, L"value").Set(zero); }),
              DWORD{ERROR_INVALID_PARAMETER});
    for (const TQString& text : {zero, TQString()})
        EXPECT_EQ(ThrownCode([&] {
                      TQMultiStringRegValue(m_key, L"value").Set({L"a", text});
                  }),
                  DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_FALSE(m_key.FindValue(L"value"));
}

}  // namespace

}  // namespace Quellan::Corvel
