#!/usr/bin/env python3
"""Writes game packages the way real archivers write them, and a few built by hand, into OUT.

    make_zip_corpus.py OUT

One small game tree is archived with each archiver and option below (Info-ZIP zip, 7-Zip, bsdtar,
Python's zipfile, the JDK's jar when there is one); the hand-built archives hold what no archiver
here writes on request (names from a Windows host, a stale Unicode Path field, control bytes in a
name, an encrypted central directory). OUT/manifest.tsv has one line per archive:

    archive <TAB> reference <TAB> expected

where reference is the extractor whose tree the install must equal (bsdtar, or unzip where bsdtar
cannot read the archive) and expected is "installed" or "refused: <text the refusal holds>".
Exits 77 naming the missing tools when an archiver is not installed.
"""
import os
import shutil
import stat
import struct
import subprocess
import sys
import warnings
import zipfile
import zlib

OUT = os.path.abspath(sys.argv[1])
TREE = os.path.join(OUT, "tree")
rows = []


def row(archive, expected="installed", reference="bsdtar"):
    rows.append((archive, reference, expected))


def run(*command, cwd=TREE, stdin=None):
    subprocess.run(command, cwd=cwd, input=stdin, check=True, stdout=subprocess.DEVNULL)


def make_tree():
    def put(path, data, mode=0o644):
        full = os.path.join(TREE, path)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "wb") as f:
            f.write(data)
        os.chmod(full, mode)

    lines = b"".join(b'{"id": %d, "atlas": "hero.png", "frames": [1, 2, 3]},\n' % i
                     for i in range(25000))
    put("game.config.json", b'{"deviceOrientation": "landscape"}\n')
    put("index.html", b"<script src=js/main.js></script>\n")
    put("js/main.js", b"console.log('main');\n" * 400)
    put("img/logo.png", os.urandom(320 * 1024))  # past one 256 KiB read when compressed
    put("data/levels.json", lines)  # large enough to be streamed, not read whole
    put("bin/launch.sh", b"#!/bin/sh\nexec true\n", 0o755)
    put("empty.txt", b"")
    put("sprites/h\u00e9ros/\u65e5\u672c.png", os.urandom(512))
    os.makedirs(os.path.join(TREE, "saves/empty"), exist_ok=True)


def real_archivers(missing):
    have = lambda tool: shutil.which(tool) or missing.append(tool)
    if have("zip"):
        for name, options in [("zip", []), ("zip-store", ["-0"]), ("zip-best", ["-9"]),
                              ("zip-no-dirs", ["-D"]), ("zip-no-extra", ["-X"]),
                              ("zip-bzip2", ["-Z", "bzip2"]), ("zip-zip64", ["-fz"])]:
            run("zip", "-q", "-r", *options, f"{OUT}/{name}.zip", ".")
        row("zip.zip")
        for name in ["zip-store", "zip-best", "zip-no-dirs", "zip-no-extra", "zip-bzip2"]:
            row(f"{name}.zip")
        row("zip-zip64.zip")
        run("zip", "-q", "-r", "-P", "secret", f"{OUT}/zip-password.zip", ".")
        row("zip-password.zip", "refused: refusing encrypted entry")
        # Standard input in a pipe: the entry "-" carries the pipe's mode.
        run("zip", "-q", f"{OUT}/zip-stdin.zip", "-", stdin=b"piped data\n")
        row("zip-stdin.zip")
        os.symlink("js/main.js", os.path.join(TREE, "link.js"))
        run("zip", "-q", "-r", "-y", f"{OUT}/zip-symlinks.zip", ".")
        os.remove(os.path.join(TREE, "link.js"))
        row("zip-symlinks.zip", "refused: refusing symbolic link entry \"link.js\"")
        # Self-extracting: unzip's stub in front, offsets as zip wrote them, then adjusted.
        if have("unzipsfx"):
            stub = open(shutil.which("unzipsfx"), "rb").read()
            for name in ["zip", "zip-zip64"]:
                with open(f"{OUT}/{name}-sfx.zip", "wb") as f:
                    f.write(stub + open(f"{OUT}/{name}.zip", "rb").read())
            shutil.copy(f"{OUT}/zip-sfx.zip", f"{OUT}/zip-sfx-adjusted.zip")
            run("zip", "-q", "-A", f"{OUT}/zip-sfx-adjusted.zip")
            row("zip-sfx.zip")
            row("zip-zip64-sfx.zip", reference="unzip")  # bsdtar calls it damaged
            row("zip-sfx-adjusted.zip")
            with open(f"{OUT}/zip-shell-line.zip", "wb") as f:
                f.write(b"#!/bin/sh\nexec unzip \"$0\"\n" + open(f"{OUT}/zip.zip", "rb").read())
            row("zip-shell-line.zip")
    if have("7zz"):
        for method in ["Copy", "Deflate", "BZip2", "LZMA", "XZ", "Deflate64", "PPMd"]:
            run("7zz", "a", "-tzip", f"-mm={method}", f"{OUT}/7z-{method.lower()}.zip", ".")
        run("7zz", "a", "-tzip", "-mcu=on", f"{OUT}/7z-utf8.zip", ".")
        for method in ["copy", "deflate", "bzip2", "lzma", "xz", "utf8"]:
            row(f"7z-{method}.zip")
        # bsdtar reads neither; no Debian library decodes them.
        row("7z-deflate64.zip", "refused: unsupported compression method 9", "-")
        row("7z-ppmd.zip", "refused: unsupported compression method 98", "-")
    if have("bsdtar"):
        run("bsdtar", "--format", "zip", "-cf", f"{OUT}/bsdtar.zip", ".")
        run("bsdtar", "--format", "zip", "--options", "zip:compression=store", "-cf",
            f"{OUT}/bsdtar-store.zip", ".")
        row("bsdtar.zip")
        row("bsdtar-store.zip")
    for name, method in [("stored", zipfile.ZIP_STORED), ("deflated", zipfile.ZIP_DEFLATED),
                         ("bzip2", zipfile.ZIP_BZIP2), ("lzma", zipfile.ZIP_LZMA)]:
        with zipfile.ZipFile(f"{OUT}/python-{name}.zip", "w", method) as z:
            for root, dirs, files in sorted(os.walk(TREE)):
                for entry in sorted(dirs + files):
                    z.write(os.path.join(root, entry),
                            os.path.relpath(os.path.join(root, entry), TREE))
        row(f"python-{name}.zip")
    # A JDK is large: its rows are left out where there is none.
    if shutil.which("jar"):
        run("jar", "--create", "--file", f"{OUT}/jar.zip", ".")
        run("jar", "--create", "--no-compress", "--no-manifest", "--file",
            f"{OUT}/jar-store.zip", ".")
        row("jar.zip")
        row("jar-store.zip")


def by_hand(archive, entries):
    """Stored entries: (name bytes, data, host system, Unix mode or None, extra field bytes)."""
    local, central = b"", b""
    for name, data, host, mode, extra in entries:
        crc, offset = zlib.crc32(data), len(local)
        local += struct.pack("<IHHHHHIIIHH", 0x04034B50, 20, 0, 0, 0, 0x21, crc, len(data),
                             len(data), len(name), len(extra)) + name + extra + data
        central += struct.pack("<IHHHHHHIIIHHHHHII", 0x02014B50, host << 8 | 20, 20, 0, 0, 0,
                               0x21, crc, len(data), len(data), len(name), len(extra), 0, 0, 0,
                               (mode or 0) << 16, offset) + name + extra
    end = struct.pack("<IHHHHIIH", 0x06054B50, 0, 0, len(entries), len(entries), len(central),
                      len(local), 0)
    open(f"{OUT}/{archive}", "wb").write(local + central + end)


def unicode_path(name, stored):
    return struct.pack("<HHBI", 0x7075, 5 + len(name), 1, zlib.crc32(stored)) + name


def hand_built():
    unix, dos = 3, 0
    by_hand("hand-windows-names.zip", [(b"res\\img\\logo.png", b"png", dos, None, b""),
                                       (b"res\\readme.txt", b"txt", dos, None, b"")])
    row("hand-windows-names.zip")
    by_hand("hand-windows-escape.zip", [(b"..\\..\\evil", b"x", dos, None, b"")])
    row("hand-windows-escape.zip", "refused: refusing unsafe entry name \"..\\..\\evil\"", "-")
    # On a Unix host "\" is part of the name, as unzip keeps it (bsdtar splits it anyway).
    by_hand("hand-unix-backslash.zip", [(b"a\\b.txt", b"x", unix, 0o100644, b"")])
    row("hand-unix-backslash.zip", reference="unzip")
    # A tool renamed the entries and left the old Unicode Path fields: only a field whose
    # check matches the name stands.
    by_hand("hand-unicode-path.zip", [
        (b"renamed.txt", b"stale", unix, 0o100644,
         unicode_path("alt\u00e9.txt".encode(), b"original.txt")),
        (b"current.txt", b"fresh", unix, 0o100644,
         unicode_path("n\u00e9u.txt".encode(), b"current.txt"))])
    row("hand-unicode-path.zip")
    by_hand("hand-control-bytes.zip", [(b"a\x01b\x7f.txt", b"x", unix, 0o100644, b"")])
    row("hand-control-bytes.zip",
        "refused: refusing entry name \"a\\x01b\\x7f.txt\" holding a control character", "-")
    by_hand("hand-device.zip", [(b"dev/console", b"", unix, stat.S_IFCHR | 0o600, b"")])
    row("hand-device.zip", "refused: refusing special file entry \"dev/console\"", "-")
    encrypted_directory()
    row("hand-encrypted-directory.zip", "refused: central directory is encrypted", "-")


def refused_whole():
    """Archives refused: an entry whose name leaves the destination among good ones (before the
    destination is made), data that fails its check (stored and deflated entries read whole, and
    one large enough to be streamed), a cut or empty file, and directories nested one level past
    the bound (one level less installs)."""
    unix = 3
    good = [(b"first.txt", b"ok", unix, 0o100644, b""), (b"dir/", b"", unix, 0o40755, b"")]
    for archive, name in [("hand-escape.zip", "../evil"), ("hand-escape-inner.zip", "a/../../evil"),
                          ("hand-escape-absolute.zip", f"{OUT}/abs-evil"),
                          ("hand-escape-directory.zip", "../")]:
        mode = 0o40755 if name.endswith("/") else 0o100644
        by_hand(archive, good + [(name.encode(), b"x", unix, mode, b""),
                                 (b"last.txt", b"ok", unix, 0o100644, b"")])
        row(archive, f"refused: refusing unsafe entry name \"{name}\"", "-")
    numbers = "".join(f"{i * 7919 % 10007}\n" for i in range(20000)).encode()
    for archive, data, method in [("corrupt-stored.zip", os.urandom(64 * 1024), zipfile.ZIP_STORED),
                                  ("corrupt-deflated.zip", numbers, zipfile.ZIP_DEFLATED),
                                  ("corrupt-streamed.zip", os.urandom(2 << 20), zipfile.ZIP_STORED)]:
        with zipfile.ZipFile(f"{OUT}/{archive}", "w", method) as z:
            z.writestr("a.bin", data)
            z.writestr("b.txt", "b")
        corrupt = bytearray(open(f"{OUT}/{archive}", "rb").read())
        corrupt[1000] ^= 0x55
        open(f"{OUT}/{archive}", "wb").write(corrupt)
        row(archive, "refused: cannot extract \"a.bin\" from zip archive", "-")
    whole = open(f"{OUT}/corrupt-stored.zip", "rb").read()
    open(f"{OUT}/truncated.zip", "wb").write(whole[:len(whole) // 2])
    row("truncated.zip", "refused: cannot open zip archive", "-")
    open(f"{OUT}/empty.zip", "wb").close()
    row("empty.zip", "refused: no entries in zip archive", "-")
    for depth, expected in [(255, "installed"), (3000, "refused: nested deeper than 256 directories")]:
        with zipfile.ZipFile(f"{OUT}/nested-{depth}.zip", "w") as z:
            for level in range(1, depth + 1):
                z.writestr(zipfile.ZipInfo("d/" * level), "")
            z.writestr("d/" * depth + "leaf.txt", "leaf")
        row(f"nested-{depth}.zip", expected)
    # A name stored twice leaves the later entry, as extracting in archive order does.
    with warnings.catch_warnings(), zipfile.ZipFile(f"{OUT}/duplicate-name.zip", "w") as z:
        warnings.simplefilter("ignore")  # zipfile warns of the duplicate it is asked to write
        z.writestr("a.txt", "early")
        z.writestr("a.txt", "the later entry, longer than the early one")
    row("duplicate-name.zip")


def encrypted_directory():
    """An archive whose central directory is encrypted: masked local header (bit 13), an archive
    extra data record before opaque directory bytes, a Zip64 end record needing version 6.2 and a
    masked end record."""
    data = os.urandom(64)
    local = struct.pack("<IHHHHHIIIHH", 0x04034B50, 62, 0x2001, 0, 0, 0, 0, len(data), 0, 8, 0)
    local += b"\0" * 8 + data
    directory = struct.pack("<II", 0x08064B50, 16) + os.urandom(16) + os.urandom(96)
    zip64 = struct.pack("<IQHHIIQQQQ", 0x06064B50, 44, 62, 62, 0, 0, 1, 1, len(directory),
                        len(local))
    locator = struct.pack("<IIQI", 0x07064B50, 0, len(local) + len(directory), 1)
    end = struct.pack("<IHHHHIIH", 0x06054B50, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFFFFFF,
                      0xFFFFFFFF, 0)
    open(f"{OUT}/hand-encrypted-directory.zip", "wb").write(
        local + directory + zip64 + locator + end)


def main():
    shutil.rmtree(OUT, ignore_errors=True)
    os.makedirs(TREE)
    make_tree()
    missing = []
    real_archivers(missing)
    if missing:
        print("missing tools: " + " ".join(missing))
        sys.exit(77)
    hand_built()
    refused_whole()
    shutil.rmtree(TREE)
    with open(f"{OUT}/manifest.tsv", "w") as f:
        f.writelines(f"{a}\t{r}\t{e}\n" for a, r, e in rows)


main()
