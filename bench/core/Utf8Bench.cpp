#include "TQLib/platform/Utf.h"
#include "core/Cases.h"

#include <algorithm>
#include <iconv.h>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quellan::Corvel::Bench {

namespace {

// The conversion as one writes it first, with the same answers for what is no character. It is compiled as
// the library is; nothing in it can become a vector instruction, as each step's length depends on the one
// before.
namespace Plain {

constexpr char32_t Replacement = 0xFFFD;

[[gnu::noinline]] std::size_t WideToUtf8(std::wstring_view text, char* out) {
    char* const begin = out;
    for (const wchar_t character : text) {
        auto code = static_cast<char32_t>(character);
        if (code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) code = Replacement;
        if (code < 0x80) {
            *out++ = static_cast<char>(code);
        } else if (code < 0x800) {
            *out++ = static_cast<char>(0xC0 | (code >> 6));
            *out++ = static_cast<char>(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            *out++ = static_cast<char>(0xE0 | (code >> 12));
            *out++ = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            *out++ = static_cast<char>(0x80 | (code & 0x3F));
        } else {
            *out++ = static_cast<char>(0xF0 | (code >> 18));
            *out++ = static_cast<char>(0x80 | ((code >> 12) & 0x3F));
            *out++ = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            *out++ = static_cast<char>(0x80 | (code & 0x3F));
        }
    }
    return static_cast<std::size_t>(out - begin);
}

[[gnu::noinline]] std::size_t Utf8ToWide(std::string_view text, wchar_t* out) {
    wchar_t* const begin = out;
    const std::size_t size = text.size();
    for (std::size_t i = 0; i < size;) {
        const auto lead = static_cast<unsigned char>(text[i++]);
        if (lead < 0x80) {
            *out++ = static_cast<wchar_t>(lead);
            continue;
        }
        int more = lead >= 0xC2 && lead < 0xE0   ? 1
                   : lead >= 0xE0 && lead < 0xF0 ? 2
                   : lead >= 0xF0 && lead < 0xF5 ? 3
                                                 : 0;
        if (more == 0) {
            *out++ = static_cast<wchar_t>(Replacement);
            continue;
        }
        char32_t code = lead & (0x3Fu >> more);
        unsigned char lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
        unsigned char highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
        for (; more > 0 && i < size; --more, ++i) {
            const auto byte = static_cast<unsigned char>(text[i]);
            if (byte < lowest || byte > highest) break;
            code = code << 6 | (byte & 0x3F);
            lowest = 0x80;
            highest = 0xBF;
        }
        *out++ = static_cast<wchar_t>(more == 0 ? code : Replacement);
    }
    return static_cast<std::size_t>(out - begin);
}

}  // namespace Plain

class Converter {
  public:
    Converter(const char* to, const char* from) : m_state(iconv_open(to, from), &iconv_close) {}

    std::size_t Convert(const void* from, std::size_t size, void* to, std::size_t room) const {
        auto* in = static_cast<char*>(const_cast<void*>(from));
        auto* out = static_cast<char*>(to);
        iconv(m_state.get(), &in, &size, &out, &room);
        return room;
    }

  private:
    std::shared_ptr<void> m_state;
};

// A text in both forms, and room for a conversion.
struct Sample {
    explicit Sample(std::wstring text) : wide(std::move(text)) {
        narrow.resize(wide.size() * 4);
        narrow.resize(Platform::WideToUtf8(wide, narrow));
        wideOut.resize(wide.size());
        narrowOut.resize(wide.size() * 4);
    }

    Sample& Next() { return *this; }

    std::wstring wide;
    std::string narrow;
    std::wstring wideOut;
    std::string narrowOut;
};

// Texts by turns, so that the processor does not learn one.
struct Samples {
    Sample& Next() {
        next = (next + 1) % all.size();
        return all[next];
    }

    std::vector<Sample> all;
    std::size_t next = 0;
};

std::wstring Repeated(std::wstring_view phrase, std::size_t length) {
    std::wstring text;
    while (text.size() < length)
        text.append(phrase.substr(0, length - text.size()));
    return text;
}

// The phrase's characters by chance, enough of them in all that the processor learns no order.
std::shared_ptr<Samples> Shuffled(std::wstring_view phrase, std::size_t length) {
    constexpr std::size_t Characters = 100'000;
    std::mt19937 random(1);
    const auto samples = std::make_shared<Samples>();
    for (std::size_t done = 0; done < Characters; done += length) {
        std::wstring text(length, L' ');
        std::ranges::generate(text, [&] { return phrase[random() % phrase.size()]; });
        samples->all.emplace_back(std::move(text));
    }
    return samples;
}

template <class Texts>
void AddSample(Contest& contest, const std::string& name, const std::shared_ptr<Texts>& texts) {
    const std::string encode = name + " to UTF-8";
    contest.Add(encode, "WideToUtf8", [texts] {
        Sample& s = texts->Next();
        Keep(Platform::WideToUtf8(s.wide, s.narrowOut));
    });
    contest.Add(encode, "plain loop", [texts] {
        Sample& s = texts->Next();
        Keep(Plain::WideToUtf8(s.wide, s.narrowOut.data()));
    });
    contest.Add(encode, "iconv", [texts, converter = Converter("UTF-8", "WCHAR_T")] {
        Sample& s = texts->Next();
        Keep(converter.Convert(s.wide.data(), s.wide.size() * sizeof(wchar_t), s.narrowOut.data(),
                               s.narrowOut.size()));
    });

    const std::string decode = name + " from UTF-8";
    contest.Add(decode, "Utf8ToWide", [texts] {
        Sample& s = texts->Next();
        Keep(Platform::Utf8ToWide(s.narrow, s.wideOut));
    });
    contest.Add(decode, "plain loop", [texts] {
        Sample& s = texts->Next();
        Keep(Plain::Utf8ToWide(s.narrow, s.wideOut.data()));
    });
    contest.Add(decode, "iconv", [texts, converter = Converter("WCHAR_T", "UTF-8")] {
        Sample& s = texts->Next();
        Keep(converter.Convert(s.narrow.data(), s.narrow.size(), s.wideOut.data(),
                               s.wideOut.size() * sizeof(wchar_t)));
    });
}

// Beside the conversion, which counts too.
void AddLengths(Contest& contest, const std::string& name, const std::shared_ptr<Samples>& texts) {
    const std::string units = name + " length from UTF-8";
    contest.Add(units, "WideLength", [texts] { Keep(Platform::WideLength(texts->Next().narrow)); });
    contest.Add(units, "plain loop", [texts] {
        Sample& s = texts->Next();
        Keep(Plain::Utf8ToWide(s.narrow, s.wideOut.data()));
    });
    const std::string bytes = name + " length to UTF-8";
    contest.Add(bytes, "Utf8Length", [texts] { Keep(Platform::Utf8Length(texts->Next().wide)); });
    contest.Add(bytes, "plain loop", [texts] {
        Sample& s = texts->Next();
        Keep(Plain::WideToUtf8(s.wide, s.narrowOut.data()));
    });
}

}  // namespace

void AddConversion(Contest& contest) {
    const struct {
        const char* name;
        std::wstring_view phrase;
    } scripts[] = {
        {"ASCII", L"The service could not open its log file, so it writes to the system log. "},
        {"Latin", L"Größe geprüft; l'accès à été refusé à l'élève; año señalado, şu çağrı. "},
        {"Cyrillic", L"Не удалось открыть файл журнала службы; запись идёт в системный журнал. "},
        {"CJK", L"系统找不到指定的文件。このファイルは別のプロセスで使われています。"},
        {"emoji", L"😀🚀🎉🔥👍🌍🐍🎲📦🔒🧪💾"},
    };
    for (const std::size_t length : {std::size_t{16}, std::size_t{256}, std::size_t{65536}})
        for (const auto& [name, phrase] : scripts)
            AddSample(contest, std::string(name) + " " + std::to_string(length),
                      std::make_shared<Sample>(Repeated(phrase, length)));
    for (const std::size_t length : {std::size_t{1000}, std::size_t{100000}})
        for (const auto& [name, phrase] : scripts) {
            const std::string text = std::string(name) + " shuffled " + std::to_string(length);
            const auto texts = Shuffled(phrase, length);
            AddSample(contest, text, texts);
            AddLengths(contest, text, texts);
        }
}

}  // namespace Quellan::Corvel::Bench
