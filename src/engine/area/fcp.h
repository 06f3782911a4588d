// The file control page: on-disk image, conversion of the old layout.
#pragma once

#include "layout.h"

namespace kisam {

// Converts, in place, an old-layout control page (magic 0xAB52/0xAB53) held in a scratch
// copy: `scratch` points at the 32-byte identity area, followed by the 512 bytes read
// from disk.  Afterwards the scratch holds the new layout (magic + 2).
void fcp_convert_old(char* scratch) noexcept;

// The 512-byte disk image of a control page: bytes from is_magic on, 104 + 16 * is_nkeys
// of them, then zeros.  Clears ISO_CHANGED in fcp first.
void fcp_image(IS_FCP* fcp, unsigned char out[kFcpImage]) noexcept;

}  // namespace kisam
