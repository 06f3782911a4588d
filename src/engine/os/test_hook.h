// Switches for the tests, reached through the static library only: the shared library
// never exports them (src/kisam.map), and every program but a test leaves them alone.
#pragma once

namespace kisam {

// Called, when set, in the middle of changes that readers without the lock must never
// see half done, or of a clean-up that others may race: `where` says which, `u` is the
// file's slot (the process slot for kHookReap).  A test pauses or kills the process there.
enum : int {
    kHookTouch = 1,     // a unit is about to change a page (its before-image is saved)
    kHookLoad = 2,      // a slot is on its chain and tagged, its page not yet read
    kHookTakeAway = 3,  // a victim's tag is cleared, the slot not yet off its chain
    kHookFetch = 4,     // a reader read a missing page from the file, no lock taken yet
    kHookReap = 5,      // a clean-up found process slot `u` dead, nothing of it cleaned yet
    kHookSleep = 6,     // a wait for a lock is about to sleep (`u` 0: a lock word, 1: a range)
    kHookGate = 7,      // a wait's held-back signals were looked at, none let through yet
};
using TestHook = void (*)(int where, int u);
extern TestHook test_hook;

// True: nisread, nispread and nisfind always take the control lock (the path a read
// without the lock falls back to), so that tests can compare the two.
extern bool test_locked_reads;

}  // namespace kisam
