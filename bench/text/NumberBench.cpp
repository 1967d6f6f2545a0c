#include "TQLib/text/TQNumber.h"
#include "text/Cases.h"

#include <absl/strings/numbers.h>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <fmt/format.h>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Quellan::Corvel::Bench {
namespace {

constexpr std::size_t Count = 100;

// Values of all lengths, so that no contestant's branches are learnt from one.
struct Numbers {
    Numbers() {
        std::mt19937_64 random(1);
        while (integers.size() < Count) {
            const auto integer = static_cast<std::int64_t>(random() >> random() % 64);
            integers.push_back(random() % 2 ? integer : -integer);
            const std::uint64_t bits = random();
            double real;
            std::memcpy(&real, &bits, sizeof real);
            if (real != real || integers.size() % 2 != 0)
                real = static_cast<double>(random() % 10'000'000) / 100;
            reals.push_back(real);
            integerTexts.push_back(fmt::format("{}", integers.back()));
            realTexts.push_back(fmt::format("{}", real));
            wideIntegers.emplace_back(integerTexts.back().begin(), integerTexts.back().end());
            wideReals.emplace_back(realTexts.back().begin(), realTexts.back().end());
        }
    }

    std::vector<std::int64_t> integers;
    std::vector<double> reals;
    std::vector<std::string> integerTexts;
    std::vector<std::string> realTexts;
    std::vector<std::wstring> wideIntegers;
    std::vector<std::wstring> wideReals;
};

template <class T>
T FromChars(const std::string& text) {
    T value{};
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

template <class T>
void PrintChars(T value) {
    char text[32];
    Keep(std::to_chars(text, text + sizeof text, value).ptr);
}

}  // namespace

void AddNumbers(Contest& contest) {
    const auto n = std::make_shared<Numbers>();
    // Adds one contestant that does `work` to each element.
    const auto add = [&](const char* name, const char* contestant, const auto& elements, auto work) {
        contest.Add(name, contestant, [n, &elements, work] {
            for (const auto& element : elements)
                work(element);
        });
    };
    const auto parse = [](const auto& text) { Keep(TQTryParse<long long>(text).value); };
    const auto parseReal = [](const auto& text) { Keep(TQTryParse<double>(text).value); };

    add("100 integers from wide text", "TQTryParse", n->wideIntegers, parse);
    add("100 integers from wide text", "wcstoll", n->wideIntegers,
        [](const std::wstring& text) { Keep(std::wcstoll(text.c_str(), nullptr, 10)); });
    add("100 integers from narrow text", "TQTryParse", n->integerTexts, parse);
    add("100 integers from narrow text", "std::from_chars", n->integerTexts,
        [](const std::string& text) { Keep(FromChars<long long>(text)); });
    add("100 integers from narrow text", "absl::SimpleAtoi", n->integerTexts, [](const std::string& text) {
        std::int64_t value = 0;
        Keep(absl::SimpleAtoi(text, &value));
        Keep(value);
    });

    add("100 reals from wide text", "TQTryParse", n->wideReals, parseReal);
    add("100 reals from wide text", "wcstod", n->wideReals,
        [](const std::wstring& text) { Keep(std::wcstod(text.c_str(), nullptr)); });
    add("100 reals from narrow text", "TQTryParse", n->realTexts, parseReal);
    add("100 reals from narrow text", "std::from_chars", n->realTexts,
        [](const std::string& text) { Keep(FromChars<double>(text)); });
    add("100 reals from narrow text", "absl::SimpleAtod", n->realTexts, [](const std::string& text) {
        double value = 0;
        Keep(absl::SimpleAtod(text, &value));
        Keep(value);
    });

    add("100 integers to text", "TQNumberText", n->integers,
        [](std::int64_t value) { Keep(TQNumberText(value).View().data()); });
    add("100 integers to text", "std::to_chars", n->integers, [](std::int64_t value) { PrintChars(value); });
    add("100 integers to text", "fmt::format_int", n->integers,
        [](std::int64_t value) { Keep(fmt::format_int(value).data()); });
    add("100 integers to text", "std::to_wstring", n->integers,
        [](std::int64_t value) { Keep(std::to_wstring(value).data()); });

    add("100 reals to text", "TQNumberText", n->reals,
        [](double value) { Keep(TQNumberText(value).View().data()); });
    add("100 reals to text", "std::to_chars", n->reals, [](double value) { PrintChars(value); });
    add("100 reals to text", "fmt::format_to", n->reals, [](double value) {
        char text[32];
        Keep(fmt::format_to(text, FMT_STRING("{}"), value));
    });
}

}  // namespace Quellan::Corvel::Bench
