#!/usr/bin/python3
"""Writes a copy of what ships in which every mutant is present and one is chosen at run time.

usage: generate.py SOURCE_DIR OUTPUT_DIR

OUTPUT_DIR gets the sources under their own names, choice_size.h with the number of places, and
mutants.json, a list of all mutants and of what was left out.

A condition (of if, while, do, for, ?: and each operand of && and ||) becomes its opposite, always
true, or always false; a statement (a call, an assignment, an increment) is removed; a case of a
switch is removed. Insertions never add a line, so that every message of a compiler or debugger
names the line of the original.
"""

import collections
import json
import pathlib
import re
import sys

from clang.cindex import Config, CursorKind, Index, TranslationUnit

Config.set_library_file("libclang-14.so.1")
K = CursorKind

FOLDERS = ["fim_config", "convert", "snap", "symapi", "method", "host"]
ARGUMENTS = ["-x", "c++", "-std=c++20", "-D_GNU_SOURCE", "-fno-exceptions", "-fno-rtti",
             "-Wno-pragma-once-outside-header"]
# Room that a file gets for its places, so that an edit seldom moves the places of other files.
BLOCK = 64

FUNCTIONS = {K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR, K.FUNCTION_TEMPLATE,
             K.CONVERSION_FUNCTION}
# What an expression statement may be hidden in.
STATEMENT_PARENTS = {K.COMPOUND_STMT, K.IF_STMT, K.WHILE_STMT, K.DO_STMT, K.FOR_STMT,
                     K.CXX_FOR_RANGE_STMT, K.CASE_STMT, K.DEFAULT_STMT}


def skip_text(text, i):
    """The end of the comment, string or character that begins at i, or i."""
    if text.startswith("//", i):
        return text.find("\n", i)
    if text.startswith("/*", i):
        return text.find("*/", i) + 2
    raw = re.match(r'R"([^(]*)\(', text[i:i + 20])
    if raw:
        return text.find(")" + raw.group(1) + '"', i) + len(raw.group(1)) + 2
    if text[i] in "\"'":
        if text[i] == "'" and i > 0 and text[i - 1].isdigit():
            return i  # a separator of digits
        end = i + 1
        while text[end] != text[i]:
            end += 2 if text[end] == "\\" else 1
        return end + 1
    return i


def scan(text, i, stops):
    """The first place from i on of one of the characters, outside all brackets and strings."""
    depth = 0
    while True:
        after = skip_text(text, i)
        if after != i:
            i = after
            continue
        if depth == 0 and text[i] in stops:
            return i
        if text[i] in "([{":
            depth += 1
        elif text[i] in ")]}":
            depth -= 1
        i += 1


def stripped(text, start, end):
    while text[start].isspace():
        start += 1
    while text[end - 1].isspace():
        end -= 1
    return start, end


class Source:
    """One file, its mutants and the text that holds them."""

    def __init__(self, top, name, index):
        self.name = name
        raw = (top / name).read_bytes()
        raw.decode("ascii")  # offsets of the parser are bytes
        self.text = raw.decode("ascii")
        self.lines = [0] + [m.end() for m in re.finditer("\n", self.text)]
        self.mutants = []
        self.left_out = collections.Counter()
        self.wraps = []
        self.places = 0
        arguments = ARGUMENTS + [f"-I{top}", f"-I{top}/include"]
        unit = index.parse(str(top / name), args=arguments,
                           options=TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
        errors = [str(d) for d in unit.diagnostics if d.severity >= 3]
        if errors:
            sys.exit("generate: " + "\n".join(errors))
        # Where a macro stands: nothing inside its body is a place of this file.
        self.macros = [self.extent(c) for c in unit.cursor.get_children()
                       if c.kind == K.MACRO_INSTANTIATION and self.is_here(c)]
        for cursor in unit.cursor.get_children():
            if self.is_here(cursor):
                self.walk(cursor, None, "")

    def is_here(self, cursor):
        file = cursor.location.file
        return file is not None and file.name.endswith("/" + self.name)

    @staticmethod
    def extent(cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def in_macro(self, start, end):
        return any(a <= start and end <= b and (a, b) != (start, end)
                   for a, b in self.macros if self.text[b - 1] == ")")

    # -- what is put around a piece of the source

    def take_places(self, count):
        first = self.places
        self.places += count
        return first

    def add(self, number, kind, function, start, end):
        line = next(i for i in range(len(self.lines) - 1, -1, -1) if self.lines[i] <= start)
        self.mutants.append({
            "number": number, "file": self.name, "line": line + 1,
            "column": start - self.lines[line] + 1, "length": end - start, "function": function, "kind": kind,
            "text": " ".join(self.text[start:end].split())})

    def condition(self, function, start, end, kinds=("flipped", "true", "false")):
        start, end = stripped(self.text, start, end)
        if self.in_macro(start, end):
            self.left_out["condition inside a macro"] += 1
            return
        if re.fullmatch(r"true|false|\d+", self.text[start:end]):
            self.left_out["condition that is a constant"] += 1
            return
        place = self.take_places(3)
        for offset, kind in enumerate(("flipped", "true", "false")):
            if kind in kinds:
                self.add(place + offset, kind, function, start, end)
        self.wraps.append((start, end, f"::mutation::condition(@{place}@, static_cast<bool>(",
                           "))"))

    def statement(self, function, start, end):
        if self.in_macro(start, end):
            self.left_out["statement inside a macro"] += 1
            return
        place = self.take_places(1)
        self.add(place, "removed", function, start, end)
        semicolon = scan(self.text, end, ";")
        self.wraps.append((start, semicolon + 1, f"{{ if (::mutation::stays(@{place}@)) ", " }"))

    # -- what the parser found

    def walk(self, cursor, parent, function):
        kind = cursor.kind
        start, end = self.extent(cursor)
        text = self.text
        if (start, end) in self.macros and text[end - 1] == ")":
            return  # its body is not of this file
        if kind in FUNCTIONS:
            body = [c for c in cursor.get_children() if c.kind == K.COMPOUND_STMT]
            if not body:
                return
            if re.search(r"\bconsteval\b", text[start:self.extent(body[0])[0]]):
                self.left_out["function of the compiler's time"] += 1
                return
            owner = cursor.semantic_parent
            function = (owner.spelling + "::" if owner.kind in (
                K.STRUCT_DECL, K.CLASS_DECL, K.CLASS_TEMPLATE) else "") + cursor.spelling
        elif kind == K.STATIC_ASSERT or kind == K.ENUM_DECL:
            return
        elif kind == K.VAR_DECL and re.match(r"(static |inline )*constexpr\b", text[start:end]):
            return
        if function:
            if kind in (K.IF_STMT, K.WHILE_STMT, K.FOR_STMT, K.DO_STMT):
                self.branch(cursor, kind, function)
            elif kind == K.CONDITIONAL_OPERATOR:
                self.condition(function, *self.extent(next(cursor.get_children())))
            elif kind == K.BINARY_OPERATOR:
                self.logical(cursor, parent, function)
            elif kind == K.SWITCH_STMT:
                self.switch(cursor, function)
            if parent is not None and parent.kind in STATEMENT_PARENTS:
                self.expression(cursor, parent, function)
        for child in cursor.get_children():
            self.walk(child, cursor, function)

    def branch(self, cursor, kind, function):
        start, end = self.extent(cursor)
        children = list(cursor.get_children())
        if kind == K.DO_STMT:
            self.condition(function, *self.extent(children[-1]))
            return
        if re.match(r"if\s+constexpr\b", self.text[start:]):
            self.left_out["if constexpr"] += 1
            return
        opening = scan(self.text, start, "(")
        closing = scan(self.text, opening + 1, ")")
        first = opening + 1
        if kind == K.FOR_STMT:
            first = scan(self.text, first, ";") + 1
            closing = scan(self.text, first, ";")
            if not self.text[first:closing].strip():
                self.left_out["loop without a condition"] += 1
                return
        else:
            semicolon = scan(self.text, first, ";)")
            if self.text[semicolon] == ";":
                first = semicolon + 1
            elif any(c.kind in (K.VAR_DECL, K.DECL_STMT) and self.extent(c)[1] <= closing
                     for c in children):
                self.left_out["condition with a declaration"] += 1
                return
        self.condition(function, first, closing)

    def operator(self, cursor):
        """&& or || with its operands' extents, or nothing."""
        if cursor.kind != K.BINARY_OPERATOR:
            return None
        sides = [self.extent(c) for c in cursor.get_children()]
        if len(sides) != 2 or sides[0][1] > sides[1][0]:
            return None
        between = re.sub(r"//[^\n]*|/\*.*?\*/", "", self.text[sides[0][1]:sides[1][0]], flags=re.S)
        return (between.strip(), sides) if between.strip() in ("&&", "||") else None

    def logical(self, cursor, parent, function):
        found = self.operator(cursor)
        if found is None:
            return
        sign, sides = found
        above = self.operator(parent)
        # Dropping an operand: the other form would be that of the whole.
        kinds = ("flipped", "true" if sign == "&&" else "false")
        for child, side in zip(cursor.get_children(), sides):
            inner = self.operator(child)
            if inner is None or inner[0] != sign:
                self.condition(function, *side, kinds)
        # A value rather than a branch: it is one where its reader branches.
        if above is None and not self.is_condition(cursor, parent):
            self.condition(function, *self.extent(cursor))

    def is_condition(self, cursor, parent):
        """Whether an operator is, but for brackets and a negation, what a branch asks."""
        if parent.kind in (K.IF_STMT, K.WHILE_STMT, K.FOR_STMT, K.DO_STMT):
            return True
        if parent.kind == K.CONDITIONAL_OPERATOR:
            return self.extent(next(parent.get_children())) == self.extent(cursor)
        # Brackets and a negation are the operand of something that is mutated itself.
        return parent.kind in (K.PAREN_EXPR, K.UNARY_OPERATOR)

    def switch(self, cursor, function):
        start, end = self.extent(cursor)
        opening = scan(self.text, start, "(")
        closing = scan(self.text, opening + 1, ")")
        values = []

        def collect(inside):
            for child in inside.get_children():
                if child.kind == K.CASE_STMT:
                    values.append(self.extent(next(child.get_children())))
                if child.kind != K.SWITCH_STMT:
                    collect(child)

        collect(cursor)
        place = self.take_places(len(values))
        for offset, (a, b) in enumerate(values):
            self.add(place + offset, "case removed", function, a, b)
        names = "".join(", " + self.text[a:b] for a, b in values)
        self.wraps.append((opening + 1, closing, f"::mutation::selected(@{place}@, ",
                           names + ")"))

    def expression(self, cursor, parent, function):
        """A statement that is nothing but a call, an assignment or an increment."""
        start, end = self.extent(cursor)
        if not cursor.kind.is_expression() and cursor.kind != K.UNEXPOSED_EXPR:
            return
        if (start, end) not in self.bodies(parent):
            return
        if cursor.kind == K.CSTYLE_CAST_EXPR:
            return
        self.statement(function, start, end)

    def bodies(self, parent):
        """Which children of a statement are statements rather than what it asks or counts."""
        children = [self.extent(c) for c in parent.get_children()]
        if parent.kind == K.COMPOUND_STMT:
            return children
        if parent.kind == K.DO_STMT:
            return children[:1]
        if parent.kind == K.IF_STMT:
            closing = scan(self.text, scan(self.text, self.extent(parent)[0], "(") + 1, ")")
            return [c for c in children if c[0] > closing]
        return children[-1:]

    # -- the text with all mutants

    def mutated(self, base):
        opens = sorted(enumerate(self.wraps), key=lambda w: (w[1][0], -w[1][1], w[0]))
        out, stack, at = [], [], 0
        for _, (start, end, before, after) in opens:
            while stack and stack[-1][0] <= start:
                stop, closing = stack.pop()
                out += [self.text[at:stop], closing]
                at = stop
            if stack and end > stack[-1][0]:
                sys.exit(f"generate: {self.name}: places overlap at byte {start}")
            out += [self.text[at:start], before]
            at = start
            stack.append((end, after))
        while stack:
            stop, closing = stack.pop()
            out += [self.text[at:stop], closing]
            at = stop
        out.append(self.text[at:])
        return re.sub(r"@(\d+)@", lambda m: str(base + int(m.group(1))), "".join(out))


def write(path, text):
    """Leaves a file that would not change as it is, so that nothing is compiled for it."""
    path.parent.mkdir(parents=True, exist_ok=True)
    if not path.exists() or path.read_text() != text:
        path.write_text(text)


def main():
    top, output = (pathlib.Path(a).resolve() for a in sys.argv[1:3])
    names = sorted(str(p.relative_to(top)) for folder in FOLDERS
                   for p in (top / folder).iterdir() if p.suffix in (".cpp", ".h"))
    index = Index.create()
    base, mutants, left_out = 0, [], collections.Counter()
    for name in names:
        source = Source(top, name, index)
        write(output / name, source.mutated(base))
        mutants += [dict(m, number=base + m["number"]) for m in source.mutants]
        left_out += source.left_out
        base += (source.places + BLOCK - 1) // BLOCK * BLOCK
    # The same text more than once in a function is told apart by its order.
    count = collections.Counter()
    for m in mutants:
        key = (m["file"], m["function"], m["kind"], m["text"])
        count[key] += 1
        m["nth"] = count[key]
    write(output / "choice_size.h", f"#define MUTATION_PLACES {base}\n")
    write(output / "mutants.json", json.dumps(
        {"places": base, "left_out": left_out, "mutants": mutants}, indent=0))
    print(f"{len(mutants)} mutants in {len(names)} files; left out: {dict(left_out)}")


main()
