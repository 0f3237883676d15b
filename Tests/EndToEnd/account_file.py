"""A reading of the agent's intake file of its own, to hold the agent's account against: what is
counted there, and which records wait. Of a live agent or of a dead one. The bytes are told in
docs/intake-format.md.
"""

import collections
import struct
import typing

HEADER, SEGMENTS, UNIT, RECORD = 4096, 4, 16, 48
OFFSET_BITS, KIND_SHIFT = 24, 56
PUBLISHED, SETTLED = 1, 2
KINDS = ("events", "choices")
OUTCOMES = ("stored", "sessionCap", "sessionDuration", "repeated", "notUTF8", "wrongKind", "serializer", "otherKey",
            "otherVersion", "replayedTooOften")
COPY_FAILED = 3  # the last of the reasons why logs were removed
# In the order of the page, with how many numbers each has.
COUNTERS = {"accepted": 2, "cutOff": 2, "replayed": 2, "unprotected": 2, "settled": 20, "refused": 10, "framesWritten": 1,
            "framesLost": 1, "synchronizationsFailed": 1, "logsCommited": 1, "logsStored": 1, "logsRemoved": 4,
            "blocksStored": 1, "blocksAcknowledged": 1, "blocksRejected": 1, "blocksRemoved": 3, "bytesSent": 1,
            "requests": 1, "lastAnswer": 1, "lastAnswerTime": 1, "linesDropped": 1, "inconsistent": 1}
# More calls than this are never under way at a kill, nor more logs or blocks.
MOST_CUT_OFF, MOST_UNDER_WAY = 64, 8

_MASK = (1 << 64) - 1

Record = collections.namedtuple("Record", "ticket kind attempts payload")


class Records(typing.NamedTuple):
    """Of events or of choices. `missing` are numbered, but neither settled nor found waiting: calls
    that a kill cut off, or that are under way."""

    accepted: int
    stored: int
    waiting: int
    cut_off: int
    dropped: dict
    replayed: int

    @property
    def missing(self):
        return self.accepted - self.stored - sum(self.dropped.values()) - self.waiting - self.cut_off


class AccountFile(typing.NamedTuple):
    events: Records
    choices: Records
    numbers: dict  # every counter, by its name in the page, and those of several as lists
    waiting: list  # Records, oldest first

    def problems(self, home=None, killed=False):
        """Texts, none when all adds up. With `killed`, no start has come after the last kill: calls
        may be cut off that nothing has counted yet. With a home, its logs and blocks as well, where
        nothing is under way: a kill may leave some that are there and not counted yet, or counted as
        gone and still there; but never one that is neither there nor counted."""
        number = self.numbers
        # By how much each sum is off, and may be after a kill.
        sums = {"events missing": (self.events.missing, MOST_CUT_OFF),
                "choices missing": (self.choices.missing, MOST_CUT_OFF),
                "starts that had to correct the account": (number["inconsistent"], 0)}
        if home is not None:
            # A log that could not be copied was lost before it was committed.
            logs = number["logsStored"] + len(home.committed_logs()) + sum(number["logsRemoved"][:COPY_FAILED])
            blocks = (number["blocksAcknowledged"] + number["blocksRejected"] + sum(number["blocksRemoved"])
                      + len(home.blocks()))
            sums |= {"logs more than were committed": (logs - number["logsCommited"], MOST_UNDER_WAY),
                     "blocks more than were stored": (blocks - number["blocksStored"], MOST_UNDER_WAY)}
        return [f"{off} {what}: {self._replace(waiting=len(self.waiting))}" for what, (off, most) in sums.items()
                if not 0 <= off <= (most if killed else 0)]


def _rotated(value, by):
    return (value << by | value >> 64 - by) & _MASK


def checksum(salt, place, data):
    """Of whole units, in two lanes."""
    a, b = salt, place
    for first, second in struct.iter_unpack("<QQ", data):
        a = _rotated(a ^ first, 23) * 0x9E3779B97F4A7C15 & _MASK
        b = _rotated(b ^ second, 23) * 0xC2B2AE3D27D4EB4F & _MASK
    value = a ^ _rotated(b, 32)
    value = (value ^ value >> 29) * 0x9E3779B97F4A7C15 & _MASK
    return value ^ value >> 32


def _waiting(segment, salt, generation, units):
    """The records that wait in so many units of a segment."""
    unit = 0
    while unit + RECORD // UNIT <= units:
        at = unit * UNIT
        length, _, numbered, _, _, stored, state = struct.unpack_from("<IIQqqQQ", segment, at)
        state ^= salt
        end, kind, place = unit + -(-(RECORD + length) // UNIT), numbered >> KIND_SHIFT, generation << OFFSET_BITS | unit
        payload = segment[at + RECORD:end * UNIT]
        if (state >> OFFSET_BITS != generation or state & 0xFF not in (PUBLISHED, SETTLED) or end > units
                or kind not in (1, 2) or stored != checksum(salt, place, segment[at:at + 32] + payload)):
            unit += 1  # a call that was cut off left a hole of some length
            continue
        if state & 0xFF == PUBLISHED:
            yield Record(place, KINDS[kind - 1], state >> 8 & 0xFF, bytes(payload[:length]))
        unit = end


def read(data):
    """The account at this moment; sums of a live agent hold where nothing is under way."""
    magic, version, header, segment_length, salt, stored = struct.unpack_from("<8sIIQQQ", data)
    if (magic, version, header, stored) != (b"SkIntake", 1, HEADER, checksum(0, 0, data[:32])):
        raise ValueError(f"no intake file, or one with a damaged head: {data[:40]}")
    if len(data) != HEADER + SEGMENTS * segment_length:
        raise ValueError(f"{len(data)} bytes")
    tail, = struct.unpack_from("<Q", data, 64)
    *left_and_settled, ticket, counter, value = struct.unpack_from("<11Q", data, 128)
    counters, at = {}, 256
    for name, count in COUNTERS.items():
        counters[name] = list(struct.unpack_from(f"<{count}Q", data, at))
        at += 8 * count
    if ticket:  # a kill fell into a settling; what it was to become is counted as done
        counters["settled"][counter] = value
    waiting, last = [], tail >> OFFSET_BITS
    for generation in range(max(last - SEGMENTS + 1, 0), last + 1):
        index = generation % SEGMENTS
        end = tail if generation == last else left_and_settled[index]
        if end >> OFFSET_BITS == generation and left_and_settled[SEGMENTS + index] != end:
            segment = data[HEADER + index * segment_length:][:segment_length]
            waiting += _waiting(segment, salt, generation, end & (1 << OFFSET_BITS) - 1)
    waiting = [record for record in waiting if record.ticket != ticket]

    def records(index):
        settled = dict(zip(OUTCOMES, counters["settled"][10 * index:10 * index + 10]))
        return Records(accepted=counters["accepted"][index], stored=settled.pop("stored"),
                       waiting=sum(record.kind == KINDS[index] for record in waiting),
                       cut_off=counters["cutOff"][index], dropped=settled, replayed=counters["replayed"][index])

    numbers = {name: values[0] if len(values) == 1 else values for name, values in counters.items()}
    return AccountFile(events=records(0), choices=records(1), numbers=numbers, waiting=waiting)


def of(home):
    """Of an installation: see support.Home. None where it has no intake file."""
    found = sorted(home.storage.glob(".skeldaIntake_*.journal"))  # the agent's version is part of the name
    return read(found[0].read_bytes()) if len(found) == 1 else None
