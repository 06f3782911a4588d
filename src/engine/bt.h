// B-tree indexes: search, insert with splits, delete with underflow repair.
//
// Requires: the current file's control lock.  Pages go through the buffer pool and are
// written as they change.  Item layout and page format: see bt_search.cpp.
#pragma once

#include "layout.h"

// search: 1 found (item filled), 0 none, -1 failure.
int bt_search(int keyno, PAGE page, int srchflag, char* item, int depth) noexcept;
// insert: 0 stored, 1 already present (exchanged with forcef), -1 failure.
int bt_insert(int keyno, PAGE page, char* item, int depth, int forcef) noexcept;
int newroot(int keyno, PAGE page, char* item, PAGE oldpage, IS_KEY* kfp) noexcept;
// delete: 0 done, -1 failure (ISE_BTNP when the item is absent).
int bt_delete(int keyno, PAGE page, char* item, PAGE parent) noexcept;
int bt_getnxt(int keyno, PAGE ins_pg, int offset, PAGE parent, PAGE page) noexcept;
int bt_unflow(int keyno, PAGE parent, PAGE page) noexcept;
