// Records of fields from outside. What is read, written and read again is the same.
#include "Require.h"
#include "TQLib/core/TQException.h"
#include "TQLib/text/TQFields.h"

#include <cstdint>
#include <string>
#include <vector>

using namespace Quellan::Corvel;

namespace {

template <class C>
using Records = std::vector<std::vector<std::basic_string<C>>>;

template <class C>
Records<C> ReadAll(std::basic_string_view<C> text) {
    Records<C> records;
    _TQFieldReaderT<C> reader(text);
    while (reader.NextRecord()) {
        records.emplace_back();
        while (const auto field = reader.NextField())
            records.back().emplace_back(*field);
        Require(!records.back().empty());
    }
    Require(reader.Offset() == text.size());
    return records;
}

template <class C>
void Check(std::basic_string<C> text) {
    try {
        const Records<C> records = ReadAll<C>(text);
        std::basic_string<C> written;
        for (const auto& record : records)
            (written += TQJoinFields(record).View()) += C{'\n'};
        Require(ReadAll<C>(written) == records);
    } catch (const TQCoreException& refused) {
        Require(refused.COMErrCode() == 13);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Check(std::string(data, data + size));
    Check(std::wstring(data, data + size));
    return 0;
}
