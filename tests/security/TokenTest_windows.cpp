// Clients of named pipes, which the Linux layer does not have.
#include "TQLib/security/SecToken.h"
#include "platform/PlatformTest.h"
#include "security/Identifiers.h"

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecImpersonation;
using Sarvek::SecToken;

TEST(PipeClients, AreKnownAndTheThreadActsAsBefore) {
    const std::wstring name = L"\\\\.\\pipe\\tqtest-" + std::to_wstring(GetCurrentProcessId());
    const SecToken::Handle server(
        CreateNamedPipeW(name.c_str(), PIPE_ACCESS_INBOUND, 0, 1, 16, 16, 0, nullptr));
    const SecToken::Handle client(
        CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    char sent = 'x';
    DWORD count = 0;
    ASSERT_TRUE(WriteFile(client.Get(), &sent, 1, &count, nullptr));
    ASSERT_TRUE(ReadFile(server.Get(), &sent, 1, &count, nullptr));
    const SecToken own = SecToken::OfProcess().Duplicate();
    const SecImpersonation acting(own);
    const SecToken token = SecToken::OfPipeClient(server.Get());
    EXPECT_EQ(token.User().SID(), own.User().SID());
    EXPECT_EQ(SecToken::OfThread().Statistics().token, own.Statistics().token);
    EXPECT_NE(token.Statistics().token, own.Statistics().token);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
