#!/usr/bin/env python3
"""Writes the seed corpus of every fuzz target into fuzz/corpus/<target>/.

The messages are the ones the tests send, encoded the way
fuzz/fuzz_input.h reads them back: a message is a count byte (elements - 1)
and its elements; an element is an op byte (low four bits: the type's slot
in kTypes, 0x70: a null value), a name (its index in the target's names, or
0xFF and a text) and its value (texts by index or 0xFF and a text, numbers
0xFF and their raw little-endian bytes, buffers a two-byte length and the
bytes, lists a nested message).

Archive seeds are cut from a segment that the reference archive stored: run
with --archive SEGMENT INDEX RECORDS [audio] to (re)make them from a real
recording.
"""
import os
import struct
import sys
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")

LIST, STRING, OBJECT, INT32, INT64, CALLBACK, BUFFER = 0, 1, 2, 3, 4, 5, 6
NULL = 0x70


def text(s):
    b = s.encode() if isinstance(s, str) else s
    return bytes([len(b)]) + b


class Target:
    def __init__(self, names, texts):
        self.names, self.texts = names, texts

    def name(self, n):
        return bytes([self.names.index(n)]) if n in self.names else b"\xff" + text(n)

    def string(self, s):
        return bytes([self.texts.index(s)]) if s in self.texts else b"\xff" + text(s)

    def el(self, kind, name, value=None):
        if value is None and kind not in (OBJECT, CALLBACK):
            return bytes([kind | NULL]) + self.name(name)
        head = bytes([kind]) + self.name(name)
        if kind == STRING:
            return head + self.string(value)
        if kind == INT32:
            return head + b"\xff" + struct.pack("<i", value)
        if kind == INT64:
            return head + b"\xff" + struct.pack("<q", value)
        if kind == BUFFER:
            return head + struct.pack("<H", len(value)) + value
        if kind == LIST:
            return head + value
        return head

    @staticmethod
    def msg(*elements):
        return bytes([len(elements) - 1]) + b"".join(elements)


def write(target, name, data):
    folder = os.path.join(CORPUS, target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data.encode() if isinstance(data, str) else data)


def fcc(s):
    return struct.unpack("<i", s.encode())[0]


def camera(extra=""):
    return ('{"common":{"key1":"a","key2":"b","key3":"c","_typeJS":"profiles"},"archive":{"writer":{'
            '"arc_key1":{"_value":"A"},"arc_key2":{"_value":"B"},"arc_key3":{"_value":"C"},'
            '"in":{"_value":"t"}' + extra + "}}}")


def camera_documents():
    day = '[{"begin":" 0 : 00 ","end":" 24 : 00 "}]'
    week = ",".join('"%s":%s' % (d, day) for d in ("monday", "tuesday", "wednesday", "thursday", "friday",
                                                    "saturday", "sunday"))
    write("fuzz_camera_document", "always", camera())
    write("fuzz_camera_document", "by_events", camera(',"by_events":{"_value":true},"events":{"_value":"20001,7"},'
                                                      '"prev_write":{"_value":3},"post_write":{"_value":2}') +
          "\0" + camera(',"by_events":{"_value":false},"only_key_frame":{"_value":true}'))
    write("fuzz_camera_document", "schedule", camera(',"_schedule":{"usual":{' + week + '},"holidays":' + day +
                                                     ',"working_weekends":' + day + "}"))
    write("fuzz_camera_document", "depth", camera(',"storage":{"_value":"2"},"depth_restrict":{"_value":true},'
                                                  '"depth":{"_value":5},"view_prior":{"_value":1}') +
          "\0" + camera().replace('"_value":"t"', '"_value":"other"'))
    write("fuzz_camera_document", "not_json", "not json at all\0{}")


def queries():
    for i, q in enumerate([
            '{"query_id":"GetStatus","view":"buffer_fill"}',
            '{"query_id":"GetStatus","view":"by_events","object_id":{"key1":"a","key2":"b","key3":"c"}}',
            '{"query_id":"GetError"}', '{"query_id":"events_register"}', '{"query_id":"common_status"}',
            '{"query_id":"traffic"}', '{"query_id":"traffic_params","value":"3"}', '{"query_id":"vers"}',
            '{"query_id":"work_mode_set","value":150602}', '{"query_id":"work_mode_reset","value":150602}',
            '{"":"","query_id":"query_log_status_add","value":"fmt %d"}', '{"query_id":"query_log_status"}',
            '{"query_id":"query_log_status_off","value":"fmt %d"}', '{"query_id":"log_status"}',
            '{"query_id":"help"}', '{"query_id":5,"view":["x"],"":1,"hash":true,"scale":null}']):
        write("fuzz_query", "q%02d" % i, q)


def events():
    t = Target(["event_type", "sysinfo", "key1", "key2", "key3", "comment", "media", "guid"], [])
    keys = [t.el(STRING, "key1", "A"), t.el(STRING, "key2", "B"), t.el(STRING, "key3", "C")]
    start = t.msg(t.el(INT32, "event_type", 20001), *keys, t.el(STRING, "sysinfo", ",event_stop_id=20002,guid=g1,"))
    stop = t.msg(t.el(INT32, "event_type", 20002), *keys, t.el(STRING, "sysinfo", ",event_start_id=20001"))
    forced = t.msg(t.el(INT32, "event_type", 60030), *keys, t.el(STRING, "sysinfo", ",event_stop_id=60031,dur=30,"),
                   t.el(STRING, "comment", "by http video"))
    write("fuzz_event", "start_stop", start + stop)
    write("fuzz_event", "forced", forced)
    write("fuzz_event", "null_sysinfo", t.msg(t.el(INT32, "event_type", 20001), *keys, t.el(STRING, "sysinfo")))


FRAME = Target(["need", "data", "extra", "width", "height", "fcc", "index", "key", "time", "type", "get", "parent",
                "error", "virtual", "nearest_finded", "types_descr", "frame"], ["video", "audio", "", "H264", "PCMA"])


def frame(time, key, index, kind="video", code="H264", data=b"\x00\x00\x00\x01\x65\x88\x84\x00\x33\xff"):
    t = FRAME
    els = [t.el(INT32, "need", 0), t.el(BUFFER, "data", data)]
    if key and kind == "video":
        els.append(t.el(BUFFER, "extra", b"\x00\x00\x00\x01\x67\x42\xc0\x1e\x00\x00\x00\x01\x68\xce\x3c\x80"))
    els += [t.el(INT32, "width", 320), t.el(INT32, "height", 240), t.el(INT32, "fcc", fcc(code)),
            t.el(INT64, "index", index), t.el(INT32, "key", key), t.el(INT64, "time", time),
            t.el(STRING, "type", kind)]
    return t.msg(*els) + b"\x01"  # wrapped under "frame"


def frames():
    t0 = 1700000000000000
    write("fuzz_frame", "key_then_delta", frame(t0, 1, 1) + frame(t0 + 40000, 0, 2))
    write("fuzz_frame", "audio", frame(t0, 0, 1, "audio", "PCMA", b"\xd5" * 160))
    write("fuzz_frame", "backward", frame(t0, 1, 1) + frame(t0 - 10000000, 0, 2))
    t = FRAME
    write("fuzz_frame", "get", t.msg(t.el(LIST, "get", None)) + b"\x01")
    write("fuzz_frame", "parent", t.msg(t.el(INT32, "need", 0), t.el(LIST, "parent", t.msg(t.el(INT32, "x", 1))),
                                        t.el(STRING, "comment", "carried")) + b"\x01")


def status():
    t = Target(["status", "listen", "get", "frame", "need"], ["", "status"])
    write("fuzz_status", "listen", t.msg(t.el(LIST, "status", t.msg(t.el(INT32, "listen", 0)))))
    write("fuzz_status", "listen_max", t.msg(t.el(LIST, "status", t.msg(t.el(INT32, "listen", 0x7FFFFFFE),
                                                                        t.el(INT32, "listen", 5)))))
    write("fuzz_status", "get", t.msg(t.el(LIST, "frame", t.msg(t.el(LIST, "get", None)))))


def forced():
    t = Target(["method", "args", "id", "self44", "result", "30", "", "0", "99999999999999999999", "-5"],
               ["start_recording", "stop_recording", "door-1", "self44", "Start_recording", ""])
    start = t.msg(t.el(STRING, "method", "start_recording"),
                  t.el(LIST, "args", t.msg(t.el(STRING, "id", "door-1"), t.el(STRING, "30"))))
    stop = t.msg(t.el(STRING, "method", "stop_recording"), t.el(LIST, "args", t.msg(t.el(STRING, "id", "door-1"))))
    own = t.msg(t.el(STRING, "method", "start_recording"), t.el(STRING, "self44", "self44"))
    write("fuzz_forced", "timed_start_stop", b"\x00" + start + stop)
    write("fuzz_forced", "unknown_camera", b"\x01" + start)
    write("fuzz_forced", "own_answer", b"\x00" + own)


def schedule():
    t = Target(["holidays_and_working_weekends", "cmd", "method", "json"], [])
    write("fuzz_schedule", "calendar", t.msg(t.el(STRING, "holidays_and_working_weekends",
                                                  '{"working_weekends":["november_16"],"holidays":["january_1"]}')))
    write("fuzz_schedule", "mixed", t.msg(t.el(INT32, "x"), t.el(STRING, "holidays_and_working_weekends",
                                                                 '{"holidays":[],"working_weekends":["june_6"]}'),
                                          t.el(STRING, "y", "")))


def web_service():
    t = Target(["cmd", "method", "params", "check_alive", "owner_data", "timeout", "json"], [])
    call = t.msg(t.el(STRING, "cmd", "call"), t.el(OBJECT, "owner_data"), t.el(INT32, "check_alive", 0),
                 t.el(STRING, "method", "GetStatus"), t.el(STRING, "params", '{"view":"buffer_fill"}'))
    write("fuzz_web_service", "call", b"\x01" + call)
    write("fuzz_web_service", "request", b"\x00" + t.msg(t.el(STRING, "cmd", "request")))
    write("fuzz_web_service", "timeout", b"\x01" + t.msg(t.el(STRING, "cmd", "call"), t.el(STRING, "method", "vers"),
                                                         t.el(INT32, "timeout", 0), t.el(INT32, "check_alive", 7)))


def saved_file():
    write("fuzz_saved_file", "two", '{"query_log_status":[\n{"log":"fmt %d","on":1},\n{"log":"other %s"}\n]}\n')
    write("fuzz_saved_file", "empty", '{"query_log_status":[\n\n]}\n')
    write("fuzz_saved_file", "quote", '{"query_log_status":[\n{"log":"say "hi" %d"}\n]}\n')
    write("fuzz_saved_file", "other_shape", '{"query_log_status":{"log":"x"}}')


def profile_file():
    def seed(section, key, default, value, ops, body):
        return b"\x01" + text(section) + b"\x01" + text(key) + b"\x01" + text(default) + b"\x01" + text(value) + \
            bytes([ops]) + body.encode()
    body = "; settings\r\n[main]\r\nname=door\r\n  port = 554\n\n[other]\nkey=\n"
    write("fuzz_profile_file", "read", seed("main", "name", "x", "y", 0, body))
    write("fuzz_profile_file", "write", seed("other", "key", "", "new", 0x15, body))
    write("fuzz_profile_file", "missing", seed("absent", "k", "dflt", "v", 0x04, body))


def archive(seg_path, idx_path, records, kind="video"):
    """Seeds from a stored segment: its head and first records, a cut tail,
    a damaged index and a second segment."""
    seg = open(seg_path, "rb").read()
    idx = open(idx_path, "rb").read()
    # The first record (a key frame with its set-up) is left out when it is
    # large, so that the seeds stay small; the index is rewritten to match.
    first = 32 + 24 + struct.unpack_from("<I", seg, 32 + 4)[0]
    skip = 1 if first > 4096 else 0
    start = first if skip else 32
    off, ends = start, []
    while off + 24 <= len(seg) and len(ends) < records:
        off += 24 + struct.unpack_from("<I", seg, off + 4)[0]
        ends.append(off - start + 32)
    seg = seg[:32] + seg[start:start + ends[-1] - 32]
    entries = []
    for i in range(skip, skip + len(ends)):
        e = bytearray(idx[32 * i:32 * i + 32])
        struct.pack_into("<Q", e, 8, struct.unpack_from("<Q", e, 8)[0] - (start - 32))
        struct.pack_into("<I", e, 28, zlib.crc32(bytes(e[:28])) & 0xFFFFFFFF)
        entries.append(bytes(e))
    idx = b"".join(entries)

    def files(flags, *pairs):
        out = bytes([flags | (2 if kind == "audio" else 0)])
        for s, i in pairs:
            out += struct.pack("<H", len(s)) + s + struct.pack("<H", len(i)) + i
        return out
    if kind == "audio":
        write("fuzz_archive", "audio", files(0x10, (seg, idx)))
        return
    write("fuzz_archive", "good", files(0x10, (seg, idx)))
    write("fuzz_archive", "cut_tail", files(0x10, (seg[:-7], idx)))
    write("fuzz_archive", "bad_index", files(0x10, (seg, idx[:40] + b"\xff" * 8)))
    write("fuzz_archive", "two_segments_fixed", files(0x15, (seg, idx), (seg[:ends[0]], b"")))
    write("fuzz_archive", "no_index", files(0x08, (seg, idx)))


def main():
    if len(sys.argv) in (5, 6) and sys.argv[1] == "--archive":
        archive(sys.argv[2], sys.argv[3], int(sys.argv[4]), *sys.argv[5:])
        return
    camera_documents()
    queries()
    events()
    frames()
    status()
    forced()
    schedule()
    web_service()
    saved_file()
    profile_file()


if __name__ == "__main__":
    main()
