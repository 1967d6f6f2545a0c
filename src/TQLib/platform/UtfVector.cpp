#include "TQLib/platform/UtfVector.h"

#include "TQLib/platform/Compiler.h"

#include <algorithm>
#include <array>
#include <cstdint>

#if defined(TQ_FOR_SSSE3)
#include <tmmintrin.h>
#endif

namespace Quellan::Platform {

#if defined(TQ_FOR_SSSE3)

namespace {

constexpr bool HasWideUtf16 = sizeof(wchar_t) == 2;
constexpr std::size_t VectorSize = sizeof(__m128i);

__m128i LoadVector(const void* from) noexcept {
    return _mm_loadu_si128(static_cast<const __m128i*>(from));
}

void StoreVector(void* to, __m128i value) noexcept {
    _mm_storeu_si128(static_cast<__m128i*>(to), value);
}

__m128i Each8(unsigned value) noexcept {
    return _mm_set1_epi8(static_cast<char>(value));
}

__m128i Each16(unsigned value) noexcept {
    return _mm_set1_epi16(static_cast<short>(value));
}

__m128i Each32(std::uint32_t value) noexcept {
    return _mm_set1_epi32(static_cast<int>(value));
}

// For each bit of the sixteen whether the mark is set.
unsigned BitsOf(__m128i marks) noexcept {
    return static_cast<unsigned>(_mm_movemask_epi8(marks));
}

unsigned LanesOf(__m128i marks) noexcept {
    return static_cast<unsigned>(_mm_movemask_ps(_mm_castsi128_ps(marks)));
}

void Widen(__m128i words, wchar_t* out) noexcept {
    if constexpr (HasWideUtf16) {
        StoreVector(out, words);
    } else {
        StoreVector(out, _mm_unpacklo_epi16(words, _mm_setzero_si128()));
        StoreVector(out + 4, _mm_unpackhi_epi16(words, _mm_setzero_si128()));
    }
}

// From UTF-8 -------------------------------------------------------------------------------------------------------

// Twelve bytes are taken in one of three ways: six characters of up to two bytes, four of up to three or three of up
// to four. A character goes into a lane of its own, its last byte first.
constexpr std::size_t GroupSize = 12;
constexpr std::uint8_t NoByte = 0x80;  // becomes 0

struct Way {
    unsigned characters;
    unsigned longest;
    unsigned laneSize;
    unsigned firstShuffle;
};
constexpr Way Ways[] = {{6, 2, 2, 0}, {4, 3, 4, 64}, {3, 4, 4, 64 + 81}};
constexpr unsigned Shuffles = 64 + 81 + 64;
constexpr std::uint8_t NoShuffle = 0xFF;

struct Group {
    std::uint8_t shuffle = NoShuffle;
    std::uint8_t size = 0;  // in bytes
};

struct GroupTables {
    std::array<Group, 1 << GroupSize> groups{};  // by the bytes that end a character
    alignas(VectorSize) std::array<std::array<std::uint8_t, VectorSize>, Shuffles> shuffles{};
};

// The lengths of the first characters as a number, or nothing if one is longer than the way has it.
constexpr Group GroupOf(unsigned ends, const Way& way) {
    unsigned number = 0;
    unsigned begin = 0;
    for (unsigned i = 0; i < way.characters; ++i) {
        unsigned length = 1;
        while (length <= way.longest &&
               (begin + length > GroupSize || (ends >> (begin + length - 1) & 1) == 0))
            ++length;
        if (length > way.longest) return {};
        number = number * way.longest + length - 1;
        begin += length;
    }
    return {static_cast<std::uint8_t>(way.firstShuffle + number), static_cast<std::uint8_t>(begin)};
}

constexpr GroupTables MakeGroupTables() {
    GroupTables tables;
    for (unsigned ends = 0; ends < tables.groups.size(); ++ends)
        for (const Way& way : Ways) {
            if (tables.groups[ends].shuffle != NoShuffle) break;
            tables.groups[ends] = GroupOf(ends, way);
        }
    for (const Way& way : Ways) {
        unsigned count = 1;
        for (unsigned i = 0; i < way.characters; ++i)
            count *= way.longest;
        for (unsigned number = 0; number < count; ++number) {
            auto& shuffle = tables.shuffles[way.firstShuffle + number];
            shuffle.fill(NoByte);
            std::array<unsigned, 6> lengths{};
            for (unsigned i = way.characters, rest = number; i-- > 0; rest /= way.longest)
                lengths[i] = rest % way.longest + 1;
            unsigned end = 0;
            for (unsigned i = 0; i < way.characters; ++i) {
                end += lengths[i];
                for (unsigned byte = 0; byte < lengths[i]; ++byte)
                    shuffle[i * way.laneSize + byte] = static_cast<std::uint8_t>(end - 1 - byte);
            }
        }
    }
    return tables;
}

constexpr GroupTables Tables = MakeGroupTables();

// Each lane as a number has its bytes in order, and those behind the first are known to continue one: the limits of
// the first are the limits of the number.
__m128i IsBetween(__m128i lanes, std::uint32_t first, std::uint32_t last) noexcept {
    return _mm_and_si128(_mm_cmpgt_epi32(lanes, Each32(first - 1)), _mm_cmplt_epi32(lanes, Each32(last + 1)));
}

__m128i IsThreeBytes(__m128i lanes) noexcept {
    const __m128i isSurrogate = _mm_cmpeq_epi32(_mm_and_si128(lanes, Each32(0xFFFFE000)), Each32(0xEDA000));
    return _mm_andnot_si128(isSurrogate, IsBetween(lanes, 0xE0A080, 0xEFBFBF));
}

__m128i IsFourBytes(__m128i lanes) noexcept {
    return IsBetween(lanes, 0xF0908080, 0xF48FBFBF);
}

__m128i IsUpToThreeBytes(__m128i lanes) noexcept {
    const __m128i isThree = IsThreeBytes(lanes);
    const __m128i isTwo = IsBetween(lanes, 0xC280, 0xDFBF);
    const __m128i isOne = _mm_cmplt_epi32(lanes, Each32(0x80));
    return _mm_or_si128(_mm_or_si128(isOne, isTwo), isThree);
}

bool IsEach(__m128i marks) noexcept {
    return BitsOf(marks) == 0xFFFF;
}

// Writes up to eight characters and returns how many count, 0 if they are not valid.
TQ_FOR_SSSE3 std::size_t SixFrom(__m128i bytes, wchar_t* out) noexcept {
    const __m128i isOne = _mm_cmpeq_epi16(_mm_subs_epu16(bytes, Each16(0x7F)), _mm_setzero_si128());
    const __m128i fromTwo = _mm_sub_epi16(bytes, Each16(0xC280));
    const __m128i isTwo =
        _mm_cmpeq_epi16(_mm_subs_epu16(fromTwo, Each16(0xDFBF - 0xC280)), _mm_setzero_si128());
    if (!IsEach(_mm_or_si128(isOne, isTwo))) return 0;
    Widen(_mm_or_si128(_mm_and_si128(bytes, Each16(0x7F)),
                       _mm_srli_epi16(_mm_and_si128(bytes, Each16(0x1F00)), 2)),
          out);
    return 6;
}

TQ_FOR_SSSE3 void WriteFour(__m128i bytes, wchar_t* out) noexcept {
    const __m128i low = _mm_and_si128(bytes, Each32(0x7F));
    const __m128i middle = _mm_srli_epi32(_mm_and_si128(bytes, Each32(0x3F00)), 2);
    const __m128i high = _mm_srli_epi32(_mm_and_si128(bytes, Each32(0x0F0000)), 4);
    const __m128i codes = _mm_or_si128(_mm_or_si128(low, middle), high);
    if constexpr (HasWideUtf16) {
        const __m128i order = _mm_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_shuffle_epi8(codes, order));
    } else {
        StoreVector(out, codes);
    }
}

TQ_FOR_SSSE3 std::size_t FourFrom(__m128i bytes, wchar_t* out) noexcept {
    if (!IsEach(IsUpToThreeBytes(bytes))) return 0;
    WriteFour(bytes, out);
    return 4;
}

// The four of three bytes each that the twelve are.
TQ_FOR_SSSE3 std::size_t FourOfThreeFrom(__m128i bytes, wchar_t* out) noexcept {
    const __m128i lanes =
        _mm_shuffle_epi8(bytes, _mm_setr_epi8(2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1));
    if (!IsEach(IsThreeBytes(lanes))) return 0;
    WriteFour(lanes, out);
    return 4;
}

// The four of four bytes each that the sixteen are.
TQ_FOR_SSSE3 std::size_t FourOfFourFrom(__m128i bytes, wchar_t* out) noexcept {
    const __m128i lanes =
        _mm_shuffle_epi8(bytes, _mm_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12));
    if (!IsEach(IsFourBytes(lanes))) return 0;
    const __m128i low = _mm_or_si128(_mm_and_si128(lanes, Each32(0x3F)),
                                     _mm_srli_epi32(_mm_and_si128(lanes, Each32(0x3F00)), 2));
    const __m128i high = _mm_or_si128(_mm_srli_epi32(_mm_and_si128(lanes, Each32(0x3F0000)), 4),
                                      _mm_srli_epi32(_mm_and_si128(lanes, Each32(0x07000000)), 6));
    const __m128i codes = _mm_or_si128(low, high);
    if constexpr (HasWideUtf16) {
        const __m128i first = _mm_add_epi32(_mm_srli_epi32(codes, 10), Each32(0xD7C0));
        const __m128i second = _mm_or_si128(_mm_and_si128(codes, Each32(0x3FF)), Each32(0xDC00));
        StoreVector(out, _mm_or_si128(first, _mm_slli_epi32(second, 16)));
        return 8;
    } else {
        StoreVector(out, codes);
        return 4;
    }
}

TQ_FOR_SSSE3 std::size_t ThreeFrom(__m128i bytes, wchar_t* out) noexcept {
    const __m128i isShort =
        _mm_cmpgt_epi32(bytes, Each32(0xFFFFFFFF));  // the first of four bytes is at the sign
    const __m128i isFour = IsFourBytes(bytes);
    if (!IsEach(_mm_or_si128(_mm_and_si128(isShort, IsUpToThreeBytes(bytes)), isFour))) return 0;
    const __m128i low = _mm_or_si128(_mm_and_si128(bytes, Each32(0x7F)),
                                     _mm_srli_epi32(_mm_and_si128(bytes, Each32(0x3F00)), 2));
    const __m128i high = _mm_or_si128(_mm_srli_epi32(_mm_and_si128(bytes, Each32(0x3F0000)), 4),
                                      _mm_srli_epi32(_mm_and_si128(bytes, Each32(0x07000000)), 6));
    // A bit of the first of three bytes is no part of the character.
    const __m128i codes = _mm_andnot_si128(_mm_and_si128(isShort, Each32(0x20000)), _mm_or_si128(low, high));
    if constexpr (HasWideUtf16) {
        alignas(VectorSize) char32_t single[4];
        StoreVector(single, codes);
        wchar_t* at = out;
        for (std::size_t i = 0; i < 3; ++i) {
            if (single[i] > 0xFFFF) {
                *at++ = static_cast<wchar_t>(0xD7C0 + (single[i] >> 10));
                single[i] = 0xDC00 | (single[i] & 0x3FF);
            }
            *at++ = static_cast<wchar_t>(single[i]);
        }
        return static_cast<std::size_t>(at - out);
    } else {
        StoreVector(out, codes);
        return 3;
    }
}

// Of the bytes from a place on, which are not ASCII and which end a character. Groups are found in these alone, so that
// none waits for the bytes of the one before it.
struct Window {
    std::uint64_t others = 0;
    std::uint64_t ends = 0;
    std::size_t size;
};

Window WindowAt(const char* text, std::size_t size) noexcept {
    Window window{.size = size};
    std::uint64_t continuing = 0;
    for (std::size_t i = 0; i < size; i += VectorSize) {
        const __m128i bytes = LoadVector(text + i);
        window.others |= std::uint64_t{BitsOf(bytes)} << i;
        continuing |= std::uint64_t{BitsOf(_mm_cmplt_epi8(bytes, Each8(0xC0)))} << i;
    }
    window.ends = ~continuing >> 1;
    return window;
}

TQ_FOR_SSSE3 VectorStep ToWide(std::string_view text, wchar_t* const out) noexcept {
    constexpr std::size_t LargeWindow = 4 * VectorSize;
    // Eight characters may be written where six count: as many follow.
    constexpr std::size_t LeastBehind = 2 * VectorSize;
    VectorStep step{0, 0};
    for (;;) {
        const std::size_t left = text.size() - step.read;
        if (left < LeastBehind) return step;
        const char* const begin = text.data() + step.read;
        Window window = WindowAt(begin, left < LargeWindow + LeastBehind ? VectorSize : LargeWindow);
        // What ends with the window's last byte is not known.
        for (std::size_t at = 0; at + GroupSize < window.size;) {
            const __m128i bytes = LoadVector(begin + at);
            wchar_t* const place = out + step.written;
            std::size_t size = VectorSize;
            std::size_t count = VectorSize;
            if ((window.others & 0xFFFF) == 0 && at + VectorSize <= window.size) {
                const __m128i zero = _mm_setzero_si128();
                Widen(_mm_unpacklo_epi8(bytes, zero), place);
                Widen(_mm_unpackhi_epi8(bytes, zero), place + 8);
            } else if ((window.ends & 0xFFF) == 0x924) {
                size = GroupSize;
                count = FourOfThreeFrom(bytes, place);
            } else if ((window.ends & 0xFFFF) == 0x8888 && at + VectorSize < window.size) {
                count = FourOfFourFrom(bytes, place);
            } else {
                const Group group = Tables.groups[window.ends & (Tables.groups.size() - 1)];
                if (group.shuffle == NoShuffle) return step;
                size = group.size;
                const __m128i lanes =
                    _mm_shuffle_epi8(bytes, LoadVector(Tables.shuffles[group.shuffle].data()));
                count = group.shuffle < Ways[1].firstShuffle   ? SixFrom(lanes, place)
                        : group.shuffle < Ways[2].firstShuffle ? FourFrom(lanes, place)
                                                               : ThreeFrom(lanes, place);
            }
            if (count == 0) return step;
            step.written += count;
            step.read += size;
            at += size;
            if (at >= window.size) break;  // no shift is as wide as the window
            window.others >>= size;
            window.ends >>= size;
        }
    }
}

// Where two bytes beside each other make an error, three looks at them have a bit in common: at the upper and the
// lower half of the first byte and the upper half of the second.
enum PairError : std::uint8_t {
    TooShort = 1,         // a first byte or ASCII behind a first byte
    TooLong = 2,          // a continuing byte behind ASCII
    OverlongThree = 4,    // E0 and below A0
    TooLarge = 8,         // F4 and above 8F, and above F4
    Surrogate = 0x10,     // ED and above 9F
    OverlongTwo = 0x20,   // C0 and C1
    OverlongFour = 0x40,  // F0 and below 90; F5 and more and below 90
    TwoContinuing = 0x80,
};
constexpr unsigned AnyLow = TooShort | TooLong | TwoContinuing;
constexpr unsigned LargeLow = AnyLow | TooLarge | OverlongFour;

TQ_FOR_SSSE3 __m128i Pick(const std::uint8_t (&table)[VectorSize], __m128i places) noexcept {
    return _mm_shuffle_epi8(LoadVector(table), places);
}

alignas(VectorSize) constexpr std::uint8_t FirstUpperErrors[VectorSize] = {
    TooLong,
    TooLong,
    TooLong,
    TooLong,
    TooLong,
    TooLong,
    TooLong,
    TooLong,
    TwoContinuing,
    TwoContinuing,
    TwoContinuing,
    TwoContinuing,
    TooShort | OverlongTwo,
    TooShort,
    TooShort | OverlongThree | Surrogate,
    TooShort | TooLarge | OverlongFour};
alignas(VectorSize) constexpr std::uint8_t FirstLowerErrors[VectorSize] = {
    AnyLow | OverlongTwo | OverlongThree | OverlongFour,
    AnyLow | OverlongTwo,
    AnyLow,
    AnyLow,
    AnyLow | TooLarge,
    LargeLow,
    LargeLow,
    LargeLow,
    LargeLow,
    LargeLow,
    LargeLow,
    LargeLow,
    LargeLow,
    LargeLow | Surrogate,
    LargeLow,
    LargeLow};
constexpr unsigned Continuing = TooLong | OverlongTwo | TwoContinuing;
alignas(VectorSize) constexpr std::uint8_t SecondUpperErrors[VectorSize] = {
    TooShort,
    TooShort,
    TooShort,
    TooShort,
    TooShort,
    TooShort,
    TooShort,
    TooShort,
    Continuing | OverlongThree | OverlongFour,
    Continuing | OverlongThree | TooLarge,
    Continuing | Surrogate | TooLarge,
    Continuing | Surrogate | TooLarge,
    TooShort,
    TooShort,
    TooShort,
    TooShort};

// Bits set where a byte cannot stand behind those before it.
TQ_FOR_SSSE3 __m128i ErrorsOf(__m128i bytes, __m128i before) noexcept {
    const __m128i halves = Each8(0x0F);
    const auto upper = [halves](__m128i value) { return _mm_and_si128(_mm_srli_epi16(value, 4), halves); };
    const __m128i first = _mm_alignr_epi8(bytes, before, 15);
    const __m128i pairs = _mm_and_si128(_mm_and_si128(Pick(FirstUpperErrors, upper(first)),
                                                      Pick(FirstLowerErrors, _mm_and_si128(first, halves))),
                                        Pick(SecondUpperErrors, upper(bytes)));
    // Two continuing bytes are right, and must be, as third and fourth ones.
    const __m128i third = _mm_subs_epu8(_mm_alignr_epi8(bytes, before, 14), Each8(0xE0 - 0x80));
    const __m128i fourth = _mm_subs_epu8(_mm_alignr_epi8(bytes, before, 13), Each8(0xF0 - 0x80));
    return _mm_xor_si128(_mm_and_si128(_mm_or_si128(third, fourth), Each8(TwoContinuing)), pairs);
}

// Of each byte whether it begins a wide unit; of the first of four, for UTF-16, a second one.
__m128i CountUnits(__m128i bytes) noexcept {
    const __m128i one = Each8(1);
    __m128i counts = _mm_and_si128(_mm_cmpgt_epi8(bytes, Each8(0xBF)), one);
    if constexpr (HasWideUtf16) {
        const __m128i isFour = _mm_cmpeq_epi8(_mm_max_epu8(bytes, Each8(0xF0)), bytes);
        counts = _mm_add_epi8(counts, _mm_and_si128(isFour, one));
    }
    return _mm_sad_epu8(counts, _mm_setzero_si128());
}

TQ_FOR_SSSE3 std::optional<std::size_t> WideLengthOf(std::string_view text) noexcept {
    __m128i errors = _mm_setzero_si128();
    __m128i before = _mm_setzero_si128();
    __m128i counts = _mm_setzero_si128();
    // The bytes that have to be followed by another at the end of a block.
    const __m128i complete =
        _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, static_cast<char>(0xEF),
                      static_cast<char>(0xDF), static_cast<char>(0xBF));
    const auto take = [&](__m128i bytes) TQ_FOR_SSSE3 {
        errors = _mm_or_si128(errors,
                              BitsOf(bytes) == 0 ? _mm_subs_epu8(before, complete) : ErrorsOf(bytes, before));
        counts = _mm_add_epi64(counts, CountUnits(bytes));
        before = bytes;
    };
    const char* at = text.data();
    std::size_t left = text.size();
    for (; left >= VectorSize; left -= VectorSize, at += VectorSize)
        take(LoadVector(at));
    // With zeros behind the end, which complete nothing.
    char last[VectorSize] = {};
    std::copy_n(at, left, last);
    take(LoadVector(last));
    if (BitsOf(_mm_cmpeq_epi8(errors, _mm_setzero_si128())) != 0xFFFF) return std::nullopt;
    const __m128i both = _mm_add_epi64(counts, _mm_unpackhi_epi64(counts, counts));
    return static_cast<std::size_t>(_mm_cvtsi128_si64(both)) - (VectorSize - left);
}

// To UTF-8 ---------------------------------------------------------------------------------------------------------

struct Packing {
    alignas(VectorSize) std::array<std::array<std::uint8_t, VectorSize>, 256> shuffles{};
    std::array<std::uint8_t, 256> sizes{};
};

// Eight characters of one or two bytes in lanes of two: a bit is set for each of one, which is the first.
constexpr Packing MakePackingOfEight() {
    Packing packing;
    for (unsigned bits = 0; bits < 256; ++bits) {
        packing.shuffles[bits].fill(NoByte);
        for (unsigned lane = 0; lane < 8; ++lane)
            for (unsigned byte = 0; byte < (bits >> lane & 1 ? 1u : 2u); ++byte)
                packing.shuffles[bits][packing.sizes[bits]++] = static_cast<std::uint8_t>(lane * 2 + byte);
    }
    return packing;
}

// Four characters in lanes of four, whose last bytes they are: a bit and one four above it make the size less 1.
constexpr Packing MakePackingOfFour() {
    Packing packing;
    for (unsigned bits = 0; bits < 256; ++bits) {
        packing.shuffles[bits].fill(NoByte);
        for (unsigned lane = 0; lane < 4; ++lane) {
            const unsigned size = (bits >> lane & 1) + 2 * (bits >> (lane + 4) & 1) + 1;
            for (unsigned byte = 4 - size; byte < 4; ++byte)
                packing.shuffles[bits][packing.sizes[bits]++] = static_cast<std::uint8_t>(lane * 4 + byte);
        }
    }
    return packing;
}

constexpr Packing PackingOfEight = MakePackingOfEight();
constexpr Packing PackingOfFour = MakePackingOfFour();

TQ_FOR_SSSE3 std::size_t PackInto(char* out, __m128i lanes, const Packing& packing, unsigned bits) noexcept {
    StoreVector(out, _mm_shuffle_epi8(lanes, LoadVector(packing.shuffles[bits].data())));
    return packing.sizes[bits];
}

// Characters below 800.
TQ_FOR_SSSE3 std::size_t EightTo(__m128i codes, char* out) noexcept {
    const __m128i isOne = _mm_cmplt_epi16(codes, Each16(0x80));
    const __m128i two = _mm_or_si128(
        _mm_or_si128(_mm_srli_epi16(codes, 6), _mm_slli_epi16(_mm_and_si128(codes, Each16(0x3F)), 8)),
        Each16(0x80C0));
    const __m128i lanes = _mm_or_si128(_mm_and_si128(isOne, codes), _mm_andnot_si128(isOne, two));
    return PackInto(out, lanes, PackingOfEight, BitsOf(_mm_packs_epi16(isOne, _mm_setzero_si128())));
}

// The bits of each character spread over four bytes, six in each but the first.
__m128i Spread(__m128i codes) noexcept {
    const auto part = [codes](std::uint32_t mask) { return _mm_and_si128(codes, Each32(mask)); };
    return _mm_or_si128(_mm_or_si128(_mm_slli_epi32(part(0x3F), 24), _mm_slli_epi32(part(0xFC0), 10)),
                        _mm_or_si128(_mm_srli_epi32(part(0x3F000), 4), _mm_srli_epi32(codes, 18)));
}

// Any characters; 0 where one is none.
TQ_FOR_SSSE3 std::size_t FourTo(__m128i codes, char* out) noexcept {
    constexpr unsigned All = 0xF;
    const __m128i isSurrogate = _mm_cmpeq_epi32(_mm_and_si128(codes, Each32(0xFFFFF800)), Each32(0xD800));
    const __m128i isBeyond = _mm_cmpgt_epi32(codes, Each32(0x10FFFF));
    if (LanesOf(_mm_or_si128(_mm_or_si128(isSurrogate, isBeyond), codes)) != 0) return 0;
    const __m128i hasThree = _mm_cmpgt_epi32(codes, Each32(0x7FF));
    const __m128i hasFour = _mm_cmpgt_epi32(codes, Each32(0xFFFF));
    const unsigned three = LanesOf(hasThree);
    const unsigned four = LanesOf(hasFour);
    const __m128i spread = Spread(codes);
    if (three == All && four == 0) {
        const __m128i order = _mm_setr_epi8(1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, -1, -1, -1, -1);
        StoreVector(out, _mm_shuffle_epi8(_mm_or_si128(spread, Each32(0x8080E000)), order));
        return 12;
    }
    if (four == All) {
        StoreVector(out, _mm_or_si128(spread, Each32(0x808080F0)));
        return 16;
    }
    const __m128i hasTwo = _mm_cmpgt_epi32(codes, Each32(0x7F));
    // The marks of the bytes; each size takes back that of the first byte of the smaller one.
    const __m128i marks = _mm_xor_si128(_mm_and_si128(hasTwo, Each32(0x80C08000)),
                                        _mm_xor_si128(_mm_and_si128(hasThree, Each32(0x00406000)),
                                                      _mm_and_si128(hasFour, Each32(0x000060F0))));
    const __m128i lanes =
        _mm_or_si128(_mm_or_si128(spread, marks), _mm_andnot_si128(hasTwo, _mm_slli_epi32(codes, 24)));
    const __m128i isEven = _mm_xor_si128(_mm_xor_si128(hasTwo, hasThree), hasFour);
    return PackInto(out, lanes, PackingOfFour, LanesOf(isEven) | three << 4);
}

TQ_FOR_SSSE3 VectorStep ToUtf8(std::wstring_view text, char* const out) noexcept {
    // Sixteen bytes may be written where four count: as many units follow.
    constexpr std::size_t LeastUnits = VectorSize + 4;
    const __m128i zero = _mm_setzero_si128();
    VectorStep step{0, 0};
    while (text.size() - step.read >= LeastUnits) {
        const wchar_t* const at = text.data() + step.read;
        __m128i four[2];
        __m128i eight;
        __m128i isLong;  // not 0 where a unit is above 7FF
        if constexpr (HasWideUtf16) {
            eight = LoadVector(at);
            four[0] = _mm_unpacklo_epi16(eight, zero);
            four[1] = _mm_unpackhi_epi16(eight, zero);
            isLong = _mm_srli_epi16(eight, 11);
        } else {
            four[0] = LoadVector(at);
            four[1] = LoadVector(at + 4);
            eight = _mm_packs_epi32(four[0], four[1]);
            isLong = _mm_srli_epi32(_mm_or_si128(four[0], four[1]), 11);
        }
        char* const place = out + step.written;
        if (BitsOf(_mm_cmpeq_epi8(isLong, zero)) == 0xFFFF) {
            step.written += EightTo(eight, place);
        } else {
            const std::size_t first = FourTo(four[0], place);
            if (first == 0) break;
            const std::size_t second = FourTo(four[1], place + first);
            if (second == 0) break;
            step.written += first + second;
        }
        step.read += 8;
    }
    return step;
}

}  // namespace

VectorStep VectorToWide(std::string_view text, wchar_t* out) noexcept {
    return TQ_HAS_SSSE3 ? ToWide(text, out) : VectorStep{0, 0};
}

VectorStep VectorToUtf8(std::wstring_view text, char* out) noexcept {
    return TQ_HAS_SSSE3 ? ToUtf8(text, out) : VectorStep{0, 0};
}

std::optional<std::size_t> VectorWideLength(std::string_view text) noexcept {
    return TQ_HAS_SSSE3 ? WideLengthOf(text) : std::nullopt;
}

VectorStep VectorUtf8Length(std::wstring_view text) noexcept {
    // A lane counts no further than this many units.
    constexpr std::size_t LargestChunk = 1 << 15;
    constexpr std::size_t Lanes = VectorSize / sizeof(wchar_t);
    const __m128i zero = _mm_setzero_si128();
    VectorStep step{0, 0};
    // One unit more is read to see pairs.
    while (text.size() - step.read > Lanes) {
        const std::size_t chunk = std::min(LargestChunk, (text.size() - step.read - 1) / Lanes * Lanes);
        const wchar_t* const begin = text.data() + step.read;
        __m128i less = zero;  // what the units have less than if all were of the longest form
        if constexpr (HasWideUtf16) {
            const auto isHalf = [](__m128i units, unsigned which) {
                return _mm_cmpeq_epi16(_mm_and_si128(units, Each16(0xFC00)), Each16(which));
            };
            for (std::size_t i = 0; i < chunk; i += Lanes) {
                const __m128i units = LoadVector(begin + i);
                const __m128i isPair =
                    _mm_and_si128(isHalf(units, 0xD800), isHalf(LoadVector(begin + i + 1), 0xDC00));
                less = _mm_sub_epi16(less, _mm_cmpeq_epi16(_mm_srli_epi16(units, 7), zero));
                less = _mm_sub_epi16(less, _mm_cmpeq_epi16(_mm_srli_epi16(units, 11), zero));
                less = _mm_sub_epi16(less, _mm_add_epi16(isPair, isPair));
            }
            less = _mm_madd_epi16(less, Each16(1));
        } else {
            for (std::size_t i = 0; i < chunk; i += Lanes) {
                const __m128i units = LoadVector(begin + i);
                const __m128i planes = _mm_srli_epi32(units, 16);
                less = _mm_sub_epi32(less, _mm_cmpeq_epi32(_mm_srli_epi32(units, 7), zero));
                less = _mm_sub_epi32(less, _mm_cmpeq_epi32(_mm_srli_epi32(units, 11), zero));
                less = _mm_sub_epi32(less, _mm_cmpeq_epi32(planes, zero));
                // What is no code point is replaced by three bytes.
                less = _mm_sub_epi32(less, _mm_cmpgt_epi32(planes, Each32(0x10)));
            }
        }
        alignas(VectorSize) std::uint32_t lanes[4];
        StoreVector(lanes, less);
        step.read += chunk;
        step.written += chunk * (HasWideUtf16 ? 3 : 4) - lanes[0] - lanes[1] - lanes[2] - lanes[3];
    }
    return step;
}

#else

VectorStep VectorToWide(std::string_view, wchar_t*) noexcept {
    return {0, 0};
}

VectorStep VectorToUtf8(std::wstring_view, char*) noexcept {
    return {0, 0};
}

std::optional<std::size_t> VectorWideLength(std::string_view) noexcept {
    return std::nullopt;
}

VectorStep VectorUtf8Length(std::wstring_view) noexcept {
    return {0, 0};
}

#endif

}  // namespace Quellan::Platform
