#!/usr/bin/env python3
"""Write the fuzzers' seeds: the requests of the channel's transcript, netlink datagrams, frames
and records of the standby's peer.

Seeds of the channel are whole conversations of a few requests, so that later ones find what
earlier ones created. Run it when the transcript has changed.
"""
import pathlib
import struct

HERE = pathlib.Path(__file__).resolve().parent
TRANSCRIPT = HERE.parent / "tests" / "channel" / "transcript.txt"
LONGEST = 1518


def requests():
    """The body of each well-framed request of the transcript."""
    for paragraph in TRANSCRIPT.read_text().split("\n\n"):
        lines = [line[1:] for line in paragraph.splitlines() if line.startswith("> ")]
        if lines and lines != [" nothing"]:
            frame = bytes.fromhex("".join(lines))
            if len(frame) >= 4 and 4 + int.from_bytes(frame[:4], "big") == len(frame):
                yield frame[4:]


def write(folder, seeds):
    folder.mkdir(parents=True, exist_ok=True)
    for old in folder.glob("seed-*"):
        old.unlink()
    for number, seed in enumerate(seeds):
        (folder / f"seed-{number:03}").write_bytes(seed)


def channel_seeds(length):
    bodies = [body for body in requests() if len(body) < LONGEST]
    for start in range(0, len(bodies), length):
        chunk = bodies[start : start + length]
        yield b"".join(b"\x05" + struct.pack(">H", len(body)) + body for body in chunk)


def netlink(kind, payload=b""):
    head = struct.pack("<IHHII", 16 + len(payload), kind, 0, 0, 0)
    return head + payload + b"\0" * (-len(payload) % 4)


def netlink_seeds():
    for kind in (16, 17, 87, 90, 3):
        yield netlink(kind)
    yield netlink(16, b"12345") + netlink(17, b"1") + netlink(90)
    yield netlink(16)[:15]
    yield netlink(16) + struct.pack("<I", 15) + b"\0" * 12


MACS = bytes.fromhex("010000000001" "020000000001")
UNTRANSLATABLE, CUT, SLOT, SYSTEM = 0x0C, 0x08, 0x04, 0x00  # places of the interface
DATA, RESET, WALK, UNTRACED = 0x10, 0x20, 0x40, 0x80
IPV4, ARP = 0, 1


def row(frame, flags, unit=7, offset=14, time=0, last=0):
    head = struct.pack(">BBIBB", time, flags, unit, offset, last)
    return head + frame[:80].ljust(80, b"\0")


def arp(tail=b""):
    return MACS + struct.pack(">HHHBBH", 0x0806, 1, 0x0800, 6, 4, 1) + MACS[6:] + bytes(
        (10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 10, 0, 0, 2)
    ) + tail


def ipv4(protocol, source=0, destination=0, options=0, ethernet=MACS + b"\x08\x00"):
    header = struct.pack(">BBHHHBBH", 0x45 + options, 0, 40, 0, 0, 64, protocol, 0)
    header += bytes((10, 0, 0, 1, 10, 0, 0, 2)) + b"\1" * 4 * options
    return ethernet + header + struct.pack(">HH", source, destination)


def packet_seeds():
    """Each frame several times within a tick, so that it is a burst and recorded."""
    frames = [
        (arp(), ARP),
        (ipv4(1), IPV4),
        (ipv4(2), IPV4),
        (ipv4(6, 1024, 80), IPV4),
        (ipv4(6, 1024, 23), IPV4),
        (ipv4(6, 1024, 23, options=10), IPV4),
        (ipv4(17, 68, 67), IPV4),
        (ipv4(17, 67, 68), IPV4),
        (ipv4(17, 1024, 67), IPV4),
        (ipv4(89), IPV4),
    ]
    for place in (SYSTEM, SLOT):
        for frame, kind in frames:
            yield row(frame, kind | place | DATA) * 5 + row(frame, kind | place | WALK, time=11)
    tagged = ipv4(1, ethernet=MACS + bytes.fromhex("8100000a0800"))
    yield row(tagged, SLOT | DATA, offset=18) * 5
    yield row(arp(), ARP | SLOT, offset=79) * 5
    yield row(ipv4(6, options=10), SLOT, offset=50) * 5
    for offset, length in ((14, 42), (14, 80), (79, 80), (80, 80), (14, 0), (14, 13)):
        yield row(arp(), ARP | SLOT | DATA, offset=0x80 | offset, last=length) * 5
    yield row(tagged, SLOT | DATA, offset=0x80 | 18, last=46) * 5
    yield b"".join(row(arp(), ARP | SLOT, unit) * 4 for unit in (1, 0x80000000, 0x40000001, 3))
    yield b"".join(row(arp(), ARP | SLOT | WALK, unit, last=0x80) * 4 for unit in range(1, 6))
    yield row(arp(), ARP | SLOT) * 4 + row(arp(), ARP | SLOT | RESET) * 2
    yield row(arp(), ARP) * 4 + row(arp(), ARP | RESET) + row(arp(), ARP | UNTRACED)
    yield row(arp(), ARP | UNTRANSLATABLE) + row(arp(), ARP | CUT) * 4 + row(arp(), 2) + row(arp(), 3)


def message(records, time=0, attribute=False, tail=b""):
    data = b"".join(struct.pack(">III", *record) for record in records) + tail
    return bytes((time, len(data) | (0x80 if attribute else 0))) + data


def sync_seeds():
    for attribute in (False, True):
        for position in (0, 1, 2, 3, 4, 255, 0x102):
            records = [(0, 0, position), (1, 2, position), (7, 0, position), (9, 9, 1)]
            yield message(records, 50, attribute) + message([], 200) + message(records[1:], 60)
        yield message([(0, 0, 1)], 0, attribute, b"\0" * 11)
        yield message([], 0, attribute, b"\0" * 11)
        yield message([(0x101, 0x102, 3), (1, 0x80000002, 3)] * 5, 255, attribute)


write(HERE / "corpus" / "channel", channel_seeds(8))
write(HERE / "corpus" / "netlink", netlink_seeds())
write(HERE / "corpus" / "packet", packet_seeds())
write(HERE / "corpus" / "sync", sync_seeds())
