"""run - builds a tree with mutants in it and runs the tests against each of them; see scripts/mutants."""
import argparse
import collections
import concurrent.futures
import glob
import hashlib
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time

import rewrite

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
WORK = os.path.join(ROOT, 'build', 'mutants')
TREE, TEMPORARY, SURVIVORS = (os.path.join(WORK, name) for name in ('tree', 'tmp', 'survivors.txt'))
REASONS = os.path.join(ROOT, 'scripts', 'mutants.reasons')
ENGINE = ['receive.cc', 'outcome.cc', 'choice.cc']
PARALLEL = 2
ROUNDS_MAX = 12  # of finding mutants that do not compile
PATIENCE_S, PATIENCE_FACTOR = 10, 6  # how long tests may take beyond what they take without a mutant
OUTCOMES = ['failed', 'timed out', 'excused', 'not covered', 'survived']


def say(text):
    print(f'mutants: {text}', file=sys.stderr, flush=True)


def output_of(*words):
    return subprocess.run(words, check=True, text=True, stdout=subprocess.PIPE).stdout


def content_of(path):
    if not os.path.exists(path):
        return b''
    with open(path, 'rb') as file:
        return file.read()


def write_if_changed(path, content):
    if not os.path.exists(path) or content_of(path) != content:
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, 'wb') as file:
            file.write(content)


def table(path):
    """The rows of survivors.txt or of the reasons: source, function, code, mutated code, and what follows."""
    rows = [line.split('\t') for line in content_of(path).decode().splitlines() if line and not line.startswith('#')]
    return [(row[0].split(':')[0], *row[1:]) for row in rows]


# ---- the mutated build


def copy_tree(paths):
    """Copies what the build reads; a source that is about to get its mutants only where there is none yet."""
    names = output_of('git', '-C', ROOT, 'ls-files', '-co', '--exclude-standard').splitlines()
    names = [name for name in names if os.path.isfile(os.path.join(ROOT, name)) and not name.startswith('docs/')]
    for name in names:
        if name in paths and os.path.exists(os.path.join(TREE, name)):
            continue
        write_if_changed(os.path.join(TREE, name), content_of(os.path.join(ROOT, name)))
        shutil.copymode(os.path.join(ROOT, name), os.path.join(TREE, name))
    for path in glob.glob(os.path.join(TREE, '**'), recursive=True):
        if os.path.isfile(path) and os.path.relpath(path, TREE) not in names:
            os.remove(path)


def configure(build, sanitizers):
    """The compile command of every source of the tree."""
    switch = os.path.join(TREE, 'scripts', 'mutation', 'switch.h')
    output_of('cmake', '-S', TREE, '-B', build, '-G', 'Ninja', '-DCMAKE_BUILD_TYPE=Debug', '-DKAVO_WERROR=OFF',
              '-DKAVO_BUILD_EXAMPLES=OFF', '-DCMAKE_EXPORT_COMPILE_COMMANDS=ON', '-DCMAKE_CXX_FLAGS_DEBUG=-O1',
              '-DCMAKE_C_FLAGS_DEBUG=-O1', f'-DCMAKE_CXX_FLAGS=-w -include {switch}', f'-DKAVO_SANITIZE={sanitizers}')
    commands = json.loads(content_of(os.path.join(build, 'compile_commands.json')))
    return {os.path.relpath(entry['file'], TREE): entry['command'].split() for entry in commands}


def mutate(path, functions, compile_command, first_number):
    """Writes a source with those of its mutants that compile, and returns them."""
    arguments = [word for word in compile_command if re.match('-[ID]|-std=|-isystem', word)]
    check = compile_command[:compile_command.index('-o')] + ['-fsyntax-only', os.path.join(TREE, path)]
    dropped = set()
    for _ in range(ROUNDS_MAX):
        source = rewrite.Source(path, os.path.join(ROOT, path), arguments, functions, dropped)
        write_if_changed(os.path.join(TREE, path), source.rewritten(first_number))
        messages = subprocess.run(check, capture_output=True, text=True, check=False).stderr
        wrong = {int(n) for n in re.findall(re.escape(path) + r':(\d+):\d+: error', messages)}
        if not wrong and 'error' not in messages:
            say(f'{path}: {len(source.mutants)} mutants' + (f', lines {sorted(dropped)} left alone' if dropped else ''))
            return source.mutants
        dropped |= wrong
    raise SystemExit(f'{path} does not compile with mutants:\n{messages}')


# ---- tests


def run_test(words, number, patience_s, record=''):
    """Runs a test program: 'passed', 'failed' or 'timed out'. What it leaves running ends with it."""
    environment = dict(os.environ, KAVO_MUTANT=str(number), GTEST_FAIL_FAST='1', TMPDIR=TEMPORARY)
    if record:
        environment['KAVO_MUTANT_RECORD'] = record
    process = subprocess.Popen(words, env=environment, start_new_session=True, stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        result = 'passed' if process.wait(patience_s) == 0 else 'failed'
    except subprocess.TimeoutExpired:
        result = 'timed out'
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()
    return result


def cases_of(program):
    suite, cases = '', []
    for line in output_of(program, '--gtest_list_tests').splitlines():
        name = line.split('#')[0].strip()
        if line.startswith(' '):
            cases.append(suite + name)
        else:
            suite = name
    return cases


def record_case(program, case):
    """The seconds that a test takes and the numbers that it reaches; nothing for one that fails without a mutant."""
    path = os.path.join(TEMPORARY, 'record-' + hashlib.sha1((program + case).encode()).hexdigest())
    for _ in range(2):
        start = time.monotonic()
        if run_test([program, '--gtest_filter=' + case], 0, 900, path) == 'passed':
            return time.monotonic() - start, [i for i, byte in enumerate(content_of(path)) if byte]
    say(f'{case} fails without a mutant; it is left out')
    return None


def record(pool, build):
    """What record_case says, per program and test: from the last run where neither program nor library has changed."""
    kept = os.path.join(build, 'records.json')
    known, records, waiting = json.loads(content_of(kept) or '{}'), {}, {}
    library = content_of(os.path.join(build, 'src', 'libkavo.so'))
    tests = json.loads(output_of('ctest', '--test-dir', build, '--show-only=json-v1'))['tests']
    for program in [test['command'][0] for test in tests if test['command'][0].startswith(build)]:
        print_of = hashlib.sha1(content_of(program) + library).hexdigest()
        records[program] = known.get(program, {})
        if records[program].get('print') != print_of:
            records[program] = {'print': print_of, 'cases': {}}
            for case in cases_of(program):
                waiting[program, case] = pool.submit(record_case, program, case)
    say(f'recording what {len(waiting)} tests reach')
    for (program, case), result in waiting.items():
        if result.result():
            records[program]['cases'][case] = result.result()
    write_if_changed(kept, json.dumps(records).encode())
    return records


def orders(records, seconds_max):
    """Per number, the tests that reach it as (seconds, program, tests), the quickest program first."""
    reaching = collections.defaultdict(lambda: collections.defaultdict(list))
    for program, recorded in records.items():
        for case, (seconds, reached) in recorded['cases'].items():
            for number in reached if seconds <= seconds_max else ():
                reaching[number][program].append((seconds, case))
    return {number: sorted((sum(s for s, _ in cases), program, [c for _, c in cases])
                           for program, cases in programs.items()) for number, programs in reaching.items()}


def try_mutant(mutant, order):
    for seconds, program, cases in order:
        words = [program, '--gtest_filter=' + ':'.join(cases)]
        result = run_test(words, mutant.number, PATIENCE_S + PATIENCE_FACTOR * seconds)
        if result != 'passed':
            return result
    return 'survived' if order else 'not covered'


def try_all(mutants, build, seconds_max):
    """(mutant, outcome) of each; what is written down among the reasons is not run."""
    reasons = table(REASONS)

    def excused(mutant):
        return any(all(want in ('*', is_) for want, is_ in zip(row[:4], mutant.key())) for row in reasons)

    outcomes = [(mutant, 'excused') for mutant in mutants if excused(mutant)]
    with concurrent.futures.ThreadPoolExecutor(PARALLEL) as pool:
        order = orders(record(pool, build), seconds_max)
        waiting = {pool.submit(try_mutant, m, order.get(m.number, [])): m for m in mutants if not excused(m)}
        for done, result in enumerate(concurrent.futures.as_completed(waiting), 1):
            outcomes.append((waiting[result], result.result()))
            if result.result() in OUTCOMES[3:] or done % 100 == 0:
                say(f'{done} of {len(waiting)}: {result.result()}: {waiting[result]}')
    return sorted(outcomes, key=lambda outcome: outcome[0].number)


def report(outcomes):
    counts = collections.defaultdict(collections.Counter)
    for mutant, outcome in outcomes:
        counts[mutant.path][outcome] += 1
    print(f'{"":<42}' + ''.join(f'{word:>13}' for word in ['mutants'] + OUTCOMES))
    for path, count in counts.items():
        print(f'{path:<42}' + ''.join(f'{number:>13}' for number in [sum(count.values())] + [count[w] for w in OUTCOMES]))
    left = [f'{mutant}\t{outcome}' for mutant, outcome in outcomes if outcome in OUTCOMES[3:]]
    write_if_changed(SURVIVORS, ('\n'.join(left) + '\n').encode())
    print(f'\n{len(left)} survivors, in {os.path.relpath(SURVIVORS)}')


def main():
    parser = argparse.ArgumentParser(prog='scripts/mutants')
    parser.add_argument('files', nargs='*')
    parser.add_argument('--function', action='append', default=[])
    parser.add_argument('--survivors', action='store_true')
    parser.add_argument('--asan', action='store_true')
    parser.add_argument('--seconds', type=float, default=3)
    parser.add_argument('--list', action='store_true')
    options = parser.parse_args()
    former = [row[:4] for row in table(SURVIVORS)] if options.survivors else []
    paths = [os.path.relpath(os.path.abspath(f), ROOT) for f in options.files] or sorted({row[0] for row in former}) or [
        *(os.path.relpath(f, ROOT) for f in sorted(glob.glob(os.path.join(ROOT, 'src', '*.cc')))),
        *(os.path.join('platform', 'dns', 'engine', name) for name in ENGINE)]
    build = os.path.join(WORK, 'asan' if options.asan else 'out')
    copy_tree(paths)
    commands = configure(build, 'address,undefined' if options.asan else '')
    mutants = []
    for path in paths:
        mutants += mutate(path, set(options.function), commands[path], len(mutants) + 1)
    if options.survivors:
        mutants = [mutant for mutant in mutants if mutant.key() in former]
    if options.list:
        print(*mutants, sep='\n')
        return
    subprocess.run(['cmake', '--build', build, '--parallel', str(PARALLEL)], check=True, stdout=sys.stderr)
    os.makedirs(TEMPORARY, exist_ok=True)
    report(try_all(mutants, build, options.seconds))
    shutil.rmtree(TEMPORARY)


if __name__ == '__main__':
    main()
