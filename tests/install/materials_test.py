"""The bill of materials: the fields that SPDX 2.3 requires, and what is known to be in the program."""
import json
import os
import pathlib
import re
import subprocess

import jsonschema
import pytest

ROOT = pathlib.Path(__file__).parents[2]
WORD = {"type": "string", "minLength": 1}
IDENTIFIER = {"type": "string", "pattern": "^SPDXRef-[A-Za-z0-9.-]+$"}


def required(**fields):
    return {"type": "object", "required": list(fields), "properties": fields}


REQUIRED = required(
    spdxVersion={"const": "SPDX-2.3"},
    dataLicense={"const": "CC0-1.0"},
    SPDXID={"const": "SPDXRef-DOCUMENT"},
    name=WORD,
    documentNamespace={"type": "string", "pattern": "^[a-z]+:[^#]+$"},
    creationInfo=required(created={"type": "string", "pattern": r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$"},
                          creators={"type": "array", "minItems": 1,
                                    "items": {"type": "string", "pattern": "^(Tool|Organization|Person): ."}}),
    packages={"type": "array", "minItems": 2, "items": required(
        SPDXID=IDENTIFIER, name=WORD, downloadLocation=WORD, versionInfo=WORD, filesAnalyzed={"const": False},
        supplier={"type": "string", "pattern": "^(NOASSERTION|Organization: .+)$"})},
    relationships={"type": "array", "minItems": 2, "items": required(
        spdxElementId=IDENTIFIER, relatedSpdxElement=IDENTIFIER,
        relationshipType={"enum": ["DESCRIBES", "DYNAMIC_LINK", "STATIC_LINK", "DEPENDS_ON"]})})


@pytest.fixture(scope="module")
def bill(tmp_path_factory):
    out = tmp_path_factory.mktemp("bill") / "sbom.spdx.json"
    subprocess.run([ROOT / "packaging/bill-of-materials", os.environ["BUILD"], "ApplicationSync", "1.0", out], check=True,
                   env={**os.environ, "SOURCE_DATE_EPOCH": "1"})
    return json.loads(out.read_text())


def test_it_has_what_is_required(bill):
    jsonschema.Draft202012Validator(REQUIRED).validate(bill)
    assert bill["creationInfo"]["created"] == "1970-01-01T00:00:01Z"


def test_each_part_stands_there_once_and_belongs_to_the_whole(bill):
    identifiers = [part["SPDXID"] for part in bill["packages"]]
    assert len(set(identifiers)) == len(identifiers)
    related = [relation["relatedSpdxElement"] for relation in bill["relationships"]]
    assert sorted(related) == sorted(identifiers)


def test_what_the_program_loads_and_what_is_compiled_in_is_named_with_its_version(bill):
    by = {}
    names = {part["SPDXID"]: part for part in bill["packages"]}
    for relation in bill["relationships"]:
        part = names[relation["relatedSpdxElement"]]
        by.setdefault(relation["relationshipType"], set()).add(part["name"])
        assert re.match(r"[\d:]", part["versionInfo"]), part
    assert by["DESCRIBES"] == {"ApplicationSync"}
    assert {"libc6", "libstdc++6", "libsqlite3-0", "libcairo2", "zlib1g"} <= by["DYNAMIC_LINK"]
    assert "libpixman-1-0" in by["DEPENDS_ON"]
    assert {"libcli11-dev", "nlohmann-json3-dev"} <= by["STATIC_LINK"]
    assert not any(re.search("gtest|googletest|benchmark", name) for name in by["STATIC_LINK"])
