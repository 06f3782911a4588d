// The entry table: a loading program asks the library to fill it and then calls every
// operation through it.  Slots 0 and 1 belong to the caller and are never touched.
#include "layout.h"

extern "C" {

// A null table is refused with -1: there is nothing to fill, and a loader that lost its
// table must learn it here rather than through a fault.
KISAM_API int ZTKISAMInit(KisamEntryTable* tbl) {
    if (tbl == nullptr) return -1;
    tbl->ZTKISAMTest = ZTKISAMTest;
    tbl->ZTKISAMGetLastError = ZTKISAMGetLastError;
    tbl->ZTKISAMGetComAddr = ZTKISAMGetComAddr;
    tbl->is_init = is_init;
    tbl->nisexit = nisexit;
    tbl->nisunisam = nisunisam;
    tbl->nisclose = nisclose;
    tbl->niscreate = niscreate;
    tbl->nisopen = nisopen;
    tbl->nisdelete = nisdelete;
    tbl->niserrmsg = niserrmsg;
    tbl->nisfind = nisfind;
    tbl->nisflush = nisflush;
    tbl->nisfwrite = nisfwrite;
    tbl->nisgetctl = nisgetctl;
    tbl->nislock = nislock;
    tbl->nisrelctl = nisrelctl;
    tbl->nispread = nispread;
    tbl->nisread = nisread;
    tbl->nisseek = nisseek;
    tbl->nisstat = nisstat;
    tbl->nisupdate = nisupdate;
    tbl->nisunlock = nisunlock;
    tbl->niswrite = niswrite;
    tbl->niserrmsgget = niserrmsgget;
    tbl->ZTKISAMGetLastErrorMsg = ZTKISAMGetLastErrorMsg;
    return 0;
}

}  // extern "C"
