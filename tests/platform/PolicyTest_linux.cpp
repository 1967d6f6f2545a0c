// The file behind the rights of accounts.
#include "Policy.h"
#include "support/ReadBytes.h"
#include "support/Role.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sys/stat.h>

namespace Quellan::Corvel::Test {
namespace {

constexpr const wchar_t* Right = L"SeShutdownPrivilege";

class RightsFile : public testing::Test {
  protected:
    RightsFile() { Change(L"S-1-5-9", false); }  // makes the folder
    ~RightsFile() override { Write(""); }

    void Write(const std::string& text) { std::ofstream(m_path) << text; }

    std::string Read() const { return ReadBytes(m_path); }

    // Gives the right to shut down, or takes it away.
    DWORD Change(const wchar_t* account, bool remove) {
        Sid sid(account);
        const DWORD status = remove ? m_policy.Remove(sid.Get(), Right) : m_policy.Add(sid.Get(), Right);
        return LsaNtStatusToWinError(static_cast<NTSTATUS>(status));
    }

    DWORD CodeOfReading(const wchar_t* account) {
        LSA_UNICODE_STRING* rights = nullptr;
        ULONG count = 0;
        const NTSTATUS status =
            LsaEnumerateAccountRights(m_policy.Get(), Sid(account).Get(), &rights, &count);
        if (status == 0) LsaFreeMemory(rights);
        return LsaNtStatusToWinError(status);
    }

    const std::string m_path = std::string(std::getenv("TQLIB_ROOT")) + "/state/security/rights";
    const Policy m_policy;
};

TEST_F(RightsFile, KeepsTheAdministratorsLines) {
    Write(
        "# Who may do what\n\nS-1-5-32-551  SeBackupPrivilege\tSeRestorePrivilege\r\nS-1-5-9 "
        "SeDebugPrivilege");
    EXPECT_EQ(Change(L"S-1-5-9", false), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(Read(),
              "# Who may do what\n\nS-1-5-32-551  SeBackupPrivilege\tSeRestorePrivilege\r\n"
              "S-1-5-9 SeDebugPrivilege SeShutdownPrivilege\n");
    struct stat info {};
    EXPECT_EQ(stat(m_path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
}

TEST_F(RightsFile, HasOneLineForAnAccountThatWasChanged) {
    Write("S-1-5-9 SeShutdownPrivilege\nS-1-5-10 SeDebugPrivilege\nS-1-5-9 SeAuditPrivilege\n");
    EXPECT_EQ(Change(L"S-1-5-9", true), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(Read(), "S-1-5-9 SeAuditPrivilege\nS-1-5-10 SeDebugPrivilege\n");
}

TEST_F(RightsFile, IsNotChangedWhenItCannotBeUnderstood) {
    for (const char* text :
         {"S-1-5-x SeShutdownPrivilege\n", "SeShutdownPrivilege\n", "S-1-5-9 Se;Shutdown\n"}) {
        Write(text);
        EXPECT_EQ(CodeOfReading(L"S-1-5-9"), DWORD{ERROR_INTERNAL_DB_CORRUPTION}) << text;
        EXPECT_EQ(Change(L"S-1-5-9", false), DWORD{ERROR_INTERNAL_DB_CORRUPTION}) << text;
        EXPECT_EQ(Read(), text);
    }
}

TEST_F(RightsFile, IsNotTrustedWhenOthersCanWriteIt) {
    Write("S-1-5-9 SeShutdownPrivilege\n");
    EXPECT_EQ(chmod(m_path.c_str(), 0666), 0);
    EXPECT_EQ(CodeOfReading(L"S-1-5-9"), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(chmod(m_path.c_str(), 0644), 0);
}

TEST_F(RightsFile, HasTheDefaultsUntilItIsThere) {
    EXPECT_EQ(std::remove(m_path.c_str()), 0);
    EXPECT_EQ(CodeOfReading(L"S-1-5-9"), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(CodeOfReading(L"S-1-5-32-544"), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(Change(L"S-1-5-9", false), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(CodeOfReading(L"S-1-5-32-544"), DWORD{ERROR_SUCCESS}) << "the first change keeps them";
    Write("");
    EXPECT_EQ(CodeOfReading(L"S-1-5-32-544"), DWORD{ERROR_FILE_NOT_FOUND});
}

// Gives the right to accounts of its own, one after the other.
const Role giver("rights_giver", [](const RoleArguments& arguments) {
    const Policy policy;
    for (int i = 0; i < std::stoi(arguments[1]); ++i) {
        const std::wstring account = L"S-1-5-" + std::to_wstring(std::stoi(arguments[0]) + i);
        if (policy.Add(Sid(account.c_str()).Get(), Right) != 0) return 1;
    }
    return 0;
});

TEST_F(RightsFile, LosesNothingToSeveralWriters) {
    Write("");
    constexpr int Each = 25;
    RoleProcess first("rights_giver", {"1000", std::to_string(Each)});
    RoleProcess second("rights_giver", {"2000", std::to_string(Each)});
    EXPECT_EQ(first.ExitCode(), 0);
    EXPECT_EQ(second.ExitCode(), 0);
    const std::string text = Read();
    EXPECT_EQ(std::ranges::count(text, '\n'), 2 * Each);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
