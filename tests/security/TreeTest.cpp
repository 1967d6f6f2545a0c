#include "TQLib/core/TQException.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecTree.h"
#include "security/Identifiers.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecDesc;
using Sarvek::SecGenericMap;
using Sarvek::SecTree;

// Objects in memory; those whose path ends with '/' are containers.
class TreeInMemory : public SecTree {
  public:
    TreeInMemory() : SecTree(SecGenericMap::OfFiles()) {}

    std::map<TQString, TQString> objects;  // texts of descriptors
    std::set<TQString> damaged;

    TQString Texts() const {
        TQString texts;
        for (const auto& [path, text] : objects)
            texts += path + L" " + text + L"\n";
        return texts;
    }

  private:
    const TQString& Entry(const TQString& path) const {
        if (damaged.contains(path)) throw TQSysException(ERROR_ACCESS_DENIED, L"TreeInMemory");
        return objects.at(path);
    }
    SecDesc Read(const TQString& path, bool) override { return SecDesc::FromText(Entry(path)); }
    void Write(const TQString& path, const SecDesc& descriptor, bool) override {
        objects[path] = descriptor.Text();
    }
    std::vector<Child> List(const TQString& path) override {
        std::vector<Child> children;
        for (const auto& [other, text] : objects)
            if (other.StartsWith(path + L"/") && other.Find(L"/", path.Length() + 1) == TQString::NotFound)
                children.push_back({other, !other.EndsWith(L".txt")});
        std::ranges::reverse(children);
        return children;
    }
};

TreeInMemory Sample() {
    TreeInMemory tree;
    tree.objects = {{L"r", L"D:(A;OICI;FA;;;BU)"},      {L"r/a", L"D:(A;OICIID;FA;;;WD)"},
                    {L"r/a!b", L"D:(A;;FR;;;WD)"},      {L"r/a/x.txt", L"D:(A;;FR;;;BA)(A;ID;FA;;;WD)"},
                    {L"r/a/y", L"D:P(A;OICI;FR;;;BA)"}, {L"r/a/y/z.txt", L"D:(A;ID;FA;;;WD)"},
                    {L"r/b", L"D:(A;ID;FA;;;WD)"},      {L"r/b/x.txt", L"D:(A;ID;FA;;;WD)"},
                    {L"r/c.txt", L"D:AI(A;ID;FA;;;BU)"}};
    return tree;
}

TEST(Trees, GetWhatIsInheritedNow) {
    TreeInMemory tree = Sample();
    tree.damaged = {L"r/b"};
    std::vector<TQString> failures;
    const SecTree::Outcome outcome = tree.Renew(
        L"r",
        {.from = {}, .isStopped = {}, .onFailure = [&](const TQString& path, const TQCoreException& failure) {
             EXPECT_EQ(failure.ErrCode(), DWORD{ERROR_ACCESS_DENIED});
             failures.push_back(path);
         }});
    EXPECT_EQ(tree.Texts(),
              L"r D:(A;OICI;FA;;;BU)\n"
              L"r/a D:AI(A;OICIID;FA;;;BU)\n"
              L"r/a!b D:AI(A;;FR;;;WD)(A;OICIID;FA;;;BU)\n"
              L"r/a/x.txt D:AI(A;;FR;;;BA)(A;ID;FA;;;BU)\n"
              L"r/a/y D:P(A;OICI;FR;;;BA)\n"
              L"r/a/y/z.txt D:(A;ID;FA;;;WD)\n"
              L"r/b D:(A;ID;FA;;;WD)\n"
              L"r/b/x.txt D:(A;ID;FA;;;WD)\n"
              L"r/c.txt D:AI(A;ID;FA;;;BU)\n");
    EXPECT_EQ(failures, std::vector<TQString>{L"r/b"});
    EXPECT_EQ(outcome.changed, 3u);
    EXPECT_EQ(outcome.unchanged, 2u);
    EXPECT_EQ(outcome.failed, 1u);
    EXPECT_EQ(outcome.next, L"");
}

TEST(Trees, AreGoneOnWithWhereTheyWereStopped) {
    TreeInMemory whole = Sample();
    whole.Renew(L"r");
    for (const bool isGone : {false, true})
        for (int steps = 1; steps <= 4; ++steps) {
            TreeInMemory tree = Sample();
            SecTree::Options options;
            int left = 0;
            options.isStopped = [&](const TQString&) { return left-- == 0; };
            int calls = 0;
            do {
                left = steps + 1;  // one may be on the way only
                options.from = tree.Renew(L"r", options).next;
                // What is gone when the call goes on is not missed.
                if (isGone && !options.from.IsEmpty())
                    std::erase_if(tree.objects, [&](const auto& object) {
                        return object.first == options.from || object.first.StartsWith(options.from + L"/");
                    });
                ASSERT_LT(++calls, 20);
            } while (!options.from.IsEmpty());
            for (const auto& [path, text] : tree.objects)
                EXPECT_EQ(text, whole.objects[path]) << path.ToUtf8().c_str() << " " << steps;
        }
}

}  // namespace
}  // namespace Quellan::Corvel::Test
