"""Finds the mutants of a C++ source: each breaks it in one small way."""

import ctypes
import dataclasses
import re
import sys

from clang import cindex
from clang.cindex import CursorKind, TokenKind, TypeKind

RELATIONAL = {"==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"]}
LOGICAL = {"&&": ["||"], "||": ["&&"]}
ARITHMETIC = {"+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["/"], "+=": ["-="], "-=": ["+="],
              "++": ["--"], "--": ["++"], "&": ["|"], "|": ["&"], "<<": [">>"], ">>": ["<<"]}  # fmt: skip
SCOPES = (CursorKind.NAMESPACE, CursorKind.CLASS_DECL, CursorKind.STRUCT_DECL, CursorKind.LINKAGE_SPEC)
FUNCTIONS = (CursorKind.FUNCTION_DECL, CursorKind.FUNCTION_TEMPLATE, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR,
             CursorKind.DESTRUCTOR)  # fmt: skip
DELETED = (CursorKind.CALL_EXPR, CursorKind.CSTYLE_CAST_EXPR, CursorKind.BINARY_OPERATOR, CursorKind.UNARY_OPERATOR,
           CursorKind.COMPOUND_ASSIGNMENT_OPERATOR, CursorKind.CXX_THROW_EXPR, CursorKind.UNEXPOSED_EXPR)  # fmt: skip
SWAPPED = {"break": "continue", "continue": "break", "true": "false", "false": "true"}


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    start: int
    end: int
    text: str  # takes the place of the source's bytes from start to end

    def source(self, original):
        return original[: self.start] + self.text + original[self.end :]

    def key(self, code):
        """The file, and the whole lines that change, before and after, for `code` without comments."""
        first = code.rfind("\n", 0, self.start) + 1
        last = code.find("\n", self.end)
        return (self.file, even(code[first:last]), even(code[first : self.start] + self.text + code[self.end : last]))


def even(line):
    """A line with its blanks evened out."""
    return " ".join(line.split())


def offsets(extent):
    """Where a range is in the file itself; for a macro's argument, where the argument is written."""
    result = []
    for location in (extent.start, extent.end):
        file, line, column, offset = ctypes.c_void_p(), ctypes.c_uint(), ctypes.c_uint(), ctypes.c_uint()
        cindex.conf.lib.clang_getFileLocation(
            location, ctypes.byref(file), ctypes.byref(line), ctypes.byref(column), ctypes.byref(offset))
        result.append(offset.value)
    return result


class Mutator:
    """Finds the mutants of one source: `original` is its text, `code` the same with blanks for each comment."""

    def __init__(self, path, file, flags):
        self.path = path
        self.file = file
        with open(path, encoding="utf-8") as stream:
            self.original = stream.read()
        assert self.original.isascii()  # so that byte offsets are character offsets
        self.unit = cindex.Index.create().parse(path, args=flags)
        errors = [str(d) for d in self.unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
        if errors:
            sys.exit("\n".join(errors))
        self.found = {}
        self.tokens = list(self.unit.get_tokens(extent=self.unit.cursor.extent))
        self.code = self.without_comments()
        self.functions_in(self.unit.cursor)
        self.literals_and_key_words()

    def mutants(self):
        """All, in the order of the source."""
        return [self.found[place] for place in sorted(self.found)]

    def without_comments(self):
        code = self.original
        for token in self.tokens:
            if token.kind == TokenKind.COMMENT:
                start, end = token.extent.start.offset, token.extent.end.offset
                code = code[:start] + re.sub(r"[^\n]", " ", code[start:end]) + code[end:]
        return code

    def functions_in(self, cursor):
        for child in cursor.get_children():
            if child.location.file is None or child.location.file.name != self.path:
                continue
            if child.kind in SCOPES:
                self.functions_in(child)
            elif child.kind in FUNCTIONS and child.is_definition():
                self.visit(child, child.result_type.spelling)

    def add(self, start, end, text):
        if self.code[start:end] != text:
            self.found.setdefault((start, end, text), Mutant(self.file, start, end, text))

    def visit(self, cursor, result):
        """Finds mutants at and below `cursor`, in a function whose result has the type `result`."""
        children = list(cursor.get_children())
        kind = cursor.kind
        if kind in (CursorKind.IF_STMT, CursorKind.WHILE_STMT, CursorKind.CONDITIONAL_OPERATOR):
            self.negate(children[0])
        elif kind == CursorKind.DO_STMT:
            self.negate(children[1])
        elif kind in (CursorKind.BINARY_OPERATOR, CursorKind.COMPOUND_ASSIGNMENT_OPERATOR):
            self.swap_operator(children)
            if cursor.spelling in ("&&", "||"):
                for child in children:
                    self.negate(child)
        elif kind == CursorKind.UNARY_OPERATOR:
            self.change_unary(cursor)
        elif kind == CursorKind.RETURN_STMT and children:
            self.return_constant(children[0], result)
        elif kind == CursorKind.LAMBDA_EXPR:
            result = ""
        elif kind == CursorKind.COMPOUND_STMT:
            for child in children:
                if child.kind in DELETED or (child.kind == CursorKind.DECL_STMT and is_guard(child, cursor)):
                    self.delete(child)
        for child in children:
            self.visit(child, result)

    def negate(self, condition):
        start, end = offsets(condition.extent)
        if condition.kind != CursorKind.DECL_STMT and end > start:
            self.add(start, end, f"!({self.code[start:end]})")

    def swap_operator(self, operands):
        """Takes another binary operator than the one between the two operands."""
        if len(operands) != 2:
            return
        start, end = offsets(operands[0].extent)[1], offsets(operands[1].extent)[0]
        match = re.fullmatch(r"[\s)]*([-+*/%=!<>&|]+)[\s(]*", self.code[start:end])
        if not match:
            return
        for table in (RELATIONAL, LOGICAL, ARITHMETIC):
            for other in table.get(match[1], []):
                self.add(start + match.start(1), start + match.end(1), other)

    def change_unary(self, cursor):
        start, end = offsets(cursor.extent)
        text = self.code[start:end]
        if text.startswith("!"):
            self.add(start, start + 1, "")
        for step in ("++", "--"):
            if text.startswith(step):
                self.add(start, start + 2, ARITHMETIC[step][0])
                self.add(start, start + 2, "")

    def return_constant(self, value, result):
        start, end = offsets(value.extent)
        for constant in {"bool": ["true", "false"], "int": ["0", "1", "-1"]}.get(result, ["{}"]):
            self.add(start, end, constant)

    def delete(self, statement):
        start = offsets(statement.extent)[0]
        self.add(start, self.end_of_statement(start), "")

    def end_of_statement(self, start):
        """Where its semicolon is. A macro's call says nothing about its own end, so the text does."""
        depth = 0
        for match in re.finditer(r""""(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])+'|[](){}[;]""", self.code[start:]):
            depth += match[0] in ("(", "[", "{")
            depth -= match[0] in (")", "]", "}")
            if match[0] == ";" and depth == 0:
                return start + match.start()
        raise ValueError(f"{self.file}: no end of the statement at byte {start}")

    def literals_and_key_words(self):
        """The tokens of a macro's argument are where they are written."""
        for token in self.tokens:
            start, end = token.extent.start.offset, token.extent.end.offset
            if self.code[self.code.rfind("\n", 0, start) + 1 : start].lstrip().startswith("#"):
                continue
            if token.kind == TokenKind.LITERAL:
                others = other_literals(token.spelling)
                # The tool is full of phrases. A test reads one whole or not at all, so one mutant of each says enough.
                is_phrase = self.file.startswith("tools/") and " " in token.spelling
                for other in others[:1] if is_phrase else others:
                    self.add(start, end, other)
            elif token.spelling in SWAPPED:
                self.add(start, end, SWAPPED[token.spelling])


def is_guard(statement, block):
    """Whether a declaration matters for its constructor and destructor alone, as a lock's does: none uses it."""
    variables = list(statement.get_children())
    if len(variables) != 1 or variables[0].type.get_canonical().kind != TypeKind.RECORD:
        return False
    return not any(cursor.referenced == variables[0] for cursor in block.walk_preorder()
                   if cursor.kind == CursorKind.DECL_REF_EXPR)  # fmt: skip


def other_literals(text):
    number = re.fullmatch(r"(0[xX])?(0?)([0-9a-fA-F]+)([uUlLzZ]*)", text)
    if number and (number[1] or number[3].isdigit()):
        prefix, base, form = ("0x", 16, "x") if number[1] else ("0", 8, "o") if number[2] else ("", 10, "d")
        value = int(number[2] + number[3], base)
        others = [value + 1, value - 1] + ([value >> 1] if base != 10 else [])  # a mask less its highest bit
        return [f"{'-' if other < 0 else ''}{prefix}{abs(other):{form}}{number[4]}" for other in others]
    if text == "'\\0'":
        return ["'\\1'"]
    if text.startswith("'\\"):
        return ["'\\n'" if text == "'\\r'" else "'\\r'"]
    if text.startswith("'"):
        other = chr(ord(text[1]) + 1)
        return [f"'\\{other}'" if other in "'\\" else f"'{other}'"]
    if text.startswith('"') and len(text) > 2:
        # One byte more, one byte other, one byte less: at the end, at the front.
        first = re.match(r"\\x[0-9a-fA-F]+|\\[0-7]{1,3}|\\.|.", text[1:])[0]
        return [f'{text[:-1]}~"', f'"~{text[1 + len(first):]}', f'"{text[1 + len(first):]}']
    return []
