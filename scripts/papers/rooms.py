"""rooms - the folders of the tree, what they include, and what CONTRIBUTING.md says of them; see scripts/rooms."""
import argparse
import collections
import os
import re
import subprocess
import sys

import pages

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.join(ROOT, 'build', 'rooms')
GUIDE = 'CONTRIBUTING.md'
CODE_FOLDERS = ['include', 'src', 'platform', 'lists', 'sharing', 'daemon', 'testbed', 'tools', 'tests', 'bench', 'fuzz',
                'examples']
HEADER_LINES_MAX = 149

# The house from the ground up. A folder includes what comes before its own list, and what is below the same name as
# itself, without a cycle; a name stands for all folders below it.
ORDER = [['include'], ['platform/base'], ['platform/shash', 'platform/pelk'], ['platform/dns/wire'],
         ['platform/dns/cache', 'platform/dns/io'], ['platform/dns/engine'], ['src'], ['lists'], ['sharing'], ['testbed'],
         ['daemon', 'tools', 'examples', 'tests', 'bench', 'fuzz']]

Include = collections.namedtuple('Include', 'file line name target')  # target: the file, None outside the tree
faults = []


def fault(where, text):
    faults.append(f'{where}: {text}')


def read(path):
    with open(os.path.join(ROOT, path), encoding='utf-8') as file:
        return file.read()


def is_below(path, folder):
    return path == folder or path.startswith(folder + '/')


# ---- what the build says


class Build:
    """The targets that compile something, the folder of each, and the include directories of every source."""

    def __init__(self):
        configure = subprocess.run(
            ['cmake', '-S', ROOT, '-B', BUILD, '-G', 'Ninja', '-DCMAKE_EXPORT_COMPILE_COMMANDS=ON',
             '-DCMAKE_C_COMPILER=clang', '-DCMAKE_CXX_COMPILER=clang++', '-DKAVO_SANITIZE=fuzzer-no-link',
             '-DKAVO_BUILD_FUZZ=ON', '-DKAVO_BUILD_BENCH=ON'], capture_output=True, text=True, check=False)
        if configure.returncode != 0:
            raise SystemExit(f'rooms: CMake fails:\n{configure.stderr}')
        self.compiled = []  # (source, target, folder of the target, include directories)
        # One entry has its words on lines of their own; target and folder are in the path of the object.
        with open(os.path.join(BUILD, 'compile_commands.json'), encoding='utf-8') as file:
            commands = file.read()
        for command, source in re.findall(r'"command": "(.*)",\n *"file": "(.*)"', commands):
            source = os.path.relpath(source, ROOT)
            folder, target = re.search(r' -o (\S*?)/?CMakeFiles/(\S+?)\.dir/', command).groups()
            directories = [os.path.relpath(directory, ROOT) for directory in re.findall(r' -I(\S+)', command)]
            self.compiled.append((source, target, folder, [d for d in directories if not d.startswith('..')]))

    @staticmethod
    def leads_to(directory):
        """What is seen by way of an include directory; of one that the build made, what it links to."""
        if not is_below(directory, os.path.relpath(BUILD, ROOT)):
            return [directory]
        directory = os.path.join(ROOT, directory)
        return [os.path.relpath(os.path.realpath(os.path.join(directory, name)), ROOT) for name in os.listdir(directory)]

    def seen_from(self, path):
        """The include directories of a source; of a header those of the sources beside it."""
        beside = os.path.dirname(path).removesuffix('/include')
        compiled = [one for one in self.compiled if one[0] == path] or [
            one for one in self.compiled if is_below(one[0], beside)]
        return list(dict.fromkeys(directory for *_, directories in compiled for directory in directories))


# ---- what CONTRIBUTING.md says


class House:
    """The table of folders."""

    def __init__(self):
        self.line = {}     # of each folder in the page
        self.allowed = {}  # paths under which a folder may include
        self.targets = {}  # the names of its targets, none where the table gives none
        for line, cells in pages.table(read(GUIDE), 'Folder'):
            allowed = [path.rstrip('/') for path in pages.quoted(cells[3])]
            for folder in pages.quoted(cells[0]):
                folder = folder.rstrip('/')
                self.line[folder], self.allowed[folder] = line, allowed
                self.targets[folder] = pages.quoted(cells[1])
        if not self.line:
            raise SystemExit(f'rooms: {GUIDE} has no table of folders')

    def folder_of(self, path):
        """The folder of the house that a path is in: the innermost one; None in none."""
        return max((folder for folder in self.line if is_below(path, folder)), key=len, default=None)

    def may_include(self, folder, path):
        return is_below(path, folder) or any(is_below(path, prefix) for prefix in self.allowed[folder])

    def may_see(self, folder):
        """The folders of the house that a folder may include."""
        return {other for other in self.line for prefix in self.allowed[folder]
                if other != folder and (is_below(other, prefix) or is_below(prefix, other))}

    def names(self, folder):
        """Those of them that its row names, and not only a folder that they are in."""
        return {other for other in self.may_see(folder) if any(is_below(p, other) for p in self.allowed[folder])}


def rank(folder):
    """The height of a folder in the house and the name there; (None, None) of a folder without a place."""
    for height, level in enumerate(ORDER):
        for name in level:
            if is_below(folder, name):
                return height, name
    return None, None


def is_above(folder, other):
    (height, name), (other_height, other_name) = rank(folder), rank(other)
    return None not in (height, other_height) and (height > other_height or name == other_name)


def check_table(house, build, files):
    """The table of folders against the tree and the build, in both directions."""
    sees = collections.defaultdict(set)
    targets = collections.defaultdict(set)
    for source, target, target_folder, directories in build.compiled:
        if not is_below(source, target_folder):
            fault(f'{target_folder}/CMakeLists.txt', f'{target} compiles {source}, of another folder')
            continue
        folder = house.folder_of(source)
        if folder is None:
            continue
        targets[folder].add(target)
        for directory in (path for seen in directories for path in build.leads_to(seen)):
            other = house.folder_of(directory)
            if other is None:
                fault(f'{target_folder}/CMakeLists.txt', f'{target} sees {directory}/, no folder of the house')
            elif other != folder:
                sees[folder].add(other)
    for folder in sorted({os.path.dirname(path) for path in files if house.folder_of(path) is None}):
        fault(GUIDE, f'the table of folders lacks {folder}/')
    for folder, line in house.line.items():
        where = f'{GUIDE}:{line}'
        if not os.path.isdir(os.path.join(ROOT, folder)):
            fault(where, f'there is no {folder}/')
            continue
        named = set(house.targets[folder])
        if named and named != targets[folder]:
            fault(where, f'the targets of {folder}/ are {", ".join(sorted(targets[folder])) or "none"}')
        if folder in targets:
            for other in sorted(sees[folder] - house.may_see(folder)):
                fault(where, f'{folder}/ sees {other}/ in the build, not in the table')
            for other in sorted(house.names(folder) - sees[folder]):
                fault(where, f'{folder}/ sees {other}/ in the table, not in the build')
        for other in sorted(house.may_see(folder)):
            if not is_above(folder, other):
                fault(where, f'{folder}/ is not above {other}/, and may not include it')
        cycle = shortest_cycle(folder, {one: house.names(one) for one in house.line})
        if cycle is not None:
            fault(where, f'a cycle of folders: {" -> ".join(cycle + cycle[:1])}')


def check_rooms_of_src(house, files, includes):
    """The table of the rooms of src/, which goes from the bottom up."""
    line_of = {}
    for line, cells in pages.table(read(GUIDE), 'Room'):
        for name in pages.quoted(cells[0]):
            if name in line_of:
                fault(f'{GUIDE}:{line}', f'src/{name} is in the table twice')
            line_of[name] = line
    there = {room_of(path, 'src') for path in files if is_below(path, 'src')}
    for name in sorted(there - line_of.keys()):
        fault(GUIDE, f'the table of rooms lacks src/{name}')
    for name in sorted(line_of.keys() - there):
        fault(f'{GUIDE}:{line_of[name]}', f'there is no src/{name}')
    for one, others in rooms_of('src', house, includes).items():
        for other, include in others.items():
            if one in line_of and other in line_of and line_of[other] > line_of[one]:
                fault(f'{include.file}:{include.line}', f'{other} is above {one} in the table of rooms of {GUIDE}')


def check_pages():
    """The table "Where is ..." and the links of every page."""
    for line, cells in pages.table(read(GUIDE), 'Feature'):
        folders = pages.quoted(cells[1])
        for folder in folders:
            if not os.path.isdir(os.path.join(ROOT, folder)):
                fault(f'{GUIDE}:{line}', f'there is no {folder}')
        for name in pages.quoted(cells[2]):
            if not any(os.path.isfile(os.path.join(ROOT, folder, name + end))
                       for folder in folders for end in ('', '.h', '.cc')):
                fault(f'{GUIDE}:{line}', f'there is no {name} in {", ".join(folders)}')
    for folder in ('.', 'docs', 'docs/performance'):
        for name in sorted(os.listdir(os.path.join(ROOT, folder))):
            page = os.path.normpath(os.path.join(folder, name))
            for line, target in pages.links(read(page)) if name.endswith('.md') else ():
                if not os.path.exists(os.path.join(ROOT, folder, target)):
                    fault(f'{page}:{line}', f'there is no {target}')


# ---- what the sources say


def code_files():
    found = []
    for folder in CODE_FOLDERS:
        for directory, _, names in os.walk(os.path.join(ROOT, folder)):
            found += [os.path.relpath(os.path.join(directory, name), ROOT) for name in names
                      if name.endswith(('.h', '.hpp', '.cc', '.c'))]
    return sorted(found)


def resolve(path, form, name, build):
    directories = ([os.path.dirname(path)] if form == '"' else []) + build.seen_from(path)
    for directory in directories + ['include']:
        target = os.path.join(ROOT, directory, name)
        if os.path.isfile(target):
            return os.path.relpath(os.path.realpath(target), ROOT)
    if form == '"':
        fault(path, f'"{name}" is in no directory that the file sees')
    return None


def includes_of(files, build):
    found = []
    for path in files:
        for number, line in enumerate(read(path).splitlines(), 1):
            match = re.match(r'\s*#\s*include\s*(["<])([^">]+)[">]', line)
            if match:
                found.append(Include(path, number, match[2], resolve(path, match[1], match[2], build)))
    return found


def check_includes(house, includes):
    for include in includes:
        where = f'{include.file}:{include.line}'
        if '..' in include.name.split('/'):
            fault(where, f'"{include.name}" leads out of its folder by ".."')
        if include.target == 'include/kavo.h' and is_below(include.file, 'platform'):
            fault(where, 'platform/ knows no kavo.h')
        elif include.target is not None:
            folder = house.folder_of(include.file)
            if folder is not None and not house.may_include(folder, include.target):
                fault(where, f'{folder}/ may not include {include.target}')


def check_headers(files):
    for path in files:
        lines = read(path).count('\n')
        if path.endswith('.h') and 'include' not in path.split('/') and lines > HEADER_LINES_MAX:
            fault(f'{path}:{lines}', f'a private header of more than {HEADER_LINES_MAX} lines')


# ---- rooms of a folder


def room_of(path, folder):
    """The name that a header and its source share; the folder's include directory is part of the room's place."""
    return os.path.splitext(os.path.relpath(path, folder))[0].removeprefix('include/')


def rooms_of(folder, house, includes):
    """The arrows among the rooms of a folder: {room: {other: the include}}."""
    arrows = collections.defaultdict(dict)
    for include in includes:
        if include.target and house.folder_of(include.file) == folder == house.folder_of(include.target):
            one, other = room_of(include.file, folder), room_of(include.target, folder)
            if one != other:
                arrows[one].setdefault(other, include)
    return arrows


def shortest_cycle(start, arrows):
    """The rooms of a shortest cycle through `start`, None where there is none."""
    came_from, waiting = {}, collections.deque([start])
    while waiting:
        room = waiting.popleft()
        for other in arrows.get(room, ()):
            if other == start:
                cycle = [room]
                while cycle[-1] != start:
                    cycle.append(came_from[cycle[-1]])
                return cycle[::-1]
            if other not in came_from:
                came_from[other] = room
                waiting.append(other)
    return None


def check_cycles(house, includes):
    """One fault for each cycle. Of rooms that several lead through, each is named in the shortest of them."""
    for folder in house.line:
        arrows = rooms_of(folder, house, includes)
        told = set()
        for room in sorted(arrows):
            cycle = shortest_cycle(room, arrows)
            if cycle is None or frozenset(cycle) in told:
                continue
            told.add(frozenset(cycle))
            steps = [arrows[one][other] for one, other in zip(cycle, cycle[1:] + cycle[:1])]
            fault(f'{steps[0].file}:{steps[0].line}', f'a cycle in {folder}/: {" -> ".join(cycle + cycle[:1])} (' +
                  ', '.join(f'{os.path.basename(step.file)}:{step.line}' for step in steps[1:]) + ')')


# ---- the picture


def arrows_of(house, includes):
    arrows = collections.defaultdict(collections.Counter)
    for include in includes:
        one, other = house.folder_of(include.file), include.target and house.folder_of(include.target)
        if one and other and one != other:
            arrows[one][other] += 1
    return arrows


def print_structure(house, files, includes):
    arrows = arrows_of(house, includes)
    folders = sorted({house.folder_of(path) for path in files} - {None}, key=lambda name: (-(rank(name)[0] or 0), name))
    for folder in folders:
        files_here = sum(house.folder_of(path) == folder for path in files)
        others = sorted(arrows[folder], key=lambda name: (-(rank(name)[0] or 0), name))
        print(f'{folder:<22}{files_here:4} files -> ' +
              (', '.join(f'{other} ({arrows[folder][other]})' for other in others) or 'nothing of ours'))


def print_dot(folder, house, includes):
    arrows = rooms_of(folder, house, includes) if folder else arrows_of(house, includes)
    print('digraph rooms {\n  node [shape=box];')
    for one in sorted(arrows):
        for other in sorted(arrows[one]):
            print(f'  "{one}" -> "{other}";')
    print('}')


def main():
    parser = argparse.ArgumentParser(prog='scripts/rooms')
    parser.add_argument('--dot', nargs='?', const='', metavar='FOLDER')
    options = parser.parse_args()
    house, build, files = House(), Build(), code_files()
    includes = includes_of(files, build)
    if options.dot is not None:
        folder = options.dot.rstrip('/')
        if folder and folder not in house.line:
            raise SystemExit(f'rooms: the house has no folder {folder}/')
        print_dot(folder, house, includes)
        return 0
    print_structure(house, files, includes)
    check_table(house, build, files)
    check_rooms_of_src(house, files, includes)
    check_pages()
    check_includes(house, includes)
    check_headers(files)
    check_cycles(house, includes)
    print(f'\n{len(faults)} faults' if faults else '\nThe house is as CONTRIBUTING.md says.')
    print(*dict.fromkeys(faults), sep='\n')
    return 1 if faults else 0


if __name__ == '__main__':
    sys.exit(main())
