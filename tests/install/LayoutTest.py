#!/usr/bin/env python3
"""Compares virtual slots and members of the library's classes with data/layout.txt.

usage: LayoutTest.py EXPECTED INCLUDE_ROOT WORK_FOLDER COMPILER [FLAG...]

Compiles a file that includes every header and names every class, and reads the result's debug
information: declaration order, offsets and virtual slots as the compiler laid them out.
"""
import pathlib
import re
import subprocess
import sys


def read_expected(path):
    """[(class, base or None, [slot], [member])], in the order of the file."""
    classes = []
    for line in path.read_text().splitlines():
        kind, _, rest = line.partition(' ')
        if kind == 'class':
            name, _, base = rest.partition(' : ')
            classes.append((name, base or None, [], []))
        elif kind == 'slot':
            classes[-1][2].append(rest)
        elif kind == 'member':
            classes[-1][3].append(rest)
        elif kind not in ('', '#'):
            sys.exit(f'{path}: what is that? {line}')
    return classes


def compile_probe(classes, include_root, work, command):
    work.mkdir(parents=True, exist_ok=True)
    headers = sorted(h.relative_to(include_root) for h in include_root.glob('*/*.h'))
    uses = [f'void use_{name}(class {name}*) {{}}' for name, *_ in classes]
    source = work / 'layout.cpp'
    source.write_text('\n'.join([f'#include "{h}"' for h in headers] + uses) + '\n')
    target = work / 'layout.o'
    subprocess.run(command + ['-std=c++17', '-O0', '-g', '-gdwarf-4', '-femit-class-debug-always',
                              '-fno-sanitize=all', '-w', f'-I{include_root}', '-c', source, '-o',
                              target], check=True)
    return target


class Entry:
    def __init__(self, tag):
        self.tag, self.attributes, self.children = tag, {}, []

    def __getattr__(self, attribute):
        return self.attributes.get(attribute)


def read_debug_information(target):
    """The debug information entries of an object file by their position."""
    dump = subprocess.run(['readelf', '--wide', '--debug-dump=info', target], check=True,
                          capture_output=True, text=True).stdout
    entries, stack, entry = {}, [], None
    for line in dump.splitlines():
        if begin := re.match(r' <(\w+)><(\w+)>: Abbrev Number: \d+ \(DW_TAG_(\w+)\)', line):
            depth = int(begin[1], 16)
            entry = entries['0x' + begin[2]] = Entry(begin[3])
            del stack[depth:]
            if stack:
                stack[-1].children.append(entry)
            stack.append(entry)
        elif attribute := re.match(r' +<\w+> +DW_AT_(\w+) *: (?:\([^)]*\):? )*(.*?)\s*$', line):
            reference = re.match(r'<(0x\w+)>', attribute[2])
            entry.attributes[attribute[1]] = reference[1] if reference else attribute[2]
    return entries


def type_name(entries, reference):
    """A type as data/layout.txt writes it: template arguments and constness of pointees left out."""
    if reference is None:
        return 'void'
    entry = entries[reference]
    if entry.tag == 'pointer_type':
        return type_name(entries, entry.type) + '*'
    if entry.tag == 'subroutine_type':
        return 'function'
    if entry.tag in ('const_type', 'volatile_type'):
        return type_name(entries, entry.type)
    if entry.tag == 'typedef' and entry.name not in ('string', 'FILE'):
        return type_name(entries, entry.type)
    if entry.tag == 'array_type':
        count = int(entry.children[0].upper_bound) + 1
        return f'{type_name(entries, entry.type)}[{count}]'
    return {'long unsigned int': 'unsigned long'}.get(entry.name, entry.name.split('<')[0])


def slots_of(entries, cls):
    """{slot: mangled operation}; of a destructor's two slots the first."""
    slots, destructor = {}, None
    for child in cls.children:
        if child.tag == 'inheritance':
            slots = slots_of(entries, entries[child.type])
        elif child.virtuality and child.name.startswith('~'):
            destructor = child.linkage_name
        elif child.virtuality:
            index = int(re.search(r'DW_OP_(?:constu: |lit)(\d+)', child.vtable_elem_location)[1])
            slots[index] = child.linkage_name
    if destructor:
        # The compiler does not say where it stands: where the base's does, else where the others
        # leave room.
        index = [i for i, slot in slots.items() if slot.endswith('D4Ev')]
        index = index or sorted(set(range(len(slots) + 1)) - set(slots))
        slots[index[0]] = destructor
    return slots


def demangle(names):
    out = subprocess.run(['c++filt'], input='\n'.join(names), check=True, capture_output=True,
                         text=True).stdout
    return out.splitlines()


def matches(expected, actual):
    return expected == actual or (expected.endswith(' *') and
                                  expected.rpartition(' ')[0] == actual.rpartition(' ')[0])


def differences(entries, name, base, slots, members):
    found = [e for e in entries.values()
             if e.tag in ('class_type', 'structure_type') and e.name == name and not e.declaration]
    if not found:
        return ['is not defined']
    cls = found[0]
    bases = [c for c in cls.children if c.tag == 'inheritance']
    actual_base = type_name(entries, bases[0].type) if bases else None
    actual_slots = demangle([slot for _, slot in sorted(slots_of(entries, cls).items())])
    data = [c for c in cls.children if c.tag == 'member' and c.data_member_location is not None and
            not c.name.startswith('_vptr')]
    actual_members = [f'{type_name(entries, c.type)} {c.name}' for c in
                      sorted(data, key=lambda c: int(c.data_member_location))]
    problems = []
    if base != actual_base:
        problems.append(f'base: expected {base}, is {actual_base}')
    if not slots and actual_slots:
        problems.append('has virtual operations')
    for what, expected, actual in (('slot', slots, actual_slots), ('member', members, actual_members)):
        for i, text in enumerate(expected):
            there = actual[i] if i < len(actual) else 'missing'
            if not matches(text, there):
                problems.append(f'{what} {i}: expected {text}, is {there}')
    return problems


def main():
    expected_file, include_root, work = (pathlib.Path(a) for a in sys.argv[1:4])
    classes = read_expected(expected_file)
    entries = read_debug_information(compile_probe(classes, include_root, work, sys.argv[4:]))
    failed = 0
    for name, base, slots, members in classes:
        for problem in differences(entries, name, base, slots, members):
            print(f'{name}: {problem}')
            failed += 1
    print(f'{len(classes)} classes, {failed} differences')
    return 1 if failed or not classes else 0


sys.exit(main())
