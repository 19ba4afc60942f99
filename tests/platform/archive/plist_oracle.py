#!/usr/bin/env python3
"""Binary property lists through Python's plistlib, for the archive tests.

  plist_oracle.py dump PLIST         print PLIST as JSON
  plist_oracle.py write JSON         print the value in file JSON as a binary plist in hex

JSON conventions both ways: a UID is {"UID": n}, data is {"data": "<hex>"},
a real is {"real": x}; strings, integers, booleans, arrays and dictionaries
are themselves.
"""
import json
import plistlib
import sys


def to_json(value):
    if isinstance(value, plistlib.UID):
        return {"UID": value.data}
    if isinstance(value, bytes):
        return {"data": value.hex()}
    if isinstance(value, bool):
        return value
    if isinstance(value, float):
        return {"real": value}
    if isinstance(value, list):
        return [to_json(v) for v in value]
    if isinstance(value, dict):
        return {k: to_json(v) for k, v in value.items()}
    return value


def from_json(value):
    if isinstance(value, dict):
        if set(value) == {"UID"}:
            return plistlib.UID(value["UID"])
        if set(value) == {"data"}:
            return bytes.fromhex(value["data"])
        if set(value) == {"real"}:
            return float(value["real"])
        return {k: from_json(v) for k, v in value.items()}
    if isinstance(value, list):
        return [from_json(v) for v in value]
    return value


def main():
    if len(sys.argv) == 3 and sys.argv[1] == "dump":
        with open(sys.argv[2], "rb") as f:
            value = plistlib.load(f, fmt=plistlib.FMT_BINARY)
        json.dump(to_json(value), sys.stdout, ensure_ascii=False)
        return 0
    if len(sys.argv) == 3 and sys.argv[1] == "write":
        with open(sys.argv[2], encoding="utf-8") as f:
            value = from_json(json.load(f))
        sys.stdout.write(plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=False).hex())
        return 0
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main())
