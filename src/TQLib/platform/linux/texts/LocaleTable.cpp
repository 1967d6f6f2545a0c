#include "TQLib/platform/linux/texts/LocaleTable.h"

#include "TQLib/platform/Utf.h"
#include "TQLib/platform/linux/base/Case.h"

#include <algorithm>

namespace Quellan::Platform {

namespace {

// Of each language the chief country's entry stands first.
constexpr LocaleEntry Locales[] = {
    {0x0436, L"af-ZA", L"Afrikaans", L"South Africa"},
    {0x041C, L"sq-AL", L"Albanian", L"Albania"},
    {0x045E, L"am-ET", L"Amharic", L"Ethiopia"},
    {0x0401, L"ar-SA", L"Arabic", L"Saudi Arabia"},
    {0x0801, L"ar-IQ", L"Arabic", L"Iraq"},
    {0x0C01, L"ar-EG", L"Arabic", L"Egypt"},
    {0x1001, L"ar-LY", L"Arabic", L"Libya"},
    {0x1401, L"ar-DZ", L"Arabic", L"Algeria"},
    {0x1801, L"ar-MA", L"Arabic", L"Morocco"},
    {0x1C01, L"ar-TN", L"Arabic", L"Tunisia"},
    {0x2801, L"ar-SY", L"Arabic", L"Syria"},
    {0x2C01, L"ar-JO", L"Arabic", L"Jordan"},
    {0x3001, L"ar-LB", L"Arabic", L"Lebanon"},
    {0x3401, L"ar-KW", L"Arabic", L"Kuwait"},
    {0x3801, L"ar-AE", L"Arabic", L"United Arab Emirates"},
    {0x042B, L"hy-AM", L"Armenian", L"Armenia"},
    {0x042C, L"az-Latn-AZ", L"Azerbaijani (Latin)", L"Azerbaijan"},
    {0x042D, L"eu-ES", L"Basque", L"Spain"},
    {0x0423, L"be-BY", L"Belarusian", L"Belarus"},
    {0x0845, L"bn-BD", L"Bangla", L"Bangladesh"},
    {0x0445, L"bn-IN", L"Bangla", L"India"},
    {0x141A, L"bs-Latn-BA", L"Bosnian (Latin)", L"Bosnia and Herzegovina"},
    {0x0402, L"bg-BG", L"Bulgarian", L"Bulgaria"},
    {0x0403, L"ca-ES", L"Catalan", L"Spain"},
    {0x0804, L"zh-CN", L"Chinese (Simplified)", L"China"},
    {0x0404, L"zh-TW", L"Chinese (Traditional)", L"Taiwan"},
    {0x0C04, L"zh-HK", L"Chinese (Traditional)", L"Hong Kong SAR"},
    {0x1004, L"zh-SG", L"Chinese (Simplified)", L"Singapore"},
    {0x1404, L"zh-MO", L"Chinese (Traditional)", L"Macao SAR"},
    {0x041A, L"hr-HR", L"Croatian", L"Croatia"},
    {0x0405, L"cs-CZ", L"Czech", L"Czechia"},
    {0x0406, L"da-DK", L"Danish", L"Denmark"},
    {0x0413, L"nl-NL", L"Dutch", L"Netherlands"},
    {0x0813, L"nl-BE", L"Dutch", L"Belgium"},
    {0x0409, L"en-US", L"English", L"United States"},
    {0x0809, L"en-GB", L"English", L"United Kingdom"},
    {0x0C09, L"en-AU", L"English", L"Australia"},
    {0x1009, L"en-CA", L"English", L"Canada"},
    {0x1409, L"en-NZ", L"English", L"New Zealand"},
    {0x1809, L"en-IE", L"English", L"Ireland"},
    {0x1C09, L"en-ZA", L"English", L"South Africa"},
    {0x3409, L"en-PH", L"English", L"Philippines"},
    {0x4009, L"en-IN", L"English", L"India"},
    {0x4809, L"en-SG", L"English", L"Singapore"},
    {0x0425, L"et-EE", L"Estonian", L"Estonia"},
    {0x0438, L"fo-FO", L"Faroese", L"Faroe Islands"},
    {0x0464, L"fil-PH", L"Filipino", L"Philippines"},
    {0x040B, L"fi-FI", L"Finnish", L"Finland"},
    {0x040C, L"fr-FR", L"French", L"France"},
    {0x080C, L"fr-BE", L"French", L"Belgium"},
    {0x0C0C, L"fr-CA", L"French", L"Canada"},
    {0x100C, L"fr-CH", L"French", L"Switzerland"},
    {0x140C, L"fr-LU", L"French", L"Luxembourg"},
    {0x0456, L"gl-ES", L"Galician", L"Spain"},
    {0x0437, L"ka-GE", L"Georgian", L"Georgia"},
    {0x0407, L"de-DE", L"German", L"Germany"},
    {0x0807, L"de-CH", L"German", L"Switzerland"},
    {0x0C07, L"de-AT", L"German", L"Austria"},
    {0x1007, L"de-LU", L"German", L"Luxembourg"},
    {0x1407, L"de-LI", L"German", L"Liechtenstein"},
    {0x0408, L"el-GR", L"Greek", L"Greece"},
    {0x0447, L"gu-IN", L"Gujarati", L"India"},
    {0x040D, L"he-IL", L"Hebrew", L"Israel"},
    {0x0439, L"hi-IN", L"Hindi", L"India"},
    {0x040E, L"hu-HU", L"Hungarian", L"Hungary"},
    {0x040F, L"is-IS", L"Icelandic", L"Iceland"},
    {0x0421, L"id-ID", L"Indonesian", L"Indonesia"},
    {0x083C, L"ga-IE", L"Irish", L"Ireland"},
    {0x0410, L"it-IT", L"Italian", L"Italy"},
    {0x0810, L"it-CH", L"Italian", L"Switzerland"},
    {0x0411, L"ja-JP", L"Japanese", L"Japan"},
    {0x044B, L"kn-IN", L"Kannada", L"India"},
    {0x043F, L"kk-KZ", L"Kazakh", L"Kazakhstan"},
    {0x0453, L"km-KH", L"Khmer", L"Cambodia"},
    {0x0412, L"ko-KR", L"Korean", L"Korea"},
    {0x0440, L"ky-KG", L"Kyrgyz", L"Kyrgyzstan"},
    {0x0454, L"lo-LA", L"Lao", L"Laos"},
    {0x0426, L"lv-LV", L"Latvian", L"Latvia"},
    {0x0427, L"lt-LT", L"Lithuanian", L"Lithuania"},
    {0x046E, L"lb-LU", L"Luxembourgish", L"Luxembourg"},
    {0x042F, L"mk-MK", L"Macedonian", L"North Macedonia"},
    {0x043E, L"ms-MY", L"Malay", L"Malaysia"},
    {0x044C, L"ml-IN", L"Malayalam", L"India"},
    {0x043A, L"mt-MT", L"Maltese", L"Malta"},
    {0x044E, L"mr-IN", L"Marathi", L"India"},
    {0x0450, L"mn-MN", L"Mongolian", L"Mongolia"},
    {0x0461, L"ne-NP", L"Nepali", L"Nepal"},
    {0x0414, L"nb-NO", L"Norwegian Bokm\u00E5l", L"Norway"},
    {0x0814, L"nn-NO", L"Norwegian Nynorsk", L"Norway"},
    {0x0429, L"fa-IR", L"Persian", L"Iran"},
    {0x0415, L"pl-PL", L"Polish", L"Poland"},
    {0x0416, L"pt-BR", L"Portuguese", L"Brazil"},
    {0x0816, L"pt-PT", L"Portuguese", L"Portugal"},
    {0x0446, L"pa-IN", L"Punjabi", L"India"},
    {0x0418, L"ro-RO", L"Romanian", L"Romania"},
    {0x0419, L"ru-RU", L"Russian", L"Russia"},
    {0x241A, L"sr-Latn-RS", L"Serbian (Latin)", L"Serbia"},
    {0x281A, L"sr-Cyrl-RS", L"Serbian (Cyrillic)", L"Serbia"},
    {0x045B, L"si-LK", L"Sinhala", L"Sri Lanka"},
    {0x041B, L"sk-SK", L"Slovak", L"Slovakia"},
    {0x0424, L"sl-SI", L"Slovenian", L"Slovenia"},
    {0x0C0A, L"es-ES", L"Spanish", L"Spain"},
    {0x080A, L"es-MX", L"Spanish", L"Mexico"},
    {0x100A, L"es-GT", L"Spanish", L"Guatemala"},
    {0x140A, L"es-CR", L"Spanish", L"Costa Rica"},
    {0x200A, L"es-VE", L"Spanish", L"Venezuela"},
    {0x240A, L"es-CO", L"Spanish", L"Colombia"},
    {0x280A, L"es-PE", L"Spanish", L"Peru"},
    {0x2C0A, L"es-AR", L"Spanish", L"Argentina"},
    {0x340A, L"es-CL", L"Spanish", L"Chile"},
    {0x380A, L"es-UY", L"Spanish", L"Uruguay"},
    {0x540A, L"es-US", L"Spanish", L"United States"},
    {0x0441, L"sw-KE", L"Kiswahili", L"Kenya"},
    {0x041D, L"sv-SE", L"Swedish", L"Sweden"},
    {0x081D, L"sv-FI", L"Swedish", L"Finland"},
    {0x0449, L"ta-IN", L"Tamil", L"India"},
    {0x044A, L"te-IN", L"Telugu", L"India"},
    {0x041E, L"th-TH", L"Thai", L"Thailand"},
    {0x041F, L"tr-TR", L"Turkish", L"Turkey"},
    {0x0422, L"uk-UA", L"Ukrainian", L"Ukraine"},
    {0x0420, L"ur-PK", L"Urdu", L"Pakistan"},
    {0x0443, L"uz-Latn-UZ", L"Uzbek (Latin)", L"Uzbekistan"},
    {0x042A, L"vi-VN", L"Vietnamese", L"Vietnam"},
    {0x0452, L"cy-GB", L"Welsh", L"United Kingdom"},
    {0x0435, L"zu-ZA", L"Zulu", L"South Africa"},
};

constexpr LocaleEntry Invariant = {0x007F, L"", L"Invariant Language", L"Invariant Country"};

constexpr LCID SubLanguages = 0xFC00;

template <class Matches>
const LocaleEntry* FindThat(Matches matches) noexcept {
    const auto* found = std::ranges::find_if(Locales, matches);
    return found == std::end(Locales) ? nullptr : found;
}

// The first that fits of those whose name begins with the letter that `name` begins with.
template <class Matches>
const LocaleEntry* FindNamed(std::wstring_view name, Matches matches) noexcept {
    constexpr wchar_t caseBit = 0x20;
    const wchar_t first = name.front() | caseBit;
    return FindThat(
        [&](const LocaleEntry& entry) { return (entry.name.front() | caseBit) == first && matches(entry); });
}

bool SameName(std::wstring_view left, std::wstring_view right) noexcept {
    return CompareOrdinal(left, right, true) == 0;
}

}  // namespace

const LocaleEntry* FindLocale(LCID id) noexcept {
    if (id == Invariant.id) return &Invariant;
    if (id & SubLanguages) return FindThat([id](const LocaleEntry& entry) { return entry.id == id; });
    return FindThat([id](const LocaleEntry& entry) { return (entry.id & ~SubLanguages) == id; });
}

const LocaleEntry* FindLocale(std::wstring_view name) noexcept {
    if (name.empty()) return &Invariant;
    if (name.find(L'-') != name.npos)
        return FindNamed(name, [name](const LocaleEntry& entry) { return SameName(entry.name, name); });
    return FindNamed(name, [name](const LocaleEntry& entry) {
        return SameName(entry.name.substr(0, entry.name.find(L'-')), name);
    });
}

const LocaleEntry* FindSystemLocale(std::string_view name) noexcept {
    const std::size_t at = name.find('@');
    const std::string_view modifier = at == name.npos ? std::string_view() : name.substr(at + 1);
    const std::string_view place = name.substr(0, name.find_first_of(".@"));
    wchar_t wide[32];
    if (place.empty() || place.size() > std::size(wide)) return nullptr;
    const std::size_t size = Utf8ToWide(place, wide);
    std::replace(wide, wide + size, L'_', L'-');
    const std::wstring_view wanted(wide, size);

    // Where a language has several scripts the platform names the script and the system does not, or in the
    // modifier.
    const std::wstring_view language = wanted.substr(0, wanted.find(L'-'));
    const std::wstring_view country =
        wanted.substr(wanted.find(L'-') == wanted.npos ? size : language.size() + 1);
    const std::wstring_view script = SameName(language, L"sr") && modifier != "latin" ? L"-Cyrl-" : L"-Latn-";
    const LocaleEntry* found = FindNamed(wanted, [&](const LocaleEntry& entry) {
        const std::size_t scriptAt = entry.name.find(script);
        return scriptAt != entry.name.npos && SameName(entry.name.substr(0, scriptAt), language) &&
               (country.empty() || SameName(entry.name.substr(scriptAt + script.size()), country));
    });
    return found ? found : FindLocale(wanted);
}

}  // namespace Quellan::Platform
