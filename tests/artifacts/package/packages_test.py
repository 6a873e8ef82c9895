#!/usr/bin/env python3
"""Checks the Debian packages that script/package has built, and installs them into new root directories.

Usage: packages_test.py DIRECTORY      with the packages, and their build trees build-ARCHITECTURE
"""

import glob
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest

import orv_test

LIBRARY = "liborvfileutils0"
SYSTEM = ("libc6", "libgcc-s1", "libstdc++6")
STRIPPED_BYTES = 48 * 1024  # for both libraries on the device
directory = ""


def run(*command, **options):
    done = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(command)}: {done.returncode}\n{done.stdout}")
    return done.stdout


NATIVE = run("dpkg", "--print-architecture").strip()


def built(architecture):
    """Returns the packages of an architecture by name."""
    paths = glob.glob(os.path.join(directory, f"*_{architecture}.deb"))
    return {os.path.basename(path).split("_")[0]: path for path in paths}


def field(package, name):
    return run("dpkg-deb", "--field", package, name).strip()


def files(package):
    """Returns the files of a package, without directories, with their sizes."""
    found = {}
    for line in run("dpkg-deb", "--contents", package).splitlines():
        mode, _, size, _, _, name = line.split(None, 5)
        if mode[0] == "-":
            found[name[1:]] = int(size)
    return found


def is_program(path):
    if not os.path.isfile(path) or os.path.islink(path):
        return False
    with open(path, "rb") as file:
        return file.read(4) == b"\x7fELF"


class Root:
    """A directory that dpkg uses as the root of a machine. It has everything that the libraries need."""

    def __init__(self, path, architectures):
        self.path = path
        for folder in ("info", "updates"):
            os.makedirs(os.path.join(path, "var/lib/dpkg", folder))
        for name in ("status", "available"):
            with open(os.path.join(path, "var/lib/dpkg", name), "w", encoding="utf-8"):
                pass
        for architecture in architectures:
            if architecture != NATIVE:
                self.dpkg("--add-architecture", architecture)
            for name in SYSTEM:
                self.install(self.make(name, architecture, "99", "Multi-Arch: same"))

    def dpkg(self, *arguments):
        return run("dpkg", f"--root={self.path}", "--force-not-root", "--force-script-chrootless",
                   "--log=/dev/null", *arguments)

    def make(self, name, architecture, version, *fields):
        """Makes a package with these fields and without files."""
        content = os.path.join(self.path, "new", f"{name}-{architecture}")
        os.makedirs(os.path.join(content, "DEBIAN"))
        with open(os.path.join(content, "DEBIAN/control"), "w", encoding="utf-8") as control:
            control.write("\n".join([
                f"Package: {name}", f"Version: {version}", f"Architecture: {architecture}", *fields,
                "Maintainer: Test <test@example.org>", "Description: test", ""]))
        run("dpkg-deb", "--root-owner-group", "--build", content, f"{content}.deb")
        return f"{content}.deb"

    def install(self, *packages):
        self.dpkg("--install", *packages)

    def installed(self):
        """Returns "name:architecture version" for each package that is configured."""
        lines = self.dpkg("--list").splitlines()
        return {tuple(line.split()[1:4]) for line in lines if line.startswith("ii")}


class PackagesTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory(prefix="orv_test.")
        self.addCleanup(self.directory.cleanup)

    def path(self, *names):
        return os.path.join(self.directory.name, *names)

    def of_version(self, version):
        """Makes packages of the native library with another version, from the same build."""
        build = os.path.join(directory, f"build-{NATIVE}")
        before = run("sed", "-n", "s/^ORV_PACKAGE_VERSION:STRING=//p", os.path.join(build, "CMakeCache.txt")).strip()
        output = self.path(version)
        try:
            run("cmake", f"-DORV_PACKAGE_VERSION={version}", build)
            run("cpack", "--config", os.path.join(build, "CPackConfig.cmake"), "-B", output,
                "-D", "CPACK_COMPONENTS_ALL=runtime;development")
        finally:
            run("cmake", f"-DORV_PACKAGE_VERSION={before}", build)
        return {os.path.basename(path).split("_")[0]: path for path in glob.glob(os.path.join(output, "*.deb"))}

    def demands_of_a_program(self, packages):
        """Returns the dependencies that dpkg-shlibdeps finds for a program that was built with these packages."""
        content = self.path("content")
        run("dpkg-deb", "--raw-extract", packages[LIBRARY], content)
        run("dpkg-deb", "--extract", packages["liborvfileutils-dev"], content)
        folder = os.path.dirname(glob.glob(f"{content}/usr/lib/**/libOrvFileUtils.so", recursive=True)[0])
        program = self.path("program")
        run("g++", f"-I{content}/usr/include", os.path.join(orv_test.ROOT, "tests/artifacts/package/outside/program.cpp"),
            f"-L{folder}", "-lOrvFileUtils", "-lOrvStrUtils", "-lDlogStderr", "-o", program)
        os.makedirs(self.path("debian"))
        with open(self.path("debian/control"), "w", encoding="utf-8") as control:
            control.write("Source: program\n\nPackage: program\nArchitecture: any\n")
        said = run("dpkg-shlibdeps", f"-S{content}", "-O", program, cwd=self.directory.name)
        return re.search(r"shlibs:Depends=(.*)", said)[1]

    def test_a_program_built_with_one_release_installs_beside_the_next(self):
        old, new = self.of_version("0.1.0"), self.of_version("0.1.1")
        demands = self.demands_of_a_program(old)
        self.assertIn(f"{LIBRARY} (>= 0.1.0", demands)
        root = Root(self.path("root"), [NATIVE])
        program = root.make("program", NATIVE, "1", f"Depends: {demands}")
        with self.assertRaisesRegex(AssertionError, f"program depends on {LIBRARY}"):
            root.install(program)
        root.install(new[LIBRARY], program)
        self.assertTrue({("program", "1", NATIVE), (f"{LIBRARY}:{NATIVE}", "0.1.1", NATIVE)} <= root.installed(),
                        root.installed())
        root.install(old[LIBRARY])
        self.assertIn((f"{LIBRARY}:{NATIVE}", "0.1.0", NATIVE), root.installed())

    def test_the_libraries_of_both_machines_install_beside_each_other(self):
        if not built("powerpc"):
            self.skipTest("only one architecture was built")
        root = Root(self.path("root"), [NATIVE, "powerpc"])
        packages = [built(architecture)[name] for architecture in (NATIVE, "powerpc")
                    for name in (LIBRARY, f"{LIBRARY}-dbgsym")]
        root.install(*packages)
        for package in packages:
            self.assertEqual("same", field(package, "Multi-Arch"))
            for name in files(package):
                self.assertTrue(os.path.exists(root.path + name), name)
        self.assertEqual({NATIVE, "powerpc"}, {item[2] for item in root.installed() if item[0].startswith(LIBRARY)})

    def test_a_package_of_libraries_runs_no_script(self):
        for path in glob.glob(os.path.join(directory, f"{LIBRARY}_*.deb")):
            for script in ("preinst", "postinst", "prerm", "postrm"):
                with self.assertRaises(AssertionError):
                    run("dpkg-deb", "--info", path, script)
            self.assertEqual("activate-noawait ldconfig\n", run("dpkg-deb", "--info", path, "triggers"))

    def test_the_libraries_of_the_device_are_small_and_demand_little(self):
        if not built("powerpc"):
            self.skipTest("not built for the device")
        library = built("powerpc")[LIBRARY]
        sizes = [size for name, size in files(library).items() if ".so." in name]
        self.assertEqual(2, len(sizes))
        self.assertLess(sum(sizes), STRIPPED_BYTES)
        for package in (library, built("powerpc")["orvfile"]):
            # Not those of the machine that builds.
            self.assertRegex(field(package, "Depends"),
                             r"libc6 \(>= 2\.34\), libgcc-s1 \(>= 3\.0\), libstdc\+\+6 \(>= 11\)$")

    def test_each_program_and_library_has_its_debug_information(self):
        for architecture in (NATIVE, "powerpc"):
            packages = built(architecture)
            for name in (LIBRARY, "orvfile", "orv-statusboard") if packages else ():
                content = self.path(f"{name}-{architecture}")
                run("dpkg-deb", "--extract", packages[name], content)
                elves = [path for path in glob.glob(f"{content}/usr/**", recursive=True) if is_program(path)]
                self.assertTrue(elves)
                debug = files(packages[f"{name}-dbgsym"])
                for path in elves:
                    build_id = re.search(r"Build ID: (\w\w)(\w+)", run("readelf", "--notes", "--wide", path))
                    self.assertIn(f"/usr/lib/debug/.build-id/{build_id[1]}/{build_id[2]}.debug", debug)
                    self.assertNotIn(" .debug_info", run("readelf", "--sections", "--wide", path))

    def test_the_package_of_the_status_board_has_its_settings_and_its_service(self):
        package = built(NATIVE)["orv-statusboard"]
        self.assertTrue({"/usr/bin/statusboard", "/etc/statusboard.conf",
                         "/usr/lib/systemd/system/statusboard.service"} <= set(files(package)), files(package))
        self.assertEqual("/etc/statusboard.conf\n", run("dpkg-deb", "--info", package, "conffiles"))
        content = self.path("content")
        run("dpkg-deb", "--extract", package, content)
        with open(f"{content}/usr/lib/systemd/system/statusboard.service", encoding="utf-8") as unit:
            self.assertRegex(unit.read(), r"(?m)^ExecStart=/usr/bin/statusboard .* /etc/statusboard\.conf$")

    def test_the_documents_and_the_example_have_a_package_for_every_machine(self):
        package = built("all")["orvfileutils-doc"]
        folder = "/usr/share/doc/orvfileutils-doc"
        self.assertEqual(
            {f"{folder}/{name}" for name in (
                "caveats.md", "changelog.gz", "diagnostics.md", "examples/statusboard.cpp", "security.md")},
            set(files(package)))

    def test_each_package_has_an_spdx_document_of_its_files_and_needs(self):
        for path in glob.glob(os.path.join(directory, "*.deb")):
            with open(f"{path[:-4]}.spdx.json", encoding="utf-8") as file:
                document = json.load(file)
            self.assertEqual(("SPDX-2.3", "CC0-1.0", "SPDXRef-DOCUMENT"),
                             tuple(document[name] for name in ("spdxVersion", "dataLicense", "SPDXID")))
            package = document["packages"][0]
            self.assertEqual((field(path, "Package"), field(path, "Version"), "NONE"),
                             tuple(package[name] for name in ("name", "versionInfo", "licenseDeclared")))
            self.assertEqual(run("sha256sum", path).split()[0], package["checksums"][0]["checksumValue"])
            content = self.path(f"sbom-{os.path.basename(path)}")
            run("dpkg-deb", "--extract", path, content)
            sums = run("find", ".", "-type", "f", "-exec", "sha256sum", "{}", "+", cwd=content)
            self.assertEqual(
                sorted(tuple(reversed(line.split(maxsplit=1))) for line in sums.splitlines()),
                sorted((entry["fileName"], entry["checksums"][1]["checksumValue"]) for entry in document["files"]))
            names = {entry["SPDXID"]: entry["name"] for entry in document["packages"]}
            related = {kind: {names[item["relatedSpdxElement"]] for item in document["relationships"]
                              if item["relationshipType"] == kind} for kind in ("DEPENDS_ON", "STATIC_LINK")}
            self.assertEqual(set(re.findall(r"(?:^|, )(\S+)", field(path, "Depends"))), related["DEPENDS_ON"])
            if field(path, "Package") == "orvfile":
                own = {"libcsv"} if field(path, "Architecture") == "powerpc" else set()
                self.assertEqual({"cli11", "nlohmann-json3"} | own, related["STATIC_LINK"])

    def test_no_package_names_the_build_tree(self):
        tree = os.fsencode(os.path.realpath(directory))
        for path in glob.glob(os.path.join(directory, "*.deb")):
            content = self.path(os.path.basename(path))
            run("dpkg-deb", "--raw-extract", path, content)
            for folder, _, names in os.walk(content):
                for name in names:
                    file = os.path.join(folder, name)
                    if not os.path.islink(file):
                        with open(file, "rb") as text:
                            self.assertNotIn(tree, text.read(), name)


if __name__ == "__main__":
    directory = os.path.abspath(sys.argv.pop())
    orv_test.run_unittests()
