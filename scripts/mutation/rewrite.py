"""rewrite - puts every mutant of a source into it, each behind a number; see switch.h and scripts/mutants.

Lines keep their numbers, so that what the compiler says of a rewritten source holds for the original.
"""
import re
from dataclasses import dataclass

from clang.cindex import CursorKind as Kind, Index, TranslationUnit, TypeKind

COMPARISONS = {'==': ('equal', ['!=']), '!=': ('not_equal', ['==']),
               '<': ('less', ['<=', '>=']), '<=': ('less_equal', ['<', '>']),
               '>': ('greater', ['>=', '<=']), '>=': ('greater_equal', ['>', '<'])}
CONNECTIVES = {'&&': ('both', '||'), '||': ('either', '&&')}
SUMS = {'+': ('plus', '-'), '-': ('minus', '+')}
# One more than a literal says nothing new where the comparison's own mutants draw the same line.
LITERAL_COUNTS = {'==', '!=', '>', '<='}

INTEGERS = {TypeKind.CHAR_U, TypeKind.UCHAR, TypeKind.CHAR_S, TypeKind.SCHAR, TypeKind.USHORT, TypeKind.SHORT,
            TypeKind.UINT, TypeKind.INT, TypeKind.ULONG, TypeKind.LONG, TypeKind.ULONGLONG, TypeKind.LONGLONG}
SCALARS = INTEGERS | {TypeKind.BOOL, TypeKind.ENUM, TypeKind.POINTER, TypeKind.NULLPTR, TypeKind.DOUBLE}
FUNCTIONS = {Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR, Kind.FUNCTION_TEMPLATE}
BLOCKS = {Kind.COMPOUND_STMT, Kind.IF_STMT, Kind.FOR_STMT, Kind.WHILE_STMT, Kind.DO_STMT, Kind.CXX_FOR_RANGE_STMT,
          Kind.CASE_STMT, Kind.DEFAULT_STMT}
LEFT_OUT = {Kind.CALL_EXPR, Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR, Kind.UNARY_OPERATOR,
            Kind.CSTYLE_CAST_EXPR}


@dataclass
class Mutant:
    path: str
    line: int
    function: str
    original: str
    mutated: str
    number: int = 0

    def key(self):
        return self.path, self.function, self.original, self.mutated

    def __str__(self):
        return f'{self.path}:{self.line}\t{self.function}\t{self.original}\t{self.mutated}'


class Source:
    """One source, the edits that put its mutants into it, and the mutants."""

    def __init__(self, path, full_path, arguments, functions, dropped):
        self.path, self.functions, self.dropped = path, functions, dropped
        with open(full_path, 'rb') as file:
            self.text = file.read()
        unit = Index.create().parse(full_path, arguments, options=TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
        errors = [str(d) for d in unit.diagnostics if d.severity >= d.Error]
        if errors:
            raise SystemExit('\n'.join(errors))
        self.mutants, self.inserts, self.replaced, self.function = [], [], [], ''
        here = [c for c in unit.cursor.get_children() if c.location.file and c.location.file.name == full_path]
        self.logged = [self.span(c) for c in here
                       if c.kind == Kind.MACRO_INSTANTIATION and c.spelling.startswith('PELK_')]
        self.logged += [match.span() for match in re.finditer(rb'\bpelk_(syslog|log_error)\([^;]*;', self.text)]
        for cursor in here:
            self.declaration(cursor)

    @staticmethod
    def span(cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def is_logged(self, at):
        return any(begin <= at < end for begin, end in self.logged)

    def code(self, begin, end):
        return ' '.join(self.text[begin:end].decode().split())

    def add(self, cursor, original, *mutated):
        """Files mutants of one place under numbers in a row; the first of them, or 0 when the place is left alone."""
        line = cursor.extent.start.line
        if line in self.dropped:
            return 0
        first = len(self.mutants)
        for text in mutated:
            self.mutants.append(Mutant(self.path, line, self.function, original, text))
        return first + 1

    def surround(self, begin, end, before, after):
        self.inserts.append((begin, 1, -end, before))
        self.inserts.append((end, 0, -begin, after))

    def wrap(self, cursor, call, original, *mutated, before='', after=')'):
        """Makes an expression the argument of a call that switches its mutants; whether it did."""
        number = self.add(cursor, original, *mutated)
        if number:
            self.surround(*self.span(cursor), f'mutation::{call}(@{number}@, {before}', after)
        return number != 0

    # ---- walking

    def declaration(self, cursor):
        if cursor.kind in (Kind.NAMESPACE, Kind.LINKAGE_SPEC, Kind.UNEXPOSED_DECL, Kind.CLASS_DECL, Kind.STRUCT_DECL):
            for child in cursor.get_children():
                self.declaration(child)
        elif cursor.kind in FUNCTIONS and cursor.is_definition():
            body = [c for c in cursor.get_children() if c.kind == Kind.COMPOUND_STMT]
            begin, end = cursor.extent.start.offset, body[-1].extent.start.offset if body else 0
            wanted = not self.functions or cursor.spelling in self.functions
            if body and wanted and not re.search(rb'\bcons(texpr|teval)\b', self.text[begin:end]):
                self.function = cursor.spelling
                self.returns_place = cursor.result_type.get_canonical().kind == TypeKind.LVALUEREFERENCE
                self.walk(body[-1])

    def walk(self, cursor):
        begin, end = self.span(cursor)
        if begin == end or cursor.kind == Kind.STATIC_ASSERT or self.is_logged(begin):
            return
        children = [c for c in cursor.get_children() if not c.kind.is_attribute()]
        if cursor.kind == Kind.VAR_DECL:
            head = self.text[begin:cursor.location.offset]
            if re.search(rb'\b(constexpr|static)\b', head):
                return
            children = [c for c in children if c.extent.start.offset > cursor.location.offset and
                        (c.kind == Kind.INIT_LIST_EXPR or cursor.type.kind != TypeKind.CONSTANTARRAY)]
        if cursor.kind == Kind.IF_STMT:
            if re.match(rb'if constexpr|if[^{;]*\[\[unlikely\]\]', self.text[begin:end]):
                return
        if cursor.kind == Kind.CASE_STMT:
            children = children[1:]
        self.mutate(cursor, children)
        for child in children:
            self.walk(child)

    def mutate(self, cursor, children):
        if cursor.kind in BLOCKS:
            self.statements(cursor, children)
        if cursor.kind in (Kind.IF_STMT, Kind.WHILE_STMT, Kind.CONDITIONAL_OPERATOR) and children:
            self.condition(children[0])
        elif cursor.kind == Kind.FOR_STMT and len(children) == 4:
            self.condition(children[1])
        elif cursor.kind == Kind.DO_STMT:
            self.condition(children[1])
        elif cursor.kind == Kind.BINARY_OPERATOR and len(children) == 2:
            self.operator(cursor, *children)
        elif cursor.kind == Kind.RETURN_STMT and children and not self.returns_place:
            self.result(children[0])

    # ---- mutators

    def operator_between(self, left, right):
        begin, end = left.extent.end.offset, right.extent.start.offset
        found = re.match(rb'\s*([^\s\w(]+)\s*$', self.text[begin:end])
        return (found.group(1).decode(), begin, end) if found else ('', begin, end)

    def operator(self, cursor, left, right):
        sign, begin, end = self.operator_between(left, right)
        kinds = {side.type.get_canonical().kind for side in (left, right)}
        whole = self.code(*self.span(cursor))

        def swapped(other):
            return self.code(cursor.extent.start.offset, begin) + f' {other} ' + self.code(end, cursor.extent.end.offset)

        if sign in COMPARISONS and kinds <= SCALARS:
            call, others = COMPARISONS[sign]
            if sign in LITERAL_COUNTS:
                self.literal(right)
        elif sign in CONNECTIVES:
            call, *others = CONNECTIVES[sign]
            self.condition(left)
            self.condition(right)
            if self.wrap(cursor, call, whole, swapped(*others), before='static_cast<bool>(', after='); })'):
                self.replaced.append((begin, end, '), [&] { return static_cast<bool>('))
            return
        elif sign in SUMS and kinds <= INTEGERS:
            call, *others = SUMS[sign]
        else:
            return
        if self.wrap(cursor, call, whole, *map(swapped, others)):
            self.replaced.append((begin, end, ', '))

    @staticmethod
    def bare(cursor):
        """What stands within parentheses and conversions that the source does not show."""
        while cursor.kind in (Kind.UNEXPOSED_EXPR, Kind.PAREN_EXPR):
            children = list(cursor.get_children())
            if len(children) != 1:
                break
            cursor = children[0]
        return cursor

    def says_more(self, cursor):
        """Whether an expression is an operator that has mutants of its own."""
        cursor = self.bare(cursor)
        children = list(cursor.get_children())
        if cursor.kind != Kind.BINARY_OPERATOR or len(children) != 2:
            return False
        return self.operator_between(*children)[0] in COMPARISONS | CONNECTIVES

    def condition(self, cursor):
        if not cursor.kind.is_expression() or self.says_more(cursor):
            return
        text = self.code(*self.span(cursor))
        self.wrap(cursor, 'flip', text, f'!({text})', before='static_cast<bool>(', after='))')

    def literal(self, cursor):
        inner = self.bare(cursor)
        enumerator = (inner.kind == Kind.DECL_REF_EXPR and inner.referenced is not None and
                      inner.referenced.kind == Kind.ENUM_CONSTANT_DECL)
        if not enumerator and inner.kind != Kind.INTEGER_LITERAL:
            return False
        text = self.code(*self.span(inner))
        self.wrap(inner, 'one_more', text, f'{text} + 1')
        return True

    def result(self, cursor):
        inner = self.bare(cursor)
        kind = inner.type.get_canonical().kind
        if inner.kind == Kind.CONDITIONAL_OPERATOR:
            for side in list(inner.get_children())[1:]:
                self.result(side)
            return
        if self.literal(cursor) or inner.kind in (Kind.INIT_LIST_EXPR, Kind.CXX_NULL_PTR_LITERAL_EXPR):
            return
        text = self.code(*self.span(cursor))
        if kind == TypeKind.BOOL:
            self.condition(cursor)
        elif kind in INTEGERS | {TypeKind.ENUM}:
            self.wrap(cursor, 'zero_or_one', f'return {text}', f'return {text} == 0 ? 1 : 0')
        elif kind == TypeKind.POINTER:
            self.wrap(cursor, 'null', f'return {text}', 'return nullptr')

    def statements(self, block, children):
        for child in children:
            begin, end = self.span(child)
            alone = block.kind == Kind.COMPOUND_STMT or self.text[:begin].rstrip().endswith((b')', b':', b'else', b'do'))
            semicolon = re.match(rb'\s*;', self.text[end:])
            if self.bare(child).kind not in LEFT_OUT or not alone or not semicolon or self.is_logged(begin):
                continue
            end += semicolon.end()
            number = self.add(child, self.code(begin, end), '(left out)')
            if number:
                self.surround(begin, end, f'{{ if (!mutation::on(@{number}@)) ', ' }')

    # ---- writing

    def rewritten(self, first_number):
        """The source with its mutants in it, the first of them under `first_number`."""
        for i, mutant in enumerate(self.mutants):
            mutant.number = first_number + i
        edits = [(at, at, order, outer, text) for at, order, outer, text in self.inserts]
        edits += [(begin, end, 2, 0, text) for begin, end, text in self.replaced]
        out, at = [], 0
        for begin, end, _, _, text in sorted(edits, key=lambda e: (e[0], e[2], e[3])):
            lines = self.text[begin:end].count(b'\n')
            numbered = re.sub(r'@(\d+)@', lambda m: str(first_number + int(m.group(1)) - 1), text)
            out += [self.text[at:begin], numbered.encode(), b'\n' * lines]
            at = max(at, end)
        return b''.join(out + [self.text[at:]])
