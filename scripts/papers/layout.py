"""layout - lines that clang-format has laid out against the reader; see scripts/layout."""
import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
FOLDERS = ['include', 'src', 'platform', 'lists', 'sharing', 'daemon', 'testbed', 'tools', 'tests', 'bench', 'fuzz',
           'examples']
COLUMNS = 120

RULER = re.compile(r'\s*// -{4,}$')
# Of a comparison that was taken for a template no space stands before "<", or one stands behind a unary * or &.
TEMPLATE = re.compile(r'\w<(?:[\w.()\[\]]|->)+ (&&|\|\|) |(&&|\|\||\breturn|[^\w&]=|\() [*&] \w')
LITERAL = re.compile(r'\s*"((?:[^"\\]|\\.)*)"')
LITERAL_END = re.compile(r'"((?:[^"\\]|\\.)*)"$')
VALUE_WITH_COMMENT = re.compile(r'\s*(\S.*;) +// ')


def without_literals(line):
    return re.sub(r'//.*', '', re.sub(r'"(?:[^"\\]|\\.)*"', '""', line))


def cut_literal(before, line):
    """Whether a literal is one word, torn off a text that does not end in the line before. A sentence may end with it."""
    torn, last = LITERAL_END.search(before), LITERAL.match(line)
    if not torn or not last or re.search(r'\\[nx0]$|\\[x0]', torn[1]):
        return False
    return re.fullmatch(r'[^ ]*[^ .|]', re.sub(r'(\\n| )+$', '', last[1])) is not None


def faults_of(lines):
    before = ''
    for number, line in enumerate(lines, 1):
        if RULER.match(line):
            yield number, 'a ruler on a line of its own'
        if TEMPLATE.search(without_literals(line)):
            yield number, 'a comparison laid out as a template'
        if cut_literal(before, line):
            yield number, 'a literal cut before its last word'
        value = VALUE_WITH_COMMENT.match(line)
        if before.endswith('=') and value and len(before) + 1 + len(value[1]) <= COLUMNS:
            yield number, 'a value pushed to the next line by its comment'
        if len(line) > COLUMNS:
            yield number, f'a line of {len(line)} characters'
        before = line


def sources():
    for folder in FOLDERS:
        for directory, _, names in os.walk(folder):
            yield from (os.path.join(directory, name) for name in names if name.endswith(('.h', '.hpp', '.cc', '.c')))


def main():
    paths = sys.argv[1:]
    if not paths:
        os.chdir(ROOT)
        paths = sorted(sources())
    found = 0
    for path in paths:
        with open(path, encoding='utf-8') as file:
            for number, text in faults_of(file.read().splitlines()):
                print(f'{path}:{number}: {text}')
                found += 1
    return 1 if found else 0


if __name__ == '__main__':
    sys.exit(main())
