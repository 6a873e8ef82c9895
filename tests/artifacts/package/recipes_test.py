#!/usr/bin/env python3
"""Builds the recipes of contrib/ with the commands that the build systems run for a recipe that uses CMake.

  recipes_test.py yocto      as bitbake's cmake class does: flags and a sysroot in a toolchain file, then DESTDIR
  recipes_test.py buildroot  as Buildroot's cmake-package does: GNU make reads the package, installs into staging
                             directory and target directory; Kconfig reads its options
"""

import fnmatch
import json
import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import textwrap

import building
import orv_test

HERE = os.path.dirname(os.path.abspath(__file__))
CONTRIB = os.path.join(orv_test.ROOT, "contrib")
LIBRARIES = ["OrvFileUtils", "OrvStrUtils"]

# What distributions set, in all they build.
COMPILE_FLAGS = ["-Os", "-pipe", "-g"]
LINK_FLAGS = ["-Wl,-O1", "-Wl,--hash-style=gnu", "-Wl,--as-needed"]

# A compiler cache would hand over objects with other directories in them.
ALWAYS = {"CMAKE_EXPORT_COMPILE_COMMANDS": "ON", "CCACHE_DISABLE": "1"}


def run(*command, **environment):
    """What the command said; the test fails with it when the command does."""
    done = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
        env={**os.environ, **ALWAYS, **environment})
    if done.returncode != 0:
        orv_test.finish([f"{shlex.join(command)}: {done.returncode}\n{done.stdout}"])
    return done.stdout


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(textwrap.dedent(text))
    return path


def files_below(root):
    return sorted(
        os.path.relpath(os.path.join(directory, name), root) for directory, _, names in os.walk(root) for name in names)


def bytes_of(path):
    with open(path, "rb") as file:
        return file.read()


# ---- What both check


def unused_options(log, own):
    """Options of the recipe that the project does not know."""
    warning = log.partition("Manually-specified variables were not used by the project")[2]
    return [f"{option} is not an option of the project" for option in own
            if re.search(rf"(?m)^ +{re.escape(option.split('=')[0][2:])}$", warning)]  # fmt: skip


def commands_of_others(build):
    """Commands that do not compile as the build system said."""
    commands = json.loads(bytes_of(os.path.join(build, "compile_commands.json")))
    problems = [] if len(commands) > 4 else [f"only {len(commands)} files were compiled"]
    for command in commands:
        words = command["command"].split()
        levels = [word for word in words if re.match("-O", word)]
        if levels[-1:] != ["-Os"] or not set(COMPILE_FLAGS) < set(words):
            problems.append(f"not compiled with the distribution's flags: {command['command']}")
    return problems


def installed_for(root, libraries, options, build):
    """Problems of the files installed below root: libraries of the target that name no directory of the build."""
    problems = []
    for name in LIBRARIES:
        path = os.path.join(root, libraries, f"lib{name}.so.{orv_test.VERSION}")
        dynamic = run(options.readelf, "--file-header", "--dynamic", path)
        if "PowerPC" not in dynamic or f"Library soname: [lib{name}.so.0]" not in dynamic:
            problems.append(f"not the library of the target: {path}\n{dynamic}")
        if "(GNU_HASH)" not in dynamic or "(HASH)" in dynamic:
            problems.append(f"{name} was not linked with the distribution's flags")
        if re.search("RPATH|RUNPATH", dynamic):
            problems.append(f"{name} has a run path, which belongs to the distribution")
    for name in files_below(root):
        content = bytes_of(os.path.join(root, name))
        problems += [f"{name} names {path}" for path in (orv_test.ROOT, build, root) if os.fsencode(path) in content]
    return problems


def used_by_a_program(staged, target, toolchain, options, directory):
    """Problems of a program that finds the library in the staging directory and runs with what is on the target."""
    project = os.path.join(directory, "outside")
    shutil.copytree(os.path.join(HERE, "outside"), project)
    build = os.path.join(directory, "outside build")
    run("cmake", "-S", project, "-B", build, f"--toolchain={toolchain}")
    run("cmake", "--build", build)
    with open(os.path.join(build, "CMakeCache.txt"), encoding="utf-8") as file:
        found = re.search(r"(?m)^OrvFileUtils_DIR:PATH=(.*)$", file.read())[1]
    problems = [] if found.startswith(staged + "/") else [f"find_package found {found}, not in {staged}"]
    said = run(*options.emulator, os.path.join(build, "with_stderr"), LD_LIBRARY_PATH=os.path.join(target, "usr/lib"))
    return problems if "1 cell:cell;" in said else [*problems, f"the program said:\n{said}"]


# ---- Yocto

# Which package a file falls into, in the order in which they take it (PACKAGES, and bitbake.conf's FILES).
PACKAGES = {
    "${PN}-staticdev": ["usr/lib/*.a"],
    "${PN}-dev": ["usr/include/*", "usr/lib/lib*.so", "usr/lib/pkgconfig/*", "usr/lib/cmake/*"],
    "${PN}-doc": ["usr/share/doc/*", "usr/share/man/*"],
    "${PN}": ["usr/bin/*", "usr/lib/lib*.so.*"],
}


def read_recipe(path):
    """The variables of a recipe, and the classes that it inherits."""
    name, version = re.fullmatch(r"(.*)_(.*)\.bb", os.path.basename(path)).groups()
    text = re.sub(r"(?m)^#.*\n", "", orv_test.read(path)).replace("\\\n", "")
    variables = {"PN": name, "PV": version, "THISDIR": os.path.dirname(path)}
    classes = []
    for line in filter(None, text.splitlines()):
        inherit = re.fullmatch(r"inherit (.*)", line)
        assignment = re.fullmatch(r'([\w:${}-]+) (?:\?|\+)?= "(.*)"', line)
        if inherit:
            classes += inherit[1].split()
        elif assignment:
            variables[assignment[1]] = assignment[2]
        else:
            orv_test.finish([f"{path}: not understood: {line}"])
    for key, value in variables.items():
        variables[key] = re.sub(r"\$\{(\w+)\}", lambda found: variables[found[1]], value)
    return variables, classes


def yocto_toolchain(directory, sysroot, options):
    """The toolchain file that the cmake class writes for each recipe."""
    flags = " ".join([*COMPILE_FLAGS, f"--sysroot={sysroot}"])
    return write(os.path.join(directory, "toolchain.cmake"), f"""\
        set(CMAKE_SYSTEM_NAME Linux)
        set(CMAKE_SYSTEM_PROCESSOR powerpc)
        set(CMAKE_CXX_COMPILER {options.compiler[0]})
        set(CMAKE_CXX_FLAGS "{flags}" CACHE STRING "CXXFLAGS")
        set(CMAKE_CXX_FLAGS_RELEASE "-DNDEBUG" CACHE STRING "Additional CXXFLAGS for release")
        set(CMAKE_CXX_LINK_FLAGS "{flags} {' '.join(LINK_FLAGS)}" CACHE STRING "LDFLAGS")
        set(CMAKE_FIND_ROOT_PATH {sysroot} /usr/bin)
        set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
        set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM ONLY)
        set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
        set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
        set(CMAKE_PROGRAM_PATH "/")
        """)


def yocto(options, directory):
    (name,) = fnmatch.filter(os.listdir(os.path.join(CONTRIB, "yocto")), "*.bb")
    recipe, classes = read_recipe(os.path.join(CONTRIB, "yocto", name))
    own = shlex.split(recipe["EXTRA_OECMAKE"])
    problems = [] if recipe["PV"] == orv_test.VERSION else [f"{name} is not for version {orv_test.VERSION}"]
    if set(classes) != {"externalsrc", "cmake"}:
        problems.append(f"{name} inherits {classes}, which this test does not know")

    build, image, sysroot = (os.path.join(directory, part) for part in ("build", "image", "recipe-sysroot"))
    os.mkdir(sysroot)
    toolchain = yocto_toolchain(directory, sysroot, options)
    log = run("cmake", "-G", "Ninja", "-S", os.path.realpath(recipe["EXTERNALSRC"]), "-B", build,
              "-DCMAKE_INSTALL_PREFIX:PATH=/usr", "-DCMAKE_INSTALL_LIBDIR:PATH=lib", "-DCMAKE_INSTALL_BINDIR:PATH=bin",
              "-DCMAKE_INSTALL_INCLUDEDIR:PATH=include", "-DCMAKE_INSTALL_DATAROOTDIR:PATH=share",
              f"-DCMAKE_TOOLCHAIN_FILE:FILEPATH={toolchain}", "-DCMAKE_NO_SYSTEM_FROM_IMPORTED=1",
              "-DCMAKE_EXPORT_NO_PACKAGE_REGISTRY=ON", "-DFETCHCONTENT_FULLY_DISCONNECTED=ON", *own)  # fmt: skip
    run("cmake", "--build", build)
    run("cmake", "--build", build, "--target", "install", DESTDIR=image)

    problems += unused_options(log, own) + commands_of_others(build)
    problems += installed_for(image, "usr/lib", options, build)
    packages = {package: [] for package in PACKAGES}
    for file in files_below(image):
        owners = [package for package, patterns in PACKAGES.items() if any(fnmatch.fnmatch(file, one) for one in patterns)]
        if owners:
            packages[owners[0]].append(os.path.basename(file))
        else:
            problems.append(f"installed, but in no package: {file}")
    expected = [f"lib{library}.so.{version}" for library in LIBRARIES for version in ("0", orv_test.VERSION)]
    if sorted(packages["${PN}"]) != expected:
        problems.append(f"the package for the device has {packages['${PN}']}, not {expected}")
    # A -dev package needs the archives that the files for CMake name.
    if recipe.get("RDEPENDS:${PN}-dev") != f"{recipe['PN']}-staticdev" or not packages["${PN}-staticdev"]:
        problems.append("the -dev package does not depend on the -staticdev package")

    os.rmdir(sysroot)
    shutil.copytree(image, sysroot, symlinks=True)
    return problems + used_by_a_program(sysroot, image, toolchain, options, directory)


# ---- Buildroot

# The infrastructure, as far as a package of this kind meets it.
BUILDROOT = """\
pkgname = $(notdir $(patsubst %/,%,$(dir $(lastword $(MAKEFILE_LIST)))))
define inner-cmake-package
$(1): check-$(1)
	cmake -S $$(realpath $$($(2)_SITE)) -B $(BUILD_DIR)/$(1) -G "Unix Makefiles" \\
		-DCMAKE_TOOLCHAIN_FILE="$(TOOLCHAIN)" -DCMAKE_INSTALL_PREFIX="/usr" -DCMAKE_INSTALL_RUNSTATEDIR="/run" \\
		-DCMAKE_COLOR_MAKEFILE=OFF -DBUILD_DOC=OFF -DBUILD_DOCS=OFF -DBUILD_EXAMPLE=OFF -DBUILD_EXAMPLES=OFF \\
		-DBUILD_TEST=OFF -DBUILD_TESTS=OFF -DBUILD_TESTING=OFF -DBUILD_SHARED_LIBS=ON $$($(2)_CONF_OPTS)
	cmake --build $(BUILD_DIR)/$(1) -- -j2
	$(if $(filter YES,$($(2)_INSTALL_STAGING)),DESTDIR=$(STAGING_DIR) cmake --install $(BUILD_DIR)/$(1))
	DESTDIR=$(TARGET_DIR) cmake --install $(BUILD_DIR)/$(1)
check-$(1):
	@echo "version: $$($(2)_VERSION)"
	@echo "own options: $$($(2)_CONF_OPTS)"
	@echo "method: $$($(2)_SITE_METHOD)"
endef
cmake-package = $(call inner-cmake-package,$(pkgname),$(shell echo $(pkgname) | tr a-z- A-Z_))
all: orvfileutils
include $(BR2_EXTERNAL_ORVFILEUTILS_PATH)/external.mk
"""

# What Buildroot removes from the target directory at the end.
FINALIZED = ["usr/include/*", "usr/lib/*.a", "usr/lib/cmake/*", "usr/lib/pkgconfig/*", "usr/share/man/*", "usr/share/doc/*"]

# The symbols of Buildroot that the package's options name.
KCONFIG = """\
config BR2_INSTALL_LIBSTDCPP
	bool "C++"
config BR2_TOOLCHAIN_USES_GLIBC
	bool "glibc"
config BR2_STATIC_LIBS
	bool "static only"
source "$BR2_EXTERNAL_ORVFILEUTILS_PATH/Config.in"
"""


def buildroot_toolchain(directory, staging, options):
    return write(os.path.join(directory, "toolchainfile.cmake"), f"""\
        set(CMAKE_SYSTEM_NAME Linux)
        set(CMAKE_SYSTEM_VERSION 1)
        set(CMAKE_SYSTEM_PROCESSOR powerpc)
        set(CMAKE_CXX_FLAGS_RELEASE " -DNDEBUG" CACHE STRING "Release CXXFLAGS")
        set(CMAKE_BUILD_TYPE Release CACHE STRING "Buildroot build configuration")
        set(CMAKE_CXX_FLAGS "{' '.join(COMPILE_FLAGS)}" CACHE STRING "Buildroot CXXFLAGS")
        set(CMAKE_EXE_LINKER_FLAGS "{' '.join(LINK_FLAGS)}" CACHE STRING "Buildroot LDFLAGS for executables")
        set(CMAKE_SHARED_LINKER_FLAGS "{' '.join(LINK_FLAGS)}" CACHE STRING "Buildroot LDFLAGS for shared libraries")
        set(CMAKE_INSTALL_SO_NO_EXE 0)
        set(CMAKE_SYSROOT "{staging}")
        set(CMAKE_FIND_ROOT_PATH "{staging}")
        set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
        set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
        set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
        set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
        set(CMAKE_CXX_COMPILER {options.compiler[0]})
        """)


def kconfig_problems(external, directory):
    """The package's symbol can be set exactly where its dependencies hold."""
    sys.path.append("/usr/lib/python3/dist-packages")  # Debian's modules, whichever Python runs this
    try:
        import kconfiglib  # pylint: disable=import-outside-toplevel
    except ImportError:
        orv_test.skip("no kconfiglib (Debian package python3-kconfiglib)")
    os.environ["BR2_EXTERNAL_ORVFILEUTILS_PATH"] = external
    configuration = kconfiglib.Kconfig(write(os.path.join(directory, "Kconfig"), KCONFIG))
    symbols = configuration.syms
    problems = list(configuration.warnings)
    for cpp, glibc, static in ((2, 2, 0), (0, 2, 0), (2, 0, 0), (2, 2, 2)):
        symbols["BR2_INSTALL_LIBSTDCPP"].set_value(cpp)
        symbols["BR2_TOOLCHAIN_USES_GLIBC"].set_value(glibc)
        symbols["BR2_STATIC_LIBS"].set_value(static)
        symbols["BR2_PACKAGE_ORVFILEUTILS"].set_value(2)
        if (symbols["BR2_PACKAGE_ORVFILEUTILS"].tri_value == 2) != ((cpp, glibc, static) == (2, 2, 0)):
            problems.append(f"the package and its dependencies disagree: {cpp}, {glibc}, {static}")
    return problems


def buildroot(options, directory):
    external = os.path.join(CONTRIB, "buildroot")
    problems = kconfig_problems(external, directory)
    if "name: ORVFILEUTILS\n" not in orv_test.read(external, "external.desc"):
        problems.append("external.desc does not name the variable that the other files use")

    build, staging, target = (os.path.join(directory, part) for part in ("build", "staging", "target"))
    os.mkdir(staging)
    toolchain = buildroot_toolchain(directory, staging, options)
    log = run("make", "-f", write(os.path.join(directory, "Makefile"), BUILDROOT), f"BUILD_DIR={build}",
              f"STAGING_DIR={staging}", f"TARGET_DIR={target}", f"TOOLCHAIN={toolchain}",
              f"BR2_EXTERNAL_ORVFILEUTILS_PATH={external}")  # fmt: skip
    if f"version: {orv_test.VERSION}\n" not in log or "method: local\n" not in log:
        problems.append(f"the package is not for version {orv_test.VERSION}, or not of local sources")
    own = re.search(r"(?m)^own options: (.*)$", log)[1].split()
    build = os.path.join(build, "orvfileutils")
    problems += unused_options(log, own) + commands_of_others(build)
    problems += installed_for(target, "usr/lib", options, build) + installed_for(staging, "usr/lib", options, build)

    for name in files_below(target):
        if any(fnmatch.fnmatch(name, pattern) for pattern in FINALIZED):
            os.unlink(os.path.join(target, name))
    expected = sorted(f"usr/lib/lib{name}.so{version}" for name in LIBRARIES for version in ("", ".0", f".{orv_test.VERSION}"))
    if files_below(target) != expected:
        problems.append(f"the target has {files_below(target)}, not {expected}")
    return problems + used_by_a_program(staging, target, toolchain, options, directory)


def main():
    checks = {"yocto": yocto, "buildroot": buildroot}
    parser = building.parser(__doc__, checks)
    parser.add_argument("--readelf", required=True, help="for files of the target")
    options = parser.parse_args()
    building.require_compiler(options)
    orv_test.require("make")
    with tempfile.TemporaryDirectory(prefix="orv_test.") as directory:
        problems = checks[options.check](options, directory)
    orv_test.finish(problems)


if __name__ == "__main__":
    main()
