"""A reading of the frame format of its own, to hold the agent's against. Standard library only.

A frame log is frames back to back. A frame: one byte of version (low four bits) and byte order (bit
7), three bytes of type, two signed 64-bit times in milliseconds (since 1970, since boot), the
payload's length in 32 bits, the payload, and for version 0 a CRC-32 of all that. Little-endian.
"""

import base64
import json
import pathlib
import struct
import typing
import zlib

HEADER = 24

FLUSH, COUNTER, SESSION_ID, EVENT = 1, 2, 128, 134


class Torn(Exception):
    """A log that stops being one."""


class Frame(typing.NamedTuple):
    offset: int
    type: int
    payload: dict
    raw: bytes

    @property
    def event_name(self):
        return base64.b64decode(self.payload["sk.event.name"], validate=True).decode()

    @property
    def event_parameters(self):
        def decoded(text):
            return base64.b64decode(text, validate=True).decode()

        return {decoded(k): decoded(v) for k, v in self.payload["sk.event.user.parameters"].items()}


def frame(kind, payload, epoch=1, version=1):
    """The bytes of one."""
    body = json.dumps(payload, separators=(",", ":")).encode()
    made = struct.pack("<B3sqqI", version, kind.to_bytes(3, "little"), epoch, 5000, len(body)) + body
    return made + (struct.pack("<I", zlib.crc32(made)) if version == 0 else b"")


def _frame_at(data, offset):
    if len(data) - offset < HEADER:
        raise Torn(f"offset {offset}: {len(data) - offset} bytes of a header")
    first, kind, _, _, size = struct.unpack_from("<B3sqqI", data, offset)
    raw, length = bytes(data[offset:offset + HEADER + size]), HEADER + size + (0 if first & 0x0F else 4)
    crc = bytes(data[offset + HEADER + size:offset + length])
    try:
        payload = json.loads(raw[HEADER:].decode()) if size else None
    except ValueError as error:
        payload = error
    wrong = (f"{len(data) - offset} bytes of a frame of {length}" if len(raw + crc) < length else
             f"first byte {first:#04x}" if first & 0x70 else
             "a wrong checksum" if crc and crc != struct.pack("<I", zlib.crc32(raw)) else
             f"a payload that is no object: {payload}" if not isinstance(payload, dict) else None)
    if wrong:
        raise Torn(f"offset {offset}: {wrong}")
    return Frame(offset, int.from_bytes(kind, "little"), payload, raw + crc)


def readable(data):
    """The frames up to where the log ends or is torn, and the Torn or None."""
    frames, offset = [], 0
    while offset < len(data):
        try:
            frames.append(_frame_at(data, offset))
        except Torn as torn:
            return frames, torn
        offset += len(frames[-1].raw)
    return frames, None


def frames_of(data):
    """Every frame of a log that must be whole."""
    frames, torn = readable(data)
    if torn:
        raise torn
    return frames


def flush_of(frames):
    """The status of the flush that closed a log; None for one that is still open."""
    return frames[-1].payload["sk.flush.frame.code"] if frames and frames[-1].type == FLUSH else None


def frames_in(path):
    return frames_of(pathlib.Path(path).read_bytes())

