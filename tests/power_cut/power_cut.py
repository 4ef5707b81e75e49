#!/usr/bin/env python3
"""Cuts the target's power while it saves, and looks at what the next start finds.

    tests/power_cut/power_cut.py FILE_SYSTEM DIRECTORY

Runs in the root of the tree. DIRECTORY/machine has the programs for the machine of
script/on-target. There a key file and a plain file are saved in turn, with growing numbers. QEMU
records the writes and flushes of the disk in order, among them the saver's report of each save that
returned: a write to the end of the disk.

From the record come the disks as a cut may leave them: what was written before the last flush is
there; what was written after it is kept, dropped or torn. A second machine mounts each such disk.
Each file must be whole, with the number last reported for it or the next one, and must take another
save. Two faulty savers, which skip the flush of their files or of the directory, must be found.
"""
import os
import pathlib
import random
import shutil
import struct
import subprocess
import sys

CUTS = {"library": 20, "no-file-flush": 4, "no-directory-flush": 4}
SECTOR = 512
FILE_SYSTEM_SIZE = 64 << 20
REPORT = FILE_SYSTEM_SIZE // SECTOR  # the sector of the reports
MAKE = {"ext4": "mke2fs -q -F -t ext4 -E lazy_itable_init=0", "f2fs": "mkfs.f2fs -q -f"}
# By itself ext4 flushes a file that replaces another, which would hide a missing flush.
# Its commits at intervals would hide others.
OPTIONS = {"ext4": "noauto_da_alloc,commit=300", "f2fs": "rw"}


def run_on_target(script, *options):
    machine = directory / "machine"
    for name in script, "save.sh":
        shutil.copy(pathlib.Path(__file__).with_name(name), machine)
    (machine / "main").write_text(f"sh /{script} {type_} {OPTIONS[type_]}\n")
    run = subprocess.run(["script/on-target", machine, *options], stdout=subprocess.PIPE, text=True)
    if run.returncode != 0:
        sys.exit(run.stdout)
    return run.stdout.splitlines()


def attach(name, driver):
    return ["-blockdev", f"node-name={name},{driver}", "-device",
            f"virtio-blk-device,drive={name},serial={name},discard=off,write-zeroes=off"]


def read_record(content):
    """Gives the writes in order, as sector and data. A flush has no data."""
    at = SECTOR
    for _ in range(struct.unpack_from("<QQQ", content)[2]):
        sector, count, flags = struct.unpack_from("<QQQ", content, at)
        assert flags == (0 if count else 1), "neither a write nor a flush"
        yield sector, content[at + SECTOR:at + (1 + count) * SECTOR]
        at += (1 + count) * SECTOR


def split(sector, data):
    return ((sector + at // SECTOR, data[at:at + SECTOR]) for at in range(0, len(data), SECTOR))


def write(disk, writes):
    for sector, data in writes:
        disk.update(split(sector, data))
    return disk


def cut(disk, record, cuts):
    """Gives the disks that each cut may leave, and the numbers reported until then."""
    reports = [at for at, (sector, _) in enumerate(record) if sector == REPORT]
    # From the second report on both files exist. Each cut comes right after a write that is not
    # flushed yet: in turns any, or the first after a report, where "dropped" is what was reported.
    gaps = [[at for at in range(start + 1, end) if record[at][1]]
            for start, end in zip(reports[1:], reports[2:])]
    positions = [random.choice(gap) if n % 2 else gap[0] for n, gap in enumerate(gaps[:cuts])]
    unflushed = []
    for position, (sector, data) in enumerate(record):
        if sector == REPORT:
            numbers = data.decode().strip()
        elif data:
            unflushed.append((sector, data))
        else:
            write(disk, unflushed)
            unflushed = []
        if position in positions:
            torn = [(s, d[:random.randrange(0, len(d) + 1, SECTOR)]) for s, d in unflushed]
            for fate, writes in ("kept", unflushed), ("dropped", []), ("torn", torn):
                yield numbers, fate, write(dict(disk), writes)


type_, directory = sys.argv[1], pathlib.Path(sys.argv[2])
random.seed(1)
base = directory / "base"
base.touch()
os.truncate(base, FILE_SYSTEM_SIZE)
subprocess.run([*MAKE[type_].split(), base], check=True)
formatted = {sector: data for sector, data in split(0, base.read_bytes()) if any(data)}
os.truncate(base, FILE_SYSTEM_SIZE + 4096)

drives = []
for saver in CUTS:
    subprocess.run(["cp", "--sparse=always", base, directory / saver], check=True)
    (directory / f"{saver}.log").touch()
    drives += attach(saver, "driver=blklogwrites"
                    f",file.driver=file,file.cache.no-flush=on,file.filename={directory}/{saver}"
                    f",log.driver=file,log.cache.no-flush=on,log.filename={directory}/{saver}.log")
run_on_target("record.sh", *drives)

cases = []
with open(directory / "disks", "wb") as disks, open(directory / "machine/disks", "w") as list_:
    for saver, cuts in CUTS.items():
        record = [*read_record((directory / f"{saver}.log").read_bytes())]
        for numbers, fate, disk in cut(dict(formatted), record, cuts):
            start = len(cases) * FILE_SYSTEM_SIZE
            cases.append((saver, fate, numbers))
            list_.write(f"{start} {numbers}\n")
            for sector, data in disk.items():
                disks.seek(start + sector * SECTOR)
                disks.write(data)
    disks.truncate(len(cases) * FILE_SYSTEM_SIZE)
console = run_on_target("inspect.sh", *attach("disks", "driver=file,cache.no-flush=on"
                                              f",filename={directory}/disks"))
verdicts = [line for line in console if line in ("good", "bad")]
assert len(verdicts) == len(cases), "a disk was not inspected"
passed = True
for saver in CUTS:
    made = [(case, verdict) for case, verdict in zip(cases, verdicts) if case[0] == saver]
    assert len(made) == 3 * CUTS[saver], "a cut was not made"
    bad = [case for case, verdict in made if verdict == "bad"]
    print(f"{type_}, {saver}: {CUTS[saver]} cuts, {len(made)} disks, {len(bad)} bad")
    if bool(bad) == (saver == "library"):
        passed = False
        print(f"Not as it must be: {bad}")
sys.exit(not passed)
