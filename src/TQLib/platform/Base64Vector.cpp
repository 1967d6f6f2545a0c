#include "TQLib/platform/Base64Vector.h"

#include "TQLib/platform/Compiler.h"

#include <cstdint>
#include <cstring>

#if defined(TQ_FOR_SSSE3)
#include <tmmintrin.h>
#endif

namespace Quellan::Platform {

#if defined(TQ_FOR_SSSE3)

namespace {

constexpr std::size_t TextStep = 16;
constexpr std::size_t ByteStep = 12;

__m128i Bytes(int value) noexcept {
    return _mm_set1_epi8(static_cast<char>(value));
}

// `step` where a byte is above `value`.
__m128i Above(__m128i bytes, int value, int step) noexcept {
    return _mm_and_si128(_mm_cmpgt_epi8(bytes, Bytes(value)), Bytes(step));
}

__m128i Is(__m128i bytes, int value, int step) noexcept {
    return _mm_and_si128(_mm_cmpeq_epi8(bytes, Bytes(value)), Bytes(step));
}

TQ_FOR_SSSE3 VectorStep ToBase64(std::string_view bytes, char* out, bool isUrl) noexcept {
    // Three bytes in a lane of four, so that six bits of each can be shifted into a byte by multiplication.
    const __m128i order = _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
    const int plus = isUrl ? '-' : '+';
    const int slash = isUrl ? '_' : '/';
    VectorStep step{0, 0};
    while (bytes.size() - step.read >= TextStep) {
        const __m128i raw = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes.data() + step.read));
        const __m128i groups = _mm_shuffle_epi8(raw, order);
        const __m128i firstAndThird =
            _mm_mulhi_epu16(_mm_and_si128(groups, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
        const __m128i secondAndFourth =
            _mm_mullo_epi16(_mm_and_si128(groups, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
        const __m128i values = _mm_or_si128(firstAndThird, secondAndFourth);
        __m128i text = _mm_add_epi8(values, Bytes('A'));
        text = _mm_add_epi8(text, Above(values, 25, 'a' - ('A' + 26)));
        text = _mm_add_epi8(text, Above(values, 51, '0' - ('a' + 26)));
        text = _mm_add_epi8(text, Is(values, 62, plus - ('0' + 10)));
        text = _mm_add_epi8(text, Is(values, 63, slash - ('0' + 11)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + step.written), text);
        step.read += ByteStep;
        step.written += TextStep;
    }
    return step;
}

// A template, so that the letters are constants.
template <bool IsUrl>
TQ_FOR_SSSE3 VectorStep FromBase64(std::string_view text, char* out) noexcept {
    constexpr char Plus = IsUrl ? '-' : '+';
    constexpr char Slash = IsUrl ? '_' : '/';
    const __m128i order = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
    VectorStep step{0, 0};
    while (text.size() - step.read >= TextStep) {
        const __m128i letters = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + step.read));
        const auto isBetween = [letters](char first, char last) {
            return _mm_and_si128(_mm_cmpgt_epi8(letters, Bytes(first - 1)),
                                 _mm_cmplt_epi8(letters, Bytes(last + 1)));
        };
        const __m128i isUpper = isBetween('A', 'Z');
        const __m128i isLower = isBetween('a', 'z');
        const __m128i isDigit = isBetween('0', '9');
        const __m128i isPlus = _mm_cmpeq_epi8(letters, Bytes(Plus));
        const __m128i isSlash = _mm_cmpeq_epi8(letters, Bytes(Slash));
        const __m128i isKnown = _mm_or_si128(_mm_or_si128(isUpper, isLower),
                                             _mm_or_si128(isDigit, _mm_or_si128(isPlus, isSlash)));
        if (_mm_movemask_epi8(isKnown) != 0xFFFF) break;
        const auto distance = [](__m128i which, int from, int to) {
            return _mm_and_si128(which, Bytes(to - from));
        };
        const __m128i distances = _mm_or_si128(
            _mm_or_si128(distance(isUpper, 'A', 0), distance(isLower, 'a', 26)),
            _mm_or_si128(distance(isDigit, '0', 52),
                         _mm_or_si128(distance(isPlus, Plus, 62), distance(isSlash, Slash, 63))));
        const __m128i values = _mm_add_epi8(letters, distances);
        // Two by two values become 12 bits, and two by two of these 24.
        const __m128i twelves = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
        const __m128i groups = _mm_madd_epi16(twelves, _mm_set1_epi32(0x00011000));
        const __m128i bytes = _mm_shuffle_epi8(groups, order);
        const int last = _mm_cvtsi128_si32(_mm_unpackhi_epi64(bytes, bytes));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + step.written), bytes);
        std::memcpy(out + step.written + sizeof(std::int64_t), &last, sizeof last);
        step.read += TextStep;
        step.written += ByteStep;
    }
    return step;
}

}  // namespace

VectorStep VectorToBase64(std::string_view bytes, char* out, bool isUrl) noexcept {
    return TQ_HAS_SSSE3 ? ToBase64(bytes, out, isUrl) : VectorStep{0, 0};
}

VectorStep VectorFromBase64(std::string_view text, char* out, bool isUrl) noexcept {
    if (!TQ_HAS_SSSE3) return {0, 0};
    return isUrl ? FromBase64<true>(text, out) : FromBase64<false>(text, out);
}

#else

VectorStep VectorToBase64(std::string_view, char*, bool) noexcept {
    return {0, 0};
}

VectorStep VectorFromBase64(std::string_view, char*, bool) noexcept {
    return {0, 0};
}

#endif

}  // namespace Quellan::Platform
