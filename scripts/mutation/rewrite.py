"""Rewrites C++ sources so that many small defects, mutants, are compiled in at once, each chosen at run
time by its number (see runtime.h). Lines keep their numbers.

What becomes of the code, by operator:

  compare     < <= > >= to the neighbour and to the opposite, == and != to each other
  logic       && and || to each other, and either side left out
  condition   an `if` that is never taken; a condition that is no comparison negated
  number      an integer literal, one more and one less
  constant    a use of a constexpr integer, one more and one less
  arithmetic  + and -, * and /, & and |, += and -=, std::min and std::max to each other
  statement   a call, an assignment or a step left out
  order       two statements side by side swapped, of which one calls something
  result      a returned value, 0 or false or null instead
  log         a log line left out, at another level, or swapped with its neighbour

Not touched: constexpr functions and variables, types, template arguments, case labels, default
arguments, initializers outside of functions, what macros expand to, arguments of log lines, and calls
that change speed only (SPEED_ONLY).
"""

import bisect
import re
from dataclasses import dataclass, field

from clang.cindex import CursorKind as K
from clang.cindex import Index, TypeKind as T

SPEED_ONLY = {"reserve", "shrink_to_fit", "PrefetchNode"}

FUNCTIONS = {K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR, K.FUNCTION_TEMPLATE,
             K.CONVERSION_FUNCTION}
CONTAINERS = {K.TRANSLATION_UNIT, K.NAMESPACE, K.CLASS_DECL, K.STRUCT_DECL, K.CLASS_TEMPLATE,
              K.UNEXPOSED_DECL, K.LINKAGE_SPEC, K.CLASS_TEMPLATE_PARTIAL_SPECIALIZATION}
CASTS = {K.CXX_STATIC_CAST_EXPR, K.CXX_REINTERPRET_CAST_EXPR, K.CXX_CONST_CAST_EXPR,
         K.CXX_DYNAMIC_CAST_EXPR, K.CSTYLE_CAST_EXPR, K.CXX_FUNCTIONAL_CAST_EXPR}
INTEGERS = {T.CHAR_U, T.UCHAR, T.USHORT, T.UINT, T.ULONG, T.ULONGLONG, T.CHAR_S, T.SCHAR, T.SHORT,
            T.INT, T.LONG, T.LONGLONG}
OPS = {"<": "kLt", "<=": "kLe", ">": "kGt", ">=": "kGe", "==": "kEq", "!=": "kNe", "+": "kAdd",
       "-": "kSub", "*": "kMul", "/": "kDiv", "&": "kAnd", "|": "kOr"}
COMPARISONS = {"<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"],
               "==": ["!="], "!=": ["=="]}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "&": "|", "|": "&"}
LITERAL = re.compile(r"(0[xX][0-9a-fA-F']+|[0-9][0-9']*)([uU]?[lL]{0,2}|[lL]{1,2}[uU]?)$")
NOT_CODE = re.compile(r"//[^\n]*|/\*.*?\*/|\s+", re.S)


@dataclass
class Mutant:
    """One defect: `text` in place of file[begin:end]."""
    operator: str
    file: str
    line: int
    begin: int
    end: int
    old: str
    text: str
    key: str = ""          # tells it from all others, and stays when other lines change
    place: int = 0         # number of the first mutant of its site
    dropped: bool = False  # does not compile, or says nothing


@dataclass
class Site:
    """One place and its mutants, which have numbers in a row. The edits get the first number for %d."""
    mutants: list
    inserts: list = field(default_factory=list)   # (offset, whether it opens, size enclosed, text)
    replaced: list = field(default_factory=list)  # (begin, end, text)
    dropped: bool = False  # does not compile: left out, and its numbers stay unused


def bare(cursor):
    """What stands inside of implicit conversions and parentheses."""
    while cursor.kind in (K.UNEXPOSED_EXPR, K.PAREN_EXPR):
        children = list(cursor.get_children())
        if len(children) != 1:
            break
        cursor = children[0]
    return cursor


def is_integer(cursor):
    return cursor.type.get_canonical().kind in INTEGERS


class File:
    """The sites of one source file."""

    def __init__(self, name, text, dropped_lines=()):
        self.name = name
        self.text = text
        self.sites = []
        self.dropped = set(dropped_lines)
        self.seen = set()
        data = text.encode()
        assert len(data) == len(text), f"{name}: ASCII is expected"
        self.line_starts = [0] + [m.end() for m in re.finditer("\n", text)]

    def line(self, offset):
        return bisect.bisect_right(self.line_starts, offset)

    def full_line(self, line):
        begin = self.line_starts[line - 1]
        return self.text[begin:self.text.find("\n", begin)]

    def shown(self, mutant):
        """The mutant as a difference of lines."""
        first = self.line_starts[mutant.line - 1]
        last = self.text.find("\n", mutant.end)
        old = self.text[first:last]
        new = self.text[first:mutant.begin] + mutant.text + self.text[mutant.end:last]
        return "\n".join([f"{mutant.file}:{mutant.line} {mutant.operator}"] +
                         ["  - " + line.strip() for line in old.splitlines()] +
                         ["  + " + line.strip() for line in new.splitlines()])

    def source(self, cursor):
        return self.text[cursor.extent.start.offset:cursor.extent.end.offset]

    def begin_end(self, cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def site(self, operator, variants, inserts=(), replaced=()):
        """`variants`: (begin, end, text) of each mutant."""
        mutants = [Mutant(operator, self.name, self.line(b), b, e, self.text[b:e], text)
                   for b, e, text in variants]
        dropped = any(mutant.line in self.dropped for mutant in mutants)
        self.sites.append(Site(mutants, list(inserts), list(replaced), dropped))

    def wrap(self, operator, begin, end, prefix, suffix, variants, replaced=()):
        size = end - begin
        self.site(operator, variants,
                  [(begin, True, size, prefix), (end, False, size, suffix)], replaced)

    def rewritten(self, number):
        """The file with all of its mutants, numbered from `number` on."""
        marks = []  # (offset, order of what meets there, text); ends before begins, inner ends first
        for depth, site in enumerate(self.sites):
            if site.dropped:
                number += len(site.mutants)
                continue
            for at, opens, size, text in site.inserts:
                order = (1, -size, depth) if opens else (0, size, -depth)
                marks.append((at, order, at, text.replace("%d", str(number))))
            for begin, end, text in site.replaced:
                marks.append((begin, (2, 0, depth), end, text.replace("%d", str(number))))
            number += len(site.mutants)
        marks.sort(key=lambda mark: mark[:2])
        out, at = [], 0
        for begin, _, end, text in marks:
            out.append(self.text[at:begin])
            out.append(text)
            at = max(at, end)
        out.append(self.text[at:])
        return "".join(out)

    # --- the walk over the code ------------------------------------------------------------------

    def function(self, cursor):
        where = cursor.extent.start.offset
        if where in self.seen:
            return
        self.seen.add(where)
        body = None
        for child in cursor.get_children():
            if child.kind == K.COMPOUND_STMT:
                body = child
        if body is None:
            return
        if re.search(r"\bconstexpr\b", self.text[where:body.extent.start.offset]):
            return
        result = cursor.result_type.get_canonical().kind
        first = cursor.location.offset
        for child in cursor.get_children():
            # Of a constructor its initializers too.
            if child.kind == K.COMPOUND_STMT or (
                    child.kind.is_expression() and cursor.kind == K.CONSTRUCTOR
                    and child.extent.start.offset > first):
                self.visit(child, result)

    def children(self, cursor):
        """The parts of an expression or statement that are run."""
        parts = list(cursor.get_children())
        kind = cursor.kind
        if kind in CASTS:
            return parts[-1:]
        if kind in (K.DECL_REF_EXPR, K.STATIC_ASSERT, K.CXX_UNARY_EXPR, K.TYPE_ALIAS_DECL,
                    K.TYPEDEF_DECL, K.USING_DECLARATION, K.ENUM_DECL):
            return []
        if kind == K.VAR_DECL:
            text = self.text[cursor.extent.start.offset:cursor.location.offset]
            if re.search(r"\bconstexpr\b", text) or cursor.type.kind == T.CONSTANTARRAY:
                return []
            return [p for p in parts if p.extent.start.offset > cursor.location.offset]
        if kind == K.MEMBER_REF_EXPR:
            return [p for p in parts if p.kind.is_expression()][:1]
        if kind == K.CASE_STMT:
            return parts[1:]
        return [p for p in parts if not p.kind.is_reference() and p.kind != K.PARM_DECL]

    def visit(self, cursor, result):
        kind = cursor.kind
        if kind == K.LAMBDA_EXPR:
            result = None
        if kind == K.COMPOUND_STMT:
            self.statements(cursor)
        elif kind == K.IF_STMT:
            self.if_statement(cursor)
        elif kind in (K.WHILE_STMT, K.CONDITIONAL_OPERATOR):
            self.negated(next(iter(cursor.get_children())))
        elif kind == K.RETURN_STMT:
            self.returned(cursor, result)
        elif kind == K.BINARY_OPERATOR or (kind == K.CALL_EXPR
                                           and cursor.spelling.startswith("operator")):
            self.binary(cursor)
        elif kind == K.COMPOUND_ASSIGNMENT_OPERATOR:
            self.assigned(cursor)
        elif kind == K.UNARY_OPERATOR:
            self.negated_not(cursor)
        elif kind == K.INTEGER_LITERAL:
            self.literal(cursor)
        elif kind in (K.DECL_REF_EXPR, K.MEMBER_REF_EXPR):
            self.constant(cursor)
        elif kind == K.CALL_EXPR and cursor.spelling in ("min", "max"):
            self.min_max(cursor)
        elif kind == K.CALL_EXPR and cursor.spelling == "ZEFS_LOG":
            self.log_level(cursor)
            return
        for child in self.children(cursor):
            self.visit(child, result)

    # --- one operator each -----------------------------------------------------------------------

    def operator_between(self, cursor):
        """(text, begin, end) of the operator of a binary expression, and its two sides; or None."""
        parts = [c for c in cursor.get_children()]
        if cursor.kind == K.CALL_EXPR:
            parts = sorted(list(cursor.get_arguments()), key=lambda c: c.extent.start.offset)
        if len(parts) != 2:
            return None
        left, right = parts
        begin, end = left.extent.end.offset, right.extent.start.offset
        between = self.text[begin:end]
        plain = NOT_CODE.sub("", between)
        if end <= begin or plain not in OPS and plain not in ("&&", "||"):
            return None
        # What a macro gives has no place of its own.
        if cursor.extent.start.offset != left.extent.start.offset or \
                cursor.extent.end.offset != right.extent.end.offset:
            return None
        at = begin + between.index(plain)
        return plain, at, at + len(plain), left, right

    def binary(self, cursor):
        found = self.operator_between(cursor)
        if found is None:
            return
        op, at, behind, left, right = found
        begin, end = self.begin_end(cursor)
        lb, le = self.begin_end(left)
        rb, re_ = self.begin_end(right)
        if op in ("&&", "||"):
            other = "||" if op == "&&" else "&&"
            # De Morgan: with the mutant %d active, both sides and the whole are negated. A side that is
            # left out is the one that lets the other decide.
            join, hold = ("|", "") if op == "&&" else ("&", "!")
            flag = lambda n: f"zefs_mutants::Which(%d) == {n}"
            side = lambda n: (f"((static_cast<bool>(",
                              f") {join} {hold}({flag(n)})) != ({flag(0)}))")
            self.site("logic",
                      [(at, behind, other), (lb, le, "true" if op == "&&" else "false"),
                       (rb, re_, "true" if op == "&&" else "false")],
                      [(begin, True, end - begin, "(("),
                       (end, False, end - begin, f") != ({flag(0)}))"),
                       (lb, True, end - begin - 1, side(1)[0]), (le, False, le - lb, side(1)[1]),
                       (rb, True, re_ - rb, side(2)[0]), (re_, False, re_ - rb, side(2)[1])])
            return
        if op in COMPARISONS:
            others, operator = COMPARISONS[op], "compare"
        elif is_integer(left) and is_integer(right) and cursor.kind == K.BINARY_OPERATOR:
            others, operator = [ARITHMETIC[op]], "arithmetic"
        else:
            return
        names = [OPS[o] for o in others] + ([OPS[op]] if len(others) == 1 else [])
        self.site(operator, [(at, behind, o) for o in others],
                  [(begin, True, end - begin,
                    "zefs_mutants::Binary<%s>(%%d,(" % ",".join(
                        "zefs_mutants::" + n for n in [OPS[op]] + names)),
                   (end, False, end - begin, "))")],
                  [(at, behind, "),(")])

    def assigned(self, cursor):
        parts = list(cursor.get_children())
        begin, end = self.begin_end(cursor)
        at, behind = parts[0].extent.end.offset, parts[1].extent.start.offset
        op = NOT_CODE.sub("", self.text[at:behind])
        if op not in ("+=", "-=") or not is_integer(parts[0]):
            return
        at = self.text.index(op, at)
        self.wrap("arithmetic", begin, end,
                  "zefs_mutants::Assign<%s>(%%d,(" % ("true" if op == "+=" else "false"), "))",
                  [(at, at + 2, "-=" if op == "+=" else "+=")], [(at, at + 2, "),(")])

    def literal(self, cursor):
        begin = cursor.extent.start.offset
        match = re.compile(r"[0-9][0-9a-zA-Z']*").match(self.text, begin)
        if not match or not LITERAL.match(match.group()) or not is_integer(cursor):
            return
        text, end = match.group(), match.end()
        variants = [(begin, end, f"({text} + 1)"), (begin, end, f"({text} - 1)")]
        self.wrap("number", begin, end, "zefs_mutants::Number(%d,", ")", variants)

    def constant(self, cursor):
        declared = cursor.referenced
        if declared is None or declared.kind != K.VAR_DECL or not is_integer(cursor):
            return
        if declared.spelling.startswith("kLog"):
            return
        words = [token.spelling for token in declared.get_tokens()]
        if "constexpr" not in words:
            return
        begin, end = self.begin_end(cursor)
        name = self.text[begin:end]
        if not re.fullmatch(r"[\w:]+", name):
            return
        # By value, of its plain type: a name as it stands may be wanted as a constant.
        self.wrap("constant", begin, end, "zefs_mutants::Number(%d,", ")",
                  [(begin, end, f"({name} + 1)"), (begin, end, f"({name} - 1)")])

    def min_max(self, cursor):
        begin, end = self.begin_end(cursor)
        match = re.compile(r"std::(min|max)(<[^()]*>)?\(").match(self.text, begin)
        if not match or len(list(cursor.get_arguments())) != 2:
            return
        given = match.group(2) or "<>"
        other = "std::max" if match.group(1) == "min" else "std::min"
        mutant = "true" if match.group(1) == "max" else "false"
        self.site("arithmetic", [(begin, begin + len("std::min"), other)], [],
                  [(begin, match.end() - 1, "zefs_mutants::MinMax%s{%%d,%s}" % (given, mutant))])

    def negatable(self, condition):
        """Whether negating a condition is no more than what its comparison gives."""
        inner = bare(condition)
        if inner.kind == K.BINARY_OPERATOR or (inner.kind == K.CALL_EXPR and
                                               inner.spelling.startswith("operator")):
            found = self.operator_between(inner)
            return found is None or found[0] not in (*COMPARISONS, "&&", "||")
        return inner.kind != K.CXX_BOOL_LITERAL_EXPR

    def is_plain(self, cursor):
        text = self.source(cursor)
        return bool(text) and text.count("(") == text.count(")")

    def negated(self, condition):
        if not condition.kind.is_expression() or not self.negatable(condition) or \
                not self.is_plain(condition):
            return
        begin, end = self.begin_end(condition)
        if bare(condition).kind == K.UNARY_OPERATOR and self.text[begin] == "!":
            return  # taken at the operator
        self.wrap("condition", begin, end, "((static_cast<bool>(", ")) != zefs_mutants::Is(%d))",
                  [(begin, end, f"!({self.text[begin:end]})")])

    def negated_not(self, cursor):
        begin, end = self.begin_end(cursor)
        if self.text[begin] != "!":
            return
        self.wrap("condition", begin, end, "((", ") != zefs_mutants::Is(%d))",
                  [(begin, begin + 1, "")])

    def if_statement(self, cursor):
        begin = cursor.extent.start.offset
        if not re.compile(r"if\s*\(").match(self.text, begin):
            return
        parts = list(cursor.get_children())
        condition = parts[1] if parts[0].kind == K.DECL_STMT else parts[0]
        if condition.kind == K.VAR_DECL or not self.is_plain(condition):
            return
        b, e = self.begin_end(condition)
        self.wrap("condition", b, e, "((static_cast<bool>(", ")) & !zefs_mutants::Is(%d))",
                  [(b, e, "false")])
        self.negated(condition)

    def returned(self, cursor, result):
        parts = list(cursor.get_children())
        if not parts or result is None:
            return
        value = parts[0]
        begin, end = self.begin_end(value)
        inner = bare(value)
        text = self.text[begin:end]
        if not self.is_plain(value) or LITERAL.match(text):
            return
        if result == T.BOOL:
            if self.negatable(value) or inner.kind == K.CXX_BOOL_LITERAL_EXPR:
                if text.startswith("!"):
                    return
                self.wrap("result", begin, end, "((static_cast<bool>(",
                          ")) != zefs_mutants::Is(%d))", [(begin, end, f"!({text})")])
        elif result in INTEGERS or result == T.POINTER:
            if inner.kind == K.CXX_NULL_PTR_LITERAL_EXPR:
                return
            null = "nullptr" if result == T.POINTER else "0"
            self.wrap("result", begin, end, "zefs_mutants::Result(%d,", ")", [(begin, end, null)])

    def log_level(self, cursor):
        level = next(iter(cursor.get_arguments()))
        begin, end = self.begin_end(level)
        text = self.text[begin:end]
        if re.fullmatch(r"[\w:]+", text):
            other = "kLogRecoverable" if text.endswith("kLogTrace") else "kLogTrace"
            self.wrap("log", begin, end, "zefs_mutants::Level(%d,", ")", [(begin, end, other)])

    # --- statements ------------------------------------------------------------------------------

    def removable(self, cursor):
        """'log' or 'statement' for a statement that can be left out, None for others."""
        inner = cursor
        while inner.kind == K.UNEXPOSED_EXPR:
            parts = list(inner.get_children())
            if len(parts) != 1:
                return None
            inner = parts[0]
        if inner.kind == K.CALL_EXPR:
            if inner.spelling in SPEED_ONLY:
                return None
            return "log" if inner.spelling == "ZEFS_LOG" else "statement"
        if inner.kind == K.COMPOUND_ASSIGNMENT_OPERATOR:
            return "statement"
        text = self.source(inner)
        if inner.kind == K.BINARY_OPERATOR and NOT_CODE.sub("", text).count("=") >= 1:
            found = self.operator_between(inner)
            return "statement" if found is None else None
        if inner.kind == K.UNARY_OPERATOR and (text.startswith(("++", "--")) or
                                               text.endswith(("++", "--"))):
            return "statement"
        return None

    def statements(self, compound):
        row = []  # (begin, end behind the semicolon, operator)
        for child in compound.get_children():
            operator = self.removable(child) if child.kind.is_expression() else None
            if operator is None:
                self.row(row)
                row = []
                continue
            begin, end = self.begin_end(child)
            behind = re.compile(r"\s*;").match(self.text, end)
            if not behind or not self.is_plain(child) or \
                    self.text[begin:begin + 5] == "ZEFS_" and operator != "log":
                self.row(row)
                row = []
                continue
            row.append((begin, behind.end(), operator))
        self.row(row)

    def row(self, row):
        count = len(row)
        if count > 1:
            begin, end = row[0][0], row[-1][1]
            size = end - begin
            inserts = [(begin, True, size + 1,
                        f"for (int zefs_i = 0; zefs_i < {count}; ++zefs_i) "
                        f"switch (zefs_mutants::Order(%d, {count}, zefs_i)) {{"),
                       (end, False, size + 1, "}")]
            variants = []
            for i, (b, e, _) in enumerate(row):
                inserts.append((b, True, e - b + 0.5, f"case {i}: {{"))
                inserts.append((e, False, e - b + 0.5, "} break;"))
                if i + 1 < count:
                    nb, ne, _ = row[i + 1]
                    variants.append((b, ne, self.text[nb:ne] + self.text[e:nb] + self.text[b:e]))
            # One number after the other, so one site; the class of each goes by its two statements.
            self.site("order", variants, inserts)
            for i, mutant in enumerate(self.sites[-1].mutants):
                # Steps have an order; fields that are set one after the other have none.
                mutant.dropped = "(" not in mutant.old
                if "log" in (row[i][2], row[i + 1][2]):
                    mutant.operator = "log"
        for begin, end, operator in row:
            self.wrap(operator, begin, end, "{ if (!zefs_mutants::Is(%d)) { ", " } }",
                      [(begin, end, ";")])


def functions(cursor, wanted):
    """The function definitions in the files that `wanted` accepts, by file name."""
    for child in cursor.get_children():
        file = child.location.file
        if file is None or not wanted(file.name):
            continue
        if child.kind in FUNCTIONS:
            if child.is_definition():
                yield file.name, child
        elif child.kind in CONTAINERS:
            yield from functions(child, wanted)


def walk(units, name_of, dropped):
    """Finds the mutants of everything that the translation units [(path, arguments)] define in files
    for which name_of(path) gives a name. {name: File}. `dropped`: {name: lines to leave alone}."""
    index = Index.create()
    files = {}
    for path, arguments in units:
        unit = index.parse(path, args=arguments)
        errors = [d for d in unit.diagnostics if d.severity >= 3]
        if errors:
            raise SystemExit(f"scripts/mutants: {path} cannot be parsed: {errors[0]}")
        for file_name, function in functions(unit.cursor, name_of):
            name = name_of(file_name)
            if name not in files:
                with open(file_name) as source:
                    files[name] = File(name, source.read(), dropped.get(name, ()))
            files[name].function(function)
    for file in files.values():
        seen = {}
        for site in file.sites:
            for m in site.mutants:
                key = "|".join((m.file, m.operator, " ".join(file.full_line(m.line).split()),
                                " ".join(m.old.split()), " ".join(m.text.split())))
                seen[key] = seen.get(key, 0) + 1
                m.key = f"{key}|{seen[key]}"
    return files
