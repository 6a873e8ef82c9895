#!/usr/bin/env python3
"""Writes an SPDX 2.3 document for a Debian package: PACKAGE.spdx.json beside PACKAGE.deb. It lists each file with its
checksums, the packages that this one depends on, and what was compiled into it.

Usage: script/sbom.py PACKAGE.deb [NAME=VERSION...]      NAME=VERSION was compiled into the package

The date is that of SOURCE_DATE_EPOCH. No licence is stated: none is granted yet.
"""

import datetime
import hashlib
import json
import os
import re
import subprocess
import sys
import tempfile
import uuid

UNKNOWN = "NOASSERTION"


def field(package, name):
    return subprocess.run(["dpkg-deb", "--field", package, name], check=True, stdout=subprocess.PIPE, text=True).stdout.strip()


def checksums(content, *algorithms):
    return [{"algorithm": name, "checksumValue": hashlib.new(name.lower(), content).hexdigest()} for name in algorithms]


def read(path):
    with open(path, "rb") as file:
        return file.read()


def files_of(package):
    """The entry of each file of the package, sorted by name. Symbolic links have no content."""
    found = []
    with tempfile.TemporaryDirectory(prefix="orv_sbom.") as root:
        subprocess.run(["dpkg-deb", "--extract", package, root], check=True)
        for directory, _, names in os.walk(root):
            paths = [os.path.join(directory, name) for name in names]
            found += [(os.path.relpath(path, root), read(path)) for path in paths if not os.path.islink(path)]
    return [{
        "fileName": f"./{name}",
        "SPDXID": f"SPDXRef-File-{number}",
        "checksums": checksums(content, "SHA1", "SHA256"),
        "licenseConcluded": UNKNOWN,
        "licenseInfoInFiles": [UNKNOWN],
        "copyrightText": UNKNOWN,
    } for number, (name, content) in enumerate(sorted(found))]


def verification_code(files):
    """As SPDX defines it: the checksum of the sorted checksums."""
    sums = sorted(file["checksums"][0]["checksumValue"] for file in files)
    return hashlib.sha1("".join(sums).encode()).hexdigest()


def other_package(name, **more):
    """The entry of a package whose files are not listed here."""
    return {
        "name": name,
        "SPDXID": f"SPDXRef-Package-{re.sub(r'[^A-Za-z0-9.-]', '-', name)}",
        "downloadLocation": UNKNOWN,
        "filesAnalyzed": False,
        "licenseConcluded": UNKNOWN,
        "licenseDeclared": UNKNOWN,
        "copyrightText": UNKNOWN,
        **more,
    }


def document(package, compiled_in):
    content = read(package)
    files = files_of(package)
    main = {
        **other_package(field(package, "Package")),
        "SPDXID": "SPDXRef-Package",
        "versionInfo": field(package, "Version"),
        "packageFileName": os.path.basename(package),
        "supplier": "Person: " + re.sub(r" <(.*)>$", r" (\1)", field(package, "Maintainer")),
        "filesAnalyzed": True,
        "packageVerificationCode": {"packageVerificationCodeValue": verification_code(files)},
        "licenseInfoFromFiles": [UNKNOWN],
        "licenseDeclared": "NONE",
        "checksums": checksums(content, "SHA256"),
    }
    needed = [other_package(demand.split()[0], comment=f"Depends: {demand}")
              for demand in filter(None, field(package, "Depends").split(", "))]
    inside = [other_package(name, versionInfo=version) for name, version in compiled_in]

    def relation(first, kind, second):
        return {"spdxElementId": first, "relationshipType": kind, "relatedSpdxElement": second}

    created = datetime.datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), datetime.timezone.utc)
    name = os.path.basename(package)[:-len(".deb")]
    return {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": name,
        "documentNamespace": f"urn:uuid:{uuid.uuid5(uuid.NAMESPACE_OID, hashlib.sha256(content).hexdigest())}",
        "creationInfo": {
            "created": created.strftime("%Y-%m-%dT%H:%M:%SZ"),
            "creators": ["Tool: OrvFileUtils-sbom.py"],
        },
        "packages": [main, *needed, *inside],
        "files": files,
        "relationships": [
            relation("SPDXRef-DOCUMENT", "DESCRIBES", "SPDXRef-Package"),
            *(relation("SPDXRef-Package", "CONTAINS", file["SPDXID"]) for file in files),
            *(relation("SPDXRef-Package", "DEPENDS_ON", other["SPDXID"]) for other in needed),
            *(relation("SPDXRef-Package", "STATIC_LINK", other["SPDXID"]) for other in inside),
        ],
    }


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    with open(f"{sys.argv[1][:-len('.deb')]}.spdx.json", "w", encoding="utf-8") as output:
        json.dump(document(sys.argv[1], [pair.split("=", 1) for pair in sys.argv[2:]]), output, indent=2)
        output.write("\n")
