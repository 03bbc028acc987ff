"""A Slurm of one node that lives in a scratch folder and goes without a trace.

Needs Debian's packages slurm-wlm and munge, a host name "localhost", and neither root nor systemd;
tracking by cgroup needs a freezer hierarchy that this user may write to.
"""

import ctypes
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from pathlib import Path

PROGRAMS = {"slurm-wlm": ("slurmctld", "slurmd", "sbatch"), "munge": ("munged",)}
SEARCH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
FREEZER = Path("/sys/fs/cgroup/freezer")
EXAMPLES = Path(__file__).resolve().parents[2] / "examples/slurm"
START_SECONDS = 25
STOP_SECONDS = 10
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
    """folder: the scratch folder; environment: for sbatch and its like, and it becomes that of the
    jobs. TMPDIR in it is an empty folder. This process adopts what the daemons and their jobs leave."""

    def __init__(self, tracking="linuxproc", epilog=False):
        LIBC.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
        # In /tmp whatever TMPDIR says: a socket's path has to be short.
        self.folder = Path(tempfile.mkdtemp(prefix="tavrel_farm_", dir="/tmp"))
        # A name of its own, since the node's control group bears it.
        self.node = f"farm{os.getpid()}"
        self.daemons = []
        self.environment = {"PATH": SEARCH, "HOME": str(self.folder), "LANG": "C.UTF-8",
                            "SLURM_CONF": str(self.folder / "slurm.conf"),
                            "TMPDIR": str(self.folder / "tmp")}
        try:
            self._configure(tracking, epilog)
            self._start_daemons()
        except BaseException:
            self.stop()
            raise

    def run(self, *command):
        """Standard output of a Slurm command, which must succeed."""
        return subprocess.run(command, env=self.environment, cwd=self.folder, text=True, check=True,
                              stdout=subprocess.PIPE, timeout=START_SECONDS).stdout.strip()

    def stop(self):
        """Returns when nothing is left."""
        while self.daemons:
            daemon = self.daemons.pop()
            daemon.terminate()
            try:
                daemon.wait(STOP_SECONDS)
            except subprocess.TimeoutExpired:
                daemon.kill()
                daemon.wait()
        # Steps and jobs outlive slurmd, and what they leave comes here when they end.
        children = Path(f"/proc/self/task/{os.getpid()}/children")
        while pids := children.read_text().split():
            for pid in map(int, pids):
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
        for group, _, _ in os.walk(FREEZER / f"slurm_{self.node}", topdown=False):
            os.rmdir(group)
        shutil.rmtree(self.folder)

    def _configure(self, tracking, epilog):
        for name in ("state", "spool", "tmp", "jobs"):
            (self.folder / name).mkdir(mode=0o700)
        (self.folder / "munge.key").touch(0o600)
        (self.folder / "munge.key").write_bytes(os.urandom(1024))
        for script in ("prolog.sh", "task-prolog.sh", "epilog.sh") if epilog else ():
            text = (EXAMPLES / script).read_text()
            (self.folder / script).write_text(text.replace(EPILOG_BASE, str(self.folder / "jobs")))
            (self.folder / script).chmod(0o700)
        # Both are held until the second is known, so that they differ.
        sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(2)]
        ports = [each.getsockname()[1] for each in sockets]
        for each in sockets:
            each.close()
        user = subprocess.check_output(["id", "-un"], text=True).strip()
        text = CONFIGURATION + (EPILOG if epilog else "")
        (self.folder / "slurm.conf").write_text(text.format(
            user=user, folder=self.folder, ports=ports, tracking=tracking, node=self.node))
        if tracking == "cgroup":
            (self.folder / "cgroup.conf").write_text(CGROUP_CONFIGURATION)

    def _start_daemons(self):
        munge = self.folder / "munge.socket"
        self._launch("munged", "--foreground", "--force", f"--key-file={self.folder}/munge.key",
                     f"--socket={munge}", f"--pid-file={self.folder}/munged.pid",
                     f"--log-file={self.folder}/munged.log", f"--seed-file={self.folder}/seed")
        self._await("MUNGE", munge.exists)
        self._launch("slurmctld", "-D", "-c")
        self._await("slurmctld", lambda: "UP" in self.run("scontrol", "ping"))
        self._launch("slurmd", "-D", "-c", "-N", self.node)
        self._await("idle node", lambda: self.run("sinfo", "-h", "-o", "%t") == "idle")

    def _launch(self, program, *arguments):
        with open(self.folder / f"{program}.out", "ab") as output:
            # A test that is killed takes its daemons along.
            self.daemons.append(subprocess.Popen(
                [shutil.which(program, path=SEARCH), *arguments], env=self.environment,
                cwd=self.folder, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                start_new_session=True,
                preexec_fn=lambda: LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGTERM, 0, 0, 0)))

    def _await(self, what, holds):
        def is_up():
            daemon = self.daemons[-1]
            if daemon.poll() is not None:
                output = self.folder / f"{Path(daemon.args[0]).name}.out"
                raise ChildProcessError(f"no {what}: {output.read_text(errors='replace')}")
            try:
                return holds()
            except subprocess.CalledProcessError:
                return False
        await_condition(what, is_up, START_SECONDS)
