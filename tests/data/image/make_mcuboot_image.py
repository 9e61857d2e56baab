#!/usr/bin/python3
"""MCUboot images and packages for tests, written with struct and hashlib only.

  make_mcuboot_image.py image OUT OPTIONS_JSON
      OPTIONS_JSON keys (all optional): body (size), seed, magic, header_size, load_address,
      flags, version [major, minor, revision, build], protected (bool), extra_tlv (bool),
      pad (total length, filled with 0xFF), hex (write Intel HEX at this address instead),
      hole [offset, length] (body bytes left out of the HEX file; they read as 0xFF)
      Prints {"sha256", "length", "header_size", "image_size", "protected_tlv_size", "bytes"}.
  make_mcuboot_image.py package OUT SPEC_JSON
      SPEC_JSON: {"files": [manifest items, written as given],
                  "images": {"name in zip": OPTIONS_JSON, ...}}
      Prints {"name": what "image" prints, ...}.
"""
import hashlib
import json
import random
import struct
import sys
import zipfile


def image(options):
    rng = random.Random(options.get("seed", 1))
    header_size = options.get("header_size", 32)
    body = bytearray(rng.randrange(256) for _ in range(options.get("body", 1000)))
    hole = options.get("hole")
    if hole:
        body[hole[0]:hole[0] + hole[1]] = b"\xff" * hole[1]
    protected = b""
    if options.get("protected"):
        entry = struct.pack("<HH", 0x50, 4) + struct.pack("<I", 7)
        protected = struct.pack("<HH", 0x6908, 4 + len(entry)) + entry
    version = options.get("version", [1, 2, 3, 4])
    header = struct.pack("<IIHHIIBBHI", options.get("magic", 0x96F3B83D), options.get("load_address", 0),
                         header_size, len(protected), len(body), options.get("flags", 0), *version)
    header += b"\x00" * (header_size - len(header))
    digest = hashlib.sha256(header + body + protected).digest()
    entries = b""
    if options.get("extra_tlv"):
        entries += struct.pack("<HH", 0x01, 32) + bytes(rng.randrange(256) for _ in range(32))
    entries += struct.pack("<HH", 0x10, 32) + digest
    trailer = protected + struct.pack("<HH", 0x6907, 4 + len(entries)) + entries
    data = header + body + trailer
    if "pad" in options:
        data += b"\xff" * (options["pad"] - len(data))
    return bytes(data), {
        "sha256": digest.hex(),
        "length": len(data),
        "header_size": header_size,
        "image_size": len(body),
        "protected_tlv_size": len(protected),
        "bytes": bytes(data).hex(),
    }


def intel_hex(data, base, hole):
    """Intel HEX text of data at base, leaving out the body bytes of hole."""
    skip = set()
    if hole:
        start = struct.unpack_from("<H", data, 8)[0] + hole[0]
        skip = set(range(start, start + hole[1]))
    lines, upper = [], None
    for offset in range(0, len(data), 16):
        chunk = [(i, data[i]) for i in range(offset, min(offset + 16, len(data))) if i not in skip]
        runs = []
        for i, b in chunk:
            if runs and runs[-1][0] + len(runs[-1][1]) == i:
                runs[-1][1].append(b)
            else:
                runs.append((i, [b]))
        for i, payload in runs:
            address = base + i
            if address >> 16 != upper:
                upper = address >> 16
                lines.append(record(4, 0, [upper >> 8, upper & 0xFF]))
            lines.append(record(0, address & 0xFFFF, payload))
    lines.append(record(1, 0, []))
    return "\n".join(lines) + "\n"


def record(rtype, address, data):
    body = bytes([len(data), address >> 8, address & 0xFF, rtype]) + bytes(data)
    return ":" + (body + bytes([-sum(body) & 0xFF])).hex().upper()


def write_image(options):
    data, info = image(options)
    if "hex" in options:
        return intel_hex(data, options["hex"], options.get("hole")).encode(), info
    return data, info


def main():
    command, out, layout = sys.argv[1], sys.argv[2], json.loads(sys.argv[3])
    if command == "image":
        data, info = write_image(layout)
        with open(out, "wb") as f:
            f.write(data)
        print(json.dumps(info))
    elif command == "package":
        infos = {}
        with zipfile.ZipFile(out, "w", zipfile.ZIP_DEFLATED) as z:
            for name, options in layout["images"].items():
                data, infos[name] = write_image(options)
                z.writestr(name, data)
            z.writestr("manifest.json", json.dumps({"format-version": 0, "files": layout["files"]}))
        print(json.dumps(infos))
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
