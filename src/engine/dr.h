// Data records: shared data pages, overflow chains and the free-space table.
//
// Requires: the current file's control lock.
#pragma once

#include "layout.h"

int dr_get(PAGE drp, char* recptr, int maxlen) noexcept;   // bytes copied, or -1
PAGE dr_put(const char* recptr, int reclen) noexcept;      // address, or 0xFFFFFFFF
int dr_rel(PAGE drp) noexcept;                             // 0, -1
