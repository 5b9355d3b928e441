#!/usr/bin/env python3
"""Top functions and source lines of one measured region of bench/arm_cost.sh.

Reads the instruction meter's per-block profile (REPORT.region<ID>.tbs: "vaddr n_insns execs
off1,off2,..." per translated block executed in the region) and the guest's /proc/self/maps,
attributes every executed instruction to the function that holds it (symbols from the cross
binutils' nm; a library shipped without a symbol table is named by its nearest exported symbol)
and, for the driver's own code, to its source line (addr2line).

Usage: arm_cost_profile.py --tbs FILE --maps FILE --prefix CROSS- --pixels N [--top N]
                           [--sysroot DIR]... [--root DIR]
"""
import argparse
import bisect
import collections
import os
import subprocess
import sys


def run(args):
    return subprocess.run(args, check=True, capture_output=True, text=True).stdout


class Module:
    """One mapped ELF file: its load segments and its symbols, sorted by address."""

    def __init__(self, path, prefix, is_main):
        self.path = path
        self.name = os.path.basename(path)
        self.is_main = is_main
        self.loads = []  # (file offset, vaddr, file size)
        for line in run([prefix + "readelf", "-lW", path]).splitlines():
            f = line.split()
            if f and f[0] == "LOAD":
                self.loads.append((int(f[1], 16), int(f[2], 16), int(f[4], 16)))
        self.full = True
        syms = self._nm(prefix, [])
        if not syms:
            self.full = False
            syms = self._nm(prefix, ["-D"])
        syms.sort()
        self.addrs = [s[0] for s in syms]
        self.syms = syms

    def _nm(self, prefix, extra):
        try:
            out = run([prefix + "nm", "-S", "--defined-only"] + extra + [self.path])
        except subprocess.CalledProcessError:
            return []
        syms = []
        for line in out.splitlines():
            f = line.split(None, 3)
            if len(f) == 4 and len(f[2]) == 1 and f[2] in "tTwWiI":
                syms.append((int(f[0], 16) & ~1, int(f[1], 16), f[3]))  # Thumb bit off
        # Demangled without parameter lists: the names stay short enough for the table.
        names = subprocess.run([prefix + "c++filt", "-p"], input="\n".join(s[2] for s in syms), check=True,
                               capture_output=True, text=True).stdout.splitlines()
        return [(a, n, name) for (a, n, _), name in zip(syms, names)]

    def vaddr(self, file_offset):
        for off, va, size in self.loads:
            if off <= file_offset < off + max(size, 1):
                return va + file_offset - off
        return None

    def symbol(self, va):
        i = bisect.bisect_right(self.addrs, va) - 1
        if i < 0:
            return "%s!?" % self.name
        start, size, name = self.syms[i]
        if va < start + size or self.full:
            return name if self.is_main else "%s!%s" % (self.name, name)
        # Code without a symbol of its own (the library ships only its exported names).
        return "%s!? (after %s)" % (self.name, name)


def load_maps(path):
    """Executable file mappings: (start, end, file offset, path)."""
    maps = []
    with open(path) as f:
        for line in f:
            p = line.split()
            if len(p) >= 6 and "x" in p[1] and p[5].startswith("/"):
                lo, hi = (int(v, 16) for v in p[0].split("-"))
                maps.append((lo, hi, int(p[2], 16), p[5]))
    maps.sort()
    return maps


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--tbs", required=True)
    ap.add_argument("--maps", required=True)
    ap.add_argument("--prefix", required=True, help="cross binutils prefix, e.g. aarch64-linux-gnu-")
    ap.add_argument("--sysroot", action="append", default=[], help="qemu -L prefix for the loader's paths")
    ap.add_argument("--pixels", type=int, required=True)
    ap.add_argument("--top", type=int, default=12)
    ap.add_argument("--root", default=os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."),
                    help="source tree whose lines are reported (default: this checkout)")
    a = ap.parse_args()

    maps = load_maps(a.maps)
    starts = [m[0] for m in maps]
    main_path = maps[0][3] if maps else None
    modules = {}
    per_func = collections.Counter()
    per_insn = collections.Counter()  # (module path, vaddr) -> instructions, for source lines
    total = 0
    with open(a.tbs) as f:
        for line in f:
            p = line.split()
            if len(p) < 4:
                continue
            va, n, execs = int(p[0], 16), int(p[1]), int(p[2])
            total += n * execs
            i = bisect.bisect_right(starts, va) - 1
            if i < 0 or va >= maps[i][1]:
                per_func["[no file: vdso or generated code]"] += n * execs
                continue
            lo, _, off, path = maps[i]
            real = path
            if not os.path.exists(real):
                for root in a.sysroot:
                    if os.path.exists(root + path):
                        real = root + path
                        break
            mod = modules.get(real)
            if mod is None:
                mod = modules[real] = Module(real, a.prefix, path == main_path)
            fva = mod.vaddr(va - lo + off)
            if fva is None:
                per_func["%s!?" % mod.name] += n * execs
                continue
            per_func[mod.symbol(fva)] += n * execs
            if mod.is_main:
                for o in p[3].split(","):
                    per_insn[(real, fva + int(o))] += execs

    px = float(a.pixels)
    print("  %-70s %14s %9s %6s" % ("function", "instructions", "per pixel", "share"))
    for name, count in per_func.most_common(a.top):
        print("  %-70s %14d %9.2f %5.1f%%" % (name[:70], count, count / px, 100.0 * count / max(total, 1)))
    rest = total - sum(c for _, c in per_func.most_common(a.top))
    if rest:
        print("  %-70s %14d %9.2f %5.1f%%" % ("(the rest)", rest, rest / px, 100.0 * rest / max(total, 1)))

    # Source lines of the driver's own code (the library is linked in statically). An instruction
    # inlined from a compiler header (arm_neon.h, ...) counts on the project line that called it.
    per_line = collections.Counter()
    root = os.path.realpath(a.root) + os.sep
    for path in {p for p, _ in per_insn}:
        items = [(va, c) for (p, va), c in per_insn.items() if p == path]
        out = run([a.prefix + "addr2line", "-a", "-i", "-e", path] + ["%x" % va for va, _ in items])
        chains = []
        for line in out.splitlines():
            if line.startswith("0x"):
                chains.append([])
            elif chains:
                chains[-1].append(line.split(" (discriminator")[0])
        for (va, count), chain in zip(items, chains):
            ours = [w for w in chain if w.startswith(root)]
            where = ours[0][len(root):] if ours else os.path.basename(chain[0]) if chain else "??"
            per_line[where] += count
    shown = [(w, c) for w, c in per_line.most_common(a.top) if c >= total / 1000]
    if shown:
        print("  %-70s %14s %9s %6s" % ("source line", "instructions", "per pixel", "share"))
        for where, count in shown:
            print("  %-70s %14d %9.2f %5.1f%%" % (where[-70:], count, count / px, 100.0 * count / max(total, 1)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
