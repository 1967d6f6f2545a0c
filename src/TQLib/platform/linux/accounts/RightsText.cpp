#include "TQLib/platform/linux/accounts/RightsText.h"

#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/base/Wide.h"

#include <algorithm>

namespace Quellan::Platform {

namespace {

constexpr std::size_t MostNameBytes = 256;
constexpr std::string_view Blanks = " \t\r";

std::string_view TakeWord(std::string_view& text) noexcept {
    text.remove_prefix(std::min(text.find_first_not_of(Blanks), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(Blanks));
    text.remove_prefix(word.size());
    return word;
}

bool IsRightName(std::string_view word) noexcept {
    return word.size() <= MostNameBytes && std::ranges::all_of(word, [](char character) {
               return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
                      (character >= '0' && character <= '9');
           });
}

}  // namespace

bool HasRight(const RightNames& rights, std::string_view name) {
    return std::ranges::any_of(rights, [&](const std::string& right) {
        return CompareOrdinal(ToWide(right), ToWide(name), true) == 0;
    });
}

void AddMissing(RightNames& rights, const RightNames& more) {
    for (const std::string& right : more)
        if (!HasRight(rights, right)) rights.push_back(right);
}

DWORD RightsText::ParseLine(std::string_view text, Line& line) {
    line.text = text;
    std::string_view rest = text;
    const std::string_view first = TakeWord(rest);
    if (first.empty() || first.starts_with('#')) return ERROR_SUCCESS;
    if (!ParseSid(ToWide(first), line.account)) return ERROR_INTERNAL_DB_CORRUPTION;
    line.isOfAccount = true;
    for (std::string_view word = TakeWord(rest); !word.empty(); word = TakeWord(rest)) {
        if (!IsRightName(word)) return ERROR_INTERNAL_DB_CORRUPTION;
        line.rights.emplace_back(word);
    }
    return ERROR_SUCCESS;
}

DWORD RightsText::Parse(std::string_view text) {
    std::vector<Line> lines;
    while (!text.empty()) {
        const std::size_t size = std::min(text.find('\n'), text.size());
        if (DWORD code = ParseLine(text.substr(0, size), lines.emplace_back())) return code;
        text.remove_prefix(std::min(size + 1, text.size()));
    }
    m_lines = std::move(lines);
    return ERROR_SUCCESS;
}

std::string RightsText::Text() const {
    std::string text;
    for (const Line& line : m_lines)
        text += line.text + '\n';
    return text;
}

RightNames RightsText::RightsOf(const SidValue& account) const {
    RightNames rights;
    for (const Line& line : m_lines)
        if (line.isOfAccount && line.account == account) AddMissing(rights, line.rights);
    return rights;
}

void RightsText::SetRightsOf(const SidValue& account, const RightNames& rights) {
    const auto isOfAccount = [&](const Line& line) { return line.isOfAccount && line.account == account; };
    Line line{SidText(&account), true, account, rights};
    for (const std::string& right : rights)
        line.text += ' ' + right;
    auto first = std::ranges::find_if(m_lines, isOfAccount);
    const auto place = first - m_lines.begin();
    std::erase_if(m_lines, isOfAccount);
    if (!rights.empty()) m_lines.insert(m_lines.begin() + place, std::move(line));
}

}  // namespace Quellan::Platform
