// What access-control lists mean as the kernel's own: owner, group, others, and lists of users and groups (POSIX
// access lists, in "system.posix_acl_access" and "system.posix_acl_default").
//
// Nobody gets what the list does not give him; where the kernel has no words for it he gets less. There a user
// who is named has his own entry alone, and of several groups the one that grants wins: so a right that is denied
// to a group is taken from everybody who may be in it.
#pragma once

#include "TQLib/platform/linux/files/FileSecurity.h"

namespace Quellan::Platform {

// Bits are 4 to read, 2 to write, 1 to execute or search.
struct PosixEntry {
    bool isGroup;
    DWORD id;
    mode_t bits;

    bool operator==(const PosixEntry&) const = default;
};

struct PosixList {
    mode_t owner = 0;
    mode_t group = 0;
    mode_t others = 0;
    std::vector<PosixEntry> named;  // users first, by their numbers

    mode_t Mask() const noexcept;  // what the group and all who are named have together
    mode_t Mode() const noexcept;  // the nine bits that the file shows
    bool operator==(const PosixList&) const = default;
};

// What an entry's meaning depends on.
struct PosixFile {
    uid_t owner;
    gid_t group;
    bool isFolder = false;
    bool isSticky = false;      // a folder in which everybody deletes his own files alone
    bool isExecutable = false;  // for anybody; a list makes no file executable that is not
};

PosixFile PosixFileOf(const struct stat& info) noexcept;

// All may throw std::bad_alloc.

// What a file and, of a folder, what is made in it gets. Without `list`, everybody everything. 50
// (ERROR_NOT_SUPPORTED) for entries of a kind that has another layout, and for one that denies the data to
// somebody whom this machine does not know.
DWORD PosixListOf(const std::vector<AccessEntry>* list, const PosixFile& file, PosixList& access);
// Nothing where the list has no entries for what is made in the folder, files and folders alike. `access` is the
// folder's own.
std::optional<PosixList> InheritedPosixListOf(const std::vector<AccessEntry>& list, const PosixList& access,
                                              const PosixFile& folder);

// Entries that say the same, in an order that is no canonical one where a narrower entry has fewer rights.
std::vector<AccessEntry> EntriesOf(const PosixList& access, const PosixFile& file);
std::vector<AccessEntry> InheritedEntriesOf(const PosixList& inherited);

// The list with rights that the kernel's lists do not give taken away, and entries without others left out. The owner
// can give himself everything, administrators can do it without asking: theirs are left alone.
std::vector<AccessEntry> Believable(std::vector<AccessEntry> list, const PosixList& access,
                                    const std::optional<PosixList>& inherited, const PosixFile& file);

// The kernel's bytes.
std::vector<BYTE> PosixBlock(const PosixList& list);
// What is effective under the list's mask. False for what is no such block.
bool ParsePosixBlock(std::span<const BYTE> block, PosixList& list);

}  // namespace Quellan::Platform
