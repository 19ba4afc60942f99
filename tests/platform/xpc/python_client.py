#!/usr/bin/env python3
"""A client written from the protocol description alone, in another language.

Connects to a qxfile-style service socket, sends two invocations built with
plistlib as keyed archives (one the service answers, one it must refuse), and
prints what comes back, one line per message:
    reply <replyTo> <arguments as JSON>
    refused <sequence> <reason>
Usage: python_client.py SOCKET_PATH
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
        if value is None:
            return plistlib.UID(0)
        if isinstance(value, (str, int, bool, bytes, float)):
            objects.append(value)
            return plistlib.UID(len(objects) - 1)
        slot = len(objects)
        objects.append(None)  # reserve the slot before the contents
        if isinstance(value, list):
            body = {"NS.objects": [encode(v) for v in value], "$class": class_uid("NSArray")}
        elif isinstance(value, dict):
            keys = [encode(k) for k in value.keys()]
            body = {"NS.keys": keys, "NS.objects": [encode(v) for v in value.values()],
                    "$class": class_uid("NSDictionary")}
        elif isinstance(value, URL):
            body = {"NS.base": plistlib.UID(0), "NS.relative": encode(value.relative),
                    "$class": class_uid("NSURL")}
        else:
            raise TypeError(value)
        objects[slot] = body
        return plistlib.UID(slot)

    top = encode(root)
    return plistlib.dumps({"$archiver": "NSKeyedArchiver", "$version": 100000,
                           "$top": {"root": top}, "$objects": objects},
                          fmt=plistlib.FMT_BINARY)


def unarchive(data):
    """The root object of a keyed archive, as plain Python values."""
    plist = plistlib.loads(data)
    objects = plist["$objects"]

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

    return decode(plist["$top"]["root"])


def frame(payload):
    return struct.pack(">I", len(payload)) + payload


def read_frame(sock):
    def exactly(n):
        data = b""
        while len(data) < n:
            chunk = sock.recv(n - len(data))
            if not chunk:
                raise EOFError
            data += chunk
        return data
    (length,) = struct.unpack(">I", exactly(4))
    return exactly(length)


def main():
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    sock.connect(sys.argv[1])
    sock.sendall(frame(archive({"selector": "countUrls:reply:",
                                "arguments": [[URL("file:///a"), URL("file:///b%20c")]],
                                "sequence": 7})))
    sock.sendall(frame(archive({"selector": "countUrls:reply:",
                                "arguments": [["not a URL"]],
                                "sequence": 8})))
    for _ in range(2):
        message = unarchive(read_frame(sock))
        if "replyTo" in message:
            print("reply", message["replyTo"], json.dumps(message["arguments"]))
        else:
            print("refused", message["refused"], message["reason"])
    sock.close()


if __name__ == "__main__":
    main()
