#!/usr/bin/env python3
"""Writes the archive corpus of archive_corpus_test.cpp into the folder named by argv[1]:
archives of every kind the standard tools meet, made with zip, tar, bsdtar and python's
zipfile and tarfile, without network."""

import io
import os
import subprocess
import sys
import tarfile
import zipfile

out = os.path.abspath(sys.argv[1])
os.makedirs(out, exist_ok=True)
os.environ["LC_ALL"] = "C.UTF-8"


def path(name):
    return os.path.join(out, name)


def sh(command, cwd):
    subprocess.run(command, shell=True, check=True, cwd=cwd, stdout=subprocess.DEVNULL)


def write(name, data):
    os.makedirs(os.path.dirname(name), exist_ok=True)
    with open(name, "wb") as f:
        f.write(data)


# A small tree: Unicode names, nested and empty folders, data that compresses and data that does not.
tree = path("tree")
noise = bytes((i * 7919 + (i >> 3) * 31) & 0xFF for i in range(70000))
write(os.path.join(tree, "Grüße", "日本語.txt"), "unicode".encode())
write(os.path.join(tree, "nested", "deeper", "leaf.txt"), b"leaf")
write(os.path.join(tree, "noise.bin"), noise)
write(os.path.join(tree, "text.txt"), b"line\n" * 5000)
os.makedirs(os.path.join(tree, "empty"), exist_ok=True)
os.symlink("text.txt", os.path.join(tree, "link-to-file"))
os.symlink("nested", os.path.join(tree, "link-to-folder"))
os.symlink("../outside", os.path.join(tree, "link-out"))
os.link(os.path.join(tree, "text.txt"), os.path.join(tree, "hard.txt"))
members = "Grüße empty nested noise.bin text.txt hard.txt link-to-file link-to-folder link-out"

# --- archives of the tools -------------------------------------------------------------
sh(f"zip -qry {path('zip-tool.zip')} {members}", tree)
sh(f"zip -q0 {path('zip-tool-stored.zip')} text.txt noise.bin", tree)
sh(f"tar -cf {path('gnu.tar')} {members}", tree)
sh(f"tar -czf {path('gnu.tgz')} {members}", tree)
sh(f"tar -cJf {path('gnu.txz')} {members}", tree)
sh(f"tar --zstd -cf {path('gnu.tzst')} {members}", tree)
sh(f"bsdtar --format pax -cjf {path('pax.tbz2')} {members}", tree)
sh(f"bsdtar --format ustar -cf {path('ustar.tar')} {members}", tree)
sh(f"bsdtar --format zip -cf {path('bsdtar.zip')} {members}", tree)

# An update appended with tar -r: tar extracts the later copy last.
updates = path("updates")
write(os.path.join(updates, "notes.txt"), b"old")
sh(f"tar -cf {path('appended.tar')} notes.txt", updates)
write(os.path.join(updates, "notes.txt"), b"new and longer")
sh(f"tar -rf {path('appended.tar')} notes.txt", updates)

# Sparse files: one all hole, one with data between holes; GNU and pax sparse formats.
sparse = path("sparse")
os.makedirs(sparse, exist_ok=True)
with open(os.path.join(sparse, "hole"), "wb") as f:
    f.truncate(1 << 20)
with open(os.path.join(sparse, "islands"), "wb") as f:
    f.seek(300000)
    f.write(b"island")
    f.truncate(900000)
sh(f"tar --sparse -cf {path('sparse-gnu.tar')} hole islands", sparse)
sh(f"tar --sparse --format=pax -cf {path('sparse-pax.tar')} hole islands", sparse)

# --- zips with what the tools write less often -------------------------------------------


class RawNameInfo(zipfile.ZipInfo):
    """An entry whose name is written as given, without the UTF-8 flag."""

    def _encodeFilenameFlags(self):
        return self.filename.encode("cp437"), self.flag_bits


def zinfo(name, system=3, mode=0o100644, dos=0):
    # Text names beyond ASCII are written as UTF-8 and flagged so; bytes as they are, unflagged.
    if isinstance(name, bytes):
        info = RawNameInfo(name.decode("cp437"), date_time=(2020, 1, 2, 3, 4, 6))
    else:
        info = zipfile.ZipInfo(name, date_time=(2020, 1, 2, 3, 4, 6))
    info.create_system = system
    info.external_attr = (mode << 16) | dos
    info.compress_type = zipfile.ZIP_DEFLATED
    return info


def make_zip(name, entries):
    with zipfile.ZipFile(path(name), "w") as z:
        for info, data in entries:
            z.writestr(info, data)


make_zip("names-cp437.zip", [(zinfo(b"cp437-\x81ber.txt"), b"u umlaut"), (zinfo(b"\xff\xfe.txt"), b"ff fe"),
                             (zinfo(b"koi8-\xf0\xd2\xc9\xd7\xc5\xd4.txt"), b"koi8"),
                             (zinfo(b"dos-\x81ber.txt", system=0, mode=0), b"dos")])
make_zip("names-utf8.zip", [(zinfo("flagged-Grüße.txt"), b"flagged"),
                            (zinfo("unflagged-Grüße.txt".encode()), b"unflagged")])
make_zip("dos-folder.zip", [(zinfo("folder", system=0, mode=0, dos=0x10), b""),
                            (zinfo("folder/inside.txt", system=0, mode=0, dos=0x20), b"inside")])
make_zip("unix-kinds.zip", [(zinfo("target.txt"), b"target"), (zinfo("link", mode=0o120777), b"target.txt"),
                            (zinfo("fifo", mode=0o010644), b""), (zinfo("dir", mode=0o040755), b"")])
import warnings
warnings.simplefilter("ignore")  # zipfile warns about the duplicate, which is the point
make_zip("duplicates.zip", [(zinfo("dup.txt"), b"first"), (zinfo("dup.txt"), b"second")])
make_zip("odd-names.zip", [(zinfo("fine.txt"), b"fine"), (zinfo(""), b"nameless"), (zinfo("a\\b.txt"), b"backslash"),
                           (zinfo("../up.txt"), b"up"), (zinfo("/abs.txt"), b"absolute")])
write(path("not-an-archive.zip"), noise[:5000])

# --- tars with what the tools write less often -------------------------------------------


def make_tar(name, entries, format=tarfile.GNU_FORMAT):
    with tarfile.open(path(name), "w", format=format, encoding="utf-8", errors="surrogateescape") as t:
        for member, kind, data, link in entries:
            info = tarfile.TarInfo(member)
            info.type, info.mtime, info.mode, info.linkname = kind, 1600000000, 0o644, link
            info.size = len(data) if kind == tarfile.REGTYPE else 0
            t.addfile(info, io.BytesIO(data) if kind == tarfile.REGTYPE else None)


REG, DIR, SYM, LNK, FIFO = tarfile.REGTYPE, tarfile.DIRTYPE, tarfile.SYMTYPE, tarfile.LNKTYPE, tarfile.FIFOTYPE
make_tar("names-not-utf8.tar", [("\udcff\udcfe.txt", REG, b"ff fe", ""), ("koi8-\udcf0\udcd2.txt", REG, b"koi8", ""),
                                ("fine.txt", REG, b"fine", "")])
make_tar("names-not-utf8-pax.tar", [("\udcff\udcfe.txt", REG, b"ff fe", ""), ("fine.txt", REG, b"fine", "")],
         tarfile.PAX_FORMAT)
make_tar("links.tar", [("dir/", DIR, b"", ""), ("dir/file.txt", REG, b"file", ""),
                       ("sym", SYM, b"", "dir/file.txt"), ("hard", LNK, b"", "dir/file.txt"),
                       ("hard-to-nothing", LNK, b"", "nowhere"), ("fifo", FIFO, b"", "")])
make_tar("odd-names.tar", [("fine.txt", REG, b"fine", ""), ("", REG, b"nameless", ""), ("../up.txt", REG, b"up", ""),
                           ("/abs.txt", REG, b"absolute", "")])

# Two good entries, then a header whose checksum is broken, then one more.
make_tar("damaged.tar", [("one.txt", REG, b"one", ""), ("two.txt", REG, b"two", ""), ("three.txt", REG, b"three", "")])
with open(path("damaged.tar"), "r+b") as f:
    data = f.read()
    at = data.index(b"three.txt")
    f.seek(at + 148)  # the header's checksum field
    f.write(b"9999999\0")
with open(path("gnu.tgz"), "rb") as f:
    write(path("truncated.tgz"), f.read()[:4000])
write(path("not-an-archive.tar"), noise[:5000])
