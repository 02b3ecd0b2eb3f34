#!/usr/bin/env python3
"""Writes biquad-designs.txt: reference biquad designs computed in double, then narrowed to single
precision, scaled by 2^27 and truncated toward zero, for every characteristic and gain sign (the
shelves ignore Q, so a shelf with another Q must give the same coefficients)."""
import math
import struct
import sys

PI = 3.141592653589793
SQRT2 = 1.4142135623730951


def q427(value):
    single = struct.unpack('f', struct.pack('f', value))[0]
    return int(single * 134217728.0)


def design(kind, fs, f, q, gain):
    v = math.pow(10.0, abs(gain) / 20.0)
    k = math.tan(PI * (f / fs))
    k2 = k * k
    if kind == 'passthru':
        return [1.0, 0.0, 0.0, 0.0, 0.0]
    if kind in ('lopass', 'hipass', 'bandpass', 'notch'):
        n = 1 / (1 + k / q + k2)
        a = [2 * (k2 - 1) * n, (1 - k / q + k2) * n]
        b = {'lopass': [k2 * n, 2 * k2 * n, k2 * n],
             'hipass': [n, -2 * n, n],
             'bandpass': [k / q * n, 0.0, -(k / q) * n],
             'notch': [(1 + k2) * n, 2 * (k2 - 1) * n, (1 + k2) * n]}[kind]
        return b + a
    if kind == 'peak':
        # A cut is the boost with numerator and denominator exchanged.
        num = [1 + v * k / q + k2, 2 * (k2 - 1), 1 - v * k / q + k2]
        den = [1 + k / q + k2, 2 * (k2 - 1), 1 - k / q + k2]
    else:
        r = math.sqrt(2 * v)
        flat = [1 + SQRT2 * k + k2, 2 * (k2 - 1), 1 - SQRT2 * k + k2]
        if kind == 'loshelf':
            num = [1 + r * k + v * k2, 2 * (v * k2 - 1), 1 - r * k + v * k2]
        else:
            num = [v + r * k + k2, 2 * (k2 - v), v - r * k + k2]
        den = flat
    if gain < 0:
        num, den = den, num
    s = 1 / den[0]
    return [num[0] * s, num[1] * s, num[2] * s, den[1] * s, den[2] * s]


CASES = [
    ('passthru', 48000, 1000, 0.7, 0),
    ('lopass', 44100, 250, 0.7, 0), ('lopass', 48000, 2510, 0.5, 0), ('lopass', 96000, 10000, 2.0, 0),
    ('hipass', 44100, 15, 0.7, 0), ('hipass', 48000, 3300, 1.1, 0), ('hipass', 192000, 60, 0.8, 0),
    ('bandpass', 48000, 1000, 1.0, 0), ('bandpass', 88200, 5000, 4.0, 0),
    ('notch', 48000, 50, 10.0, 0), ('notch', 176400, 12000, 0.5, 0),
    ('peak', 44100, 45, 2.0, 10), ('peak', 48000, 1000, 1.0, 6), ('peak', 48000, 1000, 1.0, -6),
    ('peak', 96000, 7500, 2.0, -14), ('peak', 48000, 580, 3.0, 0),
    ('loshelf', 48000, 300, 0.7, 6), ('loshelf', 48000, 300, 0.7, -6), ('loshelf', 48000, 300, 3.0, -6),
    ('loshelf', 44100, 600, 1.0, 5),
    ('loshelf', 192000, 250, 1.0, 0),
    ('hishelf', 48000, 3000, 0.7, 3), ('hishelf', 48000, 3000, 0.5, 3), ('hishelf', 48000, 1300, 0.7, -5),
    ('hishelf', 88200, 10000, 0.7, 1),
    ('hishelf', 44100, 2500, 0.7, -2.5),
]

if __name__ == '__main__':
    out = sys.stdout
    out.write('# python3 tests/data/make-biquad-designs.py > tests/data/biquad-designs.txt\n')
    out.write('# type rate frequency q gain b0 b1 b2 a1 a2 (raw Q4.27)\n')
    for kind, fs, f, q, gain in CASES:
        raw = [q427(c) for c in design(kind, float(fs), float(f), q, float(gain))]
        out.write('%s %d %d %r %r %s\n' % (kind, fs, f, q, float(gain), ' '.join(str(c) for c in raw)))
