// The file of a registry value. What could be read is the same when it is written and read again.
#include "Require.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/registry/RegistryValue.h"

using namespace Quellan::Platform;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view file(reinterpret_cast<const char*>(data), size);
    RegistryValue value, again;
    if (ParseRegistryValue(file, value) == ERROR_SUCCESS) {
        Require(ParseRegistryValue(FormatRegistryValue(value), again) == ERROR_SUCCESS);
        Require(again == value);
    }
    // The same for bytes that a caller says are a text.
    const RegistryValue text{L"text", 1, std::string(file)};
    Require(ParseRegistryValue(FormatRegistryValue(text), again) == ERROR_SUCCESS);
    Require(again == text);
    return 0;
}
