#!/bin/sh
# try_modes.sh LAUNCHER: runs every mode that needs no display, as the user who calls it, with nothing but
# a POSIX shell. One line for each thing that is not as it should be; status 1 if there is one.
# With TAVREL_CRASH=1 it also crashes, which leaves a dump behind.
set -u
launcher=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
unset DISPLAY
HOME=$scratch TMPDIR=$scratch
export HOME TMPDIR
cd "$scratch" || exit 1
failed=0

# expect STATUS TEXT ARGUMENT...: TEXT is a line of what the launcher says; reads standard input.
expect() {
  wanted=$1 text=$2
  shift 2
  "$launcher" "$@" >out 2>err
  status=$?
  if [ "$status" -ne "$wanted" ] || ! cat out err | grep -qF -- "$text"; then
    echo "try_modes: tavrel $*: status $status instead of $wanted, or no '$text':" >&2
    cat out err >&2
    failed=1
  fi
}

cat >arguments.py <<'END'
import sys
print(sys.argv[1:])
sys.exit(7)
END
cat >modules.py <<'END'
import importlib, os, sys
import DlRenderer, MachineInfo, NodegraphAPI
home = os.path.dirname(os.path.dirname(sys.executable))
root = os.path.dirname(os.path.dirname(home))
extensions = os.listdir(os.path.join(home, "lib/python3.7/lib-dynload"))
for name in extensions:
    importlib.import_module(name.split(".")[0])
files = [getattr(module, "__file__", None) for module in list(sys.modules.values())]
print("enough:", len(extensions) > 40,
      "outside:", [file for file in files if file and not file.startswith((root, "modules.py"))],
      "writable:", [folder for folder, _, _ in os.walk(root) if os.access(folder, os.W_OK)])
END
cat >interpreter.py <<'END'
import subprocess, sys
print(subprocess.check_output([sys.executable, "-c", "import ssl, sqlite3; print(6 * 9)"]))
END
cat >crash.py <<'END'
import ctypes
ctypes.string_at(0)
END

expect 0 '1.0v1' --version </dev/null
expect 0 '--batch' --help </dev/null
expect 7 "['a b', '--c']" --script arguments.py 'a b' --c </dev/null
expect 0 'enough: True outside: [] writable: []' --batch modules.py </dev/null
expect 0 '54' --batch interpreter.py </dev/null
echo 'print(6 * 7)' | expect 0 '42' --shell
expect 1 "can't open the window" </dev/null
if [ "${TAVREL_CRASH:-}" = 1 ]; then
  TAVREL_CRASH_HANDLING=1
  export TAVREL_CRASH_HANDLING
  expect 139 'tavrel' --script crash.py </dev/null
  if [ -z "$(find /var/tmp -name '*.dmp' -newer crash.py)" ]; then
    echo "try_modes: a crash left no dump in /var/tmp" >&2
    failed=1
  fi
fi
exit "$failed"
