// What the undo journal's files share (rules in jn.h and README.journal.md).
//
// File layout ("<lock file>.u<slot>", machine byte order):
//   0     jn_head, 4096 bytes: state, owner, the file of the unit (slot, device, inode,
//         path) and its control page as it was when the unit began
//   4096  jn_image[capacity]: page number and before-image of each page the unit
//         changed, in the order they were first changed; jh_npages of them are valid
// The owner writes the images before it raises jh_npages, and everything before it
// sets jh_state ACTIVE, so another process reading the file after the owner died sees
// only complete images.  The file's blocks are reserved (posix_fallocate) before they
// are used, so that a full disk stops a call before its first change, never a journal
// half way through one.
//
// Reads and writes: isam_com (tables), isx_area (xf_undo, statistics), is_pfi (the
// descriptors of open files), is_env.useridx (this process's slot).
//
// The pieces: jn_journal.cpp (the journal file of this process and the unit it runs),
// jn_undo.cpp (rolling a unit back: a failed call, or one whose process died),
// jn_recover.cpp (journals left when the shared area is made anew, and the marks of
// the files they name).
#pragma once

#include "is_error.h"
#include "jn.h"
#include "isx_area.h"
#include "layout.h"

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>

namespace kisam::journal {

constexpr uint32_t kMagic = 0x324E4A4Bu;  // "KJN2"
constexpr size_t kHeadBytes = 4096;
constexpr uint32_t kFirstCapacity = 256;   // before-images reserved at first use
constexpr size_t kBootBytes = 48;
constexpr size_t kPathBytes = 3472;

struct jn_head {
    uint32_t jh_magic;          //    0-3
    uint32_t jh_state;          //    4-7    JN_IDLE, JN_ACTIVE, JN_UNDO
    int32_t jh_pid;             //    8-11   owner
    int16_t jh_slot;            //   12-13   owner's process slot
    int16_t jh_file;            //   14-15   shared-file slot of the unit's file
    uint64_t jh_dev;            //   16-23   the file's identity
    uint64_t jh_ino;            //   24-31
    uint32_t jh_npages;         //   32-35   valid images
    uint32_t jh_capacity;       //   36-39   images the file has room for
    uint32_t jh_units;          //   40-43   units begun (statistics)
    uint32_t jh_fcplen;         //   44-47   bytes of jh_fcp in use
    uint8_t jh_fcp[kisam::kFcpImage];  // 48-559  control page from is_magic on
    char jh_boot[kBootBytes];   //  560-607  the kernel's boot id when the journal was opened
    char jh_path[kPathBytes];   //  608-4079 the file's path (absolute when it could be made so)
    uint32_t jh_stole;          // 4080-4083 nonzero: the unit let pages go before its end (lg_steal),
                                //           so a rollback must close it in the log
    uint32_t jh_pad;            // 4084-4087
    uint64_t jh_commit;         // 4088-4095 LSN after the unit's log record once it is being
                                //           appended (0 before): the unit committed when the
                                //           file's log end (xf_log_end) has reached it
};
KISAM_RECORD(jn_head, kHeadBytes);
KISAM_AT(jn_head, jh_state, 4); KISAM_AT(jn_head, jh_npages, 32); KISAM_AT(jn_head, jh_fcp, 48);
KISAM_AT(jn_head, jh_boot, 560); KISAM_AT(jn_head, jh_path, 608); KISAM_AT(jn_head, jh_commit, 4088);

struct jn_image {
    uint32_t ji_pno;            // 0-3
    uint32_t ji_pad;            // 4-7
    IS_DATA ji_data;            // 8-1031
};
KISAM_RECORD(jn_image, 1032);

inline size_t bytes_for(uint32_t capacity) { return kHeadBytes + capacity * sizeof(jn_image); }

inline std::atomic_ref<uint32_t> state_of(jn_head* h) { return std::atomic_ref<uint32_t>(h->jh_state); }
inline jn_image* images(jn_head* h) {
    return reinterpret_cast<jn_image*>(reinterpret_cast<char*>(h) + kHeadBytes);
}

// A journal mapped into this process: its own, or another slot's for a rollback.
struct Map {
    int fd = -1;
    jn_head* h = nullptr;
    size_t len = 0;
};

void unmap(Map& m) noexcept;

extern char jbase[PATH_MAX];  // the lock file's name

// The running kernel's boot id, "" when it cannot be read.  A journal written before the
// machine last started is not rolled back: its pages were kept by no kernel, and what
// reached the disk of it is anybody's guess.
const char* boot_id() noexcept;
// Opens another slot's journal; false when there is none (or it cannot be read).
bool open_other(int slot, Map& m) noexcept;
// The images of m that lie inside the mapping (a damaged count never reads past it).
uint32_t valid_images(const Map& m);

// This process's journal and the unit it runs.
struct Own {
    Map m;
    int slot = -1;
    int pid = 0;
    bool active = false;
    IS_FCP* fcp = nullptr;
    int u = -1;
    int depth = 0;
    PAGE oldlast = 0;
    // Pages saved in this unit: open addressing, a slot is valid when its stamp is gen;
    // idx is the number of the page's before-image.
    uint32_t* pno = nullptr;
    uint32_t* stamp = nullptr;
    uint32_t* idx = nullptr;
    // By before-image number: what the unit noted of its changes of that page (jn_touch_part).
    jn_change* chg = nullptr;
    uint32_t cap = 0;
    uint32_t gen = 0;
    // The file whose path jh_path holds.
    int path_u = -1;
    uint64_t path_dev = 0, path_ino = 0;
};
extern Own own;

inline int current_file() { return is_curdb ? is_curdb->uniqueid : static_cast<int>(is_curpfi - is_pfi); }
inline isx_file* xfile(int u) { return kisam::isx_file_of(u); }

int fail(int detail, int code = ISE_RDWT) noexcept;

// Whether m's unit reached its commit point: its log record is in and the file's log
// end has moved past it (no other call can have appended since: the unit's owner held
// the control lock until it died, and whoever looks now holds it).
bool committed(const jn_head* h, int u) noexcept;

}  // namespace kisam::journal
