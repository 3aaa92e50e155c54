#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into tests/fuzz/corpus/<target>/:
a handful of small, real inputs each. Run it again after changing a seed;
inputs that broke something once are kept beside them by hand (regress-*)."""
import os
import struct
import uuid

HERE = os.path.dirname(os.path.abspath(__file__))
EXAMPLES = os.path.join(HERE, "..", "..", "examples", "platform")


class Url(str):
    pass


class Signed(int):
    pass


def enc(v):
    """The binary value encoding (docs/wire-format.md); plain ints are unsigned."""
    if v is None:
        return b"\x00"
    if v is False:
        return b"\x01"
    if v is True:
        return b"\x02"
    if isinstance(v, Signed):
        return b"\x03" + struct.pack("<q", v)
    if isinstance(v, int):
        return b"\x04" + struct.pack("<Q", v)
    if isinstance(v, float):
        return b"\x05" + struct.pack("<d", v)
    if isinstance(v, Url):
        b = v.encode()
        return b"\x0c" + struct.pack("<I", len(b)) + b
    if isinstance(v, str):
        b = v.encode()
        return b"\x06" + struct.pack("<I", len(b)) + b
    if isinstance(v, bytes):
        return b"\x07" + struct.pack("<I", len(v)) + v
    if isinstance(v, uuid.UUID):
        return b"\x09" + v.bytes
    if isinstance(v, list):
        return b"\x0a" + struct.pack("<I", len(v)) + b"".join(enc(e) for e in v)
    if isinstance(v, dict):
        out = b"\x0b" + struct.pack("<I", len(v))
        for k in sorted(v, key=lambda k: k.encode()):
            kb = k.encode()
            out += struct.pack("<I", len(kb)) + kb + enc(v[k])
        return out
    raise TypeError(v)


def frame(body, msg_id, reply_to=0, reply_expected=True):
    b = enc(body)
    return struct.pack("<BBHIQQ", 1, 1 if reply_expected else 0, 0, len(b), msg_id, reply_to) + b


U = uuid.UUID("6f1c2a3b-4d5e-4f60-8172-93a4b5c6d7e8")
DATE = b"\x08" + struct.pack("<q", 1_700_000_000_000_000)
RULE = {"AnyOf": [{"Type": "public.url", "AtLeast": 1, "AtMost": 1},
                  {"AllOf": [{"Type": "public.image"}, {"Type": "public.movie", "AtLeast": 0, "AtMost": 0}]}]}


def req(kind, **fields):
    return dict(request=kind, version=3, **fields)


SEEDS = {
    "value": {
        "dictionary": b"\x00" + enc({"request": "bulk", "version": 3, "flags": 0}),
        "scalars": b"\x00" + enc([None, False, True, Signed(-5), 7, 1.5, "é", b"\x01\x02", U]) ,
        "date-url": b"\x01" + b"\x0a\x02\x00\x00\x00" + DATE + enc(Url("file:///Applications/Notes.app")),
        "nested": b"\x00" + enc({"a": {"b": [[{"c": float("nan")}], ""]}, "": b""}),
    },
    "frame": {
        "bulk": frame({"request": "bulk"}, 1),
        "pipeline": frame(req("match", rules={"KoExtensionPointIdentifier": "com.veltra.share-services"}), 1)
        + frame(req("annotate", uuids=[U], annotations={"election": 1}), 2, reply_expected=False),
        "reply": frame({"errorcode": 4, "error": "invalid request"}, 7, reply_to=3, reply_expected=False),
        "array-body": frame([1, "two", Signed(-3)], 2),
    },
    "typedjson": {
        "tags": b'{"a": {"$int": 5}, "b": {"$uint": 7}, "c": {"$double": "nan"}, "d": {"$uuid": "6F1C2A3B-4D5E-4F60-8172-93A4B5C6D7E8"}}',
        "more-tags": b'[{"$data": "AQID"}, {"$date": "2024-02-29T12:00:00.5+01:00"}, {"$url": "file:///a"}, {"$$int": -1}]',
        "plain": b'{"request": "match", "version": 3, "rules": {"KoUserElection": "=1"}, "x": [1.0, -2, true, null]}',
        "escapes": b'"tab\\t\\u00e9\\ud83d\\ude00"',
    },
    "match": {
        "activation": enc({"rule": RULE, "items": {"public.jpeg": 2, "public.url": 1},
                           "types": {"public.jpeg": ["public.image"], "public.png": ["public.image"]}}),
        "rules": enc({"info": {"KbBundleIdentifier": "com.example.fuzz", "KbBundleVersion": "2",
                               "KoExtension": {"KoExtensionPointIdentifier": "com.veltra.share-services",
                                               "KoExtensionAttributes": {"KoExtensionActivationRule": RULE,
                                                                         "Formats": ["x", "y"]}}},
                      "entitlements": {"com.example.yes": True},
                      "annotation": {"election": Signed(1)},
                      "rules": {"KoExtensionActivationRule": {"public.jpeg": 3},
                                "KoExtensionVersion": ">=1.9", "Formats": ["y", "z"], "KoUserElection": "=1",
                                "ENTITLEMENT:com.example.yes": True, "KoExtensionIdentifier": "com.example.fuzz",
                                "Type": "?TY-CONFORMS:public.image"},
                      "types": {"public.jpeg": ["public.image"], "public.image": ["public.data"]}}),
        "not": enc({"rule": {"Not": {"AtLeast": 1, "AtMost": 100}}, "items": {}}),
    },
    "daemon": {
        "queries": b"\x00" + enc([req("bulk"), req("match", rules={"KoExtensionPointIdentifier": "com.veltra.share-services",
                                                                   "KoUserElection": "=0"}, flags=3),
                                   {"request": "bulk", "version": Signed(3)}, "not a dictionary"]),
        "changes": b"\x01" + enc([req("annotate", uuids=[U], annotations={"election": 1, "extension": {"k": "v"}}),
                                   req("bulk-annotate", annotations={str(U).upper(): {"x": 2}}),
                                   req("add", paths=["/nonexistent/App.app/PlugIns/A.vext"]),
                                   req("remove", paths=["/nonexistent/App.app/PlugIns/A.vext"])]),
        "holds": b"\x04" + enc([req("lock", paths=["/nonexistent/A.vext"], flags=0), req("lock", uuids=[U]),
                                 req("ready", uuids=[U]), req("access", uuids=[U])]),
    },
}


def main():
    for target, seeds in SEEDS.items():
        d = os.path.join(HERE, "corpus", target)
        os.makedirs(d, exist_ok=True)
        for name, data in seeds.items():
            with open(os.path.join(d, name), "wb") as f:
                f.write(data)
    # The vlist reader starts from the example platform's files and a few
    # hand-written corners.
    d = os.path.join(HERE, "corpus", "vlist")
    os.makedirs(d, exist_ok=True)
    for root, _, files in os.walk(EXAMPLES):
        for f in files:
            if f.endswith(".vlist") and os.path.getsize(os.path.join(root, f)) < 4096:
                name = os.path.relpath(os.path.join(root, f), EXAMPLES).replace("/", "_")
                with open(os.path.join(root, f), "rb") as src, open(os.path.join(d, name), "wb") as out:
                    out.write(src.read())
    corners = {
        "kinds": b'<vlist version="1.0"><array><integer>-9223372036854775808</integer><integer>+18446744073709551615</integer>'
                 b'<real>-inf</real><real>0.1</real><data>AQI</data><date>2024-02-29T12:00:00.25+01:00</date>'
                 b'<true/><false/><url>file:///a</url><string>a&amp;b&#13;<![CDATA[<x>]]></string></array></vlist>',
        "empty": b"<vlist><dict><key></key><string/><key>d</key><data/></dict></vlist>",
    }
    for name, data in corners.items():
        with open(os.path.join(d, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
