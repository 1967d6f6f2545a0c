// Bytes of any encoding. The first byte chooses the encoding, the second where the rest is cut.
#include "Require.h"
#include "TQLib/core/TQException.h"
#include "TQLib/text/TQEncoding.h"

#include <iterator>

using namespace Quellan;
using namespace Quellan::Corvel;

namespace {

constexpr UINT CodePages[] = {65001, 1200, 1201, 12000, 12001, 437, 866, 1252, 1253, 1255, 28593, 28605};
constexpr TQEncodingRules Strict{.isStrict = true};

// What strict rules take they give back.
void CheckStrict(TQEncoding encoding, std::string_view bytes) {
    try {
        Require(encoding.Encode(encoding.Decode(bytes, Strict), Strict) == bytes);
    } catch (const TQCoreException&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const TQEncoding encoding(CodePages[data[0] % std::size(CodePages)]);
    const std::string_view bytes(reinterpret_cast<const char*>(data + 2), size - 2);
    const TQEncodingRules rules{.hasMark = data[0] >= 128};
    const TQString whole = encoding.Decode(bytes, rules);
    const std::size_t cut = bytes.empty() ? 0 : data[1] % bytes.size();
    TQDecoder decoder(encoding, rules);
    TQString pieces = decoder.Decode(bytes.substr(0, cut));
    pieces += decoder.Decode(bytes.substr(cut));
    pieces += decoder.Finish();
    Require(pieces == whole);

    const std::string back = encoding.Encode(whole, rules);
    TQEncoder encoder(encoding, rules);
    std::string parts;
    for (const wchar_t unit : whole.View())
        parts += encoder.Encode({&unit, 1});
    parts += encoder.Finish();
    Require(parts == back);
    CheckStrict(encoding, bytes);
    return 0;
}
