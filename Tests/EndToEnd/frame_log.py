"""A reading of the frame format of its own, to hold the agent's against. Standard library only.

A frame log is frames back to back. A frame: one byte of version (low four bits) and byte order (bit
7), three bytes of type, two signed 64-bit times in milliseconds (since 1970, since boot), the
payload's length in 32 bits, the payload, and for version 0 a CRC-32 of all that. Little-endian.
"""

import base64
import dataclasses
import json
import pathlib
import struct
import zlib

HEADER = 24

FLUSH, COUNTER, SESSION_ID, EVENT = 1, 2, 128, 134


class Torn(Exception):
    """A log that stops being one at `offset`."""

    def __init__(self, offset, why):
        super().__init__(f"offset {offset}: {why}")
        self.offset = offset


@dataclasses.dataclass(frozen=True)
class Frame:
    offset: int
    length: int
    version: int
    type: int
    epoch: int
    uptime: int
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
    left = len(data) - offset
    if left < HEADER:
        raise Torn(offset, f"{left} bytes of a header")
    first, low, middle, high, epoch, uptime, size = struct.unpack_from("<BBBBqqI", data, offset)
    version = first & 0x0F
    length = HEADER + size + (4 if version == 0 else 0)
    if length > left:
        raise Torn(offset, f"{left} bytes of a frame of {length}")
    if size == 0:
        raise Torn(offset, "an empty payload")
    if first & 0x70:
        raise Torn(offset, f"first byte {first:#04x}")
    body = data[offset + HEADER:offset + HEADER + size]
    if version == 0:
        stored, = struct.unpack_from("<I", data, offset + HEADER + size)
        if stored != zlib.crc32(data[offset:offset + HEADER + size]):
            raise Torn(offset, "a wrong checksum")
    try:
        payload = json.loads(body.decode("utf-8"))
    except ValueError as error:
        raise Torn(offset, f"a payload that is not JSON: {error}") from None
    if not isinstance(payload, dict):
        raise Torn(offset, "a payload that is not an object")
    return Frame(offset, length, version, low | middle << 8 | high << 16, epoch, uptime, payload,
                 bytes(data[offset:offset + length]))


def readable(data):
    """The frames up to where the log ends or is torn, and the Torn or None."""
    frames, offset = [], 0
    while offset < len(data):
        try:
            frames.append(_frame_at(data, offset))
        except Torn as torn:
            return frames, torn
        offset += frames[-1].length
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

