#!/usr/bin/env python3
"""Installs the build, moves it, and uses the library as other projects do: by find_package, by
pkg-config and from its sources. The installed programs find their libraries; the Debian packages
hold what was installed, each file once.

usage: ConsumerTest.py BUILD_FOLDER CMAKE CPACK|- COMPILER [FLAG...]
"""
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / 'programs'))
import programs  # noqa: E402

SOURCES = pathlib.Path(__file__).resolve().parents[2]
PROGRAM = SOURCES / 'examples/read_request.cpp'
SAYS = '/greet: Hello\n'
TIMEOUT = 600


def run(*command, **options):
    """What a command printed; with all it said where it fails."""
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=TIMEOUT, **options)
    assert done.returncode == 0, f'{shlex.join(done.args)}:\n{done.stdout}'
    return done.stdout


def files_under(folder):
    return {str(path.relative_to(folder)) for path in folder.rglob('*') if not path.is_dir()}


def check_headers(include, compiler):
    """What a header of src/ shows to others is installed, nothing else is, and each compiles
    alone."""
    shown = {str(path.relative_to(SOURCES / 'src')) for path in SOURCES.glob('src/*/*.h')
             if 'POSTWIRE_EXPORT' in path.read_text() and path.parent.name != 'service'}
    shown.add('message/HeaderLines.h')  # a member's class
    assert files_under(include) == shown, files_under(include) ^ shown
    run(*compiler, '-std=c++17', '-fsyntax-only', f'-I{include}', '-x', 'c++-header',
        *(include / name for name in sorted(shown)))


def check_project(folder, cmake, compiler, *settings):
    run(cmake, '-G', 'Ninja', '-S', SOURCES / 'tests/install/consumer', '-B', folder,
        f'-DPROGRAM={PROGRAM}', f'-DCMAKE_CXX_COMPILER={compiler[0]}',
        f'-DCMAKE_CXX_FLAGS={shlex.join(compiler[1:])}', *settings)
    run(cmake, '--build', folder, '-j2')
    assert run(folder / 'consumer') == SAYS


def check_pkg_config(prefix, compiler, program):
    where = {**os.environ, 'PKG_CONFIG_PATH': str(prefix / 'lib/pkgconfig')}
    words = shlex.split(run('pkg-config', '--cflags', '--libs', 'postwire', env=where))
    [libraries] = shlex.split(run('pkg-config', '--variable=libdir', 'postwire', env=where))
    run(*compiler, '-std=c++17', PROGRAM, *words, f'-Wl,-rpath,{libraries}', '-o', program)
    assert run(program) == SAYS


def check_programs(folder):
    """Names are resolved by the module that stands beside the libraries."""
    programs.FOLDER = folder
    with programs.Server() as server:
        run(folder / 'postwire-send', f'http://localhost:{server.port}/', '--body', PROGRAM,
            env={name: value for name, value in os.environ.items() if name != 'QOR_MODULE_PATH'})


def package_of(path):
    if re.search(r'\.so\.\d|Interface\.so$', path):
        return 'libpostwire0'
    return 'postwire-tools' if re.match('bin/|share/man/', path) else 'libpostwire-dev'


def check_packages(folder, build, cpack, installed):
    """They hold what is installed, the libraries in the folder of their architecture, and what
    Debian asks of every package."""
    run(cpack, '-G', 'DEB', '-B', folder, '--config', build / 'CPackConfig.cmake')
    packages = sorted(folder.glob('*.deb'))
    assert [path.name.split('_')[0] for path in packages] == [
        'libpostwire-dev', 'libpostwire0', 'postwire-tools'], packages
    for path in packages:
        name = path.name.split('_')[0]
        run('dpkg-deb', '-x', path, folder / name)
        held = {re.sub('^lib/[^/]+-linux-gnu/', 'lib/', file)
                for file in files_under(folder / name / 'usr')}
        expected = {file for file in installed if package_of(file) == name}
        expected |= {f'share/doc/{name}/{file}' for file in ('copyright', 'changelog.gz')}
        assert held == expected, (name, held ^ expected)
        needs = run('dpkg-deb', '-f', path, 'Depends')
        assert ('libpostwire0 (= ' in needs) == (name != 'libpostwire0'), (name, needs)
        assert ('libstdc++6' in needs) == (name != 'libpostwire-dev'), (name, needs)


def main(build, cmake, cpack, *compiler):
    build = pathlib.Path(build)
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        run(cmake, '--install', build, '--prefix', folder / 'first')
        prefix = (folder / 'first').rename(folder / 'moved here')
        check_headers(prefix / 'include/postwire', compiler)
        check_project(folder / 'package', cmake, compiler, f'-DCMAKE_PREFIX_PATH={prefix}')
        check_project(folder / 'sources', cmake, compiler, f'-DSOURCES={SOURCES}')
        check_pkg_config(prefix, compiler, folder / 'by_hand')
        if (prefix / 'bin').exists():
            check_programs(prefix / 'bin')
        if cpack != '-':
            check_packages(folder / 'packages', build, cpack, files_under(prefix))


main(*sys.argv[1:])
