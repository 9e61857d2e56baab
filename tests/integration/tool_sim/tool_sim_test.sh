#!/usr/bin/env bash
# `halyx list --json` and `halyx watch` inside halyx-sim: each kit is one
# device with its traits, USB section and serial ports; a kit plugged and
# unplugged while watching shows up as an arrival with its ports and a removal.
# `halyx program` writes an image into a kit in MCUboot serial recovery, and
# what its boot loader stored is the image, byte for byte.
set -u
sim="$1"
tool="$2"
recorded="$3"
work=$(mktemp -d)
# The programming lock of this run's kit lives on in /dev/shm unless removed.
trap 'rm -rf "$work" "/dev/shm/sem.halyx-MBT$$" "/dev/shm/halyx-MBT$$.owner"' EXIT
failed=0

timeout 60 "$sim" --kit maker --kit probe --kit oldcdc --kit other --kit mcuboot --kit cellular --device "$recorded" \
    -- "$tool" list --json >"$work/list.json" 2>"$work/list.err" || {
    echo "FAIL: halyx list --json inside halyx-sim exited with $?"; cat "$work/list.err"; failed=1; }

/usr/bin/python3 - "$work/list.json" <<'PY' || failed=1
import json, sys
devices = json.load(open(sys.argv[1]))["devices"]
by_serial = {d["serialNumber"]: d for d in devices}
problems = []
def check(condition, what):
    if not condition:
        problems.append(what)

def true_traits(device):
    return sorted(name for name, value in device["traits"].items() if value)

maker = by_serial.get("KV0000001")
check(maker is not None, "the maker's kit is listed")
if maker:
    check(true_traits(maker) == ["kelvaneUsb", "serialPorts", "usb"], f"maker kit traits {true_traits(maker)}")
    check(maker["usb"]["device"]["descriptor"]["idVendor"] == 0x7A5C, "maker kit idVendor")
    check([p["vcom"] for p in maker["serialPorts"]] == [0, 1], "maker kit ports in vcom order")
    check(maker["usb"]["dfuTriggerVersion"]["semVer"] == "1.6.2", "maker kit DFU-trigger version")
    info = maker["usb"]["dfuTriggerInfo"]
    check(set(info) == {"wAddress", "wVersionMajor", "wVersionMinor", "wFirmwareId", "wFlashSize", "wFlashPageSize"},
          f"maker kit DFU-trigger info keys {sorted(info)}")
    check(info["wFlashSize"] == 0x100000, "maker kit flash size")

probe = by_serial.get("000683000123")
check(probe is not None and probe["usb"]["device"]["manufacturer"] == "SEGGER", "the probe kit is listed")
if probe:
    check(len(probe["serialPorts"]) == 1, "probe kit has one port")
    check(probe["serialPorts"][0]["manufacturer"] == "SEGGER (serial bridge)", "probe port marked as a bridge")

old = by_serial.get("KV0000009")
check(old is not None and old["traits"].get("broken") is False, "old CDC kit listed, not broken")
if old:
    check("dfuTriggerVersion" not in old["usb"], "old CDC kit has no DFU-trigger answer")

other = by_serial.get("OTHER0001")
check(other is not None and true_traits(other) == ["serialPorts", "usb"], "other vendor's device")

mcuboot = by_serial.get("MB0000001")
check(mcuboot is not None and true_traits(mcuboot) == ["mcuBoot", "serialPorts", "usb"],
      f"MCUboot device traits {mcuboot and true_traits(mcuboot)}")
cellular = by_serial.get("KV0000520")
check(cellular is not None and true_traits(cellular) == ["kelvaneUsb", "mcuBoot", "modem", "serialPorts", "usb"],
      f"cellular kit traits {cellular and true_traits(cellular)}")

recorded = by_serial.get("E7C3A1B2F0D4")
check(recorded is not None, "the recorded description's kit is listed")
if recorded:
    check(recorded["usbIdentifier"] == "2-1.3", f"recorded kit identifier {recorded.get('usbIdentifier')}")
    check(recorded["usb"]["busNumber"] == 2 and recorded["usb"]["address"] == 7, "recorded kit bus and address")
    check(recorded["serialPorts"][0]["path"].startswith("/dev/serial/by-id/"), "recorded kit port path")
    check(recorded["serialPorts"][0]["comName"] == "/dev/ttyACM17", "recorded kit port")
check(not any(d["usb"]["device"]["descriptor"]["idVendor"] == 0x1D6B for d in devices), "root hub left out")

for problem in problems:
    print("FAIL:", problem)
sys.exit(1 if problems else 0)
PY

# The tool needs time to start watching (more under the sanitizers) before the kit comes.
timeout 60 "$sim" --kit maker --hotplug other --plug-at 1500 --unplug-at 2500 --interrupt-at 3500 \
    -- "$tool" watch >"$work/watch.out" 2>"$work/watch.err"
status=$?
if [ "$status" -ne 0 ]; then
    echo "FAIL: halyx watch inside halyx-sim exited with $status"; cat "$work/watch.err"; failed=1
fi
/usr/bin/python3 - "$work/watch.out" <<'PY' || failed=1
import json, sys
events = [json.loads(line) for line in open(sys.argv[1]) if line.strip()]
# An update may follow the arrival when a port binds after the settle time.
events = [e for e in events if e["event"] != "updated"]
kinds = [e["event"] for e in events]
problems = []
if kinds != ["arrived", "left"]:
    problems.append(f"events {kinds}, wanted an arrival and a removal")
else:
    arrived, left = events
    ports = arrived["device"].get("serialPorts", [])
    if arrived["device"]["serialNumber"] != "OTHER0001" or len(ports) != 1:
        problems.append(f"arrival without its serial port: {arrived}")
    if left["id"] != arrived["id"] or left["device"] is not None:
        problems.append(f"removal does not match the arrival: {left}")
for problem in problems:
    print("FAIL:", problem)
sys.exit(1 if problems else 0)
PY

# Serial numbers of this run: the programming lock is shared by every process on the host.
serial="MBT$$"
head -c 150000 /dev/urandom >"$work/app.bin"
timeout 60 "$sim" --kit cellular="KCT$$" --kit mcuboot="$serial" --image-out "$work/stored.bin" \
    -- "$tool" program --serial "$serial" "$work/app.bin" >"$work/program.out" 2>"$work/program.err"
status=$?
if [ "$status" -ne 0 ]; then
    echo "FAIL: halyx program inside halyx-sim exited with $status"; cat "$work/program.out" "$work/program.err"; failed=1
elif ! grep -q "^Programmed $work/app.bin into device" "$work/program.out"; then
    echo "FAIL: halyx program did not say what it programmed"; cat "$work/program.out"; failed=1
elif ! cmp -s "$work/app.bin" "$work/stored.bin"; then
    echo "FAIL: the simulated boot loader stored $(stat -c %s "$work/stored.bin") bytes that differ from the image"
    failed=1
fi

[ "$failed" -eq 0 ] && echo "simulated kits: list, watch and program as expected"
exit "$failed"
