#!/usr/bin/env python3
"""A client written from the protocol description alone, in another language.

Sends two invocations built with plistlib as keyed archives to the service at
SOCKET_PATH (one it answers, one it must refuse) and prints each message back:
    reply <replyTo> <arguments as JSON>
    refused <sequence> <reason>
"""
import json
import plistlib
import socket
import struct
import sys


class URL:
    def __init__(self, relative):
        self.relative = relative


def archive(root):
    """The keyed archive (binary plist) of `root`."""
    objects = ["$null"]
    classes = {}

    def class_uid(name):
        if name not in classes:
            objects.append({"$classname": name, "$classes": [name, "NSObject"]})
            classes[name] = plistlib.UID(len(objects) - 1)
        return classes[name]

    def encode(value):
        if isinstance(value, (str, int)):
            objects.append(value)
            return plistlib.UID(len(objects) - 1)
        slot = len(objects)
        objects.append(None)  # reserve the slot before the contents
        if isinstance(value, list):
            body = {"NS.objects": [encode(v) for v in value], "$class": class_uid("NSArray")}
        elif isinstance(value, dict):
            keys = [encode(k) for k in value]
            body = {"NS.keys": keys, "NS.objects": [encode(v) for v in value.values()],
                    "$class": class_uid("NSDictionary")}
        else:
            body = {"NS.base": plistlib.UID(0), "NS.relative": encode(value.relative),
                    "$class": class_uid("NSURL")}
        objects[slot] = body
        return plistlib.UID(slot)

    top = encode(root)
    return plistlib.dumps({"$archiver": "NSKeyedArchiver", "$version": 100000,
                           "$top": {"root": top}, "$objects": objects},
                          fmt=plistlib.FMT_BINARY)


def unarchive(data):
    """The root object of a keyed archive, as plain Python values."""
    objects = plistlib.loads(data)["$objects"]

    def decode(uid):
        value = objects[uid.data]
        if isinstance(value, dict) and "$class" in value:
            name = objects[value["$class"].data]["$classname"]
            if name in ("NSArray", "NSMutableArray"):
                return [decode(u) for u in value["NS.objects"]]
            if name in ("NSDictionary", "NSMutableDictionary"):
                return {decode(k): decode(v)
                        for k, v in zip(value["NS.keys"], value["NS.objects"])}
            return {"class": name}
        return None if value == "$null" else value

    return decode(plistlib.loads(data)["$top"]["root"])


def read_exactly(sock, n):
    data = b""
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            raise EOFError
        data += chunk
    return data


def main():
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    sock.connect(sys.argv[1])
    for sequence, urls in ((7, [URL("file:///a"), URL("file:///b%20c")]), (8, ["not a URL"])):
        payload = archive({"selector": "countUrls:reply:", "arguments": [urls],
                           "sequence": sequence})
        sock.sendall(struct.pack(">I", len(payload)) + payload)
    for _ in range(2):
        (length,) = struct.unpack(">I", read_exactly(sock, 4))
        message = unarchive(read_exactly(sock, length))
        if "replyTo" in message:
            print("reply", message["replyTo"], json.dumps(message["arguments"]))
        else:
            print("refused", message["refused"], message["reason"])


if __name__ == "__main__":
    main()
