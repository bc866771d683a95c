"""Damages audio files in many ways. All randomness comes from the random.Random that is passed."""

import struct

# The part of a file where its format is described.
HEADER = 200

LARGE_TAG = 10 * 2**20


def damage(content, kind, source):
    """Returns a damaged copy of the file `content`, and a word that says how it was damaged."""
    ways = [_cut_end, _cut_start, _cut_middle, _flip_bits, _flip_bits, _overwrite, _set_number,
            _set_number, _insert, _double]
    promise = PROMISES.get(kind)
    if promise:
        ways += [promise] * 2
    way = source.choice(ways)
    return way(bytearray(content), source), way.__name__.strip("_")


def _place(content, source):
    """Returns a random position; every second one is in the header."""
    return source.randrange(min(len(content), HEADER) if source.random() < 0.5 else len(content))


def _cut_end(content, source):
    return content[:_place(content, source)]


def _cut_start(content, source):
    return content[_place(content, source):]


def _cut_middle(content, source):
    start = _place(content, source)
    return content[:start] + content[start + source.randint(1, 1000):]


def _flip_bits(content, source):
    for _ in range(source.choice([1, 2, 8, 64, 500])):
        content[_place(content, source)] ^= 1 << source.randrange(8)
    return content


def _overwrite(content, source):
    start = _place(content, source)
    length = source.randint(1, 2000)
    block = source.choice([bytes(length), b"\xff" * length, source.randbytes(length)])
    content[start:start + length] = block
    return content


def _set_number(content, source):
    """Overwrites four bytes of the header, such as a size or a rate, by an extreme number."""
    start = source.randrange(min(len(content), HEADER))
    number = source.choice([0, 1, 2, 0x7F, 0xFF, 0x7FFF, 0xFFFF, 2**31 - 1, 2**31, 2**32 - 1])
    content[start:start + 4] = struct.pack(source.choice("<>") + "I", number)
    return content


def _insert(content, source):
    start = _place(content, source)
    content[start:start] = source.randbytes(source.randint(1, 1000))
    return content


def _double(content, source):
    """Puts a part of the file, or all of it, behind the file."""
    return content + content[_place(content, source) if source.random() < 0.5 else 0:]


# Headers that promise hours of sound.

def _promise_wav(content, source):
    rate, width = struct.unpack_from("<I4xH", content, 24)
    rate = source.choice([1, 8000, rate, 192000])
    struct.pack_into("<II", content, 24, rate, source.choice([1, 2, rate * width]))
    data = content.index(b"data")
    struct.pack_into("<I", content, data + 4, source.choice([0x7FFFFFF0, 0xFFFFFFFE, 0xFFFFFFFF]))
    return content


def _promise_au(content, source):
    struct.pack_into(">I", content, 8, source.choice([0x7FFFFFF0, 0xFFFFFFFE, 0xFFFFFFFF]))
    struct.pack_into(">I", content, 16, source.choice([1, 8000, 192000]))
    return content


def _promise_mp3(content, source):
    """Makes the first frame, MPEG-1 with one channel, a header that gives a number of frames."""
    start = content.index(b"\xff")
    frames = source.choice([10**6, 0x7FFFFFFF, 0xFFFFFFFF])
    content[start + 4:start + 21] = bytes(17)
    content[start + 21:start + 33] = b"Xing" + struct.pack(">II", 1, frames)
    return content


def _promise_ogg(content, source):
    """Gives the last page a position hours ahead, with a valid checksum."""
    start = content.rindex(b"OggS")
    struct.pack_into("<q", content, start + 6,
                     source.choice([2**31, 2**40, 2**63 - 1, -2, 48000 * 3600 * 9]))
    _seal_page(content, start, len(content))
    return content


PROMISES = {"au": _promise_au, "mp3": _promise_mp3, "mulaw": _promise_wav, "opus": _promise_ogg,
            "vorbis": _promise_ogg, "wav": _promise_wav}


# Tags of 10 MB.

def add_large_tag(content, kind):
    """Returns a copy of the file with a tag, a comment or an unknown chunk of 10 MB."""
    if kind in ("mp2", "mp3"):
        text = b"\3" + b"eng\0" + b"x" * LARGE_TAG
        frame = b"COMM" + struct.pack(">IH", len(text), 0) + text
        size = len(frame)
        digits = bytes(size >> shift & 0x7F for shift in (21, 14, 7, 0))
        return b"ID3\3\0\0" + digits + frame + content
    if kind == "au":
        data = struct.unpack_from(">I", content, 4)[0]
        return (content[:4] + struct.pack(">I", data + LARGE_TAG) + content[8:data]
                + b"x" * LARGE_TAG + content[data:])
    if kind in ("wav", "mulaw"):
        comment = b"INFOICMT" + struct.pack("<I", LARGE_TAG) + b"x" * LARGE_TAG
        return content[:12] + b"LIST" + struct.pack("<I", len(comment)) + comment + content[12:]
    return _replace_comment(content)


def _replace_comment(content):
    """Replaces the second packet of an Ogg stream, the comment, by one of 10 MB."""
    first_end = _page_end(content, 0)
    second_end = _page_end(content, first_end)
    head = content[first_end:second_end]
    lacing = head[27:27 + head[26]]
    # The first packet of that page ends with the first lacing value below 255; Vorbis has another.
    length = 0
    count = 0
    for value in lacing:
        length += value
        count += 1
        if value < 255:
            break
    body = head[27 + head[26]:]
    magic = b"OpusTags" if body.startswith(b"OpusTags") else b"\3vorbis"
    entry = b"COMMENT=" + b"x" * LARGE_TAG
    packet = magic + struct.pack("<III", 0, 1, len(entry)) + entry
    packet += b"\1" if magic != b"OpusTags" else b""
    packets = [packet] + ([bytes(body[length:])] if count < len(lacing) else [])
    serial = content[14:18]
    pages = _make_pages(packets, serial)
    return bytes(content[:first_end]) + pages + bytes(content[second_end:])


def _page_end(content, start):
    count = content[start + 26]
    return start + 27 + count + sum(content[start + 27:start + 27 + count])


def _make_pages(packets, serial):
    """Returns the pages for whole packets, which begin a page."""
    segments = []
    for packet in packets:
        parts = [packet[i:i + 255] for i in range(0, len(packet) + 1, 255)]
        segments += [(part, i > 0) for i, part in enumerate(parts)]
    pages = bytearray()
    for number, i in enumerate(range(0, len(segments), 255)):
        part = segments[i:i + 255]
        ends = any(len(data) < 255 for data, _ in part)
        start = len(pages)
        page = struct.pack(
            "<4sBBq4sIIB", b"OggS", 0, 1 if part[0][1] else 0,
            0 if ends else -1,  # the position; -1 if no packet ends on the page
            serial, number + 1, 0, len(part))
        pages += page + bytes(len(data) for data, _ in part) + b"".join(data for data, _ in part)
        _seal_page(pages, start, len(pages))
    return bytes(pages)


def _seal_page(content, start, end):
    """Writes the checksum of an Ogg page."""
    content[start + 22:start + 26] = bytes(4)
    checksum = 0
    for byte in content[start:end]:
        checksum = (checksum << 8 & 0xFFFFFFFF) ^ CHECKSUMS[checksum >> 24 ^ byte]
    struct.pack_into("<I", content, start + 22, checksum)


def _make_checksums():
    table = []
    for number in range(256):
        value = number << 24
        for _ in range(8):
            value = (value << 1 ^ (0x04C11DB7 if value & 0x80000000 else 0)) & 0xFFFFFFFF
        table.append(value)
    return table


CHECKSUMS = _make_checksums()
