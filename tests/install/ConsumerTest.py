#!/usr/bin/env python3
"""Installs the build, moves it, and uses the library as other projects do: by find_package, by
pkg-config and from its sources. The libraries show what data/exports*.txt lists; the installed
programs find them; the Debian packages hold what was installed, each file once.

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
EXAMPLES = SOURCES / 'examples'
TIMEOUT = 600
# What the packages need of each other and of the C++ library.
PACKAGES = {
    'libpostwire-dev': {'libpostwire0'},
    'libpostwire-service-dev': {'libpostwire-service0', 'libpostwire-dev'},
    'libpostwire-service0': {'libpostwire0', 'libstdc++6'},
    'libpostwire0': {'libstdc++6'},
    'postwire-tools': {'libpostwire0', 'libpostwire-service0', 'libstdc++6'}}
# What no header of the service shows: others' libraries, and types that differ between programs.
HIDDEN = re.compile(r'^[^/]*(\b(boost|openssl|off_t|time_t|SSL|SSL_CTX|X509)\b|ssl_(ctx_)?st\b)', re.M)


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
             if 'POSTWIRE_EXPORT' in path.read_text()}
    shown.add('message/HeaderLines.h')  # a member's class
    assert files_under(include) == shown, files_under(include) ^ shown
    found = {path.name: HIDDEN.findall(path.read_text()) for path in include.glob('service/*.h')}
    assert found and not any(found.values()), found
    run(*compiler, '-std=c++17', '-fsyntax-only', f'-I{include}', '-x', 'c++-header',
        *(include / name for name in sorted(shown)))


def check_exports(libraries):
    for name in 'libpostwire', 'libpostwire-service':
        listed = programs.DATA / f'exports{name[11:]}.txt'
        try:
            run('bash', '-c', 'diff -u "$1" <("$2" "$3")', '-', listed,
                SOURCES / 'scripts/exported-symbols', libraries / f'{name}.so')
        except AssertionError as error:
            sys.exit(f'{error}CONTRIBUTING.md says how to renew the list after a change that was meant.')


def check_use(reader, server):
    assert run(reader) == '/greet: Hello\n'
    with subprocess.Popen([server], stderr=subprocess.PIPE, text=True) as process:
        port = re.fullmatch(r'http://127\.0\.0\.1:(\d+)/\n', process.stderr.readline())[1]
        with programs.Client(int(port)) as client:
            client.send(programs.request(b'<soap/>'))
            assert client.answer()[::2] == (200, b'<parts>0</parts>')
        process.kill()


def check_project(folder, cmake, compiler, *settings):
    run(cmake, '-G', 'Ninja', '-S', SOURCES / 'tests/install/consumer', '-B', folder,
        f'-DEXAMPLES={EXAMPLES}', f'-DCMAKE_CXX_COMPILER={compiler[0]}',
        f'-DCMAKE_CXX_FLAGS={shlex.join(compiler[1:])}', *settings)
    run(cmake, '--build', folder, '-j2')
    check_use(folder / 'reader', folder / 'server')


def check_pkg_config(prefix, compiler, folder):
    where = {**os.environ, 'PKG_CONFIG_PATH': str(prefix / 'lib/pkgconfig')}
    made = {'postwire': 'read_request', 'postwire-service': 'soap_server'}
    for name, example in made.items():
        words = shlex.split(run('pkg-config', '--cflags', '--libs', name, env=where))
        [libraries] = shlex.split(run('pkg-config', '--variable=libdir', name, env=where))
        run(*compiler, '-std=c++17', EXAMPLES / f'{example}.cpp', *words,
            f'-Wl,-rpath,{libraries}', '-o', folder / example)
    check_use(*(folder / example for example in made.values()))


def check_programs(folder):
    """Names are resolved by the module that stands beside the libraries."""
    programs.FOLDER = folder
    with programs.Server() as server:
        run(folder / 'postwire-send', f'http://localhost:{server.port}/', '--body', __file__,
            env={name: value for name, value in os.environ.items() if name != 'QOR_MODULE_PATH'})


def package_of(path):
    if re.match('bin/|share/(man|bash-completion)/', path):
        return 'postwire-tools'
    family = 'libpostwire' if path.startswith('share/') or 'service' not in path else 'libpostwire-service'
    return family + ('0' if re.search(r'\.so\.\d|Interface\.so$', path) else '-dev')


def check_packages(folder, build, cpack, installed):
    """They hold what is installed, the libraries in the folder of their architecture, and what
    Debian asks of every package."""
    run(cpack, '-G', 'DEB', '-B', folder, '--config', build / 'CPackConfig.cmake')
    packages = sorted(folder.glob('*.deb'))
    assert [path.name.split('_')[0] for path in packages] == list(PACKAGES), packages
    for path in packages:
        name = path.name.split('_')[0]
        run('dpkg-deb', '-x', path, folder / name)
        held = {re.sub('^lib/[^/]+-linux-gnu/', 'lib/', file)
                for file in files_under(folder / name / 'usr')}
        expected = {file for file in installed if package_of(file) == name}
        expected |= {f'share/doc/{name}/{file}' for file in ('copyright', 'changelog.gz')}
        assert held == expected, (name, held ^ expected)
        needs = run('dpkg-deb', '-f', path, 'Depends')
        assert set(re.findall(r'(libpostwire[-\w]*|libstdc\+\+6) \(', needs)) == PACKAGES[name], needs


def main(build, cmake, cpack, *compiler):
    build = pathlib.Path(build)
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        run(cmake, '--install', build, '--prefix', folder / 'first')
        prefix = (folder / 'first').rename(folder / 'moved here')
        check_headers(prefix / 'include/postwire', compiler)
        check_exports(prefix / 'lib')
        check_project(folder / 'package', cmake, compiler, f'-DCMAKE_PREFIX_PATH={prefix}')
        check_project(folder / 'sources', cmake, compiler, f'-DSOURCES={SOURCES}')
        check_pkg_config(prefix, compiler, folder)
        if (prefix / 'bin').exists():
            check_programs(prefix / 'bin')
        if cpack != '-':
            check_packages(folder / 'packages', build, cpack, files_under(prefix))


main(*sys.argv[1:])
