#!/usr/bin/env python3
"""Writes the seed inputs of fuzz_dispatcher into fuzz/corpus/dispatcher/.

Each seed is a sequence of frames as the target reads them: a selector byte (its value
modulo 7 picks 50000, 50001, 50020, 50036, 60001, 60004; 6 means "the first two bytes are
the type"), a second byte, a big-endian 16-bit body length, the body. Bodies are protobuf
messages written field by field here, so the seeds do not depend on the agent's codec.

    python3 fuzz/make_seeds.py
"""
import os
import struct

OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus", "dispatcher")
SELECTOR = {50000: 0, 50001: 1, 50020: 2, 50036: 3, 60001: 4, 60004: 5}

# ---- protobuf, field by field ------------------------------------------------


def varint(v):
    out = bytearray()
    while True:
        b = v & 0x7F
        v >>= 7
        out.append(b | (0x80 if v else 0))
        if not v:
            return bytes(out)


def vfield(number, value):
    return varint(number << 3) + varint(value)


def lfield(number, data):
    data = data.encode() if isinstance(data, str) else data
    return varint(number << 3 | 2) + varint(len(data)) + data


def frame(msg_type, body=b"", second=0):
    if msg_type in SELECTOR:
        head = bytes([SELECTOR[msg_type], second])
    else:
        head = struct.pack(">H", msg_type)
        assert head[0] % 7 == 6, "other types need a first byte of 6 modulo 7"
    return head + struct.pack(">H", len(body)) + body


# ---- messages ---------------------------------------------------------------------


def res_time_sync(agent_time, dg_time):
    return vfield(1, agent_time) + vfield(2, dg_time)


def res_agent_info(manager_id, protocol=1, dg_protocol=2):
    return lfield(1, manager_id) + vfield(2, protocol) + vfield(3, dg_protocol)


def file_info(name, size, data=b""):
    return lfield(1, name) + vfield(2, size) + (lfield(3, data) if data else b"")


def command(cmd_type, execution_id="exec-1", agent_id="agent-1", options=(("agent_name", "quil"),),
            file=None, timeout=600000):
    body = (lfield(1, execution_id) + lfield(2, "command-1") + vfield(3, cmd_type) + lfield(4, agent_id) +
            vfield(5, 7) + lfield(6, "quil") + lfield(7, "/opt/quil/agent") + lfield(8, "quil") +
            lfield(9, "/opt/quil/agent/bin") + vfield(10, timeout))
    for key, value in options:
        body += lfield(11, lfield(1, key) + lfield(2, value))
    if file is not None:
        body += lfield(12, file)
    return body


def chunk(index, count, data, execution_id="exec-1", agent_id="agent-1", size=None):
    return (lfield(1, execution_id) + lfield(2, agent_id) + lfield(3, file_info("patch.sh", 10)) +
            vfield(4, len(data) if size is None else size) + vfield(5, index) + vfield(6, count) +
            lfield(7, data))


PATCH = file_info("patch.sh", 10)

SEEDS = {
    "ping": frame(50000),
    "timezone": frame(50001),
    "time_sync_round": b"".join(frame(50020, res_time_sync(1_700_000_000_000 + i * 7, 1_700_000_000_000 + i))
                                for i in range(10)),
    "identity": frame(50036, res_agent_info("5a0c1d2e-3f40-4152-8637-48596a7b8c9d")),
    "identity_refused": frame(50036, res_agent_info("")),
    "restart_and_stop": frame(60001, command(1)) + frame(60001, command(2, execution_id="exec-2")),
    "no_options": frame(60001, command(1, options=())),
    "patch_complete_then_cancel":
        frame(60001, command(3, file=PATCH)) + frame(60004, chunk(1, 2, b"#!/bin")) +
        frame(60004, chunk(2, 2, b"/sh\n")) + frame(60001, command(4)),
    "patch_cancelled_midway":
        frame(60001, command(3, file=PATCH)) + frame(60004, chunk(1, 3, b"#!/b")) + frame(60001, command(4)),
    "patch_twice_and_bad_chunks":
        frame(60001, command(3, file=PATCH)) + frame(60001, command(3, file=PATCH)) +
        frame(60004, chunk(2, 2, b"late")) + frame(60004, chunk(1, 2, b"xx", execution_id="other")) +
        frame(60004, chunk(1, 2, b"xx", size=99)),
    "patch_hostile_names":
        frame(60001, command(3, agent_id="a1", file=file_info("../escape.sh", 4))) +
        frame(60001, command(3, agent_id="a2", file=file_info("sub/dir.sh", 4))) +
        frame(60001, command(3, agent_id="a3", file=file_info("x;rm -rf .sh", 4))) +
        frame(60001, command(3, agent_id="a4")),
    "patch_size_mismatch":
        frame(60001, command(3, file=file_info("short.sh", 100))) + frame(60004, chunk(1, 1, b"tiny")),
    "unknown_types": frame(0xFB00, b"\x01\x02") + frame(0x0610),
}


def main():
    os.makedirs(OUT, exist_ok=True)
    for name, data in SEEDS.items():
        with open(os.path.join(OUT, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
