#!/usr/bin/env python3
"""Draws random mutants of the product source for scripts/mutate.sh.

The hand-written mutants in scripts/mutate.sh are the faults the suite's authors
had in mind; this draws faults nobody picked, from generic operators:

  relational  '<' -> '<=', '>' -> '>=', '<=' -> '<', '>=' -> '>'
  equality    '==' <-> '!='
  logical     '&&' <-> '||'
  constant    an integer literal moved by one (both ways; 0 only up)
  boolean     'true' <-> 'false'
  condition   'if (c)' -> 'if (!(c))'
  call        a call statement ('f(...);', 'obj.f(...);', 'a::f(...);') removed
  return      'return 0;' -> 'return -1;', 'return true;' -> 'return false;'

Comments, string and character literals, preprocessor lines, static_assert,
template arguments and array sizes in declarations are left alone, and so are
lines the compiler never sees (the other side of an #ifdef on this platform).

The draw takes the operators in turn (in an order shuffled by the seed), so every
kind gets about N/8 of the sample whatever its number of sites; within an operator
it takes a site uniformly among the files drawn least so far. A sample of 80 so
reaches most files instead of piling up in the few big ones, as a uniform draw over
all sites would (integer constants and call statements alone are over half of
them). The draw depends on the seed and on the tree: any edit to the product source
can change every mutant of a seed.

  mutate_sample.py list  --sample N --seed S [--include-sim] [--json FILE]
  mutate_sample.py apply FILE ID
"""

import argparse
import json
import os
import random
import re
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# Folders that hold no product code: the tests and their aids, fuzz targets,
# benchmarks, scripts, documentation and build trees. The simulator joins on request.
SKIPPED_DIRS = {"tests", "test", "fuzz", "bench", "scripts", "doc", "build"}
SIM_DIR = "sim"

OPERATORS = ["relational", "equality", "logical", "constant", "boolean", "condition",
             "call", "return"]

PUNCTUATORS = sorted([
    ">>=", "<<=", "...", "->*", "::", "->", "++", "--", "<<", ">>", "<=", ">=", "==",
    "!=", "&&", "||", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^=", ".*", "##",
], key=len, reverse=True)

KEYWORDS = {
    "alignas", "alignof", "auto", "bool", "break", "case", "catch", "char", "class",
    "const", "constexpr", "continue", "decltype", "default", "delete", "do", "double",
    "else", "enum", "explicit", "extern", "false", "float", "for", "friend", "goto",
    "if", "inline", "int", "long", "mutable", "namespace", "new", "noexcept",
    "nullptr", "operator", "private", "protected", "public", "return", "short",
    "signed", "sizeof", "static", "static_assert", "static_cast", "struct", "switch",
    "template", "this", "throw", "true", "try", "typedef", "typename", "union",
    "unsigned", "using", "virtual", "void", "volatile", "while", "assert",
    "reinterpret_cast", "const_cast", "dynamic_cast",
}
TYPE_WORDS = {"auto", "bool", "char", "const", "double", "float", "int", "long",
              "short", "signed", "unsigned", "void"}
# Keywords a template argument list can follow.
TEMPLATE_WORDS = {"static_cast", "reinterpret_cast", "const_cast", "dynamic_cast"}
# A '{' after one of these (or after ')') opens a block of statements.
BLOCK_OPENERS = {")", "else", "do", "try", "const", "override", "noexcept", "final",
                 "mutable", "]"}

INTEGER = re.compile(r"^(0[xX][0-9a-fA-F']+|0[bB][01']+|[0-9][0-9']*)([uUlL]*)$")


class Token:
    __slots__ = ("kind", "text", "start", "end", "line", "first_on_line")

    def __init__(self, kind, text, start, end, line, first_on_line):
        self.kind = kind      # "id", "num", "punct", "str"
        self.text = text
        self.start = start    # offset in the file
        self.end = end
        self.line = line      # 1-based
        self.first_on_line = first_on_line


def tokenize(src):
    """Tokens of the C++ source, without comments and preprocessor lines."""
    tokens = []
    i = 0
    n = len(src)
    line = 1
    line_has_token = False
    at_line_start = True  # only blanks so far on this line

    def newline_count(a, b):
        return src.count("\n", a, b)

    def unseen_end(a):
        """Where text the compiler does not see, starting at a, ends: a backslash
        joining two lines, or a comment (a line comment ends before its newline).
        None when neither starts there."""
        if src.startswith("\\\n", a):
            return a + 2
        if src.startswith("//", a):
            b = src.find("\n", a)
            return n if b < 0 else b
        if src.startswith("/*", a):
            b = src.find("*/", a + 2)
            return n if b < 0 else b + 2
        return None

    while i < n:
        c = src[i]
        if c == "\n":
            line += 1
            line_has_token = False
            at_line_start = True
            i += 1
            continue
        if c in " \t\r\f\v":
            i += 1
            continue
        j = unseen_end(i)
        if j is not None:
            line += newline_count(i, j)
            i = j
            continue
        if c == "#" and at_line_start:
            # A preprocessor line, continued by backslashes; comments inside it
            # may hide a newline too.
            j = i
            while j < n and src[j] != "\n":
                k = unseen_end(j)
                if k is not None:
                    line += newline_count(j, k)
                    j = k
                    continue
                j += 1
            i = j
            continue
        at_line_start = False
        start = i
        m = re.compile(r'(?:u8|[uUL])?R"([^ ()\\\t\n]{0,16})\(').match(src, i)
        if m:
            close = ")" + m.group(1) + '"'
            j = src.find(close, m.end())
            j = n if j < 0 else j + len(close)
            kind = "str"
        elif c == '"' or c == "'" or (re.match(r"(?:u8|[uUL])['\"]", src[i:i + 3])):
            q = i
            while src[q] not in "'\"":
                q += 1
            quote = src[q]
            j = q + 1
            while j < n and src[j] != quote and src[j] != "\n":
                j += 2 if src[j] == "\\" else 1
            j += 1
            kind = "str"
        elif c.isalpha() or c == "_":
            j = i + 1
            while j < n and (src[j].isalnum() or src[j] == "_"):
                j += 1
            kind = "id"
        elif c.isdigit() or (c == "." and i + 1 < n and src[i + 1].isdigit()):
            # A preprocessing number: digits, letters, dots, exponent signs and
            # digit separators.
            j = i + 1
            while j < n:
                if src[j] in "eEpP" and j + 1 < n and src[j + 1] in "+-":
                    j += 2
                elif src[j] == "'" and j + 1 < n and (src[j + 1].isalnum()):
                    j += 2
                elif src[j].isalnum() or src[j] in "._":
                    j += 1
                else:
                    break
            kind = "num"
        else:
            for p in PUNCTUATORS:
                if src.startswith(p, i):
                    j = i + len(p)
                    break
            else:
                j = i + 1
            kind = "punct"
        tokens.append(Token(kind, src[start:j], start, j, line, not line_has_token))
        line_has_token = True
        line += newline_count(start, j)
        i = j
    return tokens


def matching(tokens, i, open_text, close_text):
    """Index of the token closing the bracket at i, or None."""
    depth = 0
    for k in range(i, len(tokens)):
        t = tokens[k].text
        if t == open_text:
            depth += 1
        elif t == close_text:
            depth -= 1
            if depth == 0:
                return k
    return None


TEMPLATE_INNER = {"::", ",", "*", "&", "(", ")", "[", "]", "...", "<", ">", ">>"}


def template_close(tokens, i):
    """If the '<' at i opens a template argument list, the indices of its closing
    '>' (or '>>'); otherwise None."""
    prev = tokens[i - 1] if i > 0 else None
    forced = prev is not None and prev.text in ("template", "operator")
    if not forced and (prev is None or prev.kind != "id" or prev.text in KEYWORDS - TEMPLATE_WORDS):
        return None
    depth = 0
    parens = 0
    for k in range(i, len(tokens)):
        t = tokens[k]
        if not forced and t.kind == "punct" and t.text not in TEMPLATE_INNER:
            return None
        if not forced and t.kind == "str":
            return None
        if t.text == "(":
            parens += 1
        elif t.text == ")":
            parens -= 1
            if parens < 0:
                return None
        elif t.text == "<":
            depth += 1
        elif t.text == ">":
            depth -= 1
        elif t.text == ">>":
            depth -= 2
        if depth <= 0:
            if forced:
                return k
            after = tokens[k + 1].text if k + 1 < len(tokens) else ";"
            if after in ("(", "::", "{", ">", ">>", ",", ")", ";", "&", "*", "...", "=") \
                    or tokens[k + 1].kind == "id":
                return k
            return None
    return None


def statement_end(tokens, k):
    """Index of the ';' ending the statement whose call opens with '(' at k."""
    close = matching(tokens, k, "(", ")")
    if close is None or close + 1 >= len(tokens) or tokens[close + 1].text != ";":
        return None
    return close + 1


class Scanner:
    """Finds the mutation sites of one file."""

    def __init__(self, path, rel, live_lines):
        with open(path, encoding="utf-8", errors="surrogateescape") as f:
            self.src = f.read()
        self.rel = rel
        self.lines = self.src.split("\n")
        self.tokens = tokenize(self.src)
        self.live = live_lines  # None: every line is compiled
        self.sites = {op: [] for op in OPERATORS}
        self.excluded = set()   # token indices no operator touches
        self.template_tokens = set()
        self.template_closers = set()
        self.code_block = []    # per token: inside a block of statements?
        self.decl_array = set()  # indices of '[' that size an array in a declaration

    def add(self, op, start, end, replacement, shown_before=None, shown_after=None):
        line = self.src.count("\n", 0, start) + 1
        if self.live is not None and line not in self.live:
            return
        col = start - (self.src.rfind("\n", 0, start) + 1) + 1
        before = self.src[start:end]
        self.sites[op].append({
            "op": op, "file": self.rel, "line": line, "col": col, "offset": start,
            "before": before, "replacement": replacement,
            "shown_before": shown(before if shown_before is None else shown_before),
            "shown_after": shown(replacement if shown_after is None else shown_after),
            "source": self.lines[line - 1].strip(),
        })

    def scan(self):
        toks = self.tokens
        self.mark_exclusions()
        self.mark_blocks()
        for i, t in enumerate(toks):
            if i in self.excluded:
                continue
            prev = toks[i - 1].text if i > 0 else ""
            if t.kind == "punct":
                self.punct_site(i, t, prev)
            elif t.kind == "num":
                self.constant_site(i, t)
            elif t.text in ("true", "false"):
                self.boolean_site(i, t, prev)
            elif t.text == "if":
                self.condition_site(i)
            elif t.text == "return":
                self.return_site(i)
            if t.kind == "id" and t.first_on_line:
                self.call_site(i)
        return self.sites

    def mark_exclusions(self):
        toks = self.tokens
        for i, t in enumerate(toks):
            if t.text == "<" and i not in self.template_tokens:
                close = template_close(toks, i)
                if close is not None:
                    self.template_closers.add(close)
                    self.template_tokens.update(range(i, close + 1))
            elif t.text in ("static_assert", "alignas") and i + 1 < len(toks) \
                    and toks[i + 1].text == "(":
                close = matching(toks, i + 1, "(", ")")
                self.excluded.update(range(i, (close or i) + 1))
            elif t.text == "[" and i >= 2 and toks[i - 1].kind == "id":
                before = toks[i - 2]
                if (before.kind == "id" and before.text not in KEYWORDS - TYPE_WORDS) \
                        or before.text in ("*", "&") or (i - 2) in self.template_closers:
                    self.decl_array.add(i)
            elif t.text == "[" and i >= 1 and toks[i - 1].text == "]":
                opener = self.opening_bracket(i - 1)
                if opener in self.decl_array:
                    self.decl_array.add(i)
        for i in self.decl_array:
            close = matching(toks, i, "[", "]")
            self.excluded.update(range(i, (close or i) + 1))

    def opening_bracket(self, k):
        depth = 0
        for j in range(k, -1, -1):
            if self.tokens[j].text == "]":
                depth += 1
            elif self.tokens[j].text == "[":
                depth -= 1
                if depth == 0:
                    return j
        return None

    def mark_blocks(self):
        """For every token, whether it stands among statements (a function body)
        rather than in a class, namespace or initialiser."""
        stack = [False]
        for i, t in enumerate(self.tokens):
            if t.text == "{":
                prev = self.tokens[i - 1].text if i > 0 else ""
                code = prev in BLOCK_OPENERS or (stack[-1] and prev in (";", "{", "}", ":"))
                stack.append(code)
            elif t.text == "}" and len(stack) > 1:
                stack.pop()
            self.code_block.append(stack[-1])

    def punct_site(self, i, t, prev):
        if prev == "operator" or i in self.template_tokens:
            return
        flips = {"<": "<=", ">": ">=", "<=": "<", ">=": ">"}
        if t.text in flips:
            self.add("relational", t.start, t.end, flips[t.text])
        elif t.text in ("==", "!="):
            self.add("equality", t.start, t.end, "!=" if t.text == "==" else "==")
        elif t.text == "||":
            self.add("logical", t.start, t.end, "&&")
        elif t.text == "&&":
            # An rvalue reference ('auto&& x', 'T<U>&& x') is no conjunction.
            if prev in TYPE_WORDS or (i - 1) in self.template_closers:
                return
            self.add("logical", t.start, t.end, "||")

    def constant_site(self, i, t):
        if i in self.template_tokens:
            return
        m = INTEGER.match(t.text)
        if not m:
            return
        toks = self.tokens
        if t.text == "0" and i >= 2 and toks[i - 1].text == "=" \
                and toks[i - 2].text in (")", "const", "override", "noexcept"):
            return  # a pure virtual function's '= 0'
        digits, suffix = m.group(1).replace("'", ""), m.group(2)
        if digits[:2] in ("0x", "0X"):
            value, base, prefix, body = int(digits[2:], 16), 16, digits[:2], digits[2:]
        elif digits[:2] in ("0b", "0B"):
            value, base, prefix, body = int(digits[2:], 2), 2, digits[:2], digits[2:]
        elif len(digits) > 1 and digits[0] == "0":
            value, base, prefix, body = int(digits, 8), 8, "0", digits[1:]
        else:
            value, base, prefix, body = int(digits), 10, "", digits
        for moved in (value - 1, value + 1):
            if moved < 0:
                continue
            if base == 16:
                text = format(moved, "x")
                if any(ch in "ABCDEF" for ch in body):
                    text = text.upper()
            elif base == 8:
                text = format(moved, "o")
            elif base == 2:
                text = format(moved, "b")
            else:
                text = str(moved)
            if base != 10:
                text = text.rjust(len(body), "0")
            self.add("constant", t.start, t.end, prefix + text + suffix)

    def boolean_site(self, i, t, prev):
        nxt = self.tokens[i + 1].text if i + 1 < len(self.tokens) else ""
        if t.text == "true" and prev == "return" and nxt == ";":
            return  # 'return true;' is the return operator's
        self.add("boolean", t.start, t.end, "false" if t.text == "true" else "true")

    def condition_site(self, i):
        toks = self.tokens
        if i + 1 >= len(toks) or toks[i + 1].text != "(":
            return  # 'if constexpr' and the like
        close = matching(toks, i + 1, "(", ")")
        if close is None:
            return
        depth = 0
        for k in range(i + 1, close):
            if toks[k].text in ("(", "[", "{"):
                depth += 1
            elif toks[k].text in (")", "]", "}"):
                depth -= 1
            elif depth == 1 and toks[k].text in ("=", ";"):
                return  # a declaration in the condition cannot be negated
        if any(k in self.excluded for k in range(i, close + 1)):
            return
        start, end = toks[i + 1].start, toks[close].end
        inner = self.src[start + 1:end - 1]
        self.add("condition", start, end, "(!(" + inner + "))",
                 "if (" + inner + ")", "if (!(" + inner + "))")

    def return_site(self, i):
        toks = self.tokens
        if i + 2 >= len(toks) or toks[i + 2].text != ";":
            return
        value = toks[i + 1]
        failure = {"0": "-1", "true": "false"}.get(value.text)
        if failure is None:
            return
        self.add("return", toks[i].start, toks[i + 2].end, "return " + failure + ";")

    def call_site(self, i):
        """'f(...);', 'a.f(...);', 'p->f(...);', 'ns::f(...);' opening a line
        among statements."""
        toks = self.tokens
        if not self.code_block[i] or toks[i].text in KEYWORDS:
            return
        prev = toks[i - 1].text if i > 0 else ""
        if prev not in (";", "{", "}", ")", "else", ":"):
            return
        if prev == ":" and not self.after_label(i - 1):
            return
        k = i
        while k + 2 < len(toks) and toks[k + 1].text in (".", "->", "::") \
                and toks[k + 2].kind == "id":
            k += 2
        if k + 1 >= len(toks) or toks[k + 1].text != "(":
            return
        end = statement_end(toks, k + 1)
        if end is None or any(j in self.excluded for j in range(i, end + 1)):
            return
        self.add("call", toks[i].start, toks[end].end, ";",
                 shown_after="")

    def after_label(self, colon):
        """Whether the ':' at colon ends a case, default or access label."""
        toks = self.tokens
        if colon > 0 and toks[colon - 1].text in ("default", "public", "private", "protected"):
            return True
        for j in range(colon - 1, -1, -1):
            if toks[j].text in (";", "{", "}", "?"):
                return False
            if toks[j].text == "case":
                return True
        return False


def shown(text, limit=72):
    text = " ".join(text.split())
    return text if len(text) <= limit else text[:limit - 3] + "..."


def product_files(include_sim):
    found = []
    for dirpath, dirnames, filenames in os.walk(ROOT):
        rel_dir = os.path.relpath(dirpath, ROOT)
        keep = []
        for d in dirnames:
            if d.startswith(".") or d.startswith("build") or d in SKIPPED_DIRS:
                continue
            if d == SIM_DIR and not include_sim:
                continue
            keep.append(d)
        dirnames[:] = keep
        for name in filenames:
            if name.endswith((".cpp", ".h")):
                found.append(os.path.normpath(os.path.join(rel_dir, name)))
    return sorted(found)


def live_lines(rel, src):
    """The lines the compiler sees, for a file with conditional compilation; None
    when every line is compiled (or the preprocessor cannot say)."""
    if not re.search(r"^\s*#\s*(if|ifdef|ifndef|elif|else)\b", src, re.M):
        return None
    compiler = os.environ.get("CXX", "c++")
    try:
        out = subprocess.run(
            [compiler, "-std=c++17", "-E", "-x", "c++", "-I", ROOT,
             "-DKESTREL_VERSION=\"0\"", os.path.join(ROOT, rel)],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
            errors="surrogateescape", check=True).stdout
    except (OSError, subprocess.CalledProcessError):
        print(f"note: {rel}: the preprocessor failed; all of its lines are sampled",
              file=sys.stderr)
        return None
    target = os.path.join(ROOT, rel)
    live = set()
    current = None
    line = 0
    marker = re.compile(r'^# (\d+) "(.*)"')
    for text in out.split("\n"):
        m = marker.match(text)
        if m:
            line = int(m.group(1))
            current = os.path.normpath(m.group(2))
            continue
        if current == target and text.strip():
            live.add(line)
        line += 1
    return live


def all_sites(include_sim):
    sites = {op: [] for op in OPERATORS}
    for rel in product_files(include_sim):
        path = os.path.join(ROOT, rel)
        with open(path, encoding="utf-8", errors="surrogateescape") as f:
            src = f.read()
        found = Scanner(path, rel, live_lines(rel, src)).scan()
        for op in OPERATORS:
            sites[op].extend(found[op])
    return sites


def draw(sites, count, seed):
    rng = random.Random(seed)
    order = list(OPERATORS)
    rng.shuffle(order)
    remaining = {op: list(sites[op]) for op in OPERATORS}
    per_file = {}
    chosen = []
    turn = 0
    while len(chosen) < count and any(remaining.values()):
        op = order[turn % len(order)]
        turn += 1
        pool = remaining[op]
        if not pool:
            continue
        least = min(per_file.get(s["file"], 0) for s in pool)
        candidates = [s for s in pool if per_file.get(s["file"], 0) == least]
        site = rng.choice(candidates)
        pool.remove(site)
        per_file[site["file"]] = per_file.get(site["file"], 0) + 1
        chosen.append(dict(site, id=len(chosen) + 1))
    return chosen


def describe(m):
    return f"{m['file']}:{m['line']} '{m['shown_before']}' -> '{m['shown_after']}'"


def cmd_list(args):
    seed = int(args.seed) if re.fullmatch(r"-?\d+", args.seed) else args.seed
    sites = all_sites(args.include_sim)
    mutants = draw(sites, args.sample, seed)
    if args.json:
        with open(args.json, "w") as f:
            json.dump(mutants, f)
    if args.tsv:
        # For the shell loop: id, file, and the change as shown.
        for m in mutants:
            print(f"{m['id']}\t{m['file']}\t{describe(m)}")
        return 0
    files = len({s["file"] for op in OPERATORS for s in sites[op]})
    counts = ", ".join(f"{op} {len(sites[op])}" for op in OPERATORS)
    print(f"# seed {args.seed}: {len(mutants)} of {sum(len(v) for v in sites.values())} "
          f"sites in {files} files ({counts})")
    for m in mutants:
        print(f"sample {m['id']} {describe(m)} [{m['op']}, column {m['col']}]")
        print(f"    {shown(m['source'], 100)}")
    return 0


def cmd_apply(args):
    with open(args.json) as f:
        mutants = json.load(f)
    m = next((x for x in mutants if x["id"] == args.id), None)
    if m is None:
        print(f"no sample {args.id}", file=sys.stderr)
        return 2
    path = os.path.join(ROOT, m["file"])
    with open(path, encoding="utf-8", errors="surrogateescape", newline="") as f:
        src = f.read()
    at = m["offset"]
    if src[at:at + len(m["before"])] != m["before"]:
        print(f"{m['file']}:{m['line']} no longer reads '{m['shown_before']}'", file=sys.stderr)
        return 1
    with open(path, "w", encoding="utf-8", errors="surrogateescape", newline="") as f:
        f.write(src[:at] + m["replacement"] + src[at + len(m["before"]):])
    return 0


def main():
    parser = argparse.ArgumentParser(description="random mutants of the product source")
    sub = parser.add_subparsers(dest="command", required=True)
    p = sub.add_parser("list", help="draw and print the mutants")
    p.add_argument("--sample", type=int, required=True)
    p.add_argument("--seed", default="1")
    p.add_argument("--include-sim", action="store_true")
    p.add_argument("--json", help="also write the drawn mutants to this file")
    p.add_argument("--tsv", action="store_true", help="one tab-separated line per mutant")
    p.set_defaults(run=cmd_list)
    p = sub.add_parser("apply", help="apply one drawn mutant to the tree")
    p.add_argument("json")
    p.add_argument("id", type=int)
    p.set_defaults(run=cmd_apply)
    args = parser.parse_args()
    return args.run(args)


if __name__ == "__main__":
    sys.exit(main())
