#!/usr/bin/python3
"""Mutation score of the suite: N mutants of the library's sources, drawn with
a seed (a comparison or boolean flipped, a returned constant changed, a call
dropped), each built and run against the whole suite. A mutant the suite
fails on is killed; one it passes survives and is listed. A mutant whose built
library is byte for byte the unmutated one (a change to a compile-time-only
check, say) cannot be told apart by any test: it is listed as equivalent and
not counted.

usage: mutation.py [N] [SEED]   (make mutation N=48 SEED=1; build in build-mutation/)
The working tree is restored after every mutant, also on Ctrl-C."""
import hashlib, os, random, re, signal, subprocess, sys, time

N = int(sys.argv[1]) if len(sys.argv) > 1 else 48
SEED = int(sys.argv[2]) if len(sys.argv) > 2 else 1
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(ROOT, "build-mutation")
SOURCES = [f for f in subprocess.run(["git", "ls-files", "*.cpp", "*.h"], cwd=ROOT, capture_output=True,
                                     text=True, check=True).stdout.split()
           if f.split("/")[0] not in ("tests", "fuzz", "bench", "tools", "examples", "common") and f != "para.h"]
# (pattern, replacement, what): one change per mutant, at one place.
RULES = [(r" == ", " != ", "== to !="), (r" != ", " == ", "!= to =="), (r" < ", " <= ", "< to <="),
         (r" > ", " >= ", "> to >="), (r" <= ", " < ", "<= to <"), (r" >= ", " > ", ">= to >"),
         (r" && ", " || ", "&& to ||"), (r" \|\| ", " && ", "|| to &&"), (r"\btrue\b", "false", "true to false"),
         (r"\bfalse\b", "true", "false to true"), (r"return 0;", "return -1;", "return 0 to -1"),
         (r"return -1;", "return 0;", "return -1 to 0"), (r"^(\s+)([A-Za-z_][\w:.>-]*\(.*\);)\s*$", r"\1;", "call dropped")]


def candidates():
    out = []
    for path in SOURCES:
        for n, line in enumerate(open(os.path.join(ROOT, path)), 1):
            code = line.split("//")[0]
            if code.lstrip().startswith(("*", "/*", "#", "PARA_LOG", "static_assert")) or '"' in code:
                continue
            for i, (pattern, repl, what) in enumerate(RULES):
                for m in re.finditer(pattern, code, re.M):
                    out.append((path, n, m.start(), i))
    return out


def run(cmd, timeout):
    try:
        return subprocess.run(cmd, cwd=ROOT, capture_output=True, text=True, timeout=timeout).returncode
    except subprocess.TimeoutExpired:
        return "timeout"


def fingerprint():
    h = hashlib.sha256()
    for name in ("libpara.so.1.0.0", "libpara_static.a"):
        with open(os.path.join(BUILD, name), "rb") as f:
            h.update(f.read())
    return h.digest()


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("mutation.py: stopped"))  # restores the file being mutated
    if subprocess.run(["git", "diff", "--quiet", "--"] + SOURCES, cwd=ROOT).returncode:
        sys.exit("mutation.py: the library's sources have uncommitted changes; commit or stash them first")
    env_build = ["cmake", "-S", ROOT, "-B", BUILD, "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DPARA_TEST_TIMEOUT=120"]
    if run(env_build, 600) != 0 or run(["cmake", "--build", BUILD, "-j", "2"], 3600) != 0:
        sys.exit("mutation.py: the unmutated tree does not build")
    unmutated = fingerprint()
    if run(["ctest", "--test-dir", BUILD, "-j", "2"], 3600) != 0:
        sys.exit("mutation.py: the unmutated suite is not green; a score would mean nothing")
    drawn = random.Random(SEED).sample(candidates(), N)
    killed, stillborn, equivalent, survivors = 0, 0, 0, []
    for k, (path, n, col, rule) in enumerate(drawn, 1):
        full = os.path.join(ROOT, path)
        original = open(full).read()
        lines = original.split("\n")
        pattern, repl, what = RULES[rule]
        line = lines[n - 1]
        code, comment = line.split("//", 1) if "//" in line else (line, None)  # the rules see the code alone
        lines[n - 1] = code[:col] + re.sub(pattern, repl, code[col:], count=1, flags=re.M)
        lines[n - 1] += "" if comment is None else "//" + comment
        started = time.monotonic()
        try:
            open(full, "w").write("\n".join(lines))
            if lines[n - 1] == line:
                sys.exit(f"mutation.py: {what} changes nothing at {path}:{n}")
            if run(["cmake", "--build", BUILD, "-j", "2"], 1800) != 0:
                stillborn += 1
                verdict = "does not build"
            elif fingerprint() == unmutated:
                equivalent += 1
                verdict = "equivalent (same library)"
            else:
                r = run(["ctest", "--test-dir", BUILD, "-j", "2", "--stop-on-failure"], 3600)
                killed += r != 0
                verdict = "killed" if r != 0 else "SURVIVED"
                if r == 0:
                    survivors.append(f"{path}:{n}: {what}: {line.strip()}")
        finally:
            open(full, "w").write(original)
        print(f"[{k}/{N}] {path}:{n} {what}: {verdict} ({time.monotonic() - started:.0f} s)", flush=True)
    run(["cmake", "--build", BUILD, "-j", "2"], 3600)  # back to the real tree
    counted = N - stillborn - equivalent
    print(f"\nmutation score (seed {SEED}): {killed} of {counted} killed"
          f" ({100.0 * killed / max(counted, 1):.0f}%), {stillborn} did not build, {equivalent} equivalent")
    for s in survivors:
        print("  survivor:", s)


if __name__ == "__main__":
    main()
