#!/usr/bin/env python3
"""Reads a well-formed twin with Python's XML parser and its JSON, and checks
both against the store they came from: every value exact.

Usage: read_back.py SCHEMA STORE TWIN JSON; checks the JSON against the
JSON Schema, then prints the number of objects compared, or the first
difference, and exits non-zero on one."""
import json
import sqlite3
import sys
import xml.etree.ElementTree as ElementTree

import jsonschema

# Element: (table, {attribute: column}).
COLUMNS = {
    "PROJECT": ("project", {"Name": "name"}),
    "DATARDB": ("data_domain", {"Name": "name", "AliasName": "alias_name",
                                "OwnerDico": "owner_dico", "Driver": "driver"}),
    "DOMAIN": ("domain", {"Name": "name"}),
    "BUSINESSDOMAIN": ("business_domain", {
        "Name": "name", "MetaDataName": "meta_data_name", "Editor": "editor",
        "CorvelFlag": "corvel_flag", "DataModeler": "data_modeler"}),
    "DATASERVER": ("data_server", {
        "Name": "name", "Authentication": "authentication", "DBMS": "dbms",
        "ConnectionString": "connection_string"}),
    "VAULTSERVER": ("vault_server", {"Name": "name", "AliasName": "alias_name"}),
    "HOST": ("host", {"Name": "name", "OSType": "os_type",
                      "OSVersion": "os_version"}),
    "SUBSCRIBINGTARGET": ("subscribing_target", {"Name": "name"}),
    "SUBSCRIPTION": ("subscription", {"Name": "name"}),
    "PACKAGEDEFINITION": ("package_definition", {"Name": "name"}),
    "EXTERNSITE": ("extern_site", {"Name": "name"}),
    "LOCALSITE": ("local_site", {"Name": "name"}),
}


def fail(message):
    print(message)
    sys.exit(1)


def main(schema, store, twin, json_file):
    db = sqlite3.connect("file:%s?mode=ro" % store, uri=True)
    configuration = json.load(open(json_file, encoding="utf-8"))
    jsonschema.validate(configuration, json.load(open(schema, encoding="utf-8")))
    objects = {o["id"]: o for o in configuration["objects"]}
    compared = 0
    for element in ElementTree.parse(twin).getroot().iter():
        oid = element.get("Oid")
        if oid is None:
            continue
        attributes = {k.strip(): v for k, v in element.attrib.items()}
        from_json = objects.get(oid)
        if from_json is None or from_json["kind"] != element.tag:
            fail("%s %s is not in the JSON" % (element.tag, oid))
        for name, value in attributes.items():
            if name == "Oid":
                continue
            got = from_json["attributes"].get(name)
            if isinstance(got, list):
                got = "".join(i + " " for i in got)
            if got != value:
                fail("%s %s %s: XML %r, JSON %r" % (element.tag, oid, name, value, got))
        if element.tag in COLUMNS:
            table, columns = COLUMNS[element.tag]
            row = db.execute(
                "SELECT %s FROM %s WHERE oid = ?" % (", ".join(columns.values()), table),
                (bytes.fromhex(oid[1:]),)).fetchone()
            for (name, _), stored in zip(columns.items(), row):
                if attributes.get(name) != (stored or ""):
                    fail("%s %s %s: XML %r, store %r"
                         % (element.tag, oid, name, attributes.get(name), stored))
        compared += 1
    if compared != len(objects):
        fail("%d objects in the XML, %d in the JSON" % (compared, len(objects)))
    print(compared)


if __name__ == "__main__":
    main(*sys.argv[1:])
