#include "TQLib/text/TQEscape.h"
#include "text/Cases.h"

#include <absl/strings/escaping.h>
#include <glib.h>
#include <memory>
#include <string>

namespace Quellan::Corvel::Bench {
namespace {

// What GLib hands out, until it is freed.
using GText = std::unique_ptr<char, void (*)(void*)>;

struct Texts {
    std::string plain = "C:/Program Files/service.exe \"--log\" <path> & 'more' of it, na\xC3\xAFve\n";
    _TQaString c = TQEscapeC(plain);
    _TQaString url = TQEscapeUrl(plain);
};

}  // namespace

void AddEscapes(Contest& contest) {
    const auto t = std::make_shared<Texts>();

    contest.Add("escape for C", "TQEscapeC", [t] { Keep(TQEscapeC(t->plain).c_str()); });
    contest.Add("escape for C", "absl::CEscape", [t] { Keep(absl::CEscape(t->plain).c_str()); });

    contest.Add("unescape from C", "TQUnescapeC", [t] { Keep(TQUnescapeC(t->c).c_str()); });
    contest.Add("unescape from C", "absl::CUnescape", [t] {
        std::string text;
        Keep(absl::CUnescape({t->c.c_str(), t->c.Length()}, &text));
    });

    contest.Add("escape for XML", "TQEscapeXmlAttribute",
                [t] { Keep(TQEscapeXmlAttribute(t->plain).c_str()); });
    contest.Add("escape for XML", "g_markup_escape_text", [t] {
        Keep(GText(g_markup_escape_text(t->plain.data(), static_cast<gssize>(t->plain.size())), &g_free)
                 .get());
    });

    contest.Add("escape for a URL", "TQEscapeUrl", [t] { Keep(TQEscapeUrl(t->plain).c_str()); });
    contest.Add("escape for a URL", "g_uri_escape_string",
                [t] { Keep(GText(g_uri_escape_string(t->plain.c_str(), nullptr, FALSE), &g_free).get()); });

    contest.Add("unescape from a URL", "TQUnescapeUrl", [t] { Keep(TQUnescapeUrl(t->url).c_str()); });
    contest.Add("unescape from a URL", "g_uri_unescape_string",
                [t] { Keep(GText(g_uri_unescape_string(t->url.c_str(), nullptr), &g_free).get()); });
}

}  // namespace Quellan::Corvel::Bench
