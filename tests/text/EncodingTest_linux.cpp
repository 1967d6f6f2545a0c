#include "TQLib/text/TQEncoding.h"
#include "support/ThrownCode.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <iconv.h>
#include <memory>
#include <random>
#include <string>

namespace Quellan::Corvel {
namespace {

// The system's converter: what it makes of a text, and how many bytes of it before what it refuses.
class Judge {
  public:
    Judge(const std::string& to, const std::string& from)
        : m_state(iconv_open(to.c_str(), from.c_str()), &iconv_close) {}

    [[nodiscard]] bool IsThere() const { return m_state.get() != reinterpret_cast<void*>(-1); }

    std::string Convert(std::string text, std::size_t& taken, bool& isRefused) const {
        std::string result(text.size() * 4 + 16, '\0');
        char* in = text.data();
        std::size_t inLeft = text.size();
        char* out = result.data();
        std::size_t outLeft = result.size();
        iconv(m_state.get(), nullptr, nullptr, nullptr, nullptr);
        isRefused = iconv(m_state.get(), &in, &inLeft, &out, &outLeft) == static_cast<std::size_t>(-1);
        taken = text.size() - inLeft;
        iconv(m_state.get(), nullptr, nullptr, &out, &outLeft);
        result.resize(result.size() - outLeft);
        return result;
    }

  private:
    std::shared_ptr<void> m_state;
};

std::string JudgesName(const TQEncoding& encoding) {
    const UINT page = encoding.CodePage();
    return page <= 1258 && encoding.Mark().empty() ? "CP" + std::to_string(page)
                                                   : std::string(TQString(encoding.Name()).ToUtf8().View());
}

std::string BytesOf(std::wstring_view text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

// The strict conversion in the judge's words.
std::string Decoded(const TQEncoding& encoding, const std::string& bytes, std::size_t& taken,
                    bool& isRefused) {
    const auto [code, message] = Test::Thrown([&] { encoding.Decode(bytes, {.isStrict = true}); });
    isRefused = code != 0;
    taken = isRefused ? std::stoul(message.substr(message.find(L"byte ") + 5)) : bytes.size();
    return BytesOf(encoding.Decode(std::string_view(bytes).substr(0, taken), {.isStrict = true}).View());
}

class BesideTheSystem : public testing::TestWithParam<UINT> {};

// Byte by byte: the system joins letters and marks of 1255 and 1258.
TEST_P(BesideTheSystem, BytesHaveTheSameCharactersAndBack) {
    const TQEncoding encoding(GetParam());
    const Judge decode("UTF-32LE", JudgesName(encoding));
    const Judge encode(JudgesName(encoding), "UTF-32LE");
    ASSERT_TRUE(decode.IsThere() && encode.IsThere()) << JudgesName(encoding);
    std::size_t taken = 0;
    bool isRefused = false;
    std::size_t judged = 0;
    bool isJudged = false;
    for (int byte = 0; byte < 256; ++byte) {
        const std::string bytes(1, static_cast<char>(byte));
        EXPECT_EQ(Decoded(encoding, bytes, taken, isRefused), decode.Convert(bytes, judged, isJudged))
            << byte;
        EXPECT_EQ(isRefused, isJudged) << byte;
    }
    for (wchar_t code = 0; code <= 0xFFFF; ++code) {
        const std::wstring text(1, code);
        const std::string expected = encode.Convert(BytesOf(text), judged, isJudged);
        const bool isJoined =
            expected.size() > 1 || decode.Convert(expected, taken, isRefused) != BytesOf(text);
        const std::string bytes = encoding.Encode(text);
        // Bytes without a character are controls.
        bool isControl = false;
        if (isJudged && code >= 0x80 && code < 0xA0)
            Decoded(encoding, std::string(1, static_cast<char>(code)), taken, isControl);
        ASSERT_EQ(bytes, isControl              ? std::string(1, static_cast<char>(code))
                         : isJudged || isJoined ? "?"
                                                : expected)
            << std::hex << static_cast<unsigned>(code);
    }
}

INSTANTIATE_TEST_SUITE_P(CodePages, BesideTheSystem,
                         testing::Values(437, 850, 852, 866, 1250, 1251, 1252, 1253, 1254, 1255, 1256, 1257,
                                         1258, 28591, 28592, 28593, 28594, 28595, 28596, 28597, 28598, 28599,
                                         28600, 28601, 28603, 28604, 28605, 28606));

// Random bytes of which many are almost characters.
TEST(UnicodeBesideTheSystem, IsRefusedAtTheSamePlaces) {
    std::mt19937 random(5);
    constexpr unsigned char Likely[] = {0x00, 0x41, 0x80, 0x9F, 0xA0, 0xBF, 0xC2, 0xD8,
                                        0xDC, 0xE0, 0xED, 0xEF, 0xF0, 0xF4, 0xF5, 0x10};
    for (const UINT codePage : {65001u, 1200u, 1201u, 12000u, 12001u}) {
        const TQEncoding encoding(codePage);
        const Judge judge("UTF-32LE", JudgesName(encoding));
        for (int round = 0; round < 5000; ++round) {
            std::string bytes;
            for (unsigned i = 0; i < random() % 12; ++i)
                bytes += static_cast<char>(random() % 4 ? Likely[random() % sizeof Likely] : random());
            std::size_t taken = 0;
            bool isRefused = false;
            std::size_t judged = 0;
            bool isJudged = false;
            const std::string text = Decoded(encoding, bytes, taken, isRefused);
            ASSERT_EQ(text, judge.Convert(bytes, judged, isJudged))
                << codePage << testing::PrintToString(bytes);
            ASSERT_EQ(taken, judged) << codePage << testing::PrintToString(bytes);
            ASSERT_EQ(isRefused, isJudged) << codePage << testing::PrintToString(bytes);
        }
        std::wstring all;
        for (wchar_t code = 0; code <= 0x10FFFF; ++code)
            if (code < 0xD800 || code >= 0xE000) all += code;
        const std::string bytes = encoding.Encode(all, {.isStrict = true});
        std::size_t taken = 0;
        bool isRefused = false;
        ASSERT_EQ(bytes, Judge(JudgesName(encoding), "UTF-32LE").Convert(BytesOf(all), taken, isRefused));
        ASSERT_EQ(encoding.Decode(bytes, {.isStrict = true}), all);
    }
}

}  // namespace
}  // namespace Quellan::Corvel
