#!/usr/bin/env python3
"""Checks that the documentation covers the library.

  check_docs.py names MAP HEADER_DIR MAN_DIR
      Every name that the version script MAP exports is declared in a public header
      under a comment of its own, and has a section-3 manual page: a page of its name,
      or a link listed in MAN_DIR/links, whose page mentions it.  Every constant the
      headers define carries a comment.  New exports (kisam_* extensions among them)
      are picked up from MAP: document them and the test passes.

  check_docs.py render MAN_DIR
      Every page renders with man -l without a warning.

  check_docs.py story SOURCE_DIR
      The README, python/README.md, the section-3 pages and kisam(1) tell one story:
      no page keeps a statement that the others (and the code) have left behind, and
      the statements they share are made in each of them.

Exit status 0 when all is well, 1 with the list of faults otherwise.
"""
import glob
import os
import re
import shutil
import subprocess
import sys


def exported_names(map_path):
    text = re.sub(r"/\*.*?\*/", " ", open(map_path).read(), flags=re.S)
    glob = text.split("global:", 1)[1].split("local:", 1)[0]
    return sorted({n for n in re.split(r"[\s;{}]+", glob) if n})


def read_links(path):
    """(page, [names]) of man/links: "page:" starts a page, further words name links,
    and lines may continue on the next lines."""
    out = []
    for line in open(path):
        words = line.split("#", 1)[0].split()
        if words and words[0].endswith(":"):
            out.append((words[0][:-1], []))
            words = words[1:]
        if words:
            out[-1][1].extend(words)
    return out


def header_lines(header_dir):
    out = []
    for name in sorted(os.listdir(header_dir)):
        if name.endswith(".h"):
            path = os.path.join(header_dir, name)
            out.extend((name, i, line) for i, line in enumerate(open(path).read().split("\n")))
    return out


def is_comment_line(line):
    s = line.strip()
    return s.startswith("/*") or s.startswith("*")


def attached_comment(lines, i):
    """The comment block directly above the group of declarations holding line i (the
    lines up to a blank line or the end of a comment that stands on lines of its own),
    and the number of lines of code in the group."""
    j = i
    decls = 0
    while j >= 0 and lines[j].strip() and not (is_comment_line(lines[j]) and
                                               lines[j].rstrip().endswith("*/")):
        if not is_comment_line(lines[j]):
            decls += 1
        j -= 1
    if j < 0 or not lines[j].strip():
        return None, decls
    end = j
    while j >= 0 and "/*" not in lines[j]:
        j -= 1
    return "\n".join(lines[j:end + 1]), decls


def declaration(name, hlines):
    pat = re.compile(r"^(?!\s*(?:/\*|\*|#|typedef\s+struct)).*?[\s*]" + re.escape(name) +
                     r"\s*(\(|\[|;)")
    for file, i, line in hlines:
        code = line.split("/*", 1)[0].rstrip()
        if code.endswith(";") and pat.match(" " + line):
            return file, i
    return None, None


def check_names(map_path, header_dir, man_dir):
    faults = []
    hlines = header_lines(header_dir)
    by_file = {}
    for file, i, line in hlines:
        by_file.setdefault(file, []).append(line)

    # Header comments of exported functions and globals.
    names = exported_names(map_path)
    for name in names:
        file, i = declaration(name, hlines)
        if file is None:
            faults.append(f"{name}: exported but declared in no public header")
            continue
        lines = by_file[file]
        if "/*" in lines[i].split(name, 1)[1]:
            continue  # a comment of its own beside it
        comment, decls = attached_comment(lines, i)
        if comment is None:
            faults.append(f"{name}: no comment above its declaration ({file}:{i + 1})")
        elif decls > 1 and not re.search(r"\b" + re.escape(name) + r"\b", comment):
            faults.append(f"{name}: its declaration shares a comment that does not name it "
                          f"({file}:{i + 1})")

    # Constants.
    for file, lines in by_file.items():
        for i, line in enumerate(lines):
            m = re.match(r"#define\s+(\w+)", line)
            if not m or m.group(1).endswith("_H"):
                continue
            if "/*" in line or attached_comment(lines, i)[0] is not None:
                continue
            faults.append(f"{m.group(1)}: constant without a comment ({file}:{i + 1})")

    # Manual pages: a page of the name, or a link to a page that mentions it.
    pages = {f[:-2] for f in os.listdir(man_dir) if f.endswith(".3")}
    links = {}
    for page, rest in read_links(os.path.join(man_dir, "links")):
        if page not in pages:
            faults.append(f"links: {page}.3 is no page")
        for n in rest:
            if n in links or n in pages:
                faults.append(f"links: {n} is listed twice or is a page itself")
            links[n] = page
    texts = {p: plain_text(os.path.join(man_dir, p + ".3")) for p in pages}
    faults.extend(check_error_texts(map_path, by_file.get("kisam.h", []), man_dir))
    for name in names:
        page = name if name in pages else links.get(name)
        if page is None:
            faults.append(f"{name}: no section-3 page and no link (man/links)")
        elif not re.search(r"(?<![\w])" + re.escape(name) + r"(?![\w])", texts[page]):
            faults.append(f"{name}: linked to {page}(3), which does not mention it")
    return faults


def rendered(page, width=80):
    env = dict(os.environ, MANWIDTH=str(width), LC_ALL="C.UTF-8", MAN_DISABLE_SECCOMP="1")
    return subprocess.run(["man", "--warnings", "-l", page], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, env=env)


def check_error_texts(map_path, kisam_h, man_dir):
    """niserrmsg(3) names every ISE_* code and gives each message exactly as the
    library's table has it (a tab written <tab>; runs of blanks compare as one)."""
    faults = []
    src = os.path.join(os.path.dirname(os.path.abspath(map_path)), "engine", "api", "is_error.cpp")
    table = open(src).read().split("msg_tbl[", 1)[1].split("};", 1)[0]
    msgs = [bytes(m, "ascii").decode("unicode_escape") for m in re.findall(r'"((?:[^"\\]|\\.)*)"', table)]
    page = rendered(os.path.join(man_dir, "niserrmsg.3"), 1000).stdout.decode()
    norm = lambda t: " ".join(t.split())
    flat = norm(page)
    for code, msg in enumerate(msgs):
        # Trailing blanks are part of a text; the page says how many.
        text, blanks = msg.rstrip(" "), len(msg) - len(msg.rstrip(" "))
        want = "\u201c" + text.replace("\t", "<tab>") + "\u201d"
        if blanks:
            want += f" followed by {blanks} blanks"
        if code and norm(want) not in flat:
            faults.append(f"niserrmsg(3): message of code {code} missing or changed: {msg!r}")
    for line in kisam_h:
        m = re.match(r"#define\s+(ISE_\w+)", line)
        if m and not re.search(r"\b" + m.group(1) + r"\b", flat):
            faults.append(f"niserrmsg(3): {m.group(1)} is not listed")
    return faults


def plain_text(path):
    """The page's words without font changes and escapes, enough to find names in."""
    t = open(path).read()
    t = re.sub(r"\\f(\[[^]]*\]|\(..|.)", "", t)
    t = t.replace("\\-", "-").replace("\\e", "\\").replace("\\&", "")
    return t


def check_render(man_dir):
    if shutil.which("man") is None:
        return ["man not found: install man-db to check the manual pages"]
    faults = []
    for f in sorted(os.listdir(man_dir)):
        if not f.endswith(".3"):
            continue
        r = rendered(os.path.join(man_dir, f))
        if r.returncode != 0 or r.stderr.strip() or len(r.stdout) < 200:
            faults.append(f"{f}: man -l exit {r.returncode}: {r.stderr.decode(errors='replace').strip()}")
    return faults


# Statements that were once true and must not come back: what the library does now is
# said by SHARED below.
STALE = [
    (r"there is no undo", "every write, update and delete is whole or absent (undo journal)"),
    (r"stored but not (yet )?indexed|half[- ]indexed|half[- ]written record",
     "an interrupted call is rolled back, it never leaves a record half indexed"),
    (r"every read(, write and delete)? takes? the (file's )?control lock|each read takes the (file's )?control lock",
     "reads of pages in the pool take no lock"),
    (r"crash of the whole machine \(power, kernel\) is not covered",
     "a crash of the machine is covered: the first to attach replays the redo logs"),
]

DOCS = {
    "README": "README.md",
    "python/README": "python/README.md",
    "kisam(1)": "tools/kisam/kisam.1",
    "kisam(3)": "man/kisam.3",
    "niswrite(3)": "man/niswrite.3",
    "nisread(3)": "man/nisread.3",
    "nislock(3)": "man/nislock.3",
}

# (what, pattern, documents that must each say it)
SHARED = [
    ("calls are whole or absent", r"whole or absent",
     ["README", "kisam(1)", "kisam(3)", "niswrite(3)"]),
    ("reads of pooled pages take no lock", r"takes? no lock",
     ["README", "kisam(1)", "kisam(3)", "nisread(3)", "nislock(3)"]),
    ("a machine crash is covered: the redo logs are replayed", r"replays? (every|the) logs?",
     ["README", "kisam(1)", "kisam(3)"]),
    ("attaching creates $HOME/.Q9", r"\$HOME/\.Q9", ["README", "python/README", "kisam(3)"]),
    ("attaching creates $HOME/Documents", r"\$HOME/Documents", ["README", "python/README", "kisam(3)"]),
    ("share and tmp are world-writable", r"0777", ["README", "python/README", "kisam(3)"]),
    ("the mutex's lock file", r"_Q9_Glbl_Mtx_\.lck", ["README", "python/README", "kisam(3)"]),
    ("the lock file is 0666", r"0666", ["README", "python/README", "kisam(3)"]),
    ("PATH changes", r"\$HOME_Q9/bin:", ["README", "python/README", "kisam(3)"]),
    ("how to point it elsewhere", r"PROFILEQ9ENV", ["README", "python/README", "kisam(3)"]),
]

# Names the documents above give that the code must still use.
CODE_FACTS = [
    ("_Q9_Glbl_Mtx_", "src/support/getq9env.cpp"),
    ('"%s/%s.lck"', "src/support/ztthread.cpp"),
    ('"Documents"', "src/support/getq9env.cpp"),
    ('".Q9"', "src/support/getq9env.cpp"),
]


def doc_text(path):
    """The words of a document: a page's roff markup gone, runs of blanks one."""
    t = open(path, encoding="utf-8").read()
    if path.endswith((".1", ".3")):
        t = plain_text(path)
        t = re.sub(r"^\.(?:B|I|BR|IR|RB|BI|IB|RI|TP|PP|IP|SS|SH|RS|RE|EX|EE|nf|fi)\b ?", "", t, flags=re.M)
        t = t.replace('"', "")
    return " ".join(t.split())


def check_story(src):
    faults = []
    texts = {name: doc_text(os.path.join(src, rel)) for name, rel in DOCS.items()}
    for rel in sorted(os.listdir(os.path.join(src, "man"))):
        if rel.endswith(".3"):
            texts.setdefault(rel[:-2] + "(3)", doc_text(os.path.join(src, "man", rel)))
    for pattern, now in STALE:
        for name, text in texts.items():
            m = re.search(pattern, text, flags=re.I)
            if m:
                faults.append(f"{name}: says \"{m.group(0)}\", no longer true: {now}")
    for what, pattern, names in SHARED:
        for name in names:
            if not re.search(pattern, texts[name], flags=re.I):
                faults.append(f"{name}: does not state: {what} (/{pattern}/)")
    # Every family of ztsupport(3) has its return values and its errors.
    sections, current = {}, None
    for line in open(os.path.join(src, "man", "ztsupport.3"), encoding="utf-8"):
        if line.startswith(".SH "):
            current = line[4:].strip().strip('"')
            sections[current] = []
        elif line.startswith(".SS ") and current is not None:
            sections[current].append(line[4:].strip())
    families = sections.get("DESCRIPTION", [])
    for part in ("RETURN VALUE", "ERRORS"):
        if sections.get(part) != families:
            faults.append(f"ztsupport(3): {part} does not take the families of DESCRIPTION in turn: "
                          f"{sections.get(part)} against {families}")
    for fact, rel in CODE_FACTS:
        if fact not in open(os.path.join(src, rel), encoding="utf-8").read():
            faults.append(f"{rel}: no longer has {fact}, which the documents name")
    return faults + check_cited_tests(src)


def check_cited_tests(src):
    """A rulebook's [Suite.Test] citations name tests that exist: a test folded away or
    renamed leaves a rule that seems checked and is not."""
    tests = set()
    for path in glob.glob(os.path.join(src, "tests", "**", "*.cpp"), recursive=True):
        text = open(path, encoding="utf-8").read()
        tests |= {f"{a}.{b}" for a, b in re.findall(r"TEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)", text)}
    suites = {t.split(".")[0] for t in tests}
    faults = []
    for path in sorted(glob.glob(os.path.join(src, "src", "**", "README*.md"), recursive=True)):
        text = open(path, encoding="utf-8").read()
        for suite, test in re.findall(r"\b([A-Z]\w+)\.([A-Z]\w{11,})\b", text):
            if suite in suites and f"{suite}.{test}" not in tests:
                faults.append(f"{os.path.relpath(path, src)}: cites {suite}.{test}, which no test file has")
        # A bracketed list of citations may name a whole suite (`Suite.*`, `Suite.*Pool`,
        # `Instance/Suite.*/Param`): the suite must still exist.
        for cited in re.findall(r"\[([^]]*)\]", text):
            for item in cited.split(","):
                m = re.match(r"(?:\w+/)?([A-Z]\w+)\.\*", item.strip())
                if m and m.group(1) not in suites:
                    faults.append(f"{os.path.relpath(path, src)}: cites {item.strip()}, a suite no test file has")
    return faults


def main(argv):
    if len(argv) == 5 and argv[1] == "names":
        faults = check_names(argv[2], argv[3], argv[4])
    elif len(argv) == 3 and argv[1] == "render":
        faults = check_render(argv[2])
    elif len(argv) == 3 and argv[1] == "story":
        faults = check_story(argv[2])
    else:
        print(__doc__)
        return 2
    for f in faults:
        print(f)
    if not faults:
        print(f"check_docs {argv[1]}: ok")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
