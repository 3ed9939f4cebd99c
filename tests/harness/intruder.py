"""A stranger in the group of a pair: joins it through libcpg and sends what it reads from standard input.

Runs inside a node (`python3 intruder.py GROUP`). Each line is a message in hexadecimal; the answer is "sent" once it has
been delivered to the group, this process included.
"""
import ctypes
import sys

CS_OK, CS_DISPATCH_ONE, CPG_TYPE_AGREED, TRY_AGAIN = 1, 1, 2, 6


class Name(ctypes.Structure):
    _fields_ = [("length", ctypes.c_uint32), ("value", ctypes.c_char * 128)]


class Part(ctypes.Structure):
    _fields_ = [("base", ctypes.c_char_p), ("length", ctypes.c_size_t)]


DELIVER = ctypes.CFUNCTYPE(None, ctypes.c_uint64, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_uint32, ctypes.c_void_p,
                           ctypes.c_size_t)
CHANGE = ctypes.CFUNCTYPE(None, ctypes.c_uint64, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_size_t, ctypes.c_void_p,
                          ctypes.c_size_t, ctypes.c_void_p, ctypes.c_size_t)


class Callbacks(ctypes.Structure):
    _fields_ = [("deliver", DELIVER), ("change", CHANGE)]


def main(group):
    cpg = ctypes.CDLL("libcpg.so.4")
    received = []
    callbacks = Callbacks(DELIVER(lambda _h, _g, _n, _p, data, size: received.append(ctypes.string_at(data, size))),
                          CHANGE(lambda *_: None))
    handle = ctypes.c_uint64()
    assert cpg.cpg_initialize(ctypes.byref(handle), ctypes.byref(callbacks)) == CS_OK, "corosync does not answer"
    name = Name(len(group), group.encode())
    while (result := cpg.cpg_join(handle, ctypes.byref(name))) == TRY_AGAIN:
        pass
    assert result == CS_OK, f"cpg_join: {result}"
    print("joined", flush=True)
    for line in sys.stdin:
        message = bytes.fromhex(line)
        part = Part(message, len(message))
        while (result := cpg.cpg_mcast_joined(handle, CPG_TYPE_AGREED, ctypes.byref(part), 1)) == TRY_AGAIN:
            pass
        assert result == CS_OK, f"cpg_mcast_joined: {result}"
        while message not in received:
            assert cpg.cpg_dispatch(handle, CS_DISPATCH_ONE) == CS_OK, "cpg_dispatch"
        received.clear()
        print("sent", flush=True)


if __name__ == "__main__":
    main(sys.argv[1])
