#!/usr/bin/env python3
"""Writes host/audio/ELDTables.cpp from the AAC-ELD tables kept as JSON.

    scripts/generate-eld-tables.py TABLES_DIR > host/audio/ELDTables.cpp

TABLES_DIR holds eld_windows.json, swb_offsets_ld.json, scalefactor_huffman.json and
spectral_huffman.json. Only what the encoder uses is written: 48 kHz, 512-sample frames. The
output is plain C++ that needs nothing at build time; the window keeps the decimal text of its
source exactly, so that nothing is rounded twice.
"""

import json
import pathlib
import sys

SAMPLE_RATE = 48000
FRAME_LENGTH = 512
WINDOW_LENGTH = 1920
BAND_COUNT = 36
SCALEFACTOR_CODES = 121
SPECTRAL_BOOKS = 11


def load(folder, name, **options):
    with open(folder / name, encoding="utf-8") as file:
        return json.load(file, **options)


def fail(message):
    sys.exit(f"generate-eld-tables: {message}")


def rows(items, per_row, indent="    "):
    """Comma-separated items, `per_row` to a line."""
    lines = []
    for start in range(0, len(items), per_row):
        lines.append(indent + ", ".join(items[start:start + per_row]) + ",")
    return "\n".join(lines)


def window(folder):
    # Floats kept as text: the literal is the source's own decimal, converted once by the compiler.
    values = load(folder, "eld_windows.json", parse_float=str)["eld_window_512"]["values"]
    if len(values) != WINDOW_LENGTH:
        fail(f"the window has {len(values)} values, not {WINDOW_LENGTH}")
    return [f"{value}f" for value in values]


def band_offsets(folder):
    entries = load(folder, "swb_offsets_ld.json")["frame_length_512"]["entries"]
    entry = next((e for e in entries if e["sampling_rate_hz"] == SAMPLE_RATE), None)
    if entry is None:
        fail(f"no bands for {SAMPLE_RATE} Hz")
    offsets = entry["swb_offset"]
    rising = all(a < b for a, b in zip(offsets, offsets[1:]))
    if offsets[0] != 0 or offsets[-1] != FRAME_LENGTH or not rising:
        fail("the band offsets do not rise from 0 to the frame length")
    if len(offsets) != BAND_COUNT + 1:
        fail(f"{len(offsets) - 1} bands, where ELDTables.hpp declares {BAND_COUNT}")
    return offsets


def codewords(codes, lengths):
    if len(codes) != len(lengths):
        fail("codes and lengths differ in number")
    for code, length in zip(codes, lengths):
        if not 0 < length <= 32 or code >= 1 << length:
            fail(f"code {code} does not fit {length} bits")
    return [f"{{{code}, {length}}}" for code, length in zip(codes, lengths)]


def scalefactor_codewords(folder):
    table = load(folder, "scalefactor_huffman.json")
    if len(table["codes"]) != SCALEFACTOR_CODES:
        fail(f"the scalefactor codebook has {len(table['codes'])} entries")
    return codewords(table["codes"], table["bits"])


def spectral_books(folder):
    books = load(folder, "spectral_huffman.json")["codebooks"]
    if [book["codebook"] for book in books] != list(range(1, SPECTRAL_BOOKS + 1)):
        fail("the spectral codebooks are not 1..11 in order")
    for book in books:
        if len(book["codes"]) != book["index_radix"] ** book["dimension"]:
            fail(f"codebook {book['codebook']} does not hold every tuple")
    return books


def main():
    if len(sys.argv) != 2:
        fail("usage: generate-eld-tables.py TABLES_DIR")
    folder = pathlib.Path(sys.argv[1])
    offsets = band_offsets(folder)
    books = spectral_books(folder)

    out = []
    out.append("// Written by scripts/generate-eld-tables.py from the AAC-ELD tables. Do not edit.")
    out.append("// clang-format off")
    out.append("")
    out.append('#include "host/audio/ELDTables.hpp"')
    out.append("")
    out.append("namespace kelvaron::host::eld {")
    out.append("")
    out.append("namespace {")
    out.append("")
    for book in books:
        number = book["codebook"]
        entries = codewords(book["codes"], book["bits"])
        out.append(f"constexpr Codeword kBook{number}[{len(entries)}] = {{")
        out.append(rows(entries, 6))
        out.append("};")
        out.append("")
    out.append("}  // namespace")
    out.append("")
    out.append("const std::array<float, kWindowLength> kWindow = {")
    out.append(rows(window(folder), 6))
    out.append("};")
    out.append("")
    out.append("const std::array<int, kBandCount + 1> kBandOffsets = {")
    out.append(rows([str(offset) for offset in offsets], 16))
    out.append("};")
    out.append("")
    out.append("const std::array<Codeword, kScalefactorCodewordCount> kScalefactorCodewords = {{")
    out.append(rows(scalefactor_codewords(folder), 6))
    out.append("}};")
    out.append("")
    out.append("const std::array<SpectralCodebook, kSpectralCodebookCount> kSpectralCodebooks = {{")
    for book in books:
        signed = "true" if book["signed"] else "false"
        escape = "true" if book["escape"] else "false"
        out.append(f"    {{{book['dimension']}, {signed}, {book['lav']}, {book['index_radix']}, "
                   f"{book['index_value_offset']}, {escape}, kBook{book['codebook']}}},")
    out.append("}};")
    out.append("")
    out.append("}  // namespace kelvaron::host::eld")
    print("\n".join(out))


if __name__ == "__main__":
    main()
