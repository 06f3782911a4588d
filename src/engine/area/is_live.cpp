// Which attached processes are alive (rules in is_live.h).
#include "is_live.h"

#include "is_common.h"
#include "isx_area.h"
#include "os.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <signal.h>

namespace {

constexpr uint32_t kLive = 0x1;  // xp_flags: the process holds its liveness lock

inline off_t live_offset(int i) {
    return static_cast<off_t>(isam_com->pid_base) + 4 * static_cast<off_t>(i);
}

}  // namespace

bool is_slot_dead(int i) noexcept {
    if (!isam_com || !isx_area || i < 0 || i >= isam_com->maxusers) return false;
    const int32_t pid = std::atomic_ref<int32_t>(is_env.pid_[i]).load();
    if (pid <= 0 || pid == is_pid) return false;
    const isx_proc* p = kisam::isx_proc_of(i);
    if (p->xp_pid == pid && (p->xp_flags & kLive))
        return kisam::os_testlock(is_lockfd, live_offset(i), 1) == 0;
    return ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

bool is_slot_gone(int i, uint32_t gen) noexcept {
    if (!isam_com || !isx_area || i < 0 || i >= isam_com->maxusers) return true;
    const isx_proc* p = kisam::isx_proc_of(i);
    // Claimed again since (by this process or another): the claimer named is gone.
    if ((std::atomic_ref<const uint32_t>(p->xp_gen).load() & kGenMask) != (gen & kGenMask)) return true;
    const int32_t pid = std::atomic_ref<int32_t>(is_env.pid_[i]).load();
    if (pid <= 0) return true;  // freed: its process left or was cleaned up
    if (i == is_env.useridx && pid == is_pid) return false;
    // Not is_slot_dead's shortcut for this process's pid: a slot of an image of this
    // process from before an exec holds the same pid and is gone all the same.
    if (std::atomic_ref<const int32_t>(p->xp_pid).load() == pid &&
        (std::atomic_ref<const uint32_t>(p->xp_flags).load() & kLive))
        return kisam::os_testlock(is_lockfd, live_offset(i), 1) == 0;
    return ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

int is_live_claim(void) noexcept {
    const int i = is_env.useridx;
    isx_proc* p = kisam::isx_proc_of(i);
    p->xp_flags = 0;
    p->xp_wait = 0;
    // Lock words that name the slot's earlier claimers now name processes that are gone.
    std::atomic_ref<uint32_t>(p->xp_gen).fetch_add(1);
    p->xp_pid = is_pid;
    std::memset(kisam::isx_open_set(i), 0, isx_area->xh_open_bytes);
    if (kisam::os_lock(is_lockfd, F_SETLK, F_WRLCK, live_offset(i), 1) != 0) return -1;
    std::atomic_ref<uint32_t>(p->xp_flags).store(kLive);
    return 0;
}

void is_live_release(void) noexcept {
    if (!isam_com || !isx_area) return;
    const int i = is_env.useridx;
    if (i < 0 || i >= isam_com->maxusers) return;
    isx_proc* p = kisam::isx_proc_of(i);
    if (p->xp_pid != is_pid) return;
    p->xp_flags = 0;
    p->xp_pid = 0;
    kisam::os_lock(is_lockfd, F_SETLK, F_UNLCK, live_offset(i), 1);
}

void is_live_abandon(void) noexcept {
    if (!isam_com || !isx_area) return;
    const int i = is_env.useridx;
    if (i < 0 || i >= isam_com->maxusers || kisam::isx_proc_of(i)->xp_pid != is_pid) return;
    kisam::os_lock(is_lockfd, F_SETLK, F_UNLCK, live_offset(i), 1);
}
