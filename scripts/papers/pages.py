"""pages - what the scripts here read out of Markdown: rows of tables, words in backquotes, links."""
import re


def table(text, first):
    """The rows of every table whose first column is headed `first`, as (line, cells)."""
    rows, inside = [], False
    for number, line in enumerate(text.splitlines(), 1):
        if not line.startswith('|'):
            inside = False
            continue
        cells = [cell.strip() for cell in line.strip('|').split('|')]
        if inside and not re.fullmatch(r'[-:| ]+', line):
            rows.append((number, cells))
        inside = inside or cells[0] == first
    return rows


def quoted(cell):
    return re.findall(r'`([^`]+)`', cell)


def links(text):
    """The files of this tree that a page refers to, as (line, path)."""
    return [(number, target) for number, line in enumerate(text.splitlines(), 1)
            for target in re.findall(r'\]\(([^)#\s:]+)(?:#[^)]*)?\)', line)]
