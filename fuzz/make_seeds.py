#!/usr/bin/env python3
"""Write the fuzzers' seeds: the requests of the channel's transcript, and netlink datagrams.

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


write(HERE / "corpus" / "channel", channel_seeds(8))
write(HERE / "corpus" / "netlink", netlink_seeds())
