"""A host in Python: LIBRARY ADDRESS SOCKET. Logs an event through the C face, and waits for a server to have it."""

import ctypes
import sys
import time

skelda = ctypes.CDLL(sys.argv[1])
for name, result in (("dictionary_new", ctypes.c_void_p), ("array_new", ctypes.c_void_p), ("log_event", ctypes.c_bool),
                     ("wait_until_stored", ctypes.c_bool), ("get_account", ctypes.c_bool)):
    getattr(skelda, f"skelda_{name}").restype = result


def acknowledged():
    """Blocks: the figure behind events and choices, fifteen each, ten refusals, six of logs, and one of blocks."""
    figures = (ctypes.c_uint64 * 48)()
    return skelda.skelda_get_account(figures, ctypes.c_size_t(ctypes.sizeof(figures))) and figures[2 * 15 + 10 + 6 + 1]


skelda.skelda_set_server_url(sys.argv[2].encode())
skelda.skelda_listen_for_phone(sys.argv[3].encode())
swim, lanes = map(ctypes.c_void_p, (skelda.skelda_dictionary_new(), skelda.skelda_array_new()))
skelda.skelda_put_text(lanes, None, "Bahn 4 – außen".encode())
skelda.skelda_put_text(swim, b"style", "自由泳".encode())
skelda.skelda_put_integer(swim, b"lengths", ctypes.c_int64(40))
skelda.skelda_put_real(swim, b"pace", ctypes.c_double(1.75))
skelda.skelda_put_date(swim, b"since", ctypes.c_int64(1_600_000_000_123_456))
skelda.skelda_put_value(swim, b"lanes", lanes)
kept = skelda.skelda_log_event(b"SwimDone", swim)
skelda.skelda_value_free(lanes)
skelda.skelda_value_free(swim)
if not kept or not skelda.skelda_wait_until_stored(ctypes.c_int64(10_000)):
    sys.exit(1)
print("stored", flush=True)
while not acknowledged():
    time.sleep(0.1)
