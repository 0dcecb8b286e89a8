#!/usr/bin/env python3
"""Writes the seed programs of fuzz_restio into corpus/fuzz_restio/.

The harness reads its input with FuzzedDataProvider, which takes integers from
the end of the input and strings from the front; this encoder lays out a list
of steps the same way, so that each seed is a readable layout rather than
bytes. Keep the step numbers and ranges in line with RestIOFuzz.cpp.

Usage: tests/fuzz/make_restio_seeds.py  (rewrites the seeds it names)
"""
import os

FILE_SIZES = [0, 1, 2, 3, 7, 16, 100, 9000]  # the harness's pooled files, by index


class Program:
    def __init__(self):
        self.front = bytearray()  # strings, in order
        self.back = bytearray()   # integer bytes, in the order they are taken
        self.sizes = []           # part sizes, to aim offsets
        self.strings = []         # lengths of the shared strings
        self.own = []             # lengths of the files written for the input

    def _int(self, value, low, high):
        span = high - low
        assert low <= value <= high
        count = 0
        while count < 8 and (span >> (8 * count)) > 0:
            count += 1
        raw = value - low
        # The provider takes the most significant byte first.
        for shift in reversed(range(count)):
            self.back.append((raw >> (8 * shift)) & 0xFF)

    def _string(self, text, limit):
        assert b"\\" not in text and len(text) <= limit
        self.front += text
        if len(text) < limit:
            self.front += b"\\e"  # a backslash before another byte ends the string

    def buffer(self, text):
        self._int(0, 0, 9)
        self._string(text, 24)
        self.sizes.append(len(text))
        self.strings.append(len(text))
        return self

    def shared(self, index):
        self._int(1, 0, 9)
        self._int(index, 0, len(self.strings) - 1)
        self.sizes.append(self.strings[index])
        return self

    def file(self, index):
        self._int(2, 0, 9)
        self._int(index, 0, len(FILE_SIZES) - 1)
        self.sizes.append(FILE_SIZES[index])
        return self

    def grow(self, index, text):
        self._int(3, 0, 9)
        self._int(index, 0, len(self.strings) - 1)
        self._string(text, 16)
        self.strings[index] += len(text)
        return self

    def read(self, size):
        self._int(4, 0, 9)
        if size <= 40:
            self._int(1, 0, 255)  # odd: the small range
            self._int(size, 0, 40)
        else:
            self._int(0, 0, 255)
            self._int(size, 0, 12000)
        return self

    def seek(self, offset):
        self._int(6, 0, 9)
        self._int(1, 0, 5)
        self._int(offset, 0, sum(self.sizes) + 2)
        return self

    def seek_end(self):
        self._int(6, 0, 9)
        self._int(3, 0, 5)
        return self

    def seek_all_ones(self):
        self._int(6, 0, 9)
        self._int(4, 0, 5)
        self._int(0, 0, 1)
        return self

    def seek_boundary(self, parts, delta):
        self._int(6, 0, 9)
        self._int(2, 0, 5)
        self._int(parts, 0, len(self.sizes))
        self._int(delta, -1, 1)
        return self

    def own_file(self, text):
        self._int(7, 0, 9)
        self._string(text, 24)
        self.own.append(len(text))
        self.sizes.append(len(text))
        return self

    def reopen(self, index):
        self._int(8, 0, 9)
        self._int(index, 0, len(self.own) - 1)
        self.sizes.append(self.own[index])
        return self

    def append_to_file(self, index, text):
        self._int(9, 0, 9)
        self._int(index, 0, len(self.own) - 1)
        self._int(1, 0, 255)  # odd: append
        self._string(text, 16)
        self.own[index] += len(text)
        return self

    def truncate_file(self, index, size):
        self._int(9, 0, 9)
        self._int(index, 0, len(self.own) - 1)
        self._int(0, 0, 255)  # even: truncate
        self._int(size, 0, self.own[index])
        self.own[index] = size
        return self

    def bytes(self):
        return bytes(self.front) + bytes(reversed(self.back))


SEEDS = {
    "two-buffers-read-across": Program().buffer(b"AB").buffer(b"CDE").read(4).read(4).read(4),
    "two-buffers-seek-into-second": Program().buffer(b"AB").buffer(b"CDE").read(5).seek(3).read(4),
    "empty-first-part-refuses-rewind": Program().buffer(b"").buffer(b"xyz").read(2).seek(0).read(10),
    "empty-middle-part-refuses-rewind": Program().buffer(b"ab").buffer(b"").buffer(b"cd").read(40).seek(0).read(40),
    "empty-file-first": Program().file(0).buffer(b"hello").read(3).seek(0).read(10),
    "files-large-and-small": Program().buffer(b"<xml/>").file(5).file(7).read(12000).read(12000).seek_end().read(40),
    "file-consumed-exactly": Program().file(4).read(7).read(7).buffer(b"tail").read(7).seek_boundary(1, -1).read(3),
    "no-parts": Program().read(5).seek(0).read(1).buffer(b"a").read(1),
    "shared-and-grown": Program().buffer(b"abc").shared(0).grow(0, b"def").shared(0).read(40).seek(4).read(40),
    "seek-all-ones-and-boundaries": Program().buffer(b"0123").file(3).buffer(b"89").seek_all_ones().read(3)
    .seek_boundary(1, 0).read(2).seek_boundary(2, 1).read(40),
    "empty-file-refuses-seek": Program().file(0).buffer(b"x").seek(1).read(5).seek(0).read(5),
    "file-grown-after-measuring-is-cut": Program().own_file(b"measured").append_to_file(0, b"+more").buffer(b"|")
    .read(40).reopen(0).seek(0).read(40),
    "file-shrunk-after-measuring-fails": Program().buffer(b"<a>").own_file(b"0123456789").truncate_file(0, 4)
    .read(40).seek(0).read(5).read(40),
    "seek-past-end-rewinds": Program().buffer(b"ab").file(2).buffer(b"cd").read(1).seek(7).read(40),
}


def main():
    folder = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus", "fuzz_restio")
    os.makedirs(folder, exist_ok=True)
    for name, program in SEEDS.items():
        with open(os.path.join(folder, name), "wb") as out:
            out.write(program.bytes())


if __name__ == "__main__":
    main()
