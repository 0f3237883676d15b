"""What an installation's logs must add up to: every event that was accepted is in a log, still in
the open one, or was dropped by the session rule where the rule says so."""

import dataclasses

import frame_log


@dataclasses.dataclass
class Account:
    """Of one start of the host, whose events are numbered from 1."""

    accepted: int
    in_logs: int = 0
    still_open: int = 0
    dropped: int = 0
    wrong: list = dataclasses.field(default_factory=list)

    @property
    def adds_up(self):
        return not self.wrong and self.accepted == self.in_logs + self.still_open + self.dropped


def counter_of(frames):
    return frames[0].payload["sk.frame.log.counter"]


def starts_of(logs):
    """Logs (frames each), sorted by counter and split where a start of the host found the log of the
    one before. A log that came twice counts once."""
    by_counter = {counter_of(frames): frames for frames in logs}
    starts = [[]]
    for counter in sorted(by_counter):
        starts[-1].append(by_counter[counter])
        if frame_log.flush_of(by_counter[counter]) == 4:
            starts.append([])
    return starts


def settle(accepted, logs, open_log, threshold):
    """`logs` are what one start committed (frames each), `open_log` its last log, not yet committed.

    A session takes `threshold` events, and drops what comes until it is finalized. So a gap in the
    numbers is right only behind that many events, and only then.
    """
    account = Account(accepted)
    last, in_session = 0, 0

    def gap(size, before):
        if size < 0 or (size and in_session < threshold):
            account.wrong.append(f"{size} events missing before {before}, {in_session} in the session")
        account.dropped += max(0, size)

    for frames in [*logs, open_log]:
        for frame in frames:
            if frame.type == frame_log.FLUSH and frame.payload["sk.flush.frame.code"] == 3:
                in_session = 0
            if frame.type != frame_log.EVENT:
                continue
            number = frame.payload["sk.event.id"]
            gap(number - last - 1, f"event {number}")
            last, in_session = number, in_session + 1
            if frames is open_log:
                account.still_open += 1
            else:
                account.in_logs += 1
    gap(accepted - last, "the end")
    return account
