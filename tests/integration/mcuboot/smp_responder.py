#!/usr/bin/python3
"""A strict SMP serial-recovery responder, independent of halyx's code.

Opens a pseudo-terminal, prints its name, answers SMP requests in the console
framing until a reset request arrives, then writes what it received and every
rule a request broke to the JSON file named by argv[1] and exits.
Decoding uses base64, binascii.crc_hqx and cbor2 only; the CRC is checked.
"""
import base64
import binascii
import hashlib
import json
import os
import pty
import sys
import tty

import cbor2

UPLOAD_KEYS = ["len", "sha", "data", "off", "image", "addr"]


def frames(packet):
    body = packet + binascii.crc_hqx(packet, 0).to_bytes(2, "big")
    text = base64.b64encode(len(body).to_bytes(2, "big") + body)
    out = b""
    for i in range(0, len(text), 124):
        out += (b"\x06\x09" if i == 0 else b"\x04\x14") + text[i:i + 124] + b"\n"
    return out


def answer(header, payload_map):
    payload = cbor2.dumps(payload_map)
    return bytes([header[0] + 1, 0]) + len(payload).to_bytes(2, "big") + header[4:8] + payload


def main():
    result_path = sys.argv[1]
    master, slave = pty.openpty()
    tty.setraw(slave)
    print(os.ttyname(slave), flush=True)

    state = {"violations": [], "crc_errors": 0, "requests": 0, "image": bytearray(), "len": None}
    pending = b""
    text = b""

    def violate(why):
        state["violations"].append(why)
        return {"rc": 3}

    def upload(group, m):
        keys = list(m.keys())
        if keys != [k for k in UPLOAD_KEYS if k in m] or any(k not in UPLOAD_KEYS for k in keys):
            return violate("key order %s" % keys)
        if not isinstance(m.get("data"), bytes) or not isinstance(m.get("off"), int):
            return violate("data or off missing")
        off = m["off"]
        if off == 0:
            if not isinstance(m.get("len"), int) or not isinstance(m.get("sha"), bytes):
                return violate("first chunk without len or sha")
            if hashlib.sha256(m["data"]).digest() != m["sha"]:
                return violate("sha is not the first chunk's digest")
            state["len"] = m["len"]
            state["image"] = bytearray()
        elif "len" in m or "sha" in m:
            return violate("len or sha after the first chunk")
        if "addr" in m and group != 0x41:
            return violate("addr outside the modem group")
        if off != len(state["image"]):
            return violate("offset %d, expected %d" % (off, len(state["image"])))
        state["image"] += m["data"]
        if state["len"] is None or len(state["image"]) > state["len"]:
            return violate("more data than len")
        return {"rc": 0, "off": len(state["image"])}

    while True:
        chunk = os.read(master, 65536)
        pending += chunk
        while b"\n" in pending:
            line, pending = pending.split(b"\n", 1)
            if line[:2] == b"\x06\x09":
                text = line[2:]
            elif line[:2] == b"\x04\x14":
                text += line[2:]
            else:
                continue
            try:
                body = base64.b64decode(text, validate=True)
            except (binascii.Error, ValueError):
                continue  # not complete yet
            length = int.from_bytes(body[:2], "big")
            if len(body) < length + 2:
                continue
            text = b""
            packet, crc = body[2:-2], int.from_bytes(body[-2:], "big")
            state["requests"] += 1
            if length != len(body) - 2 or binascii.crc_hqx(packet, 0) != crc:
                state["crc_errors"] += 1
                continue
            header, payload = packet[:8], packet[8:]
            if header[1] != 0 or int.from_bytes(header[2:4], "big") != len(payload):
                reply = violate("header flags or len")
            else:
                group, command = int.from_bytes(header[4:6], "big"), header[7]
                m = cbor2.loads(payload)
                if group in (1, 0x41) and command == 1 and header[0] == 2:
                    reply = upload(group, m)
                elif (group, command, header[0]) in ((1, 5, 2), (0, 5, 2)):
                    reply = {"rc": 0}
                else:
                    reply = {"rc": 8}  # not supported, as a bare boot loader answers
            os.write(master, frames(answer(header, reply)))
            if int.from_bytes(header[4:6], "big") == 0 and header[7] == 5:
                with open(result_path, "w") as f:
                    json.dump({"violations": state["violations"], "crc_errors": state["crc_errors"],
                               "requests": state["requests"], "image": state["image"].hex()}, f)
                return


if __name__ == "__main__":
    main()
