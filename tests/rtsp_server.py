#!/usr/bin/env python3
"""A camera for the tests: GStreamer's RTSP server on 127.0.0.1 serving one
media file (H.264 video and A-law audio in Matroska) at rtsp://127.0.0.1:PORT/cam.

usage: rtsp_server.py FILE [PORT]   (PORT 0 or missing: any free port)
Prints "port N" once it listens, then serves until SIGTERM or SIGINT. Each
client gets the file from its start, in real time."""
import signal
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # noqa: E402


def main():
    if len(sys.argv) < 2:
        sys.stderr.write(__doc__)
        return 2
    path = sys.argv[1]
    port = sys.argv[2] if len(sys.argv) > 2 else "0"
    Gst.init(None)
    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service(port)
    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_launch(
        '( filesrc location="%s" ! matroskademux name=d '
        "d. ! queue ! h264parse ! rtph264pay name=pay0 pt=96 config-interval=-1 "
        "d. ! queue ! rtppcmapay name=pay1 pt=8 )" % path)
    factory.set_shared(False)
    server.get_mount_points().add_factory("/cam", factory)
    if server.attach(None) == 0:
        sys.stderr.write("rtsp_server: cannot listen on port %s\n" % port)
        return 1
    print("port %d" % server.get_bound_port(), flush=True)
    loop = GLib.MainLoop()
    for sig in (signal.SIGTERM, signal.SIGINT):
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, sig, loop.quit)
    loop.run()
    return 0


if __name__ == "__main__":
    sys.exit(main())
