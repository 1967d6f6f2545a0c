#include "TQLib/platform/Win32.h"
#include "TQLib/text/TQNumber.h"
#include "support/ThrownCode.h"

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>

namespace Quellan::Corvel {
namespace {

using Fault = TQNumberFault;
using Test::Failure;
using Test::Thrown;
using Test::ThrownCode;
using Test::ThrownText;

std::wstring WideOf(std::string_view text) {
    return {text.begin(), text.end()};
}

template <class T>
void ExpectInteger(std::string_view text, unsigned base, T value, std::size_t length,
                   Fault fault = Fault::NoFault) {
    const TQParsed<T> wide = TQTryParse<T>(WideOf(text), base);
    const TQParsed<T> narrow = TQTryParse<T>(text, base);
    EXPECT_TRUE(wide.value == value && wide.length == length && wide.fault == fault)
        << text << ": " << +wide.value << ", " << wide.length << ", " << static_cast<int>(wide.fault);
    EXPECT_TRUE(narrow.value == value && narrow.length == length && narrow.fault == fault) << text;
}

TEST(Number, ReadsIntegersOfEachWidthToTheirBorders) {
    ExpectInteger<signed char>("127", 10, 127, 3);
    ExpectInteger<signed char>("128 and more", 10, 127, 3, Fault::Overflow);
    ExpectInteger<signed char>("-128", 10, -128, 4);
    ExpectInteger<signed char>("-129", 10, -128, 4, Fault::Overflow);
    ExpectInteger<unsigned char>("+0000000000000000000000000255", 10, 255, 29);
    ExpectInteger<unsigned char>("256", 10, 255, 3, Fault::Overflow);
    ExpectInteger<short>("-8000", 16, -32768, 5);
    ExpectInteger<unsigned short>("FfFf", 16, 65535, 4);
    ExpectInteger<int>("2147483648", 10, 2147483647, 10, Fault::Overflow);
    ExpectInteger<unsigned>("4294967295", 10, 4294967295u, 10);
    ExpectInteger<long long>("-9223372036854775808", 10, std::numeric_limits<long long>::min(), 20);
    ExpectInteger<long long>("9223372036854775808", 10, std::numeric_limits<long long>::max(), 19,
                             Fault::Overflow);
    ExpectInteger<unsigned long long>("18446744073709551615", 10, ~0ull, 20);
    ExpectInteger<unsigned long long>("18446744073709551616", 10, ~0ull, 20, Fault::Overflow);
    ExpectInteger<unsigned long long>("99999999999999999999999x", 10, ~0ull, 23, Fault::Overflow);
    ExpectInteger<unsigned long long>(std::string(64, '1'), 2, ~0ull, 64);
    ExpectInteger<unsigned long long>("1" + std::string(64, '0'), 2, ~0ull, 65, Fault::Overflow);
    ExpectInteger<unsigned long long>("3w5e11264sgsf", 36, ~0ull, 13);
}

TEST(Number, StopsWhereAnIntegerEnds) {
    ExpectInteger<int>("12,5", 10, 12, 2);
    ExpectInteger<int>("78", 8, 7, 1);
    ExpectInteger<int>("zZ!", 36, 35 * 37, 2);
    ExpectInteger<int>("-0", 10, 0, 2);
    for (const char* const none : {"", "-", "+", " 5", "--5", "+-5", "x", "g"})
        ExpectInteger<int>(none, 16, 0, 0, Fault::NoNumber);
    ExpectInteger<unsigned>("-0", 10, 0, 0, Fault::NoNumber);
    EXPECT_EQ(TQTryParse<int>(L"1\u0130").length, 1u) << "0x130 is no 0 of ASCII";
    EXPECT_EQ(TQTryParse<int>(L"\uFF11").fault, Fault::NoNumber);
    EXPECT_EQ(TQTryParse<int>(static_cast<const wchar_t*>(nullptr)).fault, Fault::NoNumber);
}

TEST(Number, LetsThePrefixChooseTheBase) {
    ExpectInteger<int>("0x1F", 0, 31, 4);
    ExpectInteger<int>("-0X1f", 0, -31, 5);
    ExpectInteger<int>("0o17", 0, 15, 4);
    ExpectInteger<int>("0b102", 0, 2, 4);
    ExpectInteger<int>("017", 0, 17, 3);
    ExpectInteger<int>("0x", 0, 0, 1);
    ExpectInteger<int>("0xg", 0, 0, 1);
    ExpectInteger<int>("0x1F", 16, 0, 1);
    EXPECT_EQ(ThrownCode([] { (void)TQTryParse<int>(L"1", 1); }), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ThrownCode([] { (void)TQTryParse<int>(L"1", 37); }), DWORD{ERROR_INVALID_PARAMETER});
}

template <class T>
void ExpectReal(std::string_view text, T value, std::size_t length, Fault fault = Fault::NoFault) {
    const auto same = [&](TQParsed<T> parsed) {
        return (parsed.value == value || (value != value && parsed.value != parsed.value)) &&
               std::signbit(parsed.value) == std::signbit(value) && parsed.length == length &&
               parsed.fault == fault;
    };
    const TQParsed<T> wide = TQTryParse<T>(WideOf(text));
    EXPECT_TRUE(same(wide)) << text << ": " << wide.value << ", " << wide.length << ", "
                            << static_cast<int>(wide.fault);
    EXPECT_TRUE(same(TQTryParse<T>(text))) << text;
}

TEST(Number, ReadsRealNumbersToTheNearestValue) {
    ExpectReal("0.1", 0.1, 3);
    ExpectReal("+.5", 0.5, 3);
    ExpectReal("-5.", -5.0, 3);
    ExpectReal("-0", -0.0, 2);
    ExpectReal("1e23 m", 1e23, 4);
    ExpectReal("1e", 1.0, 1);
    ExpectReal("1e+", 1.0, 1);
    ExpectReal("1,5", 1.0, 1);
    ExpectReal("0x1p3", 0.0, 1);
    ExpectReal("1.7976931348623157e308", DBL_MAX, 22);
    ExpectReal("4.9e-324", 4.9406564584124654e-324, 8);
    ExpectReal("16777217", 16777216.0f, 8);
    ExpectReal("-INFinity7", -HUGE_VAL, 9);
    ExpectReal("nan", std::nan(""), 3);
    for (const char* const none : {"", "+", "-", ".", "e5", "+-1", "-+1", "++1", " 1", "\xFF"})
        ExpectReal(none, 0.0, 0, Fault::NoNumber);
    EXPECT_EQ(TQTryParse<double>(L"1.5\u0130").length, 3u);
}

TEST(Number, TellsTooLargeFromTooSmall) {
    ExpectReal("1e400", HUGE_VAL, 5, Fault::Overflow);
    ExpectReal("-1e99999999999999999999999", -HUGE_VAL, 26, Fault::Overflow);
    ExpectReal("1e-400", 0.0, 6, Fault::Underflow);
    ExpectReal("-2.4703e-324", -0.0, 12, Fault::Underflow);
    ExpectReal("1e39", HUGE_VALF, 4, Fault::Overflow);
    ExpectReal("1e-46", 0.0f, 5, Fault::Underflow);
    ExpectReal(std::string(400, '9') + ".0", HUGE_VAL, 402, Fault::Overflow);
    ExpectReal("0." + std::string(400, '0') + "1", 0.0, 403, Fault::Underflow);
    ExpectReal("0." + std::string(400, '0') + "1e401", 1.0, 407);
}

TEST(Number, CountsEveryDigitOfALongNumber) {
    // Half way between two neighbours, and one digit beyond, far behind.
    const std::string half = "9007199254740993";
    ExpectReal(half + "." + std::string(700, '0'), 9007199254740992.0, 717);
    ExpectReal(half + "." + std::string(700, '0') + "1", 9007199254740994.0, 718);
    ExpectReal("1" + std::string(63, '0') + "e-63", 1.0, 68);
    ExpectReal("1" + std::string(62, '0') + "e", 1e62, 63);
}

TEST(Number, ParsesAWholeTextOrThrowsWithIt) {
    EXPECT_EQ(TQParse<int>(L"-12"), -12);
    EXPECT_EQ(TQParse<unsigned char>("ff", 16), 255);
    EXPECT_EQ(TQParse<double>(TQString(L"1.5")), 1.5);
    const auto thrown = [](const auto& text) { return Thrown([&] { (void)TQParse<short>(text); }); };
    EXPECT_EQ(thrown(L"12x"), Failure(ERROR_INVALID_DATA, L"TQParse: \"12x\" is no such number."));
    EXPECT_EQ(thrown("32768"),
              Failure(ERROR_ARITHMETIC_OVERFLOW, L"TQParse: \"32768\" is too large for its type."));
    EXPECT_EQ(thrown("32768 m").first, DWORD{ERROR_INVALID_DATA});
    EXPECT_EQ(thrown(std::string(1000, '7')).second,
              L"TQParse: \"" + std::wstring(80, L'7') + L"\" is too large for its type.");
    EXPECT_EQ(ThrownText([] { (void)TQParse<float>(L"1e-60"); }),
              L"TQParse: \"1e-60\" is too small for its type.");
}

TEST(Number, IsWrittenInEveryBaseAndGrouped) {
    EXPECT_EQ(TQNumberText(0).View(), L"0");
    EXPECT_EQ(TQNumberText(std::numeric_limits<long long>::min()).View(), L"-9223372036854775808");
    EXPECT_EQ(TQaNumberText(static_cast<signed char>(-128)).View(), "-128");
    EXPECT_EQ(TQNumberText(~0ull).View(), L"18446744073709551615");
    EXPECT_EQ(TQNumberText(~0ull, 16).View(), L"ffffffffffffffff");
    EXPECT_EQ(TQNumberText(std::numeric_limits<long long>::min(), 2).View(), L"-1" + std::wstring(63, L'0'));
    EXPECT_EQ(TQNumberText(-35, 36).View(), L"-z");
    EXPECT_EQ(ThrownCode([] { TQNumberText(1, 0); }), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(TQNumberText::Grouped(1234567).View(), L"1,234,567");
    EXPECT_EQ(TQNumberText::Grouped(-1000, L'.').View(), L"-1.000");
    EXPECT_EQ(TQNumberText::Grouped(999).View(), L"999");
    EXPECT_EQ(TQNumberText::Grouped(~0ull).View(), L"18,446,744,073,709,551,615");
    TQString text = L"at ";
    EXPECT_EQ(text += TQNumberText(5), L"at 5");
}

TEST(Number, OfBytesIsRoundedToItsUnit) {
    const auto bytes = [](ULONGLONG count) { return TQString(TQNumberText::Bytes(count)); };
    EXPECT_EQ(bytes(0), L"0 B");
    EXPECT_EQ(bytes(1023), L"1023 B");
    EXPECT_EQ(bytes(1024), L"1 KB");
    EXPECT_EQ(bytes(1536), L"1.5 KB");
    EXPECT_EQ(bytes((1 << 20) - 1), L"1 MB") << "never 1024 KB";
    EXPECT_EQ(bytes(1610612736), L"1.5 GB");
    EXPECT_EQ(bytes(1075), L"1 KB");
    EXPECT_EQ(bytes(1076), L"1.1 KB");
    EXPECT_EQ(bytes(~0ull), L"16 EB");
}

TEST(Number, IsWrittenWithAsFewDigitsAsGiveItBack) {
    EXPECT_EQ(TQNumberText(0.1).View(), L"0.1");
    EXPECT_EQ(TQNumberText(0.1f).View(), L"0.1");
    EXPECT_EQ(TQNumberText(-5e-324).View(), L"-5e-324");
    EXPECT_EQ(TQNumberText(DBL_MAX).View(), L"1.7976931348623157e+308");
    std::mt19937_64 random(1);
    for (int i = 0; i < 1000; ++i) {
        const std::uint64_t bits = random();
        double value;
        std::memcpy(&value, &bits, sizeof value);
        if (value == value) {
            EXPECT_EQ(TQParse<double>(TQNumberText(value).View()), value);
        }
    }
}

// Texts around the borders of the types and texts of the characters that numbers have.
class RandomNumbers {
  public:
    std::string Integer() {
        static constexpr const char* Borders[] = {"9223372036854775807",
                                                  "9223372036854775808",
                                                  "-9223372036854775808",
                                                  "18446744073709551615",
                                                  "18446744073709551616",
                                                  "127",
                                                  "-129",
                                                  "255",
                                                  "65536",
                                                  "7fffffffffffffff",
                                                  "ffffffffffffffff",
                                                  "00000000000000000000000127"};
        if (m_random() % 3 == 0) return Characters("0123456789abcdefzABCXZ+-. xe", m_random() % 24);
        std::string text = Borders[m_random() % std::size(Borders)];
        if (m_random() % 2) text[m_random() % text.size()] = "0123456789afz+-"[m_random() % 15];
        return text;
    }
    std::string Real() {
        if (m_random() % 3 == 0) return Characters("0123456789.eE+-", m_random() % 80);
        std::string text;
        if (m_random() % 2) {
            const std::uint64_t bits = m_random();
            double value;
            std::memcpy(&value, &bits, sizeof value);
            char printed[64];
            std::snprintf(printed, sizeof printed, "%.*e", static_cast<int>(m_random() % 20), value);
            text = printed;
        } else {
            text = Characters("0123456789", 1 + m_random() % 30) + "." +
                   Characters("0123456789", m_random() % 30) + "e" +
                   std::to_string(static_cast<int>(m_random() % 700) - 350);
        }
        if (m_random() % 8 == 0) text[m_random() % text.size()] = ".e-5"[m_random() % 4];
        return text;
    }
    unsigned Base() { return m_random() % 2 ? 10 : 2 + static_cast<unsigned>(m_random() % 35); }

  private:
    std::string Characters(std::string_view from, std::size_t count) {
        std::string text;
        for (; count != 0; --count)
            text += from[m_random() % from.size()];
        return text;
    }

    std::mt19937_64 m_random{20221122};
};

// The C library reads more: blanks in front, 0x in front of what has the base 16.
bool IsReadAlike(const std::string& text, unsigned base) {
    if (text.empty() || text[0] == ' ') return false;
    const std::size_t begin = text[0] == '+' || text[0] == '-' ? 1 : 0;
    return base != 16 || text.size() < begin + 2 || text[begin] != '0' || (text[begin + 1] | 0x20) != 'x';
}

TEST(Number, AgreesWithTheCLibraryOnRandomTexts) {
    const char* const asked = std::getenv("TQ_NUMBER_TEXTS");
    const long texts = asked ? std::atol(asked) : 200'000;
    RandomNumbers random;
    long compared = 0;
    for (long i = 0; i < texts && !HasFailure(); ++i) {
        const std::string text = random.Integer();
        const unsigned base = random.Base();
        if (IsReadAlike(text, base)) {
            char* end;
            errno = 0;
            const long long value = std::strtoll(text.c_str(), &end, static_cast<int>(base));
            const Fault fault = errno == ERANGE       ? Fault::Overflow
                                : end == text.c_str() ? Fault::NoNumber
                                                      : Fault::NoFault;
            ExpectInteger(text, base, value, static_cast<std::size_t>(end - text.c_str()), fault);
            if (text[0] != '-') {
                errno = 0;
                const unsigned long long whole = std::strtoull(text.c_str(), &end, static_cast<int>(base));
                ExpectInteger(text, base, whole, static_cast<std::size_t>(end - text.c_str()),
                              errno == ERANGE            ? Fault::Overflow
                              : fault == Fault::NoNumber ? fault
                                                         : Fault::NoFault);
            }
            ++compared;
        }
        const std::string real = random.Real();
        if (real.find("nan") != real.npos || real.find("inf") != real.npos) continue;
        char* end;
        errno = 0;
        const double value = std::strtod(real.c_str(), &end);
        const auto length = static_cast<std::size_t>(end - real.c_str());
        // Values that are less exact for being tiny are out of its range too.
        ExpectReal(real, length == 0 ? 0 : value, length,
                   length == 0                            ? Fault::NoNumber
                   : errno == ERANGE && value == 0        ? Fault::Underflow
                   : errno == ERANGE && std::isinf(value) ? Fault::Overflow
                                                          : Fault::NoFault);
        ++compared;
    }
    EXPECT_GT(compared, texts);
}

}  // namespace
}  // namespace Quellan::Corvel
