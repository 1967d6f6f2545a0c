// Identifiers by their texts, so that tests can be read.
#pragma once

#include "TQLib/core/TQException.h"
#include "TQLib/security/SecID.h"
#include "platform/SidTexts.h"

#include <gtest/gtest.h>
#include <ostream>
#include <string>

namespace Quellan::Sarvek {

inline void PrintTo(const SecID& id, std::ostream* out) {
    *out << (id.IsNull() ? "null" : id.String().ToUtf8().c_str());
}

}  // namespace Quellan::Sarvek

namespace Quellan::Corvel::Test {

using Sarvek::SecID;

inline SecID Id(const wchar_t* text) {
    return SecID(Sid(text).Get());
}

// The message of the library's exception that `operation` throws, as it was thrown.
template <class Operation>
std::wstring ThrownText(Operation operation) {
    try {
        operation();
    } catch (const TQCoreException& failure) {
        return failure.ExcMsg(TQStrResDestination::Log).Std();
    }
    return L"nothing";
}

}  // namespace Quellan::Corvel::Test
