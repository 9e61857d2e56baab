#!/usr/bin/python3
"""A strict SMP serial-recovery responder, independent of halyx's code.

Opens a pseudo-terminal, prints its name, and answers as a stock boot loader
in serial recovery does: console lines of at most 128 bytes (a longer one is
cut and loses its newline), each line's base64 text decoded on its own
(characters that do not complete a group of four are lost), a 1024-byte
receive buffer, the CRC checked, only the commands such a boot loader has,
the image number taken from the chunk at offset 0, and flash written in
whole blocks (a non-final chunk's partial last block is not written, and the
answered offset says so). Answers are indefinite-length maps in lines of 124
characters. Besides answering, it records every rule a request broke.

When a reset request arrives it answers, waits as the device does, writes
what it received and the broken rules to the JSON file named by the first
argument, and exits; so it does, with that as a broken rule, when the line
stays silent for --idle-exit seconds (a client that gave up). Uses the
standard library and cbor2 only.
"""
import argparse
import binascii
import hashlib
import json
import os
import pty
import select
import time
import tty

import cbor2

ALPHABET = b"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"
SEXTETS = {c: i for i, c in enumerate(ALPHABET)}
UPLOAD_KEYS = ["len", "sha", "data", "off", "image"]
START, MORE = b"\x06\x09", b"\x04\x14"


class NoRoom(Exception):
    pass


def decode_line(text, room):
    """One line's base64 text as the device decodes it: (bytes, characters skipped)."""
    symbols = pads = 0
    i, n = 0, len(text)
    while i < n:
        spaces = 0
        while i < n and text[i] == 0x20:
            i += 1
            spaces += 1
        if i == n:
            break  # spaces at the end are allowed
        c = text[i]
        if c == 0x0A or (c == 0x0D and i + 1 < n and text[i + 1] == 0x0A):
            i += 1
            continue
        if spaces:
            raise ValueError("space inside the text")
        if c == ord("="):
            pads += 1
            if pads > 2:
                raise ValueError("more than two '='")
        elif c not in SEXTETS:
            raise ValueError("character 0x%02x" % c)
        elif pads:
            raise ValueError("text after '='")
        symbols += 1
        i += 1
    if symbols == 0:
        return b"", 0
    if room < ((symbols * 6 + 7) >> 3) - pads:
        raise NoRoom()
    out = bytearray()
    keep, count, bits = 3, 0, 0
    for c in text:
        if c in (0x0A, 0x0D, 0x20):
            continue
        if c == ord("="):
            keep -= 1
        bits = ((bits << 6) | SEXTETS.get(c, 0)) & 0xFFFFFF
        count += 1
        if count == 4:
            count = 0
            out += bits.to_bytes(3, "big")[:keep]
    return bytes(out), count


def indefinite_map(items):
    return b"\xbf" + b"".join(cbor2.dumps(k) + cbor2.dumps(v) for k, v in items.items()) + b"\xff"


def frames(header, items):
    payload = indefinite_map(items)
    packet = bytes([header[0] + 1, 0]) + len(payload).to_bytes(2, "big") + header[4:8] + payload
    body = packet + binascii.crc_hqx(packet, 0).to_bytes(2, "big")
    text = binascii.b2a_base64(len(body).to_bytes(2, "big") + body, newline=False)
    out = b""
    for i in range(0, len(text), 124):
        out += (START if i == 0 else MORE) + text[i:i + 124] + b"\n"
    return out


def map_entries(payload):
    """The entry count a definite-length map announces, None otherwise."""
    if not payload or payload[0] >> 5 != 5 or payload[0] & 0x1F > 27:
        return None
    info = payload[0] & 0x1F
    if info < 24:
        return info
    width = 1 << (info - 24)
    return int.from_bytes(payload[1:1 + width], "big")


class Device:
    def __init__(self, args):
        self.args = args
        self.violations = []
        self.unsupported = []
        self.crc_errors = 0
        self.requests = 0
        self.erases = 0
        self.short_chunks = 0
        self.flash = bytearray(b"\xff" * args.slot_size)
        self.stored = 0
        self.image = 0
        self.length = 0
        self.offset = 0
        self.buffer = bytearray()
        self.partial = False
        self.done = False

    def violate(self, why):
        self.violations.append(why)

    def on_line(self, stored, sent):
        """A line as the console kept it (at most line_max bytes) and its length as sent."""
        if sent > self.args.line_max:
            self.violate("line of %d bytes, over %d" % (sent, self.args.line_max))
        if stored[:2] == START:
            if self.partial:
                self.violate("a packet started before the previous one was complete")
            self.buffer = bytearray()
            self.partial = True
        elif stored[:2] == MORE:
            if not self.partial:
                self.violate("a continuation line outside a packet")
        else:
            return None  # console noise
        # The device drops the kept line's last byte: the newline, or a cut line's last character.
        text = stored[2:-1]
        if len(text) % 4:
            self.violate("line text of %d characters, not a multiple of 4" % len(text))
        try:
            decoded, _ = decode_line(text, self.args.buffer_size + 1 - len(self.buffer))
        except NoRoom:
            self.violate("packet beyond the %d-byte receive buffer" % self.args.buffer_size)
            return None
        except ValueError as e:
            self.violate("undecodable line: %s" % e)
            return None
        self.buffer += decoded
        if len(self.buffer) <= 2:
            return None
        length = int.from_bytes(self.buffer[:2], "big")
        if len(self.buffer) - 2 < length:
            return None
        if len(self.buffer) - 2 > length:
            self.violate("packet longer than its length field")
            self.partial = False
            return None
        self.partial = False
        self.requests += 1
        if length <= 2 or binascii.crc_hqx(bytes(self.buffer[2:]), 0) != 0:
            self.crc_errors += 1
            return None
        del self.buffer[-2:]
        return self.on_packet(bytes(self.buffer[2:]))

    def on_packet(self, packet):
        if len(packet) < 8:
            self.violate("packet of %d bytes, shorter than a header" % len(packet))
            return None
        op, flags = packet[0], packet[1]
        header_length = int.from_bytes(packet[2:4], "big")
        group, command = int.from_bytes(packet[4:6], "big"), packet[7]
        payload = packet[8:]
        if op not in (0, 2):
            self.violate("op %d is neither read nor write" % op)
            return None
        if header_length < len(payload):
            self.violate("header length %d below the payload's %d" % (header_length, len(payload)))
            return None
        if header_length != len(payload) or flags != 0:
            self.violate("header flags %d, length %d for %d payload bytes" % (flags, header_length, len(payload)))
        if (group, command) in ((1, 1), (0, 5)) and op != 2:
            self.violate("group %d command %d sent as a read" % (group, command))
        if (group, command) == (1, 1):
            reply = self.upload(payload)
        elif (group, command) == (0, 1):
            reply = {"rc": 0}
        elif (group, command) == (0, 5):
            reply = {"rc": 0}
            self.done = True
        else:
            self.unsupported.append("group %d command %d" % (group, command))
            reply = {"rc": 8}
        return frames(packet, reply)

    def refuse(self, why):
        self.violate(why)
        return {"rc": 3}

    def upload(self, payload):
        try:
            m = cbor2.loads(payload)
        except Exception as e:  # noqa: BLE001 - any undecodable payload is refused alike
            return self.refuse("upload payload is no CBOR: %s" % e)
        if not isinstance(m, dict):
            return self.refuse("upload payload is no map")
        entries = map_entries(payload)
        if entries is not None and entries != len(m):
            return self.refuse("a key given twice")
        if any(not isinstance(k, str) for k in m):
            return self.refuse("a key that is no text")
        for key in ("image", "len", "off"):
            if key in m and (not isinstance(m[key], int) or not 0 <= m[key] <= 0xFFFFFFFF):
                return self.refuse("%s is no 32-bit unsigned number" % key)
        if "data" in m and not isinstance(m["data"], bytes):
            return self.refuse("data is no byte string")
        keys = list(m.keys())
        if keys != [k for k in UPLOAD_KEYS if k in m] or any(k not in UPLOAD_KEYS for k in keys):
            self.violate("key order %s" % keys)
        if "data" not in m or "off" not in m:
            return self.refuse("data or off missing")
        off, data = m["off"], m["data"]
        if off == 0:
            if "sha" not in m or hashlib.sha256(data).digest() != m["sha"]:
                self.violate("the first chunk's sha is missing or not its digest")
            self.image = m.get("image", 0)
        elif "len" in m or "sha" in m:
            self.violate("len or sha after the first chunk")
        elif "image" in m and m["image"] != self.image:
            self.violate("image %d on a later chunk of image %d" % (m["image"], self.image))
        if self.image != 0:
            self.violate("image %d: the device has one image slot" % self.image)
            return {"rc": 3 if self.image == 1 else 5}
        if off == 0:
            self.offset = 0
            if "len" not in m or m["len"] > len(self.flash):
                return self.refuse("first chunk without len, or len beyond the slot")
            if len(data) > m["len"]:
                return self.refuse("more data than len")
            self.flash[:] = b"\xff" * len(self.flash)
            self.erases += 1
            self.length = m["len"]
            self.stored = 0
        elif off != self.offset:
            self.violate("offset %d, expected %d" % (off, self.offset))
            return {"rc": 0, "off": self.offset}
        elif self.offset + len(data) > self.length:
            return self.refuse("more data than len")
        block = self.args.write_block
        tail = len(data) % block
        whole = len(data) - tail
        last = self.offset + len(data) >= self.length
        self.flash[self.offset:self.offset + whole] = data[:whole]
        if last and tail:
            self.flash[self.offset + whole:self.offset + whole + block] = data[whole:] + b"\xff" * (block - tail)
        elif tail:
            self.short_chunks += 1
        self.offset += whole + (tail if last else 0)
        self.stored = self.offset
        return {"rc": 0, "off": self.offset}

    def result(self):
        return {"violations": self.violations, "unsupported": self.unsupported, "crc_errors": self.crc_errors,
                "requests": self.requests, "erases": self.erases, "short_chunks": self.short_chunks,
                "image": bytes(self.flash[:self.stored]).hex()}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("result", help="where the JSON verdict goes")
    parser.add_argument("--write-block", type=int, default=8, help="flash write block in bytes (8)")
    parser.add_argument("--line-max", type=int, default=128, help="console line limit, newline included (128)")
    parser.add_argument("--buffer-size", type=int, default=1024, help="receive buffer in bytes (1024)")
    parser.add_argument("--slot-size", type=int, default=1024 * 1024, help="image slot in bytes (1 MiB)")
    parser.add_argument("--idle-exit", type=float, default=15, help="give up after this many silent seconds (15)")
    args = parser.parse_args()

    master, slave = pty.openpty()
    tty.setraw(slave)
    print(os.ttyname(slave), flush=True)
    device = Device(args)
    line, sent = bytearray(), 0
    while not device.done:
        if not select.select([master], [], [], args.idle_exit)[0]:
            device.violate("no reset request before the line fell silent")
            break
        for byte in os.read(master, 65536):
            sent += 1
            if len(line) < args.line_max:
                line.append(byte)
            if byte != 0x0A:
                continue
            answer = device.on_line(bytes(line), sent)
            line, sent = bytearray(), 0
            if answer:
                os.write(master, answer)
            if device.done:
                break
    if device.done:
        time.sleep(0.25)  # the device's pause before it reboots
    with open(args.result, "w") as f:
        json.dump(device.result(), f)


if __name__ == "__main__":
    main()
