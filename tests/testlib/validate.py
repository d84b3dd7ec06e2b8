#!/usr/bin/python3
"""Holds lines of JSON against a schema: validate.py SCHEMA FILE

Each line of FILE is a record. A member that the schema does not name is a violation here, though the schema itself lets later
versions add some. Prints each violation; status 0: there are none, 1: there are, or there is no line; 77: Debian's
python3-jsonschema is missing.
"""
import json
import sys

try:
    import jsonschema
except ImportError:
    print("python3-jsonschema is not installed")
    sys.exit(77)


def close(schema):
    """Nothing but what is named, at every level."""
    if isinstance(schema, dict):
        if "properties" in schema:
            schema["additionalProperties"] = False
        for value in schema.values():
            close(value)
    elif isinstance(schema, list):
        for value in schema:
            close(value)


def branch(schema, record):
    """What the record is held against: the definition of its type, so that a violation is named by its member."""
    wanted = record.get("type") if isinstance(record, dict) else None
    if any(each["$ref"] == "#/$defs/" + str(wanted) for each in schema["oneOf"]):
        return {**schema, "oneOf": [{"$ref": "#/$defs/" + wanted}]}
    return schema


def causes(error):
    return [cause for each in error.context or [] for cause in causes(each)] or [error]


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    close(schema)
    count = bad = 0
    with open(sys.argv[2], encoding="utf-8") as file:
        for count, line in enumerate(file, 1):
            record = json.loads(line)
            for error in jsonschema.Draft202012Validator(branch(schema, record)).iter_errors(record):
                for cause in causes(error):
                    print(f"line {count}: {cause.json_path}: {cause.message}")
                bad += 1
    sys.exit(1 if bad or count == 0 else 0)


main()
