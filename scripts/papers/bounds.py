"""bounds - the numbers of the pages against the constants that they name; see scripts/bounds."""
import collections
import os
import re
import sys

import pages

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PAGES = ['docs/engine.md', 'docs/security.md']
# Where a constant is looked for: the first of these that has it says its value.
HEADERS = ['platform/dns/engine/bounds.h', 'platform/dns']

WORDS = ['zero', 'one', 'two', 'three', 'four', 'five', 'six', 'seven', 'eight', 'nine', 'ten', 'eleven', 'twelve']
UNITS_US = {'ms': 1000, 's': 10**6, 'second': 10**6, 'minute': 60 * 10**6, 'hour': 3600 * 10**6}
UNITS_S = {'day': 24 * 3600, 'hour': 3600, 'minute': 60, 's': 1, 'second': 1}
UNITS_BYTES = {'KiB': 1024, 'MiB': 1 << 20}

NUMBER = re.compile(r'(?i:(?<![\w.])(?P<number>\d[\d,]*|' + '|'.join(WORDS) + r'))(?:\s+(?P<unit>[A-Za-z]+))?')
DEFINITION = re.compile(r'constexpr\s+[\w:]+\s+(\w+)\s*=\s*([^;{]+);|enum\s*\{\s*(\w+)\s*=\s*([^,}]+)\}', re.S)
NAMES = re.compile(r'\(((?:`(?:k[A-Z]|DNS_MAX)\w*`(?:, |\)))+)')  # names in parentheses, before anything else that may stand there

Claim = collections.namedtuple('Claim', 'line name number unit')


def read(path):
    with open(os.path.join(ROOT, path), encoding='utf-8') as file:
        return file.read()


# ---- constants


def sources(path):
    path = os.path.join(ROOT, path)
    if os.path.isfile(path):
        yield path
    for directory, _, names in os.walk(path):
        yield from (os.path.join(directory, name) for name in sorted(names) if name.endswith(('.h', '.cc')))


def definitions():
    """The expressions that every constant is defined by, as {name: {expression}}, of the first place that has it."""
    found = {}
    for place in HEADERS:
        here = collections.defaultdict(set)
        for path in sources(place):
            text = re.sub(r'//.*', '', read(path))
            for name, value, enumerator, its_value in DEFINITION.findall(text):
                here[name or enumerator].add((value or its_value).strip())
        found = {**here, **found}
    return found


def value_of(name, known):
    """The value of a constant; None where it is not one, has several values, or is no sum of products of numbers."""
    expressions = known.get(name, ())
    if len(expressions) != 1:
        return None
    (expression,) = expressions
    product = 0
    for term in expression.split('+'):
        factor = 1
        for word in term.split('*'):
            word = word.strip().replace("'", '')
            if re.fullmatch(r'\d+[uUlL]*', word):
                number = int(word.rstrip('uUlL'))
            else:
                number = value_of(word.split('::')[-1], known) if re.fullmatch(r'[\w:]+', word) else None
            if number is None:
                return None
            factor *= number
        product += factor
    return product


# ---- what the pages say


def number_of(text):
    return WORDS.index(text.lower()) if text.lower() in WORDS else int(text.replace(',', ''))


def claims_in(text, names, line):
    """One claim for each name: the last numbers of the text before it, in their order."""
    numbers = [(number_of(match['number']), match['unit']) for match in NUMBER.finditer(text)]
    numbers = numbers[-len(names):]
    if len(numbers) < len(names):
        numbers = [(None, None)] * len(names)
    return [Claim(line, name, number, unit) for name, (number, unit) in zip(names, numbers)]


def sentence_before(text):
    """The sentence, or the item of a list, that the end of a text is in; earlier names in parentheses are left out."""
    last = re.split(r'\.\s|\n\s*\n|\n- |;\s', text)[-1]
    return re.sub(r'\([^)]*\)', '', last)


def claims_of(page):
    text = read(page)
    for line, cells in pages.table(text, 'What'):
        names = pages.quoted(cells[2]) if len(cells) > 3 else []
        if names:
            yield from claims_in(cells[1], names, line)
    prose = re.sub(r'^\|.*$', '', text, flags=re.M)
    for match in NAMES.finditer(prose):
        line = prose.count('\n', 0, match.start()) + 1
        yield from claims_in(sentence_before(prose[:match.start()]), pages.quoted(match[1]), line)


def agrees(claim, value):
    """Whether the page's number and unit are the constant's value."""
    unit = (claim.unit or '').removesuffix('s') if claim.unit not in ('ms', 's') else claim.unit
    if claim.name.endswith('Us'):
        return unit in UNITS_US and claim.number * UNITS_US[unit] == value
    factors = {1, UNITS_S.get(unit, 1), UNITS_BYTES.get(claim.unit, 1)}
    return any(claim.number * factor == value for factor in factors)


def main():
    known, compared, wrong = definitions(), 0, 0
    for page in PAGES:
        for claim in claims_of(page):
            value = value_of(claim.name, known)
            compared += 1
            if value is None:
                fault = 'is no constant of one value'
            elif claim.number is None:
                fault = 'stands behind no number'
            elif not agrees(claim, value):
                fault = f'is {value}, not {claim.number}' + (f' {claim.unit}' if claim.unit else '')
            else:
                continue
            wrong += 1
            print(f'{page}:{claim.line}: {claim.name} {fault}')
    print(f'{compared} bounds compared, {wrong} wrong')
    return 1 if wrong or not compared else 0


if __name__ == '__main__':
    sys.exit(main())
