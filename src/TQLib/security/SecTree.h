// Trees of objects whose lists are inherited.
#pragma once

#include "TQLib/security/SecInheritance.h"
#include "TQLib/text/TQString.h"

#include <functional>
#include <vector>

namespace Quellan::Corvel {
class TQCoreException;
}

namespace Quellan::Sarvek {

// Objects below each other, each with a descriptor: derived classes know how to list, read and change them.
// The members of one object are for one thread.
class TQLIB_API SecTree {
  public:
    struct Child {
        Corvel::TQString path;
        bool isContainer;
    };
    struct Options {
        // Where a call before this one was stopped; empty to begin at the beginning.
        Corvel::TQString from;
        // Asked before each object; once it says yes, the call ends there.
        std::function<bool(const Corvel::TQString& path)> isStopped;
        // Told of each object that could not be listed, read or changed.
        std::function<void(const Corvel::TQString& path, const Corvel::TQCoreException& failure)> onFailure;
        bool renewSACL = false;
    };
    struct Outcome {
        ULONGLONG changed = 0;
        ULONGLONG unchanged = 0;  // as they were to be already, or protected; also those on the way to `from`
        ULONGLONG failed = 0;
        // The object that is next where the call was stopped, for another call to go on with. Empty where all
        // has been done.
        Corvel::TQString next;
    };

    virtual ~SecTree();

    // Gives all that is below `root` what it inherits now (`SecInheritance::Renewed`), from the top to the
    // bottom; `root` itself stays as it is. What is below a protected list stays too, and so does what is
    // below an object that failed; the call goes on with the others. A second call changes only what is not
    // told to be as it is to be, so that one that was interrupted can be repeated at any time. On Linux a
    // file's list is told with the rights that the kernel gives: where those are fewer it is set again, and
    // what is handed on further down is what is told. Throws what reading and listing `root` throw, and what
    // the functions in `options` throw.
    Outcome Renew(const Corvel::TQString& root, const Options& options);
    Outcome Renew(const Corvel::TQString& root) { return Renew(root, Options()); }

  protected:
    explicit SecTree(const SecGenericMap& rights) noexcept : m_rights(rights) {}

  private:
    struct Level;

    // Owner, group and DACL of an object, the SACL too if so wanted.
    virtual SecDesc Read(const Corvel::TQString& path, bool withSACL) = 0;
    // Sets the DACL, the SACL too if so wanted.
    virtual void Write(const Corvel::TQString& path, const SecDesc& descriptor, bool withSACL) = 0;
    // In any order. Links are no children.
    virtual std::vector<Child> List(const Corvel::TQString& path) = 0;

    Level Enter(const Corvel::TQString& path, SecDesc descriptor, const Options& options);
    // Whether what is below has to be looked at; `descriptor` receives what the object has then.
    bool RenewOne(const Child& child, const SecDesc& parent, const Options& options, SecDesc& descriptor,
                  Outcome& outcome);

    SecGenericMap m_rights;
};

// Files and folders.
class TQLIB_API SecFileTree : public SecTree {
  public:
    SecFileTree() noexcept : SecTree(SecGenericMap::OfFiles()) {}
    ~SecFileTree() override;

  private:
    SecDesc Read(const Corvel::TQString& path, bool withSACL) override;
    void Write(const Corvel::TQString& path, const SecDesc& descriptor, bool withSACL) override;
    std::vector<Child> List(const Corvel::TQString& path) override;
};

}  // namespace Quellan::Sarvek
