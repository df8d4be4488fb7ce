#!/usr/bin/env python3
"""Copies an MP4 up to where its top-level 'moov' box begins, which leaves it
as a recording killed before its trailer was written would be.
Usage: mp4_cut_at_moov.py IN OUT"""
import struct
import sys

src, dst = sys.argv[1], sys.argv[2]
with open(src, 'rb') as f:
    data = f.read()
pos = 0
while pos + 8 <= len(data):
    size, kind = struct.unpack('>I4s', data[pos:pos + 8])
    if kind == b'moov':
        break
    if size == 1:  # 64-bit size after the type
        size = struct.unpack('>Q', data[pos + 8:pos + 16])[0]
    elif size == 0:  # box runs to the end of the file
        size = len(data) - pos
    if size < 8:
        sys.exit(f'{src}: bad box size {size} at {pos}')
    pos += size
else:
    sys.exit(f'{src}: no moov box')
with open(dst, 'wb') as f:
    f.write(data[:pos])
