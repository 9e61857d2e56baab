#!/usr/bin/python3
"""Intel HEX files for tests, and an independent reading of them (Python's intelhex).

  hex_oracle.py dump FILE        print {"segments": [[start, hex], ...], "start": ...} as JSON
  hex_oracle.py make FILE SEED   write a file by hand: 02/03/04/05 records, gaps, 32-bit
                                 addresses, record sizes 1..255, lower case, LF or CRLF
  hex_oracle.py write FILE SEED  write random segments with intelhex's own writer
"""
import json
import random
import sys

from intelhex import IntelHex


def dump(path):
    ih = IntelHex(path)
    segments = [[start, ih.tobinstr(start=start, size=stop - start).hex()] for start, stop in ih.segments()]
    start = None
    if ih.start_addr:
        if "EIP" in ih.start_addr:
            start = {"kind": "linear", "value": ih.start_addr["EIP"]}
        else:
            start = {"kind": "segmented", "value": ih.start_addr["CS"] << 16 | ih.start_addr["IP"]}
    print(json.dumps({"segments": segments, "start": start}))


def record(rtype, address, data, lower=False):
    body = bytes([len(data), address >> 8 & 0xFF, address & 0xFF, rtype]) + bytes(data)
    line = ":" + (body + bytes([-sum(body) & 0xFF])).hex().upper()
    return line.lower() if lower else line


def make(path, seed):
    rng = random.Random(seed)
    used = []  # [start, end) ranges already written

    def free(start, size):
        return all(start + size <= a or b <= start for a, b in used)

    lines = []
    # Segment-addressed part: base = value * 16, records inside one 64 KiB window.
    for _ in range(rng.randint(1, 3)):
        segment = rng.randrange(0, 0x1000)
        lines.append(record(2, 0, [segment >> 8, segment & 0xFF]))
        offset = rng.randrange(0, 0x8000)
        for _ in range(rng.randint(1, 20)):
            size = rng.choice([1, 7, 16, 16, 16, 32, 255])
            if offset + size > 0xFFFF:
                break
            address = segment * 16 + offset
            if free(address, size):
                used.append((address, address + size))
                lines.append(record(0, offset, [rng.randrange(256) for _ in range(size)], rng.random() < 0.2))
            offset += size + rng.choice([0, 0, 0, 5, 300])
    # Linear part, up to the top of the address space; a record may cross 64 KiB.
    for upper in sorted(rng.sample(range(0x0010, 0x10000), 3)) + [0xFFFF]:
        lines.append(record(4, 0, [upper >> 8, upper & 0xFF]))
        offset = rng.randrange(0, 0xFF00)
        for _ in range(rng.randint(1, 30)):
            size = rng.choice([1, 16, 16, 32, 200])
            if upper == 0xFFFF and offset + size > 0x10000:
                break
            if offset + size > 0xFFFF + 200:
                break
            address = (upper << 16) + offset
            if free(address, size):
                used.append((address, address + size))
                lines.append(record(0, offset & 0xFFFF, [rng.randrange(256) for _ in range(size)]))
            offset += size + rng.choice([0, 0, 16, 4096])
            if offset > 0xFFFF:
                break
    if rng.random() < 0.5:
        lines.append(record(5, 0, list(rng.randrange(2**32).to_bytes(4, "big"))))
    else:
        lines.append(record(3, 0, list(rng.randrange(2**32).to_bytes(4, "big"))))
    lines.append(record(1, 0, []))
    ending = "\r\n" if rng.random() < 0.5 else "\n"
    with open(path, "w", newline="") as f:
        f.write(ending.join(lines) + ending)


def write(path, seed, max_gap=0x200000):
    rng = random.Random(seed)
    ih = IntelHex()
    address = rng.randrange(0, 0x30000)
    for _ in range(rng.randint(1, 6)):
        size = rng.randrange(1, 70000)
        ih.frombytes(bytes(rng.randrange(256) for _ in range(size)), offset=address)
        address += size + rng.randrange(1, max_gap)
    ih.start_addr = {"EIP": rng.randrange(2**32)}
    ih.write_hex_file(path)


if __name__ == "__main__":
    command = sys.argv[1]
    if command == "dump":
        dump(sys.argv[2])
    elif command == "make":
        make(sys.argv[2], int(sys.argv[3]))
    elif command == "write":
        write(sys.argv[2], int(sys.argv[3]), *[int(a, 0) for a in sys.argv[4:5]])
    else:
        sys.exit(__doc__)
