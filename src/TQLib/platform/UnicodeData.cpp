#include "TQLib/platform/UnicodeData.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>

namespace Quellan::Platform {

namespace {

// How far away the other case and the folded character are.
struct CaseFact {
    std::int32_t upper;
    std::int32_t lower;
    std::int32_t fold;
    std::int32_t isSpecial;  // has one of the sequences below
};

struct CaseSequence {
    char16_t code;
    char16_t units[3];  // up to the first 0
};

struct Composition {
    char32_t first;
    char32_t second;
    char32_t whole;
};

#include "TQLib/platform/UnicodeTables.inc"

// A table in two stages: blocks of `1 << shift` characters, of which equal ones stand once. Behind the last block
// all is 0.
template <class Unit, std::size_t FirstSize, std::size_t SecondSize>
unsigned LookUp(const std::uint8_t (&first)[FirstSize], const Unit (&second)[SecondSize], unsigned shift,
                char32_t code) noexcept {
    const std::size_t block = code >> shift;
    if (block >= FirstSize) return 0;
    return second[std::size_t{first[block]} << shift | (code & ((1u << shift) - 1))];
}

const CaseFact& CaseOf(char32_t code) noexcept {
    return CaseFacts[LookUp(CaseFirst, CaseSecond, CaseShift, code)];
}

char32_t Moved(char32_t code, std::int32_t distance) noexcept {
    return code + static_cast<char32_t>(distance);
}

template <std::size_t Size>
CodeRun FullCase(const CaseSequence (&sequences)[Size], char32_t code,
                 std::int32_t CaseFact::*distance) noexcept {
    const CaseFact& fact = CaseOf(code);
    if (fact.isSpecial) {
        const auto found = std::ranges::lower_bound(sequences, code, {}, &CaseSequence::code);
        if (found != std::end(sequences) && found->code == code) {
            CodeRun run{};
            for (const char16_t unit : found->units)
                if (unit != 0) run.codes[run.size++] = unit;
            return run;
        }
    }
    return {{Moved(code, fact.*distance)}, 1};
}

// Where the compositions stand in their list, one more than their place: each at the slot that its parts give or at
// the next ones behind it, up to a 0.
constexpr std::size_t SlotCount = 2048;

constexpr std::size_t SlotOf(char32_t first, char32_t second) noexcept {
    return (first * 0x9E3779B1u ^ second * 0x85EBCA6Bu) >> 21;
}

constexpr auto CompositionSlots = [] {
    std::array<std::uint16_t, SlotCount> slots{};
    for (std::uint16_t i = 0; i < std::size(Compositions); ++i) {
        std::size_t slot = SlotOf(Compositions[i].first, Compositions[i].second);
        while (slots[slot] != 0)
            slot = (slot + 1) % SlotCount;
        slots[slot] = static_cast<std::uint16_t>(i + 1);
    }
    return slots;
}();

// The syllables of Hangul are made by arithmetic from consonant, vowel and final consonant.
constexpr char32_t FirstSyllable = 0xAC00;
constexpr char32_t FirstInitial = 0x1100;
constexpr char32_t FirstVowel = 0x1161;
constexpr char32_t NoFinal = 0x11A7;
constexpr char32_t Initials = 19;
constexpr char32_t Vowels = 21;
constexpr char32_t Finals = 28;  // with that which is none
constexpr char32_t Syllables = Initials * Vowels * Finals;

bool IsSyllable(char32_t code) noexcept {
    return code - FirstSyllable < Syllables;
}

}  // namespace

char32_t SimpleUpper(char32_t code) noexcept {
    return Moved(code, CaseOf(code).upper);
}

char32_t SimpleLower(char32_t code) noexcept {
    return Moved(code, CaseOf(code).lower);
}

CodeRun FullUpper(char32_t code) noexcept {
    return FullCase(FullUpperSequences, code, &CaseFact::upper);
}

CodeRun FullLower(char32_t code) noexcept {
    return FullCase(FullLowerSequences, code, &CaseFact::lower);
}

CodeRun FullFold(char32_t code) noexcept {
    return FullCase(FullFoldSequences, code, &CaseFact::fold);
}

unsigned CombiningClass(char32_t code) noexcept {
    return LookUp(CombiningClassFirst, CombiningClassSecond, CombiningClassShift, code);
}

CodeRun Decompose(char32_t code) noexcept {
    if (IsSyllable(code)) {
        const char32_t number = code - FirstSyllable;
        const char32_t final = number % Finals;
        return {
            {FirstInitial + number / Finals / Vowels, FirstVowel + number / Finals % Vowels, NoFinal + final},
            final == 0 ? std::size_t{2} : std::size_t{3}};
    }
    // The number of units in the pool and their place.
    const unsigned place = LookUp(DecompositionFirst, DecompositionSecond, DecompositionShift, code);
    if (place == 0) return {{code}, 1};
    const char16_t* unit = DecompositionPool + (place & 0xFFF);
    CodeRun run{};
    for (const char16_t* const end = unit + (place >> 12); unit != end; ++unit) {
        char32_t part = *unit;
        if ((part & 0xFC00) == 0xD800) part = 0x10000 + ((part & 0x3FF) << 10) + (*++unit & 0x3FFu);
        run.codes[run.size++] = part;
    }
    return run;
}

char32_t Compose(char32_t first, char32_t second) noexcept {
    if (!(TraitsOf(second) & MayBeComposed)) return 0;
    if (first - FirstInitial < Initials && second - FirstVowel < Vowels)
        return FirstSyllable + ((first - FirstInitial) * Vowels + second - FirstVowel) * Finals;
    if (IsSyllable(first) && (first - FirstSyllable) % Finals == 0 && second - NoFinal < Finals)
        return first + (second - NoFinal);
    std::size_t slot = SlotOf(first, second);
    while (const std::uint16_t next = CompositionSlots[slot]) {
        const Composition& pair = Compositions[next - 1];
        if (pair.first == first && pair.second == second) return pair.whole;
        slot = (slot + 1) % SlotCount;
    }
    return 0;
}

unsigned TraitsOf(char32_t code) noexcept {
    return LookUp(TraitsFirst, TraitsSecond, TraitsShift, code);
}

}  // namespace Quellan::Platform
