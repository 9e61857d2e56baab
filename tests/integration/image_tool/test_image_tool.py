#!/usr/bin/python3
"""`halyx image` against srec_cat, arm-none-eabi-objcopy and Python's intelhex.

usage: test_image_tool.py HALYX_TOOL TEST_DATA_DIR
"""
import json
import os
import subprocess
import sys
import tempfile
import unittest

from intelhex import IntelHex

TOOL = sys.argv[1] if len(sys.argv) > 1 else "halyx"
DATA = sys.argv[2] if len(sys.argv) > 2 else "."


def run(*args):
    return subprocess.run(list(args), capture_output=True, text=True)


def check(*args):
    result = run(*args)
    if result.returncode != 0:
        raise AssertionError(f"{' '.join(args)} failed: {result.stdout}{result.stderr}")
    return result.stdout


def read(path):
    with open(path, "rb") as f:
        return f.read()


class ImageTool(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.dir = self.tmp.name

    def tearDown(self):
        self.tmp.cleanup()

    def path(self, name):
        return os.path.join(self.dir, name)

    def random_hex(self, seed, segmented=False):
        """A HEX file with gaps written by intelhex, or with 02 records by srec_cat."""
        path = self.path(f"in{seed}.hex")
        check("/usr/bin/python3", os.path.join(DATA, "hex_oracle.py"), "write", path, str(seed), "50000")
        ih = IntelHex(path)
        if segmented:
            check("srec_cat", path, "-intel", "-o", path + ".seg", "-intel", "-address-length=3")
            os.replace(path + ".seg", path)
        return path, ih.minaddr(), ih.maxaddr() + 1

    def test_hex_to_bin_matches_srec_cat(self):
        for seed in range(1, 7):
            source, low, high = self.random_hex(seed, segmented=seed % 2 == 0)
            check(TOOL, "image", "convert", source, self.path("ours.bin"))
            check("srec_cat", source, "-intel", "-fill", "0xFF", hex(low), hex(high), "-offset", hex(-low),
                  "-o", self.path("srec.bin"), "-binary")
            self.assertEqual(read(self.path("ours.bin")), read(self.path("srec.bin")), source)
            # Through our own HEX output, the same bytes again.
            check(TOOL, "image", "convert", source, self.path("ours.hex"))
            check(TOOL, "image", "convert", self.path("ours.hex"), self.path("again.bin"))
            self.assertEqual(read(self.path("again.bin")), read(self.path("srec.bin")))
            self.assertEqual(IntelHex(self.path("ours.hex")).start_addr, IntelHex(source).start_addr)

    def build_elf(self):
        with open(os.path.join(DATA, "cortex_m", "link.ld.in")) as f:
            script = f.read().replace("@CONFIG_ORIGIN@", "0x00040000")
        with open(self.path("link.ld"), "w") as f:
            f.write(script)
        elf = self.path("fw.elf")
        check("arm-none-eabi-gcc", "-mcpu=cortex-m0plus", "-mthumb", "-O2", "-nostdlib", "-ffreestanding",
              "-T", self.path("link.ld"), os.path.join(DATA, "cortex_m", "main.c"), "-o", elf)
        return elf

    def test_elf_matches_objcopy(self):
        elf = self.build_elf()
        check("arm-none-eabi-objcopy", "-O", "binary", "--gap-fill", "0xff", elf, self.path("objcopy.bin"))
        check(TOOL, "image", "convert", elf, self.path("ours.bin"))
        self.assertEqual(read(self.path("ours.bin")), read(self.path("objcopy.bin")))

        check("arm-none-eabi-objcopy", "-O", "ihex", elf, self.path("objcopy.hex"))
        check(TOOL, "image", "convert", elf, self.path("ours.hex"))
        ours, theirs = IntelHex(self.path("ours.hex")), IntelHex(self.path("objcopy.hex"))
        self.assertEqual(ours.tobinstr(), theirs.tobinstr())
        self.assertEqual(ours.segments(), theirs.segments())
        # objcopy writes a small entry point as CS:IP, we write it as a linear address.
        entry = theirs.start_addr.get("EIP", theirs.start_addr.get("CS", 0) * 16 + theirs.start_addr.get("IP", 0))
        self.assertEqual(ours.start_addr, {"EIP": entry})

        info = json.loads(check(TOOL, "image", "info", elf, "--json"))
        self.assertEqual(info["format"], "elf")
        self.assertEqual([(s["address"], s["address"] + s["size"]) for s in info["segments"]], theirs.segments())
        self.assertEqual(info["startAddress"], {"kind": "linear", "value": entry})

    def test_info_describes_mcuboot_images_and_packages(self):
        image = self.path("app.bin")
        made = json.loads(check("/usr/bin/python3", os.path.join(DATA, "make_mcuboot_image.py"), "image", image,
                                json.dumps({"body": 3000, "protected": True, "version": [2, 1, 7, 99]})))
        info = json.loads(check(TOOL, "image", "info", image, "--json"))
        self.assertEqual(info["mcuboot"]["sha256"], made["sha256"])
        self.assertTrue(info["mcuboot"]["hashMatches"])
        self.assertEqual(info["mcuboot"]["version"], "2.1.7+99")
        self.assertEqual(info["mcuboot"]["imageSize"], 3000)
        self.assertEqual([a["magic"] for a in info["mcuboot"]["tlvAreas"]], [0x6908, 0x6907])

        package = self.path("pkg.zip")
        layout = {"files": [{"file": "net.bin", "image_index": "1", "load_address": 0x1000000},
                          {"file": "app.hex", "image_index": 0}],
                "images": {"net.bin": {"body": 100}, "app.hex": {"body": 200, "hex": 0x8000}}}
        made = json.loads(check("/usr/bin/python3", os.path.join(DATA, "make_mcuboot_image.py"), "package", package,
                                json.dumps(layout)))
        info = json.loads(check(TOOL, "image", "info", package, "--json"))
        self.assertEqual([e["file"] for e in info["manifest"]], ["net.bin", "app.hex"])
        self.assertEqual(info["manifest"][0]["segments"], [{"address": 0x1000000, "size": made["net.bin"]["length"]}])
        self.assertEqual(info["manifest"][0]["item"]["image_index"], "1")
        self.assertEqual([e["mcuboot"]["sha256"] for e in info["manifest"]],
                         [made["net.bin"]["sha256"], made["app.hex"]["sha256"]])
        self.assertIn("sha256:", check(TOOL, "image", "info", package))

    def test_bad_files_exit_with_their_message(self):
        def refused(args, message):
            result = run(TOOL, "image", *args)
            self.assertEqual(result.returncode, 1, result.stderr)
            self.assertIn(message, result.stderr)
            self.assertEqual(result.stdout, "")

        with open(self.path("bad.hex"), "w") as f:
            f.write(":0100000041BF\n:00000001FF\n")
        refused(["convert", self.path("bad.hex"), self.path("out.bin")],
                "halyx: Failed to parse line 1 : \":0100000041BF\"\n"
                "halyx:   Checksum for line is not correct. Expected 0xBE, got 0xBF.")
        self.assertFalse(os.path.exists(self.path("out.bin")))
        with open(self.path("overlap.hex"), "w") as f:
            f.write(":0100100041AE\n:0100100042AD\n:00000001FF\n")
        refused(["info", self.path("overlap.hex")], "Overlapping segments detected at address 0x00000010.")
        check("gcc", "-c", "-x", "c", "/dev/null", "-o", self.path("x64.elf"))
        refused(["info", self.path("x64.elf")], "Content is not a 32bit elf file.")
        with open(self.path("short.elf"), "wb") as f:
            f.write(b"\x7fELF\x01")
        refused(["convert", self.path("short.elf"), self.path("out.hex")], "Could not load elf data.")
        refused(["convert", self.path("overlap.hex"), self.path("out.s19")],
                "s19 was not recognized as a supported format specifier.")
        check("/usr/bin/python3", os.path.join(DATA, "make_mcuboot_image.py"), "image", self.path("cut.bin"),
              json.dumps({"body": 100}))
        with open(self.path("cut.bin"), "r+b") as f:
            f.truncate(100 + 32 + 2)
        refused(["info", self.path("cut.bin")],
                "Unable to parse TLV area: remaining bytes are less than TLV area header")
        with open(self.path("manifest.txt"), "w") as f:
            f.write("{}")
        check("zip", "-q", "-j", self.path("nomanifest.zip"), self.path("manifest.txt"))
        refused(["info", self.path("nomanifest.zip")], "halyx: error 10: file not found in zip: manifest.json")
        refused(["info", self.path("missing.hex")], "BinaryImage access error, could not open")
        # A raw binary must say so by its name; the same bytes named .bin are read.
        with open(self.path("raw.img"), "wb") as f:
            f.write(b"\x00\x10\x00\x20" * 4)
        refused(["info", self.path("raw.img")], "Name a raw binary image .bin.")
        os.rename(self.path("raw.img"), self.path("raw.bin"))
        self.assertEqual(json.loads(check(TOOL, "image", "info", self.path("raw.bin"), "--json"))["size"], 16)

    def test_contents_decide_for_names_that_do_not(self):
        with open(self.path("firmware.txt"), "w") as f:
            f.write(":0100100041AE\n; written by hand\n:00000001FF\n")
        info = json.loads(check(TOOL, "image", "info", self.path("firmware.txt"), "--json"))
        self.assertEqual((info["format"], info["segments"]), ("intel-hex", [{"address": 0x10, "size": 1}]))
        check(TOOL, "image", "convert", self.path("firmware.txt"), self.path("out.bin"))
        self.assertEqual(read(self.path("out.bin")), b"\x41")

    def test_usage(self):
        for command in (["info"], ["convert"], []):
            result = run(TOOL, "image", *command, "--help")
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertIn("Usage: halyx image " + " ".join(command), result.stdout)
        for args, message in ((["convert", "in.hex"], "OUT is required"),
                              (["info", "in.hex", "--bogus"], "unexpected argument for 'info': --bogus"),
                              (["info", "in.hex", "--base", "0x100000000"],
                               "--base: 0x100000000 is not an address from 0 to 0xFFFFFFFF"),
                              (["convert", "in.hex", "out.bin", "--json"], "unexpected argument for 'convert': --json")):
            result = run(TOOL, "image", *args)
            self.assertEqual(result.returncode, 2, args)
            self.assertIn(message, result.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
