// The extension area: sizing, layout and the attach check.
#include "isx_area.h"

#include <cstring>

isx_head* isx_area = nullptr;

namespace {

constexpr uint32_t kLine = 64;

inline uint32_t round_line(uint64_t n) { return static_cast<uint32_t>((n + kLine - 1) / kLine * kLine); }

struct Geometry {
    uint32_t file_base, proc_base, open_base, open_bytes, ref_base, reaped_base, path_base, link_base,
        log_base, log_len, lsn_base, whole_base, whole_mask, sync_base, size;
};

// Entries of one chain log: a process that fell further behind than this walks the
// chain instead, so one walk (at most maxbufs slots) is paid for by at least maxbufs / 8
// changes of others.
uint32_t log_entries(uint64_t nb) {
    uint32_t n = 64;
    while (n < nb / 8) n <<= 1;
    return n;
}

Geometry geometry(int maxopen, int maxusers, int maxbufs) {
    const uint64_t no = maxopen > 0 ? maxopen : 0;
    const uint64_t nu = maxusers > 0 ? maxusers : 0;
    const uint64_t nb = maxbufs > 0 ? maxbufs : 0;
    Geometry g{};
    g.file_base = sizeof(isx_head);
    g.proc_base = round_line(g.file_base + no * sizeof(isx_file));
    g.open_bytes = static_cast<uint32_t>((no + 63) / 64 * 8);
    g.open_base = round_line(g.proc_base + nu * sizeof(isx_proc));
    g.ref_base = round_line(g.open_base + nu * g.open_bytes);
    g.reaped_base = round_line(g.ref_base + nb);
    g.path_base = round_line(g.reaped_base + ISX_NREAPED * sizeof(isx_reaped));
    g.link_base = round_line(g.path_base + no * ISX_PATHLEN);
    g.log_base = round_line(g.link_base + nb * sizeof(int16_t));
    g.log_len = log_entries(nb);
    g.lsn_base = round_line(g.log_base + no * g.log_len * sizeof(int16_t));
    g.whole_base = round_line(g.lsn_base + nb * sizeof(uint64_t));
    uint64_t w = 1024;
    while (w < 16 * nb) w <<= 1;
    g.whole_mask = static_cast<uint32_t>(w - 1);
    g.sync_base = round_line(g.whole_base + w * sizeof(uint64_t));
    g.size = round_line(g.sync_base + no * sizeof(isx_sync));
    return g;
}

}  // namespace

uint32_t isx_size(int maxopen, int maxusers, int maxbufs) noexcept {
    return geometry(maxopen, maxusers, maxbufs).size;
}

void isx_layout(void) noexcept {
    char* base = reinterpret_cast<char*>(isam_com) + isam_com->comsize;
    const Geometry g = geometry(isam_com->maxopen, isam_com->maxusers, isam_com->maxbufs);
    std::memset(base, 0, g.size);
    isx_head* h = reinterpret_cast<isx_head*>(base);
    h->xh_version = ISX_VERSION;
    h->xh_size = g.size;
    h->xh_maxopen = isam_com->maxopen;
    h->xh_maxusers = isam_com->maxusers;
    h->xh_maxbufs = isam_com->maxbufs;
    h->xh_file_base = g.file_base;
    h->xh_proc_base = g.proc_base;
    h->xh_open_base = g.open_base;
    h->xh_open_bytes = g.open_bytes;
    h->xh_ref_base = g.ref_base;
    h->xh_reaped_base = g.reaped_base;
    h->xh_path_base = g.path_base;
    h->xh_link_base = g.link_base;
    h->xh_log_base = g.log_base;
    h->xh_log_len = static_cast<uint16_t>(g.log_len);
    h->xh_lsn_base = g.lsn_base;
    h->xh_whole_base = g.whole_base;
    h->xh_whole_mask = g.whole_mask;
    h->xh_sync_base = g.sync_base;
    isx_file* f = reinterpret_cast<isx_file*>(base + g.file_base);
    for (int u = 0; u < isam_com->maxopen; ++u) f[u].xf_hand = -1;
    // The magic goes in last: a head with the magic is a complete layout.
    h->xh_magic = ISX_MAGIC;
}

isx_head* isx_find(char* base, size_t segsize) noexcept {
    const struct isam_com* com = reinterpret_cast<const struct isam_com*>(base);
    if (segsize < sizeof(struct isam_com) || com->comsize <= 0 || com->maxopen <= 0) return nullptr;
    const Geometry g = geometry(com->maxopen, com->maxusers, com->maxbufs);
    const size_t at = static_cast<size_t>(com->comsize);
    if (segsize < at + g.size) return nullptr;
    isx_head* h = reinterpret_cast<isx_head*>(base + at);
    if (h->xh_magic != ISX_MAGIC || h->xh_version != ISX_VERSION || h->xh_size != g.size ||
        h->xh_maxopen != com->maxopen || h->xh_maxusers != com->maxusers ||
        h->xh_maxbufs != com->maxbufs || h->xh_file_base != g.file_base ||
        h->xh_proc_base != g.proc_base || h->xh_open_base != g.open_base ||
        h->xh_open_bytes != g.open_bytes || h->xh_ref_base != g.ref_base ||
        h->xh_reaped_base != g.reaped_base || h->xh_path_base != g.path_base ||
        h->xh_link_base != g.link_base || h->xh_log_base != g.log_base || h->xh_log_len != g.log_len ||
        h->xh_lsn_base != g.lsn_base || h->xh_whole_base != g.whole_base || h->xh_whole_mask != g.whole_mask ||
        h->xh_sync_base != g.sync_base)
        return nullptr;
    return h;
}

bool isx_attach(size_t segsize) noexcept {
    isx_area = isx_find(reinterpret_cast<char*>(isam_com), segsize);
    return isx_area != nullptr;
}

extern "C" KISAM_API long kisam_area_bytes(int files, int users, int buffers) {
    if (files < 1 || users < 1 || buffers < 1) return -1;
    return static_cast<long>(isx_size(files, users, buffers));
}
