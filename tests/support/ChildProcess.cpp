#include "support/ChildProcess.h"

#include <gtest/gtest.h>
#include <utility>

namespace Quellan::Corvel::Test {

std::string ChildProcess::ReadTo(const std::string& part) {
    do {
        const std::size_t found = m_output.find(part);
        const std::size_t end = found == std::string::npos ? found : m_output.find('\n', found);
        if (end == std::string::npos) continue;
        std::string lines = m_output.substr(0, end + 1);
        m_output.erase(0, end + 1);
        return lines;
    } while (ReadMore());
    ADD_FAILURE() << "the output ends without \"" << part << "\":\n" << m_output;
    return std::exchange(m_output, {});
}

std::string ChildProcess::ReadAll() {
    while (ReadMore()) {
    }
    return std::exchange(m_output, {});
}

bool ChildProcess::ReadMore() {
    std::string more = ReadSome();
    if (more.empty()) return false;
    std::erase(more, '\r');
    m_output += more;
    return true;
}

}  // namespace Quellan::Corvel::Test
