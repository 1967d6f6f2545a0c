#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecID.h"
#include "TQLib/system/TQSysProc.h"
#include "security/Cases.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <memory>
#include <pwd.h>
#include <random>
#include <unistd.h>
#include <vector>

namespace Quellan::Corvel::Bench {

namespace {

using Sarvek::SecID;
using Sarvek::SecIDAuth;

constexpr wchar_t AccountText[] = L"S-1-5-21-3623811015-3361044348-30300820-1013";
constexpr std::size_t SortedCount = 1'000'000;

SecID Parsed(const wchar_t* text) {
    PSID sid = nullptr;
    ConvertStringSidToSidW(text, &sid);
    const SecID id(sid);
    LocalFree(sid);
    return id;
}

// The block, read by hand.
struct Raw {
    BYTE revision;
    BYTE count;
    BYTE authority[6];
    unsigned parts[SID_MAX_SUB_AUTHORITIES];

    std::size_t Length() const { return 8 + 4u * count; }
};

const Raw& RawOf(const SecID& id) {
    return *static_cast<const Raw*>(id.Address());
}

// Makes texts of identifiers that have none yet, since an identifier keeps its text.
class Rendering {
  public:
    Measurement Measure(std::size_t count) {
        Measurement sum;
        while (count != 0) {
            const std::size_t size = std::min(count, BatchSize);
            const std::vector<SecID> ids(size, m_account);
            const Meter meter(Setting::OneThread);
            for (const SecID& id : ids)
                Keep(id.String().c_str());
            const Measurement batch = meter.Read();
            sum.processor += batch.processor;
            sum.wall += batch.wall;
            sum.allocations += batch.allocations;
            count -= size;
        }
        return sum;
    }

  private:
    static constexpr std::size_t BatchSize = 64;
    SecID m_account = Parsed(AccountText);
};

void AddTexts(Contest& contest) {
    const SecID account = Parsed(AccountText);
    const char* work = "text of an identifier";
    contest.AddMade<Rendering>(Setting::OneThread, work, "SecID");
    contest.Add(work, "snprintf", [account] {
        const Raw& raw = RawOf(account);
        char text[200];
        Keep(raw);
        std::snprintf(text, sizeof text, "S-%u-%u-%u-%u-%u-%u-%u", raw.revision, raw.authority[5],
                      raw.parts[0], raw.parts[1], raw.parts[2], raw.parts[3], raw.parts[4]);
        Keep(text);
    });
    contest.Add(work, "swprintf", [account] {
        const Raw& raw = RawOf(account);
        wchar_t text[200];
        Keep(raw);
        std::swprintf(text, std::size(text), L"S-%u-%u-%u-%u-%u-%u-%u", raw.revision, raw.authority[5],
                      raw.parts[0], raw.parts[1], raw.parts[2], raw.parts[3], raw.parts[4]);
        Keep(text);
    });

    work = "text again";
    contest.Add(work, "SecID", [account] { Keep(account.String().c_str()); });
    contest.Add(work, "std::wstring", [text = std::wstring(AccountText)] { Keep(text.c_str()); });

    work = "identifier of a text";
    contest.Add(work, "SecID", [] { Keep(Parsed(AccountText)); });
    contest.Add(work, "sscanf", [text = std::string(std::begin(AccountText), std::end(AccountText) - 1)] {
        Raw raw{1, 5, {}, {}};
        unsigned authority = 0;
        std::sscanf(text.c_str(), "S-1-%u-%u-%u-%u-%u-%u", &authority, &raw.parts[0], &raw.parts[1],
                    &raw.parts[2], &raw.parts[3], &raw.parts[4]);
        raw.authority[5] = static_cast<BYTE>(authority);
        Keep(raw);
    });
}

void AddCopying(Contest& contest) {
    const char* const work = "copy an identifier";
    const SecID account = Parsed(AccountText);
    contest.Add(work, "SecID", [account] { Keep(SecID(account)); });
    contest.Add(work, "operator new and memcpy", [account] {
        const std::size_t length = account.Length();
        void* const copy = ::operator new(length);
        std::memcpy(copy, account.Address(), length);
        Keep(copy);
        ::operator delete(copy);
    });
}

std::vector<SecID> Accounts() {
    std::mt19937 engine(20);
    std::vector<SecID> ids;
    for (std::size_t i = 0; i < SortedCount; ++i)
        ids.emplace_back(SecIDAuth::NTSecIDAuth(), 21, engine() % 100, engine(), engine(), engine());
    return ids;
}

// Sorts accounts in the order in which they were made, or pointers to their blocks.
template <class Element>
class Sorting {
  public:
    Measurement Measure(std::size_t count) {
        Measurement sum;
        for (; count != 0; --count) {
            std::vector<Element> elements = Unsorted();
            const Meter meter(Setting::OneThread);
            if constexpr (std::is_same_v<Element, SecID>)
                std::sort(elements.begin(), elements.end());
            else
                std::sort(elements.begin(), elements.end(), [](const Raw* left, const Raw* right) {
                    if (left->count != right->count) return left->count < right->count;
                    return std::memcmp(left, right, left->Length()) < 0;
                });
            const Measurement one = meter.Read();
            sum.processor += one.processor;
            sum.wall += one.wall;
            sum.allocations += one.allocations;
            Keep(elements.data());
        }
        return sum;
    }

  private:
    std::vector<Element> Unsorted() const {
        if constexpr (std::is_same_v<Element, SecID>) {
            return m_ids;
        } else {
            std::vector<Element> blocks;
            for (const SecID& id : m_ids)
                blocks.push_back(&RawOf(id));
            return blocks;
        }
    }

    std::vector<SecID> m_ids = Accounts();
};

void AddOrder(Contest& contest) {
    const char* work = "compare two accounts";
    const SecID left = Parsed(AccountText);
    const SecID right = Parsed(L"S-1-5-21-3623811015-3361044348-30300820-1014");
    contest.Add(work, "SecID", [left, right] {
        Keep(left);
        Keep(left < right);
    });
    contest.Add(work, "memcmp", [left, right] {
        Keep(left);
        Keep(std::memcmp(left.Address(), right.Address(), RawOf(left).Length()) < 0);
    });

    work = "sort 1000000 accounts";
    contest.AddMade<Sorting<SecID>>(Setting::OneThread, work, "SecID");
    contest.AddMade<Sorting<const Raw*>>(Setting::OneThread, work, "pointers to blocks, memcmp");
}

void AddClasses(Contest& contest) {
    std::vector<SecID> mixed;
    for (const wchar_t* text : {L"S-1-1-0", L"S-1-5-18", L"S-1-5-32-544", L"S-1-5-32-545", L"S-1-5-11",
                                AccountText, L"S-1-5-21-1-2-3-500", L"S-1-5-80-1-2-3-4-5"})
        mixed.push_back(Parsed(text));
    const char* const work = "classes of 8 identifiers";
    contest.Add(work, "SecID", [mixed] {
        int count = 0;
        for (const SecID& id : mixed)
            count += id.IsAdminID() + id.IsLogonID() + id.IsServiceID() + id.IsNonAuthID();
        Keep(count);
    });
    contest.Add(work, "IsWellKnownSid", [mixed] {
        constexpr WELL_KNOWN_SID_TYPE types[] = {WinBuiltinAdministratorsSid,
                                                 WinAccountAdministratorSid,
                                                 WinAccountDomainAdminsSid,
                                                 WinDialupSid,
                                                 WinNetworkSid,
                                                 WinBatchSid,
                                                 WinInteractiveSid,
                                                 WinRemoteLogonIdSid,
                                                 WinServiceSid,
                                                 WinLocalSystemSid,
                                                 WinLocalServiceSid,
                                                 WinNetworkServiceSid,
                                                 WinNullSid,
                                                 WinWorldSid,
                                                 WinAnonymousSid,
                                                 WinAccountGuestSid};
        int count = 0;
        for (const SecID& id : mixed)
            for (const WELL_KNOWN_SID_TYPE type : types)
                count += IsWellKnownSid(id.Address(), type);
        Keep(count);
    });
}

void AddLookups(Contest& contest) {
    const SecID user = TQSysProc::CurrentUser();
    const char* work = "name of a user";
    contest.Add(work, "SecID, copied", [user] {
        const SecID copy = user;
        Keep(copy.Name().c_str());
    });
    const auto ask = [] {
        passwd record;
        passwd* found = nullptr;
        char buffer[4096];
        getpwuid_r(geteuid(), &record, buffer, sizeof buffer, &found);
        Keep(found);
    };
    contest.Add(work, "getpwuid_r", ask);

    work = "name of a user again";
    contest.Add(work, "SecID", [user] { Keep(user.Name().c_str()); });
    contest.Add(work, "getpwuid_r", ask);
}

}  // namespace

void AddIdentifiers(Contest& contest) {
    AddTexts(contest);
    AddCopying(contest);
    AddOrder(contest);
    AddClasses(contest);
    AddLookups(contest);
}

}  // namespace Quellan::Corvel::Bench
