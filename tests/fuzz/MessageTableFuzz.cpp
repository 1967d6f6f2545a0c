// Message tables and module files from outside: the bytes are taken for each of them in turn.
#include "TQLib/platform/linux/process/ModuleImage.h"
#include "TQLib/platform/linux/texts/MessageTable.h"

#include <string>

using namespace Quellan::Platform;

namespace {

void ReadMessages(std::span<const std::byte> table) {
    for (const DWORD id : {0u, 1u, 5u, 6u, 0x4102u, 0xC1230100u, 0xCFFF4001u, 0xFFFFFFFFu}) {
        std::wstring text;
        FindMessage(table, id, text);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::byte> bytes = std::as_bytes(std::span(data, size));
    ReadMessages(bytes);
    for (const TableKind kind : {TableKind::Messages, TableKind::Strings})
        VisitModuleFile(
            bytes, [](LANGID, std::span<const std::byte> table) { ReadMessages(table); }, kind);
    return 0;
}
