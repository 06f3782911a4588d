// Who may use an installation, and what is refused when someone else got there first.
//
// The rule: who may lock may attach.  Every process of an installation opens the lock
// file read-write, since the lock words are write locks on it.  So everything the
// installation shares -- the segment, the journals, any file the library keeps beside
// the lock file -- belongs to the lock file's owner and group and grants read and write
// to exactly the classes (owner, group, others) that may open the lock file read-write,
// and nothing to the others.  A lock file that everyone may open read-write (0666)
// shares everything with everyone, as every release has done.
//
// Nothing found in the place of shared state is used on trust: a segment at the
// installation's key, or a file beside the lock file, that someone other than the
// installation's users created, or that grants more than the lock file does, is refused.
// These checks run when the segment is attached and when a file beside the lock file is
// opened, never on the paths of calls.
#pragma once

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/types.h>

struct is_access {
    uid_t owner;      // the lock file's owner
    gid_t group;      // the lock file's group
    mode_t lkmode;    // the lock file's permission bits
    mode_t shared;    // the mode of everything shared (is_shared_mode)
    bool everyone;    // others may open the lock file read-write: no check applies
};

// The mode of what an installation shares, from its lock file's mode: read and write for
// each class that has both on the lock file, nothing for the rest (0666 stays 0666, 0660
// and 0664 give 0660, 0644 and 0600 give 0600).
mode_t is_shared_mode(mode_t lockmode) noexcept;
// Describes the installation whose lock file is open as fd; false when it cannot be
// examined (errno set).
bool is_access_of(int fd, struct is_access* a) noexcept;
// Whether uid may own, or have created, shared state of the installation: its lock
// file's owner, root, this process's user, a member of the lock file's group when the
// group may use it (from the group database), anyone when everyone may.
bool is_access_user(const struct is_access& a, uid_t uid) noexcept;

// Set by the last getcomm that refused a segment found at the key (message written).
extern bool is_shm_refused;
// The segment at `key` for an installation that not everyone may use: creates it (with
// the installation's owner, group and mode; nobody else can reach it meanwhile) or opens
// the one there after checking who made it and what it grants.  Its id, or -1 with
// errno: EINVAL when the one there is smaller than `size`; EPERM (is_shm_refused set,
// message written) when it is not the installation's.  `created` tells which.
int is_shm_open(key_t key, size_t size, const struct is_access& a, bool* created) noexcept;

// Opens `path`, a file beside the lock file `lockname` (the configuration file when the
// installation has no lock file): never through a symbolic link, never one with other
// names (hard links).  One it creates (flags with O_CREAT) gets the
// installation's owner, group and mode; one it finds is refused when its owner is not
// one of the installation's users, or it grants more than the lock file does.  The
// descriptor, or -1 with errno (ELOOP for a link, EACCES for a file refused; a message
// says which).
int is_open_beside(const char* lockname, const char* path, int flags) noexcept;
// Calls fn(slot, arg) for every file "<lockname><tag><slot>" beside the lock file (the
// journals ".u", the logs ".w"), slot from 0 to maxslot.  Opens nothing.
void is_each_beside(const char* lockname, const char* tag, long maxslot, void (*fn)(int slot, void* arg),
                    void* arg) noexcept;
