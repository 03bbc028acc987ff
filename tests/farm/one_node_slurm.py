#!/usr/bin/env python3
"""A Slurm of one node that lives in a scratch folder and goes without a trace.

As a program, runs a command in it and ends with that command's status:

    one_node_slurm.py [--tracking linuxproc|cgroup] [--epilog] COMMAND...

As a module, the same for a test: start() returns it, stop() takes it down. Needs Debian's packages
slurm-wlm and munge, a host name "localhost", and neither root nor systemd; tracking by cgroup
needs a freezer hierarchy that this user may write to.

What is started belongs to a guard, a process outside of the user's session and tree. It adopts
whatever its daemons and their jobs leave, and when its standard input ends, because the user
stopped it, failed or was killed, it ends every one of them and removes the folder.
"""

import argparse
import ctypes
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

PROGRAMS = {"slurm-wlm": ("slurmctld", "slurmd", "sbatch"), "munge": ("munged",)}
SEARCH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
FREEZER = Path("/sys/fs/cgroup/freezer")
EXAMPLES = Path(__file__).resolve().parents[2] / "examples/slurm"
START_SECONDS = 90
STOP_SECONDS = 10
ATTEMPTS = 3  # another process may take a port that was free
PR_SET_PDEATHSIG = 1
PR_SET_CHILD_SUBREAPER = 36
LIBC = ctypes.CDLL(None)

CONFIGURATION = """\
ClusterName=farm
SlurmctldHost=localhost
SlurmUser={user}
SlurmdUser={user}
AuthType=auth/munge
AuthInfo=socket={folder}/munge.socket
CredType=cred/munge
CommunicationParameters=NoCtldInAddrAny,NoInAddrAny
SlurmctldPort={ports[0]}
SlurmdPort={ports[1]}
StateSaveLocation={folder}/state
SlurmdSpoolDir={folder}/spool
SlurmctldPidFile={folder}/slurmctld.pid
SlurmdPidFile={folder}/slurmd.pid
ProctrackType=proctrack/{tracking}
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
SwitchType=switch/none
MpiDefault=none
KillWait=60
SchedulerType=sched/builtin
SchedulerParameters=batch_sched_delay=0
JobCompType=jobcomp/none
JobAcctGatherType=jobacct_gather/none
SlurmdParameters=config_overrides
NodeName={node} NodeHostname=localhost NodeAddr=127.0.0.1 CPUs=8 State=UNKNOWN
PartitionName=main Nodes={node} Default=YES DefaultTime=10 State=UP
"""
EPILOG = """\
PrologFlags=Alloc
Prolog={folder}/prolog.sh
TaskProlog={folder}/task-prolog.sh
Epilog={folder}/epilog.sh
"""
EPILOG_BASE = "/var/spool/tavrel-jobs"
CGROUP_CONFIGURATION = """\
CgroupPlugin=cgroup/v1
CgroupMountpoint=/sys/fs/cgroup
CgroupAutomount=no
"""


def what_is_missing(tracking):
    """Why no such Slurm can be started here, or None."""
    for package, programs in PROGRAMS.items():
        if not all(shutil.which(program, path=SEARCH) for program in programs):
            return f"{package} is not installed; scripts/setup.sh brings it"
    if tracking == "cgroup" and not os.access(FREEZER, os.W_OK):
        return f"no cgroup freezer hierarchy at {FREEZER} that this user may write to"
    return None


def await_condition(what, holds, seconds, pause=0.05):
    """For what neither Slurm nor MUNGE signals by an event."""
    deadline = time.monotonic() + seconds
    while not holds():
        if time.monotonic() > deadline:
            raise TimeoutError(f"after {seconds} s there was still no {what}")
        time.sleep(pause)


class OneNodeSlurm:
    """The user's end. folder: the scratch folder; environment: for sbatch and its like, and it
    becomes that of the jobs. TMPDIR in it is an empty folder."""

    def __init__(self, tracking="linuxproc", epilog=False):
        arguments = [sys.executable, "-B", __file__, "--guard", "--tracking", tracking]
        self._starter = subprocess.Popen(arguments + ["--epilog"] * epilog, stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, text=True)
        self._starter.wait()
        self.folder = Path(self._starter.stdout.readline().strip())
        state = self._starter.stdout.readline().strip()
        if state != "up":
            self.stop()
            raise RuntimeError(f"Slurm did not start: {state or 'its guard ended'}")
        self.job_base = self.folder / "jobs"
        self.environment = {"PATH": SEARCH, "HOME": str(self.folder), "LANG": "C.UTF-8",
                            "SLURM_CONF": str(self.folder / "slurm.conf"),
                            "TMPDIR": str(self.folder / "tmp")}

    def run(self, *command):
        """Standard output of a Slurm command, which must succeed."""
        return subprocess.run(command, env=self.environment, cwd=self.folder, text=True, check=True,
                              stdout=subprocess.PIPE).stdout.strip()

    def stop(self):
        """Returns when nothing is left."""
        self._starter.stdin.close()
        self._starter.stdout.read()
        self._starter.stdout.close()


class Guard:
    """The owner of the daemons."""

    def __init__(self, folder, tracking, epilog):
        self.folder = folder
        self.tracking = tracking
        self.epilog = epilog
        # A name of its own, since the node's control group bears it.
        self.node = f"farm{os.getpid()}"
        self.daemons = []
        self.environment = {"PATH": SEARCH, "SLURM_CONF": str(folder / "slurm.conf")}

    def start(self):
        for name in ("state", "spool", "tmp", "jobs"):
            (self.folder / name).mkdir(mode=0o700)
        (self.folder / "munge.key").touch(0o600)
        (self.folder / "munge.key").write_bytes(os.urandom(1024))
        for script in ("prolog.sh", "task-prolog.sh", "epilog.sh") if self.epilog else ():
            text = (EXAMPLES / script).read_text()
            (self.folder / script).write_text(text.replace(EPILOG_BASE, str(self.folder / "jobs")))
            (self.folder / script).chmod(0o700)
        for attempt in range(ATTEMPTS):
            try:
                self._start_daemons()
                return
            except (TimeoutError, ChildProcessError, subprocess.TimeoutExpired):
                if attempt == ATTEMPTS - 1:
                    raise
                self._stop_daemons()

    def stop(self):
        self._stop_daemons()
        # Steps and jobs outlive slurmd, and what they leave comes here when they end.
        while children := self._children():
            for pid in children:
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
        for group, _, _ in os.walk(FREEZER / f"slurm_{self.node}", topdown=False):
            os.rmdir(group)
        shutil.rmtree(self.folder)

    def _start_daemons(self):
        self._write_configuration()
        munge = self.folder / "munge.socket"
        self._launch("munged", "--foreground", "--force", f"--key-file={self.folder}/munge.key",
                     f"--socket={munge}", f"--pid-file={self.folder}/munged.pid",
                     f"--log-file={self.folder}/munged.log", f"--seed-file={self.folder}/seed")
        self._await("MUNGE", munge.exists)
        self._launch("slurmctld", "-D", "-c")
        self._await("slurmctld", lambda: "UP" in self._ask("scontrol", "ping"))
        self._launch("slurmd", "-D", "-c", "-N", self.node)
        self._await("idle node", lambda: self._ask("sinfo", "-h", "-o", "%t") == "idle")

    def _write_configuration(self):
        # Both are held until the second is known, so that they differ.
        sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(2)]
        ports = [each.getsockname()[1] for each in sockets]
        for each in sockets:
            each.close()
        user = subprocess.check_output(["id", "-un"], text=True).strip()
        text = CONFIGURATION + (EPILOG if self.epilog else "")
        (self.folder / "slurm.conf").write_text(text.format(
            user=user, folder=self.folder, ports=ports, tracking=self.tracking, node=self.node))
        if self.tracking == "cgroup":
            (self.folder / "cgroup.conf").write_text(CGROUP_CONFIGURATION)

    def _launch(self, program, *arguments):
        with open(self.folder / f"{program}.out", "ab") as output:
            # Even a guard that is killed takes its daemons along.
            self.daemons.append(subprocess.Popen(
                [shutil.which(program, path=SEARCH), *arguments], env=self.environment,
                cwd=self.folder, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                start_new_session=True,
                preexec_fn=lambda: LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGTERM, 0, 0, 0)))

    def _await(self, what, holds):
        def is_up():
            for daemon in self.daemons:
                if daemon.poll() is not None:
                    raise ChildProcessError(f"no {what}: {self._last_words()}")
            return holds()
        try:
            await_condition(what, is_up, START_SECONDS)
        except TimeoutError as error:
            raise TimeoutError(f"{error}: {self._last_words()}") from None

    def _last_words(self):
        name = Path(self.daemons[-1].args[0]).name
        lines = (self.folder / f"{name}.out").read_text(errors="replace").splitlines()
        return f"{name} said {lines[-1] if lines else 'nothing'!r}"

    def _ask(self, *command):
        answer = subprocess.run(command, env=self.environment, cwd=self.folder, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=60)
        return answer.stdout.strip()

    def _stop_daemons(self):
        while self.daemons:
            daemon = self.daemons.pop()
            daemon.terminate()
            try:
                daemon.wait(STOP_SECONDS)
            except subprocess.TimeoutExpired:
                daemon.kill()
                daemon.wait()

    def _children(self):
        pids = Path(f"/proc/self/task/{os.getpid()}/children").read_text()
        return [int(pid) for pid in pids.split()]


def guard(tracking, epilog):
    # A child of nobody who is of the user's tree: a test that runs out of time is killed with all
    # its descendants.
    if os.fork():
        os._exit(0)
    os.setsid()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: None)
    LIBC.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    # In /tmp whatever TMPDIR says: a socket's path has to be short.
    owner = Guard(Path(tempfile.mkdtemp(prefix="tavrel_farm_", dir="/tmp")), tracking, epilog)
    try:
        print(owner.folder, flush=True)
        owner.start()
        print("up", flush=True)
        sys.stdin.read()
    except (OSError, subprocess.SubprocessError) as error:
        print(error, flush=True)
    finally:
        owner.stop()


def main():
    parser = argparse.ArgumentParser(description="Runs a command in a Slurm of one node.")
    parser.add_argument("--tracking", choices=("linuxproc", "cgroup"), default="linuxproc",
                        help="how Slurm knows the processes of a job")
    parser.add_argument("--epilog", action="store_true",
                        help="give each job a folder, by the scripts in examples/slurm")
    parser.add_argument("--guard", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("command", nargs=argparse.REMAINDER, metavar="COMMAND")
    arguments = parser.parse_args()
    if arguments.guard:
        return guard(arguments.tracking, arguments.epilog)
    if not arguments.command:
        parser.error("which command?")
    if missing := what_is_missing(arguments.tracking):
        sys.exit(f"one_node_slurm: {missing}")
    slurm = OneNodeSlurm(arguments.tracking, arguments.epilog)
    try:
        names = ("PATH", "SLURM_CONF", "TMPDIR")
        environment = {**os.environ, **{name: slurm.environment[name] for name in names}}
        sys.exit(subprocess.call(arguments.command, env=environment))
    finally:
        slurm.stop()


if __name__ == "__main__":
    main()
