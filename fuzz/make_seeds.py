#!/usr/bin/env python3
"""Writes the seed corpus of every harness into fuzz/corpus/<harness>/.

The seeds follow each harness's input format (see the comment at the top of each harness):
a few short, readable inputs that start the fuzzer in the interesting regions (correct
traffic, full rings, wrap-around, scribbled indices and prefixes, a full listener list,
expiring watchdogs, records of every shape). Re-run after changing an input format.
"""
import os
import struct
import sys

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def u16(v):
    return struct.pack("<H", v & 0xFFFF)


def u32(v):
    return struct.pack("<I", v & 0xFFFFFFFF)


def write(harness, name, data):
    directory = os.path.join(ROOT, harness)
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(directory, name), "wb") as f:
        f.write(bytes(data))


# --- fuzz_channel_rings ---------------------------------------------------------------
# Operation codes: application 0-9, the daemon the same with bit 7 set.
APP_PUSH, APP_POP, APP_UNSYNCED, APP_EMPTY, APP_GATE = 0, 2, 4, 5, 6
DMN_PUSH, DMN_POP, DMN_UNSYNCED, DMN_EMPTY = 0x80, 0x82, 0x84, 0x85
SCRIBBLE_INDEX, PATCH = 7, 8
CLIENT_C, SERVER_C = 131071, 32767


def ring_push(op, length, kind):
    """A push with an exact 16-bit length (length class 5)."""
    return bytes([op, 5]) + u16(length) + bytes([kind])


def ring_push_small(op, length, kind):
    return bytes([op, 0, length % 64, kind])


def index(value, raw=True):
    return bytes([1 if raw else 0]) + u32(value)


def ring_patch(server, offset, data):
    return bytes([1 if server else 0]) + u32(offset) + u16(len(data)) + bytes(data)


def rings():
    h = "fuzz_channel_rings"
    # Correct traffic both ways: the gate opened, records popped in order.
    seed = bytes([0])
    seed += ring_push_small(APP_PUSH, 10, 9) * 3 + bytes([APP_GATE, 0])
    seed += bytes([DMN_POP]) * 2 + bytes([DMN_EMPTY, DMN_POP, DMN_EMPTY])
    seed += ring_push_small(DMN_PUSH, 6, 24) + bytes([APP_EMPTY, APP_POP, APP_EMPTY])
    write(h, "fifo-both-ways", seed)
    # The application's ring filled past its capacity with large records: discards.
    seed = bytes([0]) + ring_push(APP_PUSH, 40000, 7) * 4 + bytes([APP_GATE, 0])
    seed += bytes([DMN_POP]) * 4 + ring_push(APP_PUSH, 65535, 8) + bytes([DMN_POP, DMN_EMPTY])
    write(h, "client-ring-overflow", seed)
    # The daemon's ring wrapped: records that do not fit before the end go to 0.
    seed = bytes([0]) + ring_push(DMN_PUSH, 12000, 200) * 2 + bytes([APP_POP])
    seed += ring_push(DMN_PUSH, 12000, 201) + bytes([APP_POP, APP_POP, APP_EMPTY, APP_POP])
    write(h, "server-ring-wrap", seed)
    # Scribbled start: indices past the end, a prefix that runs over W and the ring's end.
    seed = bytes([3]) + index(CLIENT_C - 2) + index(5) + index(SERVER_C + 7) + index(0xFFFFFFFF)
    seed += bytes([2]) + ring_patch(False, 5, [0xFF, 0xFF, 1, 2, 3]) + ring_patch(True, SERVER_C - 4, [0x30, 0x00])
    seed += bytes([APP_POP, DMN_POP, APP_GATE, 0, DMN_POP]) + ring_push_small(APP_PUSH, 20, 3)
    seed += bytes([DMN_EMPTY, DMN_POP]) + ring_push_small(DMN_PUSH, 30, 99) + bytes([APP_POP, APP_EMPTY])
    write(h, "scribbled-start", seed)
    # Scribbles between correct operations: the peer moves R behind W and writes a prefix.
    seed = bytes([0]) + ring_push_small(APP_PUSH, 40, 9) * 2
    seed += bytes([SCRIBBLE_INDEX, 0]) + index(1) + bytes([PATCH]) + ring_patch(False, 60, [0x00, 0x10])
    seed += bytes([APP_GATE, 0, DMN_POP, DMN_POP]) + ring_push(APP_PUSH, 20000, 10) + bytes([DMN_POP, DMN_EMPTY])
    seed += bytes([DMN_UNSYNCED, 0, APP_UNSYNCED, 1])
    write(h, "scribbles-between", seed)
    # Refused records: empty, a kind the application may not send, longer than the ring.
    seed = bytes([0]) + bytes([APP_PUSH, 6, 0, 22]) + ring_push_small(APP_PUSH, 5, 22)
    seed += ring_push_small(APP_PUSH, 5, 25) + bytes([APP_PUSH, 6, 18, 7]) + bytes([DMN_PUSH, 6, 9, 0])
    write(h, "refused-records", seed)


# --- fuzz_channel_priority ------------------------------------------------------------
PUSH, FORCE, POP, LOCKED_POP, EMPTY, CLEAR, SET_SIZE, PATCH_DATA = 0, 2, 3, 4, 5, 6, 7, 8
D_POP, D_LOCKED_POP, D_EMPTY, D_CLEAR = 0x83, 0x84, 0x85, 0x86  # the daemon: bit 7 set


def prio_record(op, length, kind):
    return bytes([op, 1]) + u16(length) + bytes([kind])


def priority():
    h = "fuzz_channel_priority"
    seed = bytes([0]) + prio_record(PUSH, 10, 3) + prio_record(PUSH, 10, 5) + bytes([D_EMPTY, 0, D_POP])
    seed += prio_record(PUSH, 14, 5) + bytes([D_LOCKED_POP, EMPTY, 1])
    write(h, "push-pop", seed)
    seed = bytes([0]) + prio_record(FORCE, 1000, 2) * 3 + bytes([D_POP]) + prio_record(FORCE, 2047, 0)
    seed += prio_record(FORCE, 2048, 0) + prio_record(PUSH, 2048, 0) + bytes([D_POP])
    write(h, "forced-append", seed)
    seed = bytes([0]) + prio_record(PUSH, 8, 4) + prio_record(FORCE, 8, 6) + prio_record(PUSH, 2049, 1)
    seed += prio_record(PUSH, 0, 1)
    write(h, "refused-kinds", seed)
    seed = bytes([1]) + u16(0xFFFF) + u16(2040) + u16(8) + bytes(range(1, 9))
    seed += bytes([D_POP]) + bytes([SET_SIZE]) + u16(2049) + prio_record(PUSH, 4, 3) + prio_record(FORCE, 4, 3)
    seed += bytes([EMPTY, 0, D_LOCKED_POP, SET_SIZE]) + u16(300) + bytes([D_CLEAR, D_EMPTY, 1])
    write(h, "scribbled-size", seed)


# --- fuzz_channel_liveness -----------------------------------------------------------
def liveness():
    h = "fuzz_channel_liveness"
    CLIENT, SERVER, CLOCK, UPDATE, ACTIVE = 0, 1, 2, 3, 4
    D = 0x80  # at the daemon's end

    def near(op, delta):
        return bytes([op, 1, delta & 0xFF])

    def raw(op, value):
        return bytes([op, 3]) + struct.pack("<q", value)

    write(h, "both-alive", bytes([0]) + near(CLIENT, 0) + near(SERVER, -3) + bytes([ACTIVE, ACTIVE | D])
          + near(SERVER, -6) + bytes([ACTIVE]))
    write(h, "stale-both", bytes([1]) + near(CLIENT, -3) + near(SERVER, -3) + bytes([UPDATE, ACTIVE | D, CLOCK, 2, 0, ACTIVE]))
    write(h, "absurd-difference", bytes([1]) + raw(CLIENT, 100) + raw(SERVER, 100 + 1073741823) + bytes([ACTIVE | D])
          + raw(SERVER, -(2**63)) + raw(CLIENT, 2**63 - 1) + bytes([ACTIVE, CLOCK, 1]) + struct.pack("<q", 2**63 - 1)
          + bytes([ACTIVE | D, CLOCK, 1]) + struct.pack("<q", 0) + bytes([UPDATE]))
    write(h, "clock-fails", bytes([0]) + near(CLIENT, 0) + bytes([CLOCK, 2, 0, ACTIVE, UPDATE | D, CLOCK, 0, 1, ACTIVE]))


# --- fuzz_listener --------------------------------------------------------------------
L_PUSH, L_CHECK, L_POP, L_NEXT, L_NEW, L_EMPTY, L_WATCH, L_SYNC, L_CLOCK, L_SCRIBBLE = 0, 2, 4, 5, 6, 7, 8, 9, 10, 11
B = 0x80  # application B (the daemon's operations ignore it)


def name_push(op, name):
    return bytes([op, len(name)]) + name


def check_own(op):
    return bytes([op, 0])


def listener():
    h = "fuzz_listener"
    own = bytes([0, 0, 0, 0])  # A: own_entry -1, 0 checks; B: the same
    seed = bytes([0]) + own + name_push(L_PUSH, b"/logferry-APP1-12345-bebc20")
    seed += bytes([L_NEW, L_NEXT, L_NEW, L_EMPTY]) + check_own(L_CHECK) + bytes([L_POP, L_EMPTY, L_WATCH])
    write(h, "announce-take-withdraw", seed)
    # Client watchdog: 100 checks without pickup.
    seed = bytes([0]) + own + name_push(L_PUSH, b"/logferry-X-1-2") + check_own(L_CHECK) * 101
    write(h, "client-watchdog", seed)
    # Proxy watchdog: filled entries expire 5 s after the first pass.
    seed = bytes([0]) + own + name_push(L_PUSH, b"/logferry-A-1-1") + name_push(L_PUSH | B, b"/a" * 16)
    seed += bytes([L_WATCH, L_CLOCK, 5, L_WATCH, L_CLOCK, 0x80, L_WATCH, L_CLOCK, 0, L_NEXT, L_NEXT])
    write(h, "proxy-watchdog", seed)
    # A full list: 32 names and one more.
    seed = bytes([0]) + own
    for i in range(33):
        seed += name_push(L_PUSH | (B if i % 2 else 0), b"/logferry-%02d" % i)
    seed += bytes([L_NEXT, L_SYNC, L_NEXT])
    write(h, "full-list", seed)
    # Scribbled start: indices past the list, stuck and odd picked_up flags, full-length
    # names without terminator.
    seed = bytes([1]) + bytes([3, 0, 33, 250]) + bytes([4])
    seed += u16(1088) + bytes([1, 77]) + u16(1089) + bytes([1, 200])
    seed += u16(34 * 2) + bytes([34]) + b"N" * 32 + bytes([2, 1])
    seed += u16(34 * 5 + 32) + bytes([2, 1, 0])
    seed += bytes([0x10] * 32)
    seed += bytes([L_SYNC, L_NEXT, L_NEW]) + check_own(L_CHECK) + bytes([L_POP | B, L_WATCH, L_EMPTY])
    seed += name_push(L_PUSH, b"/logferry-" + b"z" * 22) + name_push(L_PUSH, b"/logferry-" + b"z" * 23)
    write(h, "scribbled-start", seed)


# --- fuzz_deserialize -----------------------------------------------------------------
def deserialize():
    h = "fuzz_deserialize"
    write(h, "update", bytes([0]) + u32(0) + bytes([24, 6, 0x78, 0x56, 0x34, 0x12]))
    write(h, "level-7", bytes([0]) + u32(99) + bytes([24, 7, 0x78, 0x56, 0x34, 0x12]))
    write(h, "short-count", bytes([11]) + u32(99) + bytes([24, 3, 1, 2, 3, 4]))
    write(h, "two-bytes", bytes([0]) + u32(5) + bytes([24, 0]))


# --- fuzz_decoder ---------------------------------------------------------------------
def decoder():
    h = "fuzz_decoder"
    register_app = bytes([3, 0x0A, 0x00]) + b"ABCD" + bytes([0]) + b"x" + bytes([0])
    register_context = bytes([5, 14, 0, 4, 4, 3, 2, 1]) + b"CTX1" + bytes([0, 0])
    start = bytes([7, 3, 7, 0, 0, 0, 0x44, 0x33, 0x22, 0x11, 0, 0, 0, 0])
    key = bytes([0x44, 0x33, 0x22, 0x11])
    finish = bytes([8]) + key
    int32 = bytes([12]) + key + u32(42)
    text = bytes([20]) + u16(6) + key + b"hello" + bytes([0])
    raw = bytes([21]) + key + bytes([1]) + u16(3) + bytes([9, 8, 7])
    write(h, "priority-area", register_app + register_context)
    write(h, "log-message", start + int32 + text + raw + finish)
    write(h, "short-text-form", start + bytes([20]) + u16(6) + key + finish)
    write(h, "level-update", bytes([24, 6, 0x2A, 0, 0, 0]))
    write(h, "truncated", start[:9])


# --- fuzz_daemon_message --------------------------------------------------------------
def daemon_message():
    h = "fuzz_daemon_message"
    filters = bytes([2, 42, 4, 0x80]) + u32(0x12345678) + bytes([3])

    def message(data):
        return u16(len(data)) + bytes(data)

    write(h, "level-updates", filters + message([24, 6, 0x2A, 0, 0, 0]) + message([24, 6, 0x78, 0x56, 0x34, 0x12])
          + message([24, 6, 7, 0, 0, 0]) + message([24, 7, 0x2A, 0, 0, 0]) + message([24, 1, 0x2A, 0, 0, 0, 0]))
    write(h, "console-text", bytes([0]) + message(b"hello\n") + message(b"a\0b") + message(b"") + message([0]))
    write(h, "short-update", filters + message([24]) + message([24, 2]) + message([24, 2, 0x2A, 0, 0]))


# --- fuzz_dlt_encoder / fuzz_dlt_control ------------------------------------------------
def dlt_argument(kind, width, fmt, value, data=b"", size=None):
    return (bytes([kind, width, fmt, 1]) + struct.pack("<Q", value & 0xFFFFFFFFFFFFFFFF)
            + struct.pack("<d", 1.5) + u16(size if size is not None else len(data)) + bytes([len(data)]) + bytes(data))


def dlt_message(capacity, args, level=4):
    return (u16(capacity) + bytes([level, 7]) + u32(0x12345) + u32(4321) + b"ECU1APP1CTX1"
            + bytes([len(args)]) + b"".join(args))


def dlt_encoder():
    h = "fuzz_dlt_encoder"
    every = [dlt_argument(kind, kind % 4, kind % 7, -5 if kind == 1 else 0xA5, b"hello" if kind >= 5 else b"")
             for kind in range(9)]
    write(h, "every-kind", dlt_message(0xFFFF, every))
    write(h, "formats", dlt_message(0xFFFF, [dlt_argument(2, w, f, 0xBEEF) for w in range(4) for f in range(7)]))
    write(h, "too-small", dlt_message(40, every[:3]))
    write(h, "odd-width", dlt_message(0xFFFF, [dlt_argument(1, 24, 0, 1)]))
    write(h, "too-long", dlt_message(0xFFFF, [dlt_argument(5, 0, 0, 0, b"x" * 8, size=40000)] * 2, level=1))


def dlt_request(payload, htyp=0x25):
    length = 18 + len(payload)
    return bytes([htyp, 0]) + struct.pack(">H", length) + b"ECU1" + bytes([0x16, 0]) + b"APP\0CON\0" + payload


def dlt_control():
    h = "fuzz_dlt_control"
    set_level = u32(1) + b"APP1CTX1" + bytes([5]) + b"remo"
    write(h, "set-log-level", dlt_request(set_level))
    write(h, "big-endian", dlt_request(struct.pack(">I", 1) + b"APP1CTX1" + bytes([5]) + b"remo", 0x27))
    write(h, "several", dlt_request(u32(3) + bytes([7]) + b"APP1CTX1remo") + dlt_request(u32(0x11) + bytes([2]) + b"remo")
          + dlt_request(u32(0x13)) + dlt_request(u32(0xF22)))
    write(h, "truncated", dlt_request(set_level)[:25])
    write(h, "bad-parameters", dlt_request(u32(1) + b"APP1") + dlt_request(u32(1) + b"APP1CTX1" + bytes([9])))
    write(h, "garbage", b"GET / HTTP/1.0\r\n\r\n")
    write(h, "serial-header", b"DLS\x01" + dlt_request(set_level))


def main():
    liveness()
    daemon_message()
    rings()
    priority()
    listener()
    deserialize()
    decoder()
    dlt_encoder()
    dlt_control()
    return 0


if __name__ == "__main__":
    sys.exit(main())
