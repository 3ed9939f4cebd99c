"""Capture files."""
import struct


def write_capture(path, frames):
    """Ethernet frames as a pcap file, a microsecond apart."""
    with open(path, "wb") as capture:
        capture.write(struct.pack("=IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for number, frame in enumerate(frames):
            capture.write(struct.pack("=IIII", 1000, number, len(frame), len(frame)) + frame)
