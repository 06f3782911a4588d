// Which attached processes are alive.  A process holds a write lock on the byte of the
// lock file at its process-table entry for as long as it is attached; the kernel drops it
// with the process, so a slot whose byte nobody holds names a process that is gone -- a
// test that a reused process id cannot fool.  (A process between claiming its slot and
// taking the lock, or attached by a tool that takes none, is judged by whether its pid
// exists.)
//
// Requires: attached (isam_com, isx_area, the lock file open); is_live_claim and
// is_live_release run for this process's own slot, under the start-up lock.
#pragma once

#include <cstdint>

bool is_slot_dead(int i) noexcept;        // slot i names a process that is gone
// Whether the process that held slot i when its claim count was gen (the low kGenBits
// bits) is gone: the slot was claimed again since, freed, or its process died.  Unlike
// is_slot_dead, a slot other than this process's own that holds this process's pid (left
// by its image before an exec) is judged like any other.
bool is_slot_gone(int i, uint32_t gen) noexcept;
inline constexpr int kGenBits = 14;
inline constexpr uint32_t kGenMask = (1u << kGenBits) - 1;
int is_live_claim(void) noexcept;         // take that lock for this process's slot; 0/-1
void is_live_release(void) noexcept;      // give it up (detach)
// Gives up only the lock, keeping the slot, its pid and its open set: other processes now
// judge the slot dead and clean it up as a dead process's (a detach that could not close
// every file).
void is_live_abandon(void) noexcept;
