// Identifiers by their texts, so that tests can be read.
#pragma once

#include "TQLib/core/TQException.h"
#include "TQLib/security/SecID.h"
#include "platform/SidTexts.h"
#include "support/ThrownCode.h"

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

// The action of the library's exception that `operation` throws.
template <class Operation>
std::wstring ThrownAction(Operation operation) {
    try {
        operation();
    } catch (const TQCoreException& failure) {
        return failure.Action();
    }
    return L"nothing";
}

}  // namespace Quellan::Corvel::Test
