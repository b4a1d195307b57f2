#!/usr/bin/env python3
"""The schema of policies, by a validator that is not ours: it takes the shipped policy, and refuses
what it can express of what policies.json tells to be wrong."""
import copy
import json
import pathlib

import jsonschema

SOURCE = pathlib.Path(__file__).resolve().parents[2]


def read(path):
    return json.loads((SOURCE / path).read_text())


def main():
    schema, shipped = read("fleet/consent/policy.schema.json"), read("fleet/consent/policy.json")
    validator = jsonschema.Draft202012Validator
    validator.check_schema(schema)
    assert validator(schema).is_valid(shipped)
    changes = read("tests/fleet/policies.json")
    for change in changes:
        policy = copy.deepcopy(shipped)
        *path, last = change["place"].split("/")[1:]
        place = policy
        for step in path:
            place = place[step]
        if change["value"] is None:
            del place[last]
        else:
            place[last] = change["value"]
        assert validator(schema).is_valid(policy) != change["schema"], change
    assert sum(change["schema"] for change in changes) > 10


if __name__ == "__main__":
    main()
