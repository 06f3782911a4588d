#!/usr/bin/env bash
# Writes the seed corpora of the fuzz targets (fuzz/corpus/<target>/) from real files
# made by the kisam tool: ISAM files, their dumps and configuration records.  The text
# formats of the support library have no tool that writes them; their seeds are written
# out here as a user would write them.  Run from anywhere:
#     fuzz/make_corpus.sh [path/to/kisam]
# The seeds are kept in the tree; run this again only to change them.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
kisam="$(realpath "${1:-$here/../build/tools/kisam/kisam}")"
corpus="$here/corpus"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

export HOME="$work/home" HOME_Q9="$work/q9" PROFILEQ9ENV="$work/home/.Q9.profile"
unset KISCONFIG
mkdir -p "$HOME" "$HOME_Q9"
cfg="$work/kisamconfig"
"$kisam" config init "$cfg" --buffers 64 --files 8 --users 4 >/dev/null
k() { "$kisam" --config "$cfg" --quiet "$@"; }

# Records as the put command reads them: one escaped record per line, each beginning
# with its number, so that key 0 is unique for any key length of 4 or more.
records() {   # COUNT SIZE,SIZE,... -> lines
    local n=$1 sizes=$2
    awk -v n="$n" -v sizes="$sizes" 'BEGIN {
        split(sizes, sz, ",");
        for (i = 0; i < n; i++) {
            len = sz[1 + i % length(sz)];
            r = sprintf("%04d%04d%06d%03d", i, (i * 7919) % 10000, (i * 31) % 1000000, i % 1000);
            while (length(r) < len) r = r sprintf("%c", 97 + length(r) % 26);
            print substr(r, 1, len);
        }
    }'
}

rm -rf "$corpus"/{isam,config,load,import,parm,cfentry,vallist,profile,salvage}
mkdir -p "$corpus"/{isam,config,load,import,parm,cfentry,vallist,profile,salvage}

# ---- ISAM files ------------------------------------------------------------------------
f="$work/one_key";     k create "$f" 8;        records 30 "12,40,90,300" | k put "$f" - >/dev/null
f="$work/three_keys";  k create "$f" 4,6,3;    records 28 "20,60,1021,33,80,1500,40,2032" | k put "$f" - >/dev/null
k del "$f" 0000 0010 0020 >/dev/null
f="$work/key_in_index"; k create "$f" 5,3 --key-in-index; records 30 "8,8,30,1200,12" | k put "$f" - >/dev/null
f="$work/small_header"; k create "$f" 6 --small-header;   records 25 "10,100,1100" | k put "$f" - >/dev/null
f="$work/empty";       k create "$f" 4,4
f="$work/two_levels";  k create "$f" 8;        records 150 "10" | k put "$f" - >/dev/null
for f in one_key three_keys key_in_index small_header empty two_levels; do
    k check "$work/$f" >/dev/null
    cp "$work/$f" "$corpus/isam/$f"
    cp "$work/$f" "$corpus/salvage/$f"
    k dump "$work/$f" "$corpus/load/$f.dump"
done
# Salvage reads damaged files: one cut inside a page, one without its control page.
head -c 9000 "$work/three_keys" >"$corpus/salvage/three_keys_cut"
{ head -c 512 /dev/zero; tail -c +513 "$work/key_in_index"; } >"$corpus/salvage/key_in_index_no_control"

# ---- CSV for import: the first byte chooses the options (fuzz_import.cpp) ----------------
imp="$corpus/import"
{ printf '\x00'; k export "$work/three_keys" --csv; } >"$imp/export_three_keys"
printf '\x00key0,key1,key2,rest\r\n0001,abcdef,xyz,hello world\r\n0002,"a,b",q,"quoted ""text"" here"\r\n0003,\xc3\xa9t\xc3\xa9s,\xe2\x82\xac,multi\nline\r\n0004,toolongvalue,zz,\r\n' >"$imp/default_header"
printf '\x010010,name,abc,x\n0011,n2,de,"y"\n' >"$imp/no_header"
printf '\x06id,name,code,rest\n0001,aaaaaa,bbb,r1\n0001,cccccc,ddd,r2\n0002,eeeeee,fff,\n' >"$imp/replace_fields"
printf '\x08b,a,code,name,id\n12,abcde,c1,nm,0007\n13,xx,c2,nm2,0008\n,,,,\n' >"$imp/fields_reordered"
printf '\x0did,name,code\n0001,aaaaaa,bbb\n0002,cc,d\n' >"$imp/keys_only"

# ---- configuration records -------------------------------------------------------------
c() { local name=$1; shift; "$kisam" config init "$corpus/config/$name" "$@" >/dev/null; rm -f "$corpus/config/$name.lk"; }
c default
c small --buffers 4 --files 2 --users 2 --keys 3
c track --track-changes --sync-on-mark
c clear --track-changes --clear-on-release --files-per-process 3 --file-buffers 2
c heap --avg-alt-keys 0 --lock-key-len 1 --locks-per-file 1 --buffers 300

# ---- text formats ----------------------------------------------------------------------
cat > "$corpus/parm/profile" <<'EOF'
# user profile
tmp_dir /var/tmp
base_dir	/opt/q9
datetype EUROPEAN
empty
title "a \"quoted\" \x41\101 value\n" 'single' 0x1F 010 08 12ab
ops += -5 a+b ,; "unterminated
long one \
two \
three
=ignored
 indented ignored
EOF
printf 'crlf value\r\nlast_no_newline 1 2 3' > "$corpus/parm/crlf"

cat > "$corpus/profile/settings" <<'EOF'
LocalEnv PRINTER lp1
Env ZT_FUZZ_A "${HOME}/x"
UserEnv root ZT_FUZZ_B ${HOME_Q9}/y
tmp_dir ${HOME}/tmp
config_fn ${HOME_Q9}/Q9Config
base_dir /nonexistent/base/
alt_tmp_dir /tmp
value 'a\tb^Ac\\'
datetype AMERICAN
EOF

cat > "$corpus/cfentry/entries" <<'EOF'
  indented first entry
server: alpha	port 5000   # comment
  path "/a b/c"
  opts: x:y
# whole-line comment

client  beta
	retries 3
last:entry:"with:colons"
EOF

printf '%s\n' $'\x00alpha\tone' $'\x00Alpha\ttwo' $'\x02ALPHA' $'\x01alpha\tthree' \
    $'\x00beta\t"quoted\\t^Avalue"' $'\x02beta' $'\x00gamma\t\'x^1\\\'' $'\x01nokey\tv' \
    $'\x00\t' $'\x02\x00' $'\x03delta\t^' > "$corpus/vallist/ops"

ls -l "$corpus"/* | awk 'NF > 5 { n++; s += $5 } END { printf "%d seeds, %d bytes\n", n, s }'
