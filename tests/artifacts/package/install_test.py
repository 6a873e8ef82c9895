#!/usr/bin/env python3
"""Installs the build under an unusual prefix and uses the installed files as another project does.

  install_test.py files            exactly the reviewed files, and the links that the loader and the linker look for
  install_test.py no_foreign_path  nothing installed names the source tree, the build tree or the configured prefix
  install_test.py cmake            find_package() of an installation that was moved
  install_test.py version          find_package() refuses a version that may not fit
  install_test.py two_logs         CMake refuses a program that links two substitutes for the log
  install_test.py pkg_config       make and each pkg-config, with an installation that was moved
  install_test.py sysroot          each pkg-config with an installation staged by DESTDIR
  install_test.py system_paths     each pkg-config with an installation below /usr
  install_test.py components       find_package() refuses a component, because there are none
  install_test.py add_subdirectory the library's sources as a part of a project that hides symbols and optimises at
                                   link time; the project installs its own files alone
  install_test.py static           FetchContent and static libraries for programs linked with -static, then the same
                                   installed
  install_test.py tool             the installed orvfile runs where it was moved
"""

import glob
import os
import re
import shlex
import shutil
import subprocess
import tempfile

import building
import orv_test

HERE = os.path.dirname(os.path.abspath(__file__))

ODD = os.fsdecode(b"odd pr\xc3\xa4fix \xff")  # blanks, UTF-8, and a byte that is not UTF-8
ODD_ROOT = os.fsdecode(b"odd-r\xc3\xb6\xc3\xb6t-\xff")  # pkgconf 1.8 fails with a blank in PKG_CONFIG_SYSROOT_DIR
LINE = "MakeDirPath: Create '/orv-outside' directory failed."


def run(*command, **options):
    """Returns the output of the command. If the command fails, the test fails and prints the output."""
    result = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, errors="surrogateescape", check=False, **options)
    if result.returncode != 0:
        problem = f"{' '.join(command)}: {result.returncode}\n{result.stdout}"
        orv_test.finish([problem.encode(errors="replace").decode()])
    return result.stdout


class Installation:
    """The build, installed into a new directory and then moved; beside it, a project that uses it."""

    def __init__(self, options, directory):
        self.options = options
        self.directory = directory
        first = os.path.join(directory, f"first {ODD}")
        self.first = os.path.join(first, "prefix")
        run(options.cmake, "--install", options.build, "--prefix", self.first)
        self.prefix = os.path.join(directory, ODD, "prefix")
        os.rename(first, os.path.dirname(self.prefix))
        self.project = os.path.join(directory, "project")
        self.build = os.path.join(self.project, "build")
        shutil.copytree(os.path.join(HERE, "outside"), self.project)

    def path(self, *names):
        return os.path.join(self.prefix, *names)

    def configure(self, *definitions):
        """Returns the command that configures the other project with CMake."""
        options = self.options
        target = [f"--toolchain={options.toolchain}"] if options.toolchain else []
        return [
            options.cmake, "-S", self.project, "-B", self.build, *target,
            f"-DCMAKE_CXX_COMPILER={options.compiler[0]}", f"-DCMAKE_CXX_FLAGS={' '.join(options.compiler[1:])}",
            "-DCMAKE_BUILD_TYPE=Debug", *definitions]

    def check_build(self, *definitions):
        """Builds the outside project by CMake; the problems of its programs."""
        run(*self.configure(*definitions))
        run(self.options.cmake, "--build", self.build)
        return self.check_programs(self.build)

    def string_abi(self):
        """What a build of the sources is told about its std::string."""
        return [] if self.options.cxx11_abi else ["-DORV_CXX11_ABI=OFF"]

    def found(self):
        """Says how CMake finds the package: by its prefix; in a cross build, by the path of the package itself."""
        if self.options.toolchain:
            return f"-DOrvFileUtils_DIR={self.path(self.options.libdir, 'cmake', 'OrvFileUtils')}"
        return f"-DCMAKE_PREFIX_PATH={self.prefix}"

    def make(self, libraries, **environment):
        """Builds the other project with make."""
        compiler, *flags = self.options.compiler
        quoted = f"'-Wl,-rpath,{libraries}'"
        run("make", "-C", self.project, f"CXX={compiler}", f"CXXFLAGS={' '.join(flags)}", f"LDFLAGS={quoted}",
            env={**os.environ, **environment})

    def check_programs(self, directory):
        """Returns the problems of the other programs, which are in that directory."""
        problems = []
        for name, expected in (
            ("with_stderr", ["1 cell:cell;", f"LxFileUtils.cpp: {LINE}"]),
            ("with_syslog", ["1 cell:cell;"]),
            ("with_memory", [f"LxFileUtils.cpp: {LINE}"]),
            ("with_safe", ["&#60 0", "orv_safe: MakeDirectory: mkdir(/proc/orv-outside) failed (2, "]),
            ("with_own_log", [f"device: 3 LxFileUtils.cpp: {LINE}"]),
        ):
            said = run(*self.options.emulator, os.path.join(directory, name))
            problems += [f"{name} did not say '{text}' but:\n{said}" for text in expected if text not in said]
        return problems


def files_below(directory):
    return {os.path.relpath(os.path.join(place, name), directory)
            for place, _, names in os.walk(directory) for name in names}  # fmt: skip


def files(installation):
    libdir = installation.options.libdir
    config = installation.options.config.lower()
    with open(os.path.join(HERE, "installed.txt"), encoding="utf-8") as file:
        expected = {line.replace("LIBDIR", libdir).replace("CONFIG", config).replace("VERSION", orv_test.VERSION) for line in file.read().splitlines()}
    if not installation.options.tool:
        expected -= {line for line in expected if "orvfile" in line}
    found = files_below(installation.prefix)
    problems = [f"not installed: {name}" for name in sorted(expected - found)]
    problems += [f"installed, but not in the reviewed list: {name}" for name in sorted(found - expected)]
    for name in ("libOrvFileUtils.so", "libOrvStrUtils.so"):
        for link, target in ((name, f"{name}.0"), (f"{name}.0", f"{name}.{orv_test.VERSION}")):
            if os.readlink(installation.path(libdir, link)) != target:
                problems.append(f"{link} does not lead to {target}")
    return problems


def no_foreign_path(installation):
    options = installation.options
    foreign = [orv_test.ROOT, os.path.realpath(options.build), options.prefix, installation.directory]
    pattern = re.compile(b"|".join(re.escape(os.fsencode(path)) + rb"[^\0\n]*" for path in foreign))
    problems = []
    for directory, _, names in os.walk(installation.prefix):
        for name in names:
            with open(os.path.join(directory, name), "rb") as file:
                text = file.read()
            if name.endswith((".pc", ".service")):  # name the prefix that they were installed with
                for prefix in (installation.first, installation.first.replace(" ", "\\ ")):
                    text = text.replace(os.fsencode(prefix), b"")
            problems += [f"{name} names {path!r}" for path in sorted(set(pattern.findall(text)))]
    return problems


def cmake(installation):
    return installation.check_build(installation.found(), f"-DORV_WANTED={orv_test.VERSION}")


def refusal(installation, sign, *definitions):
    """Problems where CMake does not refuse the project with a message that has the sign."""
    result = subprocess.run(
        installation.configure(installation.found(), *definitions), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        errors="replace", check=False)
    refused = result.returncode != 0 and sign in result.stdout
    return [] if refused else [f"{definitions} was not refused with '{sign}':\n{result.stdout}"]


def version(installation):
    major, minor, _ = map(int, orv_test.VERSION.split("."))
    return [problem for wanted in (f"{major}.{minor + 1}", f"{major + 1}.0")
            for problem in refusal(installation, f"version: {orv_test.VERSION}", f"-DORV_WANTED={wanted}")]


def components(installation):
    return refusal(installation, "has no components", f"-DORV_WANTED={orv_test.VERSION}", "-DORV_COMPONENTS=Nonsense")


def two_logs(installation):
    return refusal(installation, "ORV_LOG", f"-DORV_WANTED={orv_test.VERSION}", "-DORV_TWO_LOGS=ON")


def check_flags(installation, libraries, *words, **environment):
    """Returns the problems of what each pkg-config prints for the libraries in that directory."""
    expected = ["-I" + re.sub(f"{re.escape(installation.options.libdir)}$", "include", libraries), f"-L{libraries}",
                "-Wl,-u,__dlog_printf", "-lOrvFileUtils", "-lOrvStrUtils"]
    problems = []
    for program in installation.options.pkg_config:
        said = run(program, *words, "--cflags", "--libs", "OrvFileUtils", env={**os.environ, **environment})
        found = [word for word in shlex.split(said) if not word.startswith("-D")]
        if list(map(os.fsencode, dict.fromkeys(found))) != list(map(os.fsencode, expected)):
            problems.append(f"{program} says {found!r} instead of {expected!r}")
    return problems


def pkg_config(installation):
    """Tests an installation that was not moved, and then one that was, with the programs."""
    options = installation.options
    prefix = os.path.join(installation.directory, f"second {ODD}")
    run(options.cmake, "--install", options.build, "--prefix", prefix)
    libraries = os.path.join(prefix, options.libdir)
    problems = check_flags(installation, libraries, PKG_CONFIG_PATH=os.path.join(libraries, "pkgconfig"))

    libraries = installation.path(options.libdir)
    found = {"PKG_CONFIG_PATH": os.path.join(libraries, "pkgconfig")}
    problems += check_flags(installation, libraries, "--define-prefix", **found)
    installation.make(libraries, PKG_CONFIG="pkg-config --define-prefix", **found)
    return problems + installation.check_programs(installation.project)


def sysroot(installation):
    options = installation.options
    root = os.path.join(installation.directory, ODD_ROOT)
    run(options.cmake, "--install", options.build, env={**os.environ, "DESTDIR": root})
    libraries = root + os.path.join(options.prefix, options.libdir)
    found = {"PKG_CONFIG_LIBDIR": os.path.join(libraries, "pkgconfig"), "PKG_CONFIG_SYSROOT_DIR": root}
    problems = check_flags(installation, libraries, **found)
    installation.make(libraries, PKG_CONFIG="pkg-config", **found)
    return problems + installation.check_programs(installation.project)


def system_paths(installation):
    """Below /usr, compilers search the include directory anyway, and a sysroot appears once."""
    options = installation.options
    root = os.path.join(installation.directory, "root")
    run(options.cmake, "--install", options.build, "--prefix", "/usr", env={**os.environ, "DESTDIR": root})
    folder = os.path.join(root, "usr", options.libdir, "pkgconfig")
    problems = []
    for name in sorted(os.listdir(folder)):
        with open(os.path.join(folder, name), encoding="utf-8") as file:
            text = file.read()
        # pkg-config 0.29.2 puts the sysroot before every path, though ${pcfiledir} is inside it already.
        if "pcfiledir" in text or not text.startswith("prefix=/usr\n"):
            problems.append(f"{name} doubles the sysroot:\n{text}")
    for program in options.pkg_config:
        def flags(**environment):
            said = run(program, "--cflags", "OrvFileUtils", env={
                **os.environ, "PKG_CONFIG_LIBDIR": folder, **environment})
            return [word for word in said.split() if not word.startswith("-D")]

        inside = f"-I{root}/usr/include"
        everything = flags(PKG_CONFIG_SYSROOT_DIR=root, PKG_CONFIG_ALLOW_SYSTEM_CFLAGS="1")
        if set(everything) != {inside}:
            problems.append(f"{program}: {everything} in a sysroot, instead of {inside}")
        if flags():
            problems.append(f"{program} does not take {flags()} for a system path")
    return problems


def add_subdirectory(installation):
    installation.options.compiler += ["-fvisibility=hidden", "-flto"]
    problems = installation.check_build(f"-DORV_SOURCE={orv_test.ROOT}", *installation.string_abi())
    prefix = os.path.join(installation.directory, "installed")
    run(installation.options.cmake, "--install", installation.build, "--prefix", prefix)
    installed = files_below(prefix)
    return problems + ([] if installed == {"bin/with_stderr"} else [f"the project installed {sorted(installed)}"])


def static(installation):
    """First as a part of the project, which installs the library, too; then what it installed."""
    options = installation.options
    options.compiler += ["-static"]
    problems = installation.check_build(
        f"-DORV_FETCH={orv_test.ROOT}", "-DBUILD_SHARED_LIBS=OFF", "-DORV_INSTALL=ON",
        f"-DCMAKE_INSTALL_LIBDIR={options.libdir}", *installation.string_abi())
    installation.prefix = os.path.join(installation.directory, "installed")
    run(options.cmake, "--install", installation.build, "--prefix", installation.prefix)
    libraries = installation.path(options.libdir)
    if glob.glob(os.path.join(libraries, "*.so*")) or not os.path.exists(os.path.join(libraries, "libOrvFileUtils.a")):
        problems.append(f"not the static libraries were installed, but {os.listdir(libraries)}")

    shutil.rmtree(installation.build)
    problems += installation.check_build(installation.found(), f"-DORV_WANTED={orv_test.VERSION}")
    installation.make(libraries, PKG_CONFIG="pkg-config", PKG_CONFIG_PATH=os.path.join(libraries, "pkgconfig"))
    return problems + installation.check_programs(installation.project)


def tool(installation):
    said = run(*installation.options.emulator, installation.path("bin", "orvfile"), "--version")
    return [] if orv_test.VERSION in said else [f"orvfile said:\n{said}"]


CHECKS = {check.__name__: check for check in (
    files, no_foreign_path, cmake, version, components, two_logs, pkg_config, sysroot, system_paths, add_subdirectory,
    static, tool)}

# The requirements of the checks.
PROGRAMS = {
    "pkg_config": ["make", "pkg-config"], "sysroot": ["make", "pkg-config"], "static": ["make", "pkg-config"],
    "system_paths": ["pkg-config"]}


def main():
    parser = building.parser(__doc__, CHECKS)
    parser.add_argument("--cmake", required=True, help="the program")
    parser.add_argument("--build", required=True, help="the build directory")
    parser.add_argument("--prefix", required=True, help="the prefix that it was configured with")
    parser.add_argument("--libdir", required=True, help="the directory of the libraries below the prefix")
    parser.add_argument("--config", required=True, help="the build type")
    parser.add_argument("--toolchain", help="CMake's file of a cross compiler")
    parser.add_argument("--pkg-config", action="append", default=[], help="an implementation of pkg-config")
    parser.add_argument("--tool", action="store_true", help="orvfile was built")
    parser.add_argument("--cxx11-abi", action="store_true", help="built with the std::string of C++11")
    options = parser.parse_args()
    building.require_compiler(options)
    for program in PROGRAMS.get(options.check, []):
        orv_test.require(program)
    with tempfile.TemporaryDirectory(prefix="orv_test.") as directory:
        problems = CHECKS[options.check](Installation(options, directory))
    orv_test.finish(problems)


if __name__ == "__main__":
    main()
