#include "TQLib/platform/Utf.h"

#include "TQLib/platform/UtfVector.h"

#include <algorithm>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Quellan::Platform {

namespace {

constexpr bool WideIsUtf16 = sizeof(wchar_t) == 2;
constexpr char32_t Replacement = 0xFFFD;

// Text is converted in two ways by turns: whole blocks while they are ASCII, and this many units character by
// character after a block that is not. So text in other scripts hardly pays for looking at blocks.
constexpr std::size_t BlockSize = 16;
constexpr std::ptrdiff_t UnitsBetweenBlocks = 64;

#if defined(__SSE2__)

__m128i Load(const void* from) noexcept {
    return _mm_loadu_si128(static_cast<const __m128i*>(from));
}

void Store(void* to, __m128i value) noexcept {
    _mm_storeu_si128(static_cast<__m128i*>(to), value);
}

bool IsAsciiBlock(const char* text) noexcept {
    return _mm_movemask_epi8(Load(text)) == 0;
}

bool IsAsciiBlock(const wchar_t* text) noexcept {
    constexpr std::size_t PerVector = sizeof(__m128i) / sizeof(wchar_t);
    __m128i all = Load(text);
    for (std::size_t i = PerVector; i < BlockSize; i += PerVector)
        all = _mm_or_si128(all, Load(text + i));
    const __m128i beyond = WideIsUtf16 ? _mm_srli_epi16(all, 7) : _mm_srli_epi32(all, 7);
    return _mm_movemask_epi8(_mm_cmpeq_epi8(beyond, _mm_setzero_si128())) == 0xFFFF;
}

void CopyAsciiBlock(const char* from, wchar_t* to) noexcept {
    const __m128i zero = _mm_setzero_si128();
    const __m128i bytes = Load(from);
    const __m128i words[2] = {_mm_unpacklo_epi8(bytes, zero), _mm_unpackhi_epi8(bytes, zero)};
    for (std::size_t i = 0; i < 2; ++i, to += BlockSize / 2) {
        if constexpr (WideIsUtf16) {
            Store(to, words[i]);
        } else {
            Store(to, _mm_unpacklo_epi16(words[i], zero));
            Store(to + 4, _mm_unpackhi_epi16(words[i], zero));
        }
    }
}

void CopyAsciiBlock(const wchar_t* from, char* to) noexcept {
    if constexpr (WideIsUtf16)
        Store(to, _mm_packus_epi16(Load(from), Load(from + 8)));
    else
        Store(to, _mm_packus_epi16(_mm_packs_epi32(Load(from), Load(from + 4)),
                                   _mm_packs_epi32(Load(from + 8), Load(from + 12))));
}

// False where the block is something else; what was copied is of no use then.
bool CopyPrintableBlock(const wchar_t* from, char* to) noexcept {
    // What is no ASCII becomes 0 or 255, and that is less than a blank too.
    CopyAsciiBlock(from, to);
    const __m128i bytes = Load(to);
    const __m128i isOther = _mm_cmplt_epi8(bytes, _mm_set1_epi8(' '));
    const __m128i isDelete = _mm_cmpeq_epi8(bytes, _mm_set1_epi8(0x7F));
    return _mm_movemask_epi8(_mm_or_si128(isOther, isDelete)) == 0;
}

#else

bool IsAsciiBlock(const char* text) noexcept {
    std::uint64_t words[BlockSize / 8];
    std::memcpy(words, text, sizeof words);
    return ((words[0] | words[1]) & 0x8080808080808080u) == 0;
}

bool IsAsciiBlock(const wchar_t* text) noexcept {
    std::uint32_t all = 0;
    for (std::size_t i = 0; i < BlockSize; ++i)
        all |= static_cast<std::uint32_t>(text[i]);
    return all < 0x80;
}

// The fixed length and `__restrict` let the compiler make vector instructions of it.
template <class From, class To>
void CopyAsciiBlock(const From* __restrict from, To* __restrict to) noexcept {
    for (std::size_t i = 0; i < BlockSize; ++i)
        to[i] = static_cast<To>(from[i]);
}

bool CopyPrintableBlock(const wchar_t* from, char* to) noexcept {
    bool isPrintable = true;
    for (std::size_t i = 0; i < BlockSize; ++i)
        isPrintable &= from[i] >= L' ' && from[i] < 0x7F;
    CopyAsciiBlock(from, to);
    return isPrintable;
}

#endif

struct Decoded {
    char32_t code;
    std::size_t size;  // of what was read
};

constexpr bool IsCharacter(char32_t code) noexcept {
    return code <= 0x10FFFF && (code & 0x1FF800) != 0xD800;
}

// The size of what one replacement stands for where no character begins: the longest part that could have
// begun one, or one byte.
TQ_NOINLINE std::size_t MalformedSize(const char* text, std::size_t size) noexcept {
    const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    if (byte(0) < 0xE0 || byte(0) > 0xF4 || size < 2) return 1;
    // The second byte rules out overlong forms, surrogates and values above 0x10FFFF.
    const unsigned lowest = byte(0) == 0xE0 ? 0xA0 : byte(0) == 0xF0 ? 0x90 : 0x80;
    const unsigned highest = byte(0) == 0xED ? 0x9F : byte(0) == 0xF4 ? 0x8F : 0xBF;
    if (byte(1) < lowest || byte(1) > highest) return 1;
    return byte(0) < 0xF0 || size < 3 || (byte(2) & 0xC0) != 0x80 ? 2 : 3;
}

// Reads one character that does not begin with an ASCII byte. Inlined by force: with a call for each
// character text beyond ASCII would be slower than in a plain loop.
TQ_ALWAYS_INLINE inline Decoded Decode(const char* text, std::size_t size) noexcept {
    // Continuation bytes lose their mark; any other byte keeps one of the two highest bits.
    const auto bits = [text](std::size_t i) -> char32_t {
        return static_cast<unsigned char>(text[i]) ^ 0x80u;
    };
    const char32_t lead = static_cast<unsigned char>(text[0]);
    if (lead < 0xE0) {
        if (lead >= 0xC2 && size >= 2 && bits(1) < 0x40) return {(lead & 0x1F) << 6 | bits(1), 2};
    } else if (lead < 0xF0) {
        if (size >= 3 && (bits(1) | bits(2)) < 0x40) {
            const char32_t code = (lead & 0x0F) << 12 | bits(1) << 6 | bits(2);
            if (code >= 0x800 && IsCharacter(code)) return {code, 3};
        }
    } else if (size >= 4 && (bits(1) | bits(2) | bits(3)) < 0x40) {
        const char32_t code = (lead & 0x0F) << 18 | bits(1) << 12 | bits(2) << 6 | bits(3);
        if (code >= 0x10000 && code <= 0x10FFFF) return {code, 4};
    }
    return {Replacement, MalformedSize(text, size)};
}

Decoded Decode(const wchar_t* text, std::size_t size) noexcept {
    if constexpr (WideIsUtf16) {
        const char32_t first = static_cast<std::uint16_t>(text[0]);
        if ((first & 0xF800) != 0xD800) return {first, 1};
        if (first >= 0xDC00 || size < 2) return {Replacement, 1};
        const char32_t second = static_cast<std::uint16_t>(text[1]);
        if ((second & 0xFC00) != 0xDC00) return {Replacement, 1};
        return {0x10000 + ((first & 0x3FF) << 10) + (second & 0x3FF), 2};
    } else {
        const auto code = static_cast<char32_t>(text[0]);
        return {IsCharacter(code) ? code : Replacement, 1};
    }
}

wchar_t* Put(char32_t code, wchar_t* out) noexcept {
    if (WideIsUtf16 && code > 0xFFFF) {
        *out++ = static_cast<wchar_t>(0xD800 + ((code - 0x10000) >> 10));
        code = 0xDC00 + ((code - 0x10000) & 0x3FF);
    }
    *out++ = static_cast<wchar_t>(code);
    return out;
}

char* Put(char32_t code, char* out) noexcept {
    // The bytes of a character as one number, the first byte at its top: compilers store it in one or two
    // steps.
    const auto put = [&out](char32_t bytes, int count) {
        while (count-- > 0)
            *out++ = static_cast<char>(bytes >> 8 * count);
    };
    if (code < 0x80)
        put(code, 1);
    else if (code < 0x800)
        put(0xC080 | (code & 0x7C0) << 2 | (code & 0x3F), 2);
    else if (code < 0x10000)
        put(0xE08080 | (code & 0xF000) << 4 | (code & 0xFC0) << 2 | (code & 0x3F), 3);
    else
        put(0xF0808080 | (code & 0x1C0000) << 6 | (code & 0x3F000) << 4 | (code & 0xFC0) << 2 | (code & 0x3F),
            4);
    return out;
}

template <class From, class To>
To* PutAscii(From character, To* out) noexcept {
    *out = static_cast<To>(character);
    return out + 1;
}

// A place to write to that only counts.
template <class Unit>
struct Counter {
    std::size_t count = 0;
};

template <class From, class To>
void CopyAsciiBlock(const From*, Counter<To>) noexcept {}

Counter<wchar_t> operator+(Counter<wchar_t> out, std::size_t n) noexcept {
    return {out.count + n};
}
Counter<char> operator+(Counter<char> out, std::size_t n) noexcept {
    return {out.count + n};
}

template <class From, class To>
Counter<To> PutAscii(From, Counter<To> out) noexcept {
    return out + 1;
}

Counter<wchar_t> Put(char32_t code, Counter<wchar_t> out) noexcept {
    return out + (WideIsUtf16 && code > 0xFFFF ? 2 : 1);
}

Counter<char> Put(char32_t code, Counter<char> out) noexcept {
    return out + (code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4);
}

template <class Unit>
using UnsignedOf = std::conditional_t<sizeof(Unit) == 1, std::uint8_t, std::uint32_t>;

VectorStep ConvertVectors(std::string_view text, wchar_t* out) noexcept {
    return VectorToWide(text, out);
}
VectorStep ConvertVectors(std::wstring_view text, char* out) noexcept {
    return VectorToUtf8(text, out);
}
VectorStep ConvertVectors(std::string_view, Counter<wchar_t>) noexcept {
    return {0, 0};
}
VectorStep ConvertVectors(std::wstring_view text, Counter<char>) noexcept {
    return VectorUtf8Length(text);
}

template <class From, class To>
To Convert(std::basic_string_view<From> text, To out) noexcept {
    const From* p = text.data();
    const From* const end = p + text.size();
    while (p != end) {
        while (static_cast<std::size_t>(end - p) >= BlockSize && IsAsciiBlock(p)) {
            CopyAsciiBlock(p, out);
            p += BlockSize;
            out = out + BlockSize;
        }
        if (const auto left = static_cast<std::size_t>(end - p); left >= LeastVectorText) {
            const VectorStep step = ConvertVectors(std::basic_string_view<From>(p, left), out);
            p += step.read;
            out = out + step.written;
        }
        const From* const stop = p + std::min(end - p, UnitsBetweenBlocks);
        while (p < stop) {
            if (static_cast<UnsignedOf<From>>(*p) < 0x80) {
                out = PutAscii(*p++, out);
            } else {
                const auto [code, size] = Decode(p, static_cast<std::size_t>(end - p));
                out = Put(code, out);
                p += size;
            }
        }
    }
    return out;
}

// What stands in valid text for the character that replaces invalid text.
bool BeginsWithReplacement(std::string_view text) noexcept {
    return text.starts_with("\xEF\xBF\xBD");
}
bool BeginsWithReplacement(std::wstring_view text) noexcept {
    return text.starts_with(wchar_t{Replacement});
}

template <class From>
std::size_t ValidPart(std::basic_string_view<From> text) noexcept {
    std::size_t done = 0;
    while (done != text.size()) {
        const std::basic_string_view<From> rest = text.substr(done);
        if (rest.size() >= BlockSize && IsAsciiBlock(rest.data())) {
            done += BlockSize;
        } else if (static_cast<UnsignedOf<From>>(rest[0]) < 0x80) {
            ++done;
        } else {
            const auto [code, size] = Decode(rest.data(), rest.size());
            if (code == Replacement && !BeginsWithReplacement(rest)) break;
            done += size;
        }
    }
    return done;
}

// The size of the blocks that `text` begins with and that are ASCII.
std::size_t AsciiBlocks(std::string_view text) noexcept {
    std::size_t done = 0;
    while (text.size() - done >= BlockSize && IsAsciiBlock(text.data() + done))
        done += BlockSize;
    return done;
}

}  // namespace

std::size_t CopyPrintable(std::wstring_view text, char* out) noexcept {
    std::size_t done = 0;
    if (text.size() >= BlockSize)
        while (done != text.size()) {
            // The last block begins inside the one before it.
            const std::size_t at = std::min(done, text.size() - BlockSize);
            if (!CopyPrintableBlock(text.data() + at, out + at)) break;
            done = at + BlockSize;
        }
    const auto isPrintable = [](wchar_t c) { return c >= L' ' && c < 0x7F; };
    for (; done != text.size() && isPrintable(text[done]); ++done)
        out[done] = static_cast<char>(text[done]);
    return done;
}

bool IsValidText(std::string_view text) noexcept {
    return ValidLength(text) == text.size();
}

bool IsValidText(std::wstring_view text) noexcept {
    return ValidPart(text) == text.size();
}

std::size_t ValidLength(std::string_view text) noexcept {
    const std::size_t done = AsciiBlocks(text);
    const std::string_view rest = text.substr(done);
    return rest.size() >= LeastVectorText && VectorWideLength(rest) ? text.size() : done + ValidPart(rest);
}

std::size_t ValidLength(std::wstring_view text) noexcept {
    return ValidPart(text);
}

std::size_t WideLength(std::string_view text) noexcept {
    const std::size_t done = AsciiBlocks(text);
    const std::string_view rest = text.substr(done);
    if (rest.size() >= LeastVectorText)
        if (const auto length = VectorWideLength(rest)) return done + *length;
    return done + Convert(rest, Counter<wchar_t>{}).count;
}

std::size_t Utf8Length(std::wstring_view text) noexcept {
    return Convert(text, Counter<char>{}).count;
}

std::size_t Utf8ToWide(std::string_view text, std::span<wchar_t> out) noexcept {
    return static_cast<std::size_t>(Convert(text, out.data()) - out.data());
}

std::size_t WideToUtf8(std::wstring_view text, std::span<char> out) noexcept {
    return static_cast<std::size_t>(Convert(text, out.data()) - out.data());
}

}  // namespace Quellan::Platform
